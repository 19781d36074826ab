#include "tests/support/process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/expect.h"
#include "tests/support/scratch.h"

std::vector<std::string> runnable(std::vector<std::string> command)
{
    std::istringstream emulator(ZQ_TEST_EMULATOR);
    auto program = std::find_if(command.begin(), command.end(), [](const std::string &word) {
        return word.starts_with(ZQ_TEST_BINARY "/");
    });
    if (program != command.end())
        command.insert(program, std::istream_iterator<std::string>(emulator), {});
    return command;
}

static pid_t start(const std::vector<std::string> &command, const std::string &in,
                   const std::string &out, const std::string &err)
{
    pid_t child = fork();
    if (child != 0)
        return child;
    const std::vector<std::string> words = runnable(command);
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const int flags = O_WRONLY | O_CREAT | O_APPEND;
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), flags, 0600), 1);
    dup2(open(err.c_str(), flags, 0600), 2);
    execvp(arguments[0], arguments.data());
    fprintf(stderr, "%s cannot be run\n", arguments[0]);
    _exit(127);
}

static int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Outcome run(const std::vector<std::string> &command, const std::string &input)
{
    Scratch scratch;
    std::string in = scratch.write("in", input);
    int status = wait_for(start(command, in, scratch.file("out"), scratch.file("err")));
    return {status, read_file(scratch.file("out")), read_file(scratch.file("err"))};
}

void in_child(const std::function<void()> &body)
{
    constexpr int skipped = 77;
    if (faults_injected())
        GTEST_SKIP() << "paths of a child are not walked";
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        exit(testing::Test::HasFailure() ? 1 : testing::Test::IsSkipped() ? skipped : 0);
    }
    const int status = wait_for(child);
    if (status == skipped)
        GTEST_SKIP();
    EXPECT_EQ(status, 0);
}

Process::Process(const std::vector<std::string> &command, const std::string &output_file)
{
    std::string output = output_file.empty() ? "/dev/null" : output_file;
    child = start(command, "/dev/null", output, output);
}

Process::~Process()
{
    stop(SIGKILL);
}

int Process::stop(int signal)
{
    if (child <= 0)
        return -1;
    kill(child, signal);
    int status = wait_for(child);
    child = 0;
    return status;
}

static sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

int free_port()
{
    int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof(address);
    bind(sock, reinterpret_cast<sockaddr *>(&address), size);
    getsockname(sock, reinterpret_cast<sockaddr *>(&address), &size);
    close(sock);
    return ntohs(address.sin_port);
}

bool wait_for_port(int port)
{
    for (int attempt = 0; attempt < 1000; attempt++) {
        int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(port);
        int result = connect(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        close(sock);
        if (result == 0)
            return true;
        usleep(10000);
    }
    return false;
}

size_t address_space(pid_t process)
{
    const std::string pages = read_file("/proc/" + std::to_string(process) + "/statm");
    return std::stoul(pages) * static_cast<size_t>(getpagesize());
}

size_t open_descriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count++;
    return count - 1; // the iterator's own
}
