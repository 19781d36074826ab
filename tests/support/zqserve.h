#ifndef TESTS_SUPPORT_ZQSERVE_H
#define TESTS_SUPPORT_ZQSERVE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

// A zqserve of its own for a test, on a port that the system picks, serving www().
class Zqserve {
  public:
    Zqserve();

    const std::string &www() const { return root; }
    const std::string &url() const { return base; }
    uint32_t port() const
    {
        return static_cast<uint32_t>(std::stoul(base.substr(base.rfind(':') + 1)));
    }
    pid_t pid() const { return process->pid(); }
    // What it has printed, the library's log lines among it.
    std::string messages() const { return read_file(scratch.file("serve.out")); }
    std::string access_log() const { return read_file(scratch.file("access.log")); }
    int stop(int signal) { return process->stop(signal); }

  private:
    Scratch scratch;
    std::string root;
    std::string base;
    std::unique_ptr<Process> process;
};

inline std::string example(const std::string &name)
{
    return std::string(ZQ_TEST_BINARY "/examples/") + name;
}

#endif
