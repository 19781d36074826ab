#ifndef TESTS_SUPPORT_SMALL_STACK_H
#define TESTS_SUPPORT_SMALL_STACK_H

#include <functional>

// Runs `body` on a thread with a stack of 256 KiB, the least that the library is used with: work
// that recurses with the depth or length of its input ends the test there.
void on_small_stack(const std::function<void()> &body);

#endif
