#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <csignal>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

// The command as this machine can run it: a program of this build that is for another machine goes
// through the emulator, also when another program such as env starts it.
std::vector<std::string> runnable(std::vector<std::string> command);

// Runs a program to its end.
struct Outcome {
    int status; // exit status, or 128 plus the signal that ended it
    std::string out;
    std::string err;
};
Outcome run(const std::vector<std::string> &command, const std::string &input = "");

// Runs `body` as a test in a process of its own, whose limits and user it may change. What fails or
// is skipped there fails or is skipped here. While faults are injected it is always skipped.
void in_child(const std::function<void()> &body);

// A program in the background, ended by its own pid at the latest when the object goes.
class Process {
  public:
    explicit Process(const std::vector<std::string> &command, const std::string &output_file = "");
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return child; }
    // Sends the signal and waits; the result is as in Outcome.
    int stop(int signal);

  private:
    pid_t child;
};

// A TCP port of the loopback addresses that was free a moment ago.
int free_port();

// Waits until somebody accepts connections on the loopback port; false after ten seconds.
bool wait_for_port(int port);

// The bytes of address space that a process has taken.
size_t address_space(pid_t process);

// The number of descriptors that this process has open.
size_t open_descriptors();

#endif
