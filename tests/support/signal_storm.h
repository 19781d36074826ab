#ifndef TESTS_SUPPORT_SIGNAL_STORM_H
#define TESTS_SUPPORT_SIGNAL_STORM_H

#include <atomic>
#include <csignal>
#include <thread>
#include <utility>

// A thousand times a second for its lifetime, a signal to every thread of the process, those that
// the library starts included. The handler does nothing and was installed without SA_RESTART, so
// that calls of the system which wait end with EINTR.
class SignalStorm {
  public:
    SignalStorm();
    ~SignalStorm();
    SignalStorm(const SignalStorm &) = delete;
    SignalStorm &operator=(const SignalStorm &) = delete;

  private:
    std::atomic<bool> over{false};
    std::thread thread;
};

// Keeps the signals from this thread for its lifetime.
class Shelter {
  public:
    Shelter();
    ~Shelter();
    Shelter(const Shelter &) = delete;
    Shelter &operator=(const Shelter &) = delete;

  private:
    sigset_t before;
};

// An object made under shelter, which its threads inherit: a test's own other end.
template <class T, class... Arguments>
T sheltered(Arguments &&...arguments)
{
    Shelter shelter;
    return T(std::forward<Arguments>(arguments)...);
}

#endif
