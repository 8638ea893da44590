// SPDX-License-Identifier: MIT
//
// SQLite has no server to die, but a file that can fail: on a full disk, locked
// by somebody else, not to be written to, damaged, or left by a process that
// was killed. A script gets SQLite's text, and goes on when the cause is gone.
//
// Sections: what the tests have; full; locked; not to be written to; damaged;
// left behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "support/database.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::Error;
using scripting::error_of;
using scripting::new_connection;
using scripting::Object;
using scripting::only_value;
using scripting::shown;

// ---------------------------------------------------------------------------
// What the tests have
// ---------------------------------------------------------------------------

void expect_failed(const Error& error, const char* text) {
  EXPECT_EQ(error.code(), component::kExecuteFailedCode) << error.what();
  EXPECT_EQ(error.source(), "ZIRDB.Connection");
  EXPECT_EQ(error.text(), std::string("HY000: [SQLite]") + text);
}

Object opened(const std::string& path, const std::string& options = "") {
  Object connection = new_connection();
  connection.call("Open", "Driver={SQLite3};Database=" + path + options);
  connection("PRAGMA synchronous = OFF");
  return connection;
}

/// A table of blobs of 10,000 bytes.
void make_table(const Object& connection) {
  connection("CREATE TABLE s (b BLOB)");
}
void add_row(const Object& connection) {
  connection("INSERT INTO s VALUES (zeroblob(10000))");
}
std::string rows_in(const Object& connection) {
  return only_value(connection("SELECT COUNT(*) FROM s"));
}

/// Adds rows until that fails, and returns the failure.
Error fill(const Object& connection, int& added) {
  constexpr int kFar = 10'000;
  return error_of([&] {
    for (added = 0; added < kFar; ++added) add_row(connection);
  });
}

class DyingSqlite : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = PrivateDatabase::unavailable(kSqlite);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  const std::string& folder() const { return folder_.path(); }
  std::string file() const { return folder() + "/file.db"; }

 private:
  TemporaryFolder folder_;
};

/// A mount that only this process sees.
class Mount {
 public:
  Mount(const char* source, const std::string& target, const char* type,
        unsigned long flags, const char* data)
      : target_(target) {
    failure_ = attempt(source, type, flags, data);
  }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;
  ~Mount() {
    if (failure_.empty()) umount2(target_.c_str(), MNT_DETACH);
  }
  /// Why the machine does not allow it; empty when it is there.
  const std::string& failure() const { return failure_; }

 private:
  static bool write_to(const char* path, const std::string& text) {
    std::ofstream file(path);
    return static_cast<bool>(file << text << std::flush);
  }
  static std::string because(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
  }

  std::string attempt(const char* source, const char* type, unsigned long flags,
                      const char* data) const {
    const std::string user = std::to_string(getuid());
    const bool as_root = getuid() == 0 && unshare(CLONE_NEWNS) == 0;
    if (!as_root) {
      if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return because("unshare");
      if (!write_to("/proc/self/uid_map", user + " " + user + " 1")) {
        return because("uid_map");
      }
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return because("private mounts");
    }
    if (mount(source, target_.c_str(), type, flags, data) != 0) {
      return because("mount");
    }
    return {};
  }

  std::string target_;
  std::string failure_;
};

// ---------------------------------------------------------------------------
// Full
// ---------------------------------------------------------------------------

/// After a statement had no room: what was there before it is there, and room
/// that is made is used.
void expect_only_full(const Object& connection, int added) {
  EXPECT_GT(added, 5);
  EXPECT_EQ(rows_in(connection), "I8 " + std::to_string(added));
  EXPECT_EQ(only_value(connection("PRAGMA integrity_check")), "BSTR ok");
  connection("DELETE FROM s");
  add_row(connection);
  EXPECT_EQ(rows_in(connection), "I8 1");
}

TEST_F(DyingSqlite, AFullDisk) {
  const Mount disk("tmpfs", folder(), "tmpfs", 0, "size=256k,mode=755");
  if (!disk.failure().empty()) GTEST_SKIP() << disk.failure();
  const Object connection = opened(file());
  make_table(connection);
  int added = 0;

  const Error error = fill(connection, added);

  expect_failed(error, "database or disk is full (13)");
  // To delete, SQLite must write its journal.
  connection("PRAGMA journal_mode = MEMORY");
  expect_only_full(connection, added);
}

TEST_F(DyingSqlite, AFullDatabase) {
  const Object connection = opened(file());
  make_table(connection);
  connection("PRAGMA max_page_count = 50");
  int added = 0;

  const Error error = fill(connection, added);

  expect_failed(error, "database or disk is full (13)");
  expect_only_full(connection, added);
}

