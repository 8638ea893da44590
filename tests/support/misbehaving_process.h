// SPDX-License-Identifier: MIT
//
// Programs that a test runs, and parts of the test's own program in a process
// of their own: how they ended and what they printed. Bounded in time.

#ifndef ZIRDB_TESTS_SUPPORT_MISBEHAVING_PROCESS_H
#define ZIRDB_TESTS_SUPPORT_MISBEHAVING_PROCESS_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace misbehaving {

/// How a process ended: "exit 3", or "signal 11", and all that it printed.
struct Ending {
  std::string how;
  std::string printed;
};

inline std::string how_it_ended(int status) {
  return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                           : "signal " + std::to_string(WTERMSIG(status));
}

/// Runs `body` in a child process. Where it returns, the child ends with
/// _exit(0).
class Child {
 public:
  explicit Child(const std::function<void()>& body) : output_(std::tmpfile()) {
    if (output_ == nullptr) throw std::runtime_error("no temporary file");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no child");
    if (pid_ != 0) return;
    constexpr unsigned kSeconds = 60;
    alarm(kSeconds);
    dup2(fileno(output_), STDOUT_FILENO);
    dup2(fileno(output_), STDERR_FILENO);
    try {
      body();
    } catch (const std::exception& failure) {
      std::printf("%s\n", failure.what());
      std::fflush(nullptr);
      _exit(1);
    }
    std::fflush(nullptr);
    _exit(0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) ending();
    if (output_ != nullptr) std::fclose(output_);
  }

  pid_t pid() const { return pid_; }

  /// Waits for it.
  Ending ending() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    Ending ending = {how_it_ended(status), {}};
    std::rewind(output_);
    for (int c = 0; (c = std::fgetc(output_)) != EOF;) {
      ending.printed += static_cast<char>(c);
    }
    return ending;
  }

 private:
  std::FILE* output_;
  pid_t pid_ = 0;
};

inline Ending in_child(const std::function<void()>& body) {
  return Child(body).ending();
}

/// Runs a program.
inline Ending run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& each : command) {
    arguments.push_back(const_cast<char*>(each.c_str()));
  }
  arguments.push_back(nullptr);
  return in_child([&] {
    execv(arguments[0], arguments.data());
    throw std::runtime_error("no program " + command[0]);
  });
}

inline void expect_ended(const Ending& ending, const std::string& how) {
  EXPECT_EQ(ending.how, how);
  EXPECT_EQ(ending.printed, "");
}

}  // namespace misbehaving

#endif  // ZIRDB_TESTS_SUPPORT_MISBEHAVING_PROCESS_H
