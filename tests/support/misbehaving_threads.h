// SPDX-License-Identifier: MIT
//
// Threads that may be cancelled, for tests of hosts that do so.

#ifndef ZIRDB_TESTS_SUPPORT_MISBEHAVING_THREADS_H
#define ZIRDB_TESTS_SUPPORT_MISBEHAVING_THREADS_H

#include <pthread.h>

#include <functional>
#include <stdexcept>
#include <utility>

namespace misbehaving {

/// Runs `body` in a thread of the C library, because those of C++ cannot be
/// cancelled.
class Thread {
 public:
  explicit Thread(std::function<void()> body) : body_(std::move(body)) {
    if (pthread_create(&thread_, nullptr, run, &body_) != 0) {
      throw std::runtime_error("no thread");
    }
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  ~Thread() {
    if (!joined_) join();
  }

  void cancel() { pthread_cancel(thread_); }
  /// What the thread ended with: NULL, or PTHREAD_CANCELED.
  void* join() {
    joined_ = true;
    void* result = nullptr;
    pthread_join(thread_, &result);
    return result;
  }

 private:
  static void* run(void* body) {
    (*static_cast<std::function<void()>*>(body))();
    return nullptr;
  }

  std::function<void()> body_;
  pthread_t thread_{};
  bool joined_ = false;
};

/// Cancels the thread that calls it, at its next cancellation point.
inline void cancel_this_thread() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  pthread_cancel(pthread_self());
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

}  // namespace misbehaving

#endif  // ZIRDB_TESTS_SUPPORT_MISBEHAVING_THREADS_H
