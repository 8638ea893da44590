// SPDX-License-Identifier: MIT
//
// What a call prints on standard output, such as the runtime's stub lines.

#ifndef ZIRDB_TESTS_SUPPORT_PRINTED_H
#define ZIRDB_TESTS_SUPPORT_PRINTED_H

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace printed {

/// Sends standard output into a temporary file while it lives.
class Capture {
 public:
  Capture() : file_(std::tmpfile()), terminal_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    if (!file_ || terminal_ < 0 ||
        dup2(fileno(file_.get()), STDOUT_FILENO) < 0) {
      throw std::runtime_error("cannot redirect standard output");
    }
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  ~Capture() {
    std::fflush(stdout);
    dup2(terminal_, STDOUT_FILENO);
    close(terminal_);
  }

  /// Everything printed so far.
  std::string text() {
    std::fflush(stdout);
    std::string text;
    char block[4096];
    std::rewind(file_.get());
    std::size_t count = 0;
    while ((count = std::fread(block, 1, sizeof block, file_.get())) > 0) {
      text.append(block, count);
    }
    return text;
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_;
  int terminal_;
};

/// What `act` prints. Its result, if any, is kept by what it captures.
template <class Act>
std::string by(Act act) {
  Capture capture;
  act();
  return capture.text();
}

/// The line of something that is not implemented.
inline std::string stub_line(const std::string& function, int line,
                             const std::string& detail) {
  return "###" + function + ": Implement here 'zir' line " +
         std::to_string(line) + ". (" + detail + ")\n";
}

}  // namespace printed

#endif  // ZIRDB_TESTS_SUPPORT_PRINTED_H
