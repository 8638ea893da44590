// SPDX-License-Identifier: MIT
//
// A database server of a test's own, which it may stop and run again. It lives
// in a temporary folder, is reached through a unix socket in it, ends by itself
// after five minutes, and is stopped by process id (servers.sh).

#ifndef ZIRDB_TESTS_SUPPORT_PRIVATE_SERVER_H
#define ZIRDB_TESTS_SUPPORT_PRIVATE_SERVER_H

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "support/database.h"

namespace zirdb_test {

class PrivateServer {
 public:
  explicit PrivateServer(const Driver& driver) : name_(driver.server) {
    try {
      act("start");
    } catch (const std::exception&) {
      stop();
      throw;
    }
  }
  PrivateServer(const PrivateServer&) = delete;
  PrivateServer& operator=(const PrivateServer&) = delete;
  ~PrivateServer() { stop(); }

  std::string connection_string() const {
    std::ifstream file(folder_.path() + "/" + name_ + ".connection");
    std::string line;
    std::getline(file, line);
    return line;
  }

  /// Stops the server; its data stay.
  void halt() { act("halt"); }
  /// Ends it without a warning, as a crash would; its data stay.
  void kill() { act("kill"); }
  void resume() { act("resume"); }

 private:
  // SERVERS_SCRIPT is servers.sh.
  int status_of(const char* action) const {
    const std::string command =
        "ZIRDB_SERVER_SECONDS=300 timeout 100 bash '" SERVERS_SCRIPT "' " +
        std::string(action) + " " + name_ + " '" + folder_.path() + "' >'" +
        folder_.path() + "/" + action + ".txt' 2>&1";
    return std::system(command.c_str());
  }
  void act(const char* action) const {
    if (status_of(action) == 0) return;
    std::ifstream file(folder_.path() + "/" + action + ".txt");
    const std::string said{std::istreambuf_iterator<char>(file), {}};
    throw std::runtime_error(name_ + " does not " + action + ": " + said);
  }
  void stop() const {
    if (status_of("stop") != 0) ADD_FAILURE() << name_ << " does not stop";
  }

  std::string name_;
  TemporaryFolder folder_;
};

}  // namespace zirdb_test

#endif  // ZIRDB_TESTS_SUPPORT_PRIVATE_SERVER_H
