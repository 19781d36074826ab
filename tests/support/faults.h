#ifndef TESTS_SUPPORT_FAULTS_H
#define TESTS_SUPPORT_FAULTS_H

#include <string>
#include <vector>

#include "tests/support/log_capture.h"

// What is logged when memory runs out, read off the allocation faults of the library itself. The
// test runs twice: plainly, where it compares, and in a program of its own, where it fails.
//
//   TEST(zqfoo, lines_without_memory)
//   {
//       if (!faults_injected()) {
//           expect_lines_without_memory("zqfoo.lines_without_memory", {...});
//           return;
//       }
//       FaultLines lines;
//       ... the scenario ...
//   }

// Runs the named test of this program under injected faults until nothing new fails. The lines of
// one step joined by "; " are an entry; each of the entries must have come up. Others may have:
// which calls count as one path and fail once is up to the compiler.
void expect_lines_without_memory(const std::string &test, const std::vector<std::string> &entries);

// Reports the lines logged in its lifetime to expect_lines_without_memory(), those of each step
// together. The log's own memory is in place before the scenario starts, so that no line is lost.
class FaultLines {
  public:
    explicit FaultLines(int level = 10);
    ~FaultLines() { step(); }
    FaultLines(const FaultLines &) = delete;
    FaultLines &operator=(const FaultLines &) = delete;

    // Ends a step.
    void step();
    // The same behind a call, whose result this passes on.
    template <class T>
    T step(T result)
    {
        step();
        return result;
    }

  private:
    LogCapture log;
};

#endif
