// SPDX-License-Identifier: MIT
//
// Work in a child process. The child writes its outcome into a pipe, "+" or "-"
// and the text; that it ends without one is an outcome, too.

#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;

// A child, which is gone when this is.
class Child {
 public:
  explicit Child(pid_t id) : id_(id) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!waited_) kill(id_, SIGKILL);
    wait();
  }

  int wait() {
    if (!waited_) waitpid(id_, &status_, 0);
    waited_ = true;
    return status_;
  }

 private:
  pid_t id_;
  int status_ = 0;
  bool waited_ = false;
};

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  int get() const { return number_; }
  void reset() {
    if (number_ >= 0) close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

Outcome attempted(const std::function<Outcome()>& work) try {
  return work();
} catch (const std::exception& error) {
  return {false, error.what()};
}

[[noreturn]] void be_child(int to, const std::function<Outcome()>& work) {
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nowhere, STDIN_FILENO);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  const Outcome outcome = attempted(work);
  const std::string message = (outcome.ok ? '+' : '-') + outcome.text;
  for (std::string_view left = message; !left.empty();) {
    const ssize_t written = write(to, left.data(), left.size());
    if (written < 0 && errno != EINTR) break;
    left.remove_prefix(static_cast<std::size_t>(written < 0 ? 0 : written));
  }
  // Not exit: what the parent is to do at its end is not the child's to do.
  _exit(0);
}

// All that arrives until the other end is closed; false when time is up.
bool read_until(Clock::time_point end, int from, std::string* message) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting = {from, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(left.count())) <= 0) continue;
    char part[4096];
    const ssize_t size = read(from, part, sizeof part);
    if (size == 0 || (size < 0 && errno != EINTR)) return true;
    if (size > 0) message->append(part, static_cast<std::size_t>(size));
  }
}

}  // namespace

Outcome in_child(std::chrono::seconds limit,
                 const std::function<Outcome()>& work) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return {false, "no pipe: " + std::string(std::strerror(errno))};
  }
  const Descriptor from(ends[0]);
  Descriptor to(ends[1]);
  const pid_t id = fork();
  if (id < 0) {
    return {false, "no process: " + std::string(std::strerror(errno))};
  }
  if (id == 0) be_child(to.get(), work);
  Child child(id);
  to.reset();

  std::string message;
  if (!read_until(Clock::now() + limit, from.get(), &message)) {
    return {false, "nothing after " + std::to_string(limit.count()) +
                       " seconds: given up"};
  }
  if (!message.empty()) return {message[0] == '+', message.substr(1)};
  const int status = child.wait();
  return {false,
          WIFSIGNALED(status)
              ? "crashed: " + std::string(strsignal(WTERMSIG(status)))
              : "ended with status " + std::to_string(WEXITSTATUS(status))};
}
