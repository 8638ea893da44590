// SPDX-License-Identifier: MIT
//
// Threads that begin at once, for tests that also run under ThreadSanitizer.

#ifndef ZIRDB_TESTS_SUPPORT_THREADS_H
#define ZIRDB_TESTS_SUPPORT_THREADS_H

#include <gtest/gtest.h>

#include <atomic>
#include <exception>
#include <functional>
#include <thread>
#include <vector>

namespace threads {

constexpr int kThreads = 4;

/// Lets all threads begin at once, so that they meet.
class Gate {
 public:
  void wait() {
    ++waiting_;
    while (waiting_ < kThreads) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting_{0};
};

/// Runs the body with the numbers 0, 1, ... in a thread each. What a body
/// throws fails the test.
inline void in_threads(const std::function<void(int)>& body) {
  Gate gate;
  std::vector<std::thread> running;
  for (int i = 0; i < kThreads; ++i) {
    running.emplace_back([&gate, &body, i] {
      gate.wait();
      try {
        body(i);
      } catch (const std::exception& failure) {
        ADD_FAILURE() << "thread " << i << ": " << failure.what();
      }
    });
  }
  for (std::thread& thread : running) thread.join();
}

}  // namespace threads

#endif  // ZIRDB_TESTS_SUPPORT_THREADS_H
