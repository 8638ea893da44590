// SPDX-License-Identifier: MIT
//
// A relay between a driver and its server, on unix sockets. It passes
// everything on until it is told to stop: then what comes is left where it is,
// as if the network were gone, or the connections are cut.

#ifndef ZIRDB_TESTS_SUPPORT_DYING_RELAY_H
#define ZIRDB_TESTS_SUPPORT_DYING_RELAY_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <future>
#include <limits>
#include <list>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace zirdb_test {

/// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {
    if (number < 0) throw std::system_error(errno, std::generic_category());
  }
  Descriptor(Descriptor&& other) noexcept
      : number_(std::exchange(other.number_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  int get() const { return number_; }

 private:
  int number_;
};

inline sockaddr_un unix_address(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("too long for a socket: " + path);
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

class Relay {
 public:
  /// Listens at `path` and connects to `target` for everybody who comes.
  Relay(const std::string& path, std::string target)
      : target_(std::move(target)),
        listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = unix_address(path);
    if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address),
             sizeof address) != 0 ||
        listen(listener_.get(), 16) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
    thread_ = std::thread([this] { run(); });
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay() {
    over_ = true;
    thread_.join();
  }

  /// From now on, passes so many bytes of the server's answers on and then
  /// nothing more, either way.
  void be_silent_after(std::size_t bytes) {
    passed_ = 0;
    limit_ = bytes;
  }
  /// Waits until it is silent; whether that came within some seconds.
  bool is_silent_soon() const {
    for (int i = 0; i < 2000; ++i) {
      if (passed_ >= limit_) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }
  /// Closes all connections, on both sides, and passes on what comes over new
  /// ones.
  void cut() {
    cut_ = true;
    while (cut_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
  struct Pair {
    Descriptor client;
    Descriptor server;
  };

  void run() {
    while (!over_) {
      if (cut_) {
        pairs_.clear();
        passed_ = 0;
        limit_ = kNever;
        cut_ = false;
      }
      std::vector<pollfd> watched = {{listener_.get(), POLLIN, 0}};
      if (passed_ < limit_) {
        for (const Pair& pair : pairs_) {
          watched.push_back({pair.client.get(), POLLIN, 0});
          watched.push_back({pair.server.get(), POLLIN, 0});
        }
      }
      constexpr int kMilliseconds = 5;
      if (poll(watched.data(), watched.size(), kMilliseconds) <= 0) continue;
      if ((watched[0].revents & POLLIN) != 0) admit();
      std::size_t at = 1;
      for (auto pair = pairs_.begin();
           pair != pairs_.end() && at < watched.size();) {
        const bool from_client = watched[at++].revents != 0;
        const bool from_server = watched[at++].revents != 0;
        const bool alive =
            (!from_client || pass(pair->client, pair->server, false)) &&
            (!from_server || pass(pair->server, pair->client, true));
        pair = alive ? std::next(pair) : pairs_.erase(pair);
      }
    }
  }

  void admit() {
    Descriptor client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    Descriptor server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unix_address(target_);
    if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address),
                sizeof address) != 0) {
      return;  // who came is sent away
    }
    pairs_.push_back({std::move(client), std::move(server)});
  }

  // False when either side is gone.
  bool pass(const Descriptor& from, const Descriptor& to, bool is_answer) {
    std::array<char, 4096> bytes{};
    const ssize_t got = read(from.get(), bytes.data(), bytes.size());
    if (got <= 0) return false;
    ssize_t sent = 0;
    while (sent < got && !over_ && !cut_) {
      pollfd ready = {to.get(), POLLOUT, 0};
      if (poll(&ready, 1, 5) == 0) continue;
      const ssize_t now = send(to.get(), bytes.data() + sent,
                               static_cast<std::size_t>(got - sent),
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (now <= 0 && errno != EAGAIN) return false;
      if (now > 0) sent += now;
    }
    if (is_answer) passed_ += static_cast<std::size_t>(got);
    return true;
  }

  std::string target_;
  Descriptor listener_;
  std::list<Pair> pairs_;  // the thread's
  std::atomic<std::size_t> passed_{0};
  std::atomic<std::size_t> limit_{kNever};
  std::atomic<bool> cut_{false};
  std::atomic<bool> over_{false};
  std::thread thread_;
};

}  // namespace zirdb_test

#endif  // ZIRDB_TESTS_SUPPORT_DYING_RELAY_H
