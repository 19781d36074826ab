#include "tests/support/signal_storm.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

static void strike_all_threads()
{
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        const int thread = std::stoi(task.path().filename());
        if (thread != gettid())
            syscall(SYS_tgkill, getpid(), thread, SIGUSR1); // it may have ended meanwhile
    }
}

SignalStorm::SignalStorm()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    thread = sheltered<std::thread>([this] {
        while (!over) {
            strike_all_threads();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

SignalStorm::~SignalStorm()
{
    over = true;
    thread.join();
    signal(SIGUSR1, SIG_IGN); // not the default: a signal may still be on its way
}

Shelter::Shelter()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
}

Shelter::~Shelter()
{
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