// SQLite rolls it back by itself.
TEST_F(DyingSqlite, ATransactionThatNoLongerFits) {
  const Object connection = opened(file());
  make_table(connection);
  add_row(connection);
  connection("PRAGMA max_page_count = 50");
  connection("BEGIN");
  int added = 0;

  const Error error = fill(connection, added);

  expect_failed(error, "database or disk is full (13)");
  EXPECT_EQ(rows_in(connection), "I8 1");
  expect_failed(error_of([&] { connection("ROLLBACK"); }),
                "cannot rollback - no transaction is active (1)");
  add_row(connection);
  EXPECT_EQ(rows_in(connection), "I8 2");
}

/// No file of this process may grow beyond so many bytes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit = {bytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }

 private:
  rlimit before_{};
  void (*handler_)(int);
};

TEST_F(DyingSqlite, AFileThatMustNotGrow) {
  const Object connection = opened(file());
  make_table(connection);
  int added = 0;
  {
    const FileSizeLimit limit(200'000);
    const Error error = fill(connection, added);
    expect_failed(error, "disk I/O error (10)");
  }
  expect_only_full(connection, added);
}

// ---------------------------------------------------------------------------
// Locked
// ---------------------------------------------------------------------------

TEST_F(DyingSqlite, ALockThatIsNotGivenUpInTime) {
  const Object holder = opened(file());
  make_table(holder);
  const Object other = opened(file(), ";Timeout=200");
  holder("BEGIN EXCLUSIVE");
  for (const char* text : {"SELECT COUNT(*) FROM s", "DELETE FROM s"}) {
    SCOPED_TRACE(text);
    const auto before = std::chrono::steady_clock::now();

    const Error error = error_of([&] { other(text); });

    const auto waited = std::chrono::steady_clock::now() - before;
    expect_failed(error, "database is locked (5)");
    EXPECT_GE(waited, std::chrono::milliseconds(150));
    EXPECT_LT(waited, std::chrono::seconds(10));
  }
  holder("COMMIT");
  EXPECT_EQ(rows_in(other), "I8 0");
  add_row(other);
  EXPECT_EQ(rows_in(holder), "I8 1");
}

TEST_F(DyingSqlite, ALockThatIsGivenUpInTime) {
  const Object holder = opened(file());
  make_table(holder);
  const Object other = opened(file(), ";Timeout=20000");
  holder("BEGIN EXCLUSIVE");
  std::future<std::string> rows =
      std::async(std::launch::async, [&] { return rows_in(other); });
  EXPECT_EQ(rows.wait_for(std::chrono::milliseconds(50)),
            std::future_status::timeout);

  add_row(holder);
  holder("COMMIT");

  EXPECT_EQ(rows.get(), "I8 1");
}

// Two readers who both want to write. Waiting does not help the second one, but
// the driver does not know and waits.
TEST_F(DyingSqlite, ADeadlockVictim) {
  const Object first = opened(file(), ";Timeout=100");
  make_table(first);
  const Object second = opened(file(), ";Timeout=100");
  first("BEGIN");
  second("BEGIN");
  EXPECT_EQ(rows_in(first), "I8 0");
  EXPECT_EQ(rows_in(second), "I8 0");
  add_row(first);

  expect_failed(error_of([&] { add_row(second); }), "database is locked (5)");

  second("ROLLBACK");
  first("COMMIT");
  EXPECT_EQ(rows_in(second), "I8 1");
}

// ---------------------------------------------------------------------------
// Not to be written to
// ---------------------------------------------------------------------------

void expect_read_only(const Object& connection) {
  EXPECT_EQ(rows_in(connection), "I8 1");
  for (const char* text : {"DELETE FROM s", "CREATE TABLE t (n INTEGER)"}) {
    expect_failed(error_of([&] { connection(text); }),
                  "attempt to write a readonly database (8)");
  }
  EXPECT_EQ(rows_in(connection), "I8 1");
}

class ReadOnlySqlite : public DyingSqlite {
 protected:
  void SetUp() override {
    DyingSqlite::SetUp();
    if (IsSkipped()) return;
    const Object connection = opened(file());
    make_table(connection);
    add_row(connection);
  }
};

TEST_F(ReadOnlySqlite, ByAPragma) {
  const Object connection = opened(file());
  connection("PRAGMA query_only = ON");
  expect_read_only(connection);
  connection("PRAGMA query_only = OFF");
  add_row(connection);
}

/// Whom the file's mode means: root may do everything.
class AsNobody {
 public:
  explicit AsNobody(const std::string& folder) : user_(geteuid()) {
    constexpr uid_t kNobody = 65534;
    if (seteuid(user_ == 0 ? kNobody : user_) != 0) {
      failure_ = std::string("seteuid: ") + std::strerror(errno);
    } else if (euidaccess(folder.c_str(), X_OK) != 0) {
      failure_ = "nobody gets to " + folder + ": " + std::strerror(errno);
    }
  }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;
  ~AsNobody() { EXPECT_EQ(seteuid(user_), 0); }
  /// Why the machine does not allow it; empty when it does.
  const std::string& failure() const { return failure_; }

 private:
  uid_t user_;
  std::string failure_;
};

TEST_F(ReadOnlySqlite, ByTheFilesMode) {
  ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
  ASSERT_EQ(chmod(file().c_str(), 0444), 0);
  const AsNobody nobody(folder());
  if (!nobody.failure().empty()) GTEST_SKIP() << nobody.failure();
  expect_read_only(opened(file()));
}

TEST_F(ReadOnlySqlite, WhenTheFileMayNotEvenBeRead) {
  ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
  ASSERT_EQ(chmod(file().c_str(), 0), 0);
  const AsNobody nobody(folder());
  if (!nobody.failure().empty()) GTEST_SKIP() << nobody.failure();
  const Object connection = new_connection();

  const Error error = error_of(
      [&] { connection.call("Open", "Driver={SQLite3};Database=" + file()); });

  EXPECT_EQ(error.code(), component::kOpenFailedCode);
  EXPECT_EQ(error.text(), "HY000: [SQLite]connect failed");
  EXPECT_EQ(shown(connection.get("State")), "I4 0");
}

TEST_F(ReadOnlySqlite, ByTheDisk) {
  const Mount over(folder().c_str(), folder(), nullptr, MS_BIND, nullptr);
  if (!over.failure().empty()) GTEST_SKIP() << over.failure();
  if (mount(nullptr, folder().c_str(), nullptr,
            MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
    GTEST_SKIP() << "remount: " << std::strerror(errno);
  }
  expect_read_only(opened(file()));
}

// ---------------------------------------------------------------------------
// Damaged
// ---------------------------------------------------------------------------

// Nothing is read before the first statement.
TEST_F(DyingSqlite, AFileThatIsNoDatabase) {
  std::ofstream(file()) << std::string(8192, 'x');
  const Object connection = new_connection();
  connection.call("Open", "Driver={SQLite3};Database=" + file());

  expect_failed(error_of([&] { connection("SELECT 1 FROM s"); }),
                "file is not a database (26)");

  connection.call("Close");
  connection.call("Open", "Driver={SQLite3};Database=" + folder() + "/other");
  make_table(connection);
}

TEST_F(DyingSqlite, AFileThatIsDamagedWhileItIsOpen) {
  const Object connection = opened(file());
  make_table(connection);
  for (int i = 0; i < 20; ++i) add_row(connection);
  {
    std::fstream bytes(file(), std::ios::in | std::ios::out | std::ios::binary);
    bytes.seekp(4096);
    bytes << std::string(20'000, '\xFF');
  }
  const Object other = opened(file());

  expect_failed(error_of([&] { other("SELECT b FROM s"); }),
                "database disk image is malformed (11)");

  other.call("Close");
  EXPECT_EQ(shown(other.get("State")), "I4 0");
}

TEST_F(DyingSqlite, AFileThatIsCutWhileItIsOpen) {
  const Object connection = opened(file());
  make_table(connection);
  for (int i = 0; i < 20; ++i) add_row(connection);
  const Object other = opened(file());
  EXPECT_EQ(rows_in(other), "I8 20");
  ASSERT_EQ(truncate(file().c_str(), 10'000), 0);
  connection("PRAGMA cache_size = 1");
  other("PRAGMA cache_size = 1");

  expect_failed(error_of([&] { other("SELECT b FROM s"); }),
                "database disk image is malformed (11)");

  other.call("Close");
}

// ---------------------------------------------------------------------------
// Left behind
// ---------------------------------------------------------------------------

// A process is killed within a transaction: its lock is gone with it, and so is
// what it wrote.
TEST_F(DyingSqlite, AProcessThatIsKilledWithinATransactionLeavesNothing) {
  {
    const Object connection = opened(file());
    make_table(connection);
    add_row(connection);
  }
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(60);
    const Object connection = opened(file());
    // What does not fit the cache is written at once.
    connection("PRAGMA cache_size = 1");
    connection("BEGIN");
    for (int i = 0; i < 50; ++i) add_row(connection);
    if (write(ready[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  const Object connection = new_connection();
  connection.call("Open", "Driver={SQLite3};Timeout=50;Database=" + file());
  expect_failed(error_of([&] { add_row(connection); }),
                "database is locked (5)");

  EXPECT_EQ(kill(child, SIGKILL), 0);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);

  EXPECT_EQ(rows_in(connection), "I8 1");
  add_row(connection);
  EXPECT_EQ(rows_in(connection), "I8 2");
  EXPECT_EQ(only_value(connection("PRAGMA integrity_check")), "BSTR ok");
}

}  // namespace
}  // namespace zirdb_test
