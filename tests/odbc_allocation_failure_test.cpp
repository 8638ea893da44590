// SPDX-License-Identifier: MIT
//
// No memory, at every single place where the library asks for some: each call
// is repeated with its first, second, third, ... allocation failing until none
// fails any more. Every time std::bad_alloc leaves the call, no handle and no
// block stays behind, and the connection goes on.
//
// This program replaces operator new, so that it can tell and fail what the
// library allocates (not what the scripted database does, which runs inside of
// the library's calls).
//
// Sections: the allocator; attempts; executions; how long buffers live;
// connections; sizes that no memory can hold.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/odbc_parameters.h"
#include "support/scripted_odbc_fixture.h"

// ---------------------------------------------------------------------------
// The allocator
// ---------------------------------------------------------------------------

namespace {

/// What the library allocates on this thread.
struct Watched {
  bool library_at_work = false;
  bool database_at_work = false;
  long until_failure = 0;  ///< 0: none is going to fail
  long allocations = 0;
  long live = 0;
};
thread_local Watched g_watched;

/// In front of every block.
struct alignas(std::max_align_t) Header {
  bool counted;
};

// Sizes that the sanitizer's allocator aborts on instead of refusing them.
constexpr std::size_t kMost = std::size_t{1} << 40U;

void* allocate(std::size_t size) {
  Watched& watched = g_watched;
  const bool counted = watched.library_at_work && !watched.database_at_work;
  if (counted) {
    ++watched.allocations;
    if (watched.until_failure > 0 && --watched.until_failure == 0) {
      return nullptr;
    }
  }
  if (size > kMost) return nullptr;
  void* const block = std::malloc(sizeof(Header) + size);
  if (block == nullptr) return nullptr;
  if (counted) ++watched.live;
  return ::new (block) Header{counted} + 1;
}

void release(void* memory) {
  if (memory == nullptr) return;
  Header* const header = static_cast<Header*>(memory) - 1;
  if (header->counted) --g_watched.live;
  std::free(header);
}

void* allocate_or_throw(std::size_t size) {
  void* const memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocate_or_throw(size); }
void* operator new[](std::size_t size) { return allocate_or_throw(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  release(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  release(memory);
}

/// Called by the scripted database (scripted_odbc_engine.h).
extern "C" __attribute__((visibility("default"))) void scripted_odbc_at_work(
    bool entered) {
  g_watched.database_at_work = entered;
}

namespace {

using namespace odbc_parameters;
using namespace scripted_odbc;

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

// ---------------------------------------------------------------------------
// Attempts
// ---------------------------------------------------------------------------

/// Counts the library's allocations for as long as it lives, and fails one.
class Watch {
 public:
  explicit Watch(long fail_at) {
    g_watched.allocations = 0;
    g_watched.until_failure = fail_at;
    g_watched.library_at_work = true;
  }
  ~Watch() {
    g_watched.library_at_work = false;
    g_watched.until_failure = 0;
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
};

constexpr char kNoMemory[] = "no memory";

/// What a call came to: "true", "false", or the exception that left it.
template <typename Act>
std::string attempt(long fail_at, const Act& act) {
  const char* outcome = "true";
  try {
    const Watch watch(fail_at);
    if (!act()) outcome = "false";
  } catch (const std::bad_alloc&) {
    outcome = kNoMemory;
  } catch (const std::range_error&) {
    outcome = "range error";
  }
  return outcome;
}

/// Whether the allocation that was to fail was asked for in the last attempt.
bool reached(long fail_at) { return g_watched.allocations >= fail_at; }

/// Longer than what a string keeps inside of itself.
std::string long_text(char c) { return std::string(60, c); }

class AllocationFailure : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script().result_for("still there?", {});
  }

  /// What the script of the test makes fail works here, see fails().
  bool works(void* connection) {
    asks_if_it_works_ = true;
    ZirdbOdbcResult result;
    const bool ok = zirdb_odbc_execute(connection, "still there?", &result);
    asks_if_it_works_ = false;
    return ok;
  }

 public:
  /// Every call fails with these diagnostics, except for those of works().
  static void fails(const char* where, const Diagnostics& diagnostics = {}) {
    script().on(where, [diagnostics](const Call&) -> std::optional<Reply> {
      if (asks_if_it_works_) return std::nullopt;
      return Reply{false, SQL_ERROR, diagnostics};
    });
  }

 private:
  static inline bool asks_if_it_works_ = false;
};

// ---------------------------------------------------------------------------
// Executions
// ---------------------------------------------------------------------------

struct Execution {
  const char* name;
  std::function<void()> arrange;
  Parameters parameters;
  // Of the attempt without a failing allocation.
  const char* outcome;
  std::string error;
  long least_allocations;
  long least_in_read_back = 0;
};

void PrintTo(const Execution& execution, std::ostream* out) {
  *out << execution.name;
}

class FailingExecution : public AllocationFailure,
                         public testing::WithParamInterface<Execution> {};

/// Parameters are read back in order: those before the one that failed are
/// done, those behind it are as they were.
void expect_read_back_in_order(const Parameters& parameters,
                               const Parameters& before,
                               const Parameters& done) {
  const std::vector<std::string> now = describe(parameters);
  const std::vector<std::string> as_before = describe(before);
  const std::vector<std::string> as_done = describe(done);
  std::size_t i = 0;
  while (i < now.size() && now[i] == as_done[i]) ++i;
  for (++i; i < now.size(); ++i) EXPECT_EQ(now[i], as_before[i]) << i;
}

TEST_P(FailingExecution, LeavesNothingBehind) {
  const Execution& execution = GetParam();
  execution.arrange();
  void* const connection = open();
  const std::string sql = "statement";

  std::optional<ZirdbOdbcResult> result(std::in_place);
  std::optional<Parameters> parameters(execution.parameters);
  const auto execute = [&] {
    return zirdb_odbc_execute(connection, sql, &*parameters, &*result);
  };
  const long live = g_watched.live;
  EXPECT_EQ(attempt(0, execute), execution.outcome);
  EXPECT_EQ(result->error, execution.error);
  const Parameters done = *parameters;

  long failed = 0;
  long in_read_back = 0;
  for (;; ++failed) {
    result.reset();
    parameters.reset();
    EXPECT_EQ(g_watched.live, live) << "after allocation " << failed;
    result.emplace();
    parameters.emplace(execution.parameters);
    script().clear_log();

    const std::string outcome = attempt(failed + 1, execute);
    if (!reached(failed + 1)) {
      EXPECT_EQ(outcome, execution.outcome);
      break;
    }

    EXPECT_EQ(outcome, kNoMemory) << "at allocation " << failed + 1;
    EXPECT_EQ(script().live("STMT"), 0U) << "at allocation " << failed + 1;
    if (script().count("SQLRowCount") == 0) {
      EXPECT_EQ(describe(*parameters), describe(execution.parameters));
    } else {
      expect_read_back_in_order(*parameters, execution.parameters, done);
      ++in_read_back;
    }
    EXPECT_TRUE(works(connection)) << "after allocation " << failed + 1;
  }
  EXPECT_GE(failed, execution.least_allocations);
  EXPECT_GE(in_read_back, execution.least_in_read_back);
}

ZirdbOdbcValue all_of(std::int32_t kind) {
  return {static_cast<Kind>(kind),
          true,
          1,
          1.5,
          long_text('t'),
          std::vector<unsigned char>(60, 'b')};
}

/// One of each C type, by type code and by kind.
Parameters of_every_kind(std::int64_t direction) {
  return {
      parameter(kInteger, direction, 80, all_of(2)),
      parameter(kBigint, direction, 80, all_of(2)),
      parameter(kBoolean, direction, 80, all_of(1)),
      parameter(kVarchar, direction, 80, all_of(4)),
      parameter(kGuid, direction, 80, all_of(4)),
      parameter(kVarwchar, direction, 80, all_of(4)),
      parameter(kVarbinary, direction, 80, all_of(5)),
      parameter(kByKind, direction, 80, all_of(0)),
      parameter(kByKind, direction, 80, all_of(1)),
      parameter(kByKind, direction, 80, all_of(2)),
      parameter(kByKind, direction, 80, all_of(3)),
      parameter(kByKind, direction, 80, all_of(4)),
      parameter(kByKind, direction, 80, all_of(5)),
  };
}

void columns_and_rows() {
  ScriptedOdbc::script().columns({{long_text('i'), SQL_INTEGER},
                                  {long_text('d'), SQL_DOUBLE},
                                  {long_text('b'), SQL_BIT},
                                  {long_text('t'), SQL_VARCHAR},
                                  {long_text('w'), SQL_WVARCHAR},
                                  {long_text('g'), SQL_GUID},
                                  {long_text('x'), SQL_VARBINARY}});
  const Cell text = cell(std::string(2500, 't'));
  ScriptedOdbc::script().rows(
      2, {cell(1), cell(1.5), cell(true), text, text.no_total(),
          cell(long_text('g')), binary(std::string(2500, 'x'))});
  ScriptedOdbc::script().row({null_cell(), null_cell(), null_cell(),
                              null_cell(), null_cell(), null_cell(),
                              null_cell()});
}

void outputs() {
  const auto note = [](int number, const Cell& value) {
    ScriptedOdbc::script().output(number, value);
  };
  note(1, cell(7));
  note(2, cell(7));
  note(3, cell(false));
  note(4, cell(std::string(70, 'c')));
  note(5, cell(std::string(70, 'g')));
  note(6, cell(std::string(70, 'w')));
  note(7, binary(std::string(70, 'x')));
  note(8, cell(std::string(70, 'n')));
  note(12, null_cell());
  note(13, null_cell());
}

const std::string kBroken = "broken: " + long_text('!');

std::vector<Execution> executions() {
  using Failing = AllocationFailure;
  const Diagnostics broken{"HY000", 7, kBroken};
  const std::string error = "HY000: " + kBroken;
  Parameters unknown_kind = of_every_kind(kInput);
  unknown_kind.push_back(parameter(kByKind, kInput, 0, all_of(99)));
  Parameters not_utf8 = of_every_kind(kInput);
  not_utf8.push_back(
      parameter(kVarwchar, kInput, 0, text(long_text('a') + "\xFF")));
  const Parameters wide{parameter(kVarwchar, kOutput, 80, all_of(4))};
  return {
      {"Rows", columns_and_rows, {}, "true", "", 20},
      {"Inputs", [] {}, of_every_kind(kInput), "true", "", 7},
      {"InputOutputs", outputs, of_every_kind(kInputOutput), "true", "", 12, 4},
      {"Outputs", outputs, of_every_kind(kOutput), "true", "", 12, 4},
      {"OutputsAndRows",
       [] {
         columns_and_rows();
         outputs();
       },
       of_every_kind(kOutput), "true", "", 32, 4},
      {"UnknownKind", [] {}, unknown_kind, "false",
       "unsupported parameter type", 5},
      {"InvalidUtf8", [] {}, not_utf8, "range error", "", 5},
      {"InvalidUtf16",
       [] {
         ScriptedOdbc::script().output(
             1,
             raw(bytes_of(std::u16string(60, u'a') + char16_t{0xDC00}), 122));
       },
       wide, "range error", "", 2, 1},
      {"RefusedStatement",
       [] { Failing::fails("SQLAllocHandle(STMT)"); },
       {},
       "false",
       "Unable to allocate ODBC statement",
       1},
      {"RefusedExecDirect",
       [broken] { Failing::fails("SQLExecDirect", broken); },
       {},
       "false",
       error,
       1},
      {"RefusedPrepare", [broken] { Failing::fails("SQLPrepare", broken); },
       of_every_kind(kInput), "false", error, 1},
      {"RefusedBind",
       [broken] { Failing::fails("SQLBindParameter(13)", broken); },
       of_every_kind(kInput), "false", error, 8},
      {"RefusedExecute", [broken] { Failing::fails("SQLExecute", broken); },
       of_every_kind(kInput), "false", error, 8},
      {"RefusedColumnCount",
       [broken] { Failing::fails("SQLNumResultCols", broken); },
       {},
       "false",
       error,
       1},
      {"RefusedColumn",
       [broken] {
         columns_and_rows();
         Failing::fails("SQLDescribeCol(7)", broken);
       },
       {},
       "false",
       error,
       7},
      {"RefusedCell",
       [broken] {
         columns_and_rows();
         Failing::fails("SQLGetData(7)", broken);
       },
       {},
       "false",
       error,
       10},
      {"NoDiagnostics",
       [] { Failing::fails("SQLExecDirect"); },
       {},
       "false",
       "ODBC operation failed",
       1},
  };
}

INSTANTIATE_TEST_SUITE_P(Of, FailingExecution, testing::ValuesIn(executions()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// How long buffers live
// ---------------------------------------------------------------------------

// A driver may look at its bindings until their statement is released, which
// follows a success, a refusal, and text that cannot be read back.
TEST_F(AllocationFailure, BuffersOutliveTheStatement) {
  long bound = 0;
  script().on("SQLExecute", [&](const Call&) -> std::optional<Reply> {
    bound = g_watched.live;
    return std::nullopt;
  });
  long released = 0;
  script().on("SQLFreeHandle(STMT)", [&](const Call&) -> std::optional<Reply> {
    released = g_watched.live;
    return std::nullopt;
  });
  void* const connection = open();
  const auto check = [&](const char* outcome) {
    Parameters parameters = of_every_kind(kInputOutput);
    ZirdbOdbcResult result;
    const long live = g_watched.live;
    EXPECT_EQ(attempt(0,
                      [&] {
                        return zirdb_odbc_execute(connection, "call",
                                                  &parameters, &result);
                      }),
              outcome);
    EXPECT_GT(bound, live) << outcome;
    EXPECT_GE(released, bound) << outcome;
  };

  check("true");
  script().output(6, raw(bytes_of(std::u16string{0xDC00}), 2));
  check("range error");
  fails("SQLNumResultCols", {"HY000", 7, "refused"});
  check("false");
}

// ---------------------------------------------------------------------------
// Connections
// ---------------------------------------------------------------------------

struct Opening {
  const char* name;
  const char* refused;  ///< null: the connection opens
  const char* outcome;
  std::string error;
  long least_allocations;
};

void PrintTo(const Opening& opening, std::ostream* out) {
  *out << opening.name;
}

class FailingConnection : public AllocationFailure,
                          public testing::WithParamInterface<Opening> {};

TEST_P(FailingConnection, LeavesNothingBehind) {
  const Opening& opening = GetParam();
  if (opening.refused != nullptr) {
    fails(opening.refused, {"08001", 7, kBroken});
  }
  const std::string where = connection_string();

  void* connection = nullptr;
  std::optional<std::string> error(std::in_place);
  const auto opens = [&] {
    return zirdb_odbc_open(where, &connection, &*error);
  };
  const long live = g_watched.live;
  EXPECT_EQ(attempt(0, opens), opening.outcome);
  EXPECT_EQ(*error, opening.error);

  long failed = 0;
  for (;; ++failed) {
    zirdb_odbc_close(connection);
    error.reset();
    EXPECT_EQ(g_watched.live, live) << "after allocation " << failed;
    error.emplace();
    // Whatever it points to must be gone.
    connection = this;

    const std::string outcome = attempt(failed + 1, opens);
    if (!reached(failed + 1)) {
      EXPECT_EQ(outcome, opening.outcome);
      break;
    }

    EXPECT_EQ(outcome, kNoMemory) << "at allocation " << failed + 1;
    EXPECT_EQ(connection, nullptr) << "at allocation " << failed + 1;
    for (const char* const type : {"ENV", "DBC", "STMT"}) {
      EXPECT_EQ(script().live(type), 0U)
          << type << " at allocation " << failed + 1;
    }
    connection = nullptr;
  }
  EXPECT_GE(failed, opening.least_allocations);
  zirdb_odbc_close(connection);
}

std::vector<Opening> openings() {
  std::vector<Opening> all{
      {"Open", nullptr, "true", "", 1},
      {"RefusedConnect", "SQLDriverConnect", "false", "08001: " + kBroken, 2},
  };
  // The driver manager has answers of its own to the others.
  if (!ScriptedOdbc::is_driver()) {
    all.push_back({"RefusedEnvironment", "SQLAllocHandle(ENV)", "false",
                   "Unable to allocate ODBC environment", 2});
    all.push_back(
        {"RefusedVersion", "SQLSetEnvAttr", "false", "08001: " + kBroken, 2});
    all.push_back({"RefusedHandle", "SQLAllocHandle(DBC)", "false",
                   "Unable to allocate ODBC connection", 2});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Of, FailingConnection, testing::ValuesIn(openings()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// Sizes that no memory can hold
// ---------------------------------------------------------------------------

TEST_F(AllocationFailure, AHugeDeclaredSizeOfAnOutputIsNoMemory) {
  const struct {
    Type type;
    std::int64_t size;
  } table[] = {
      {kVarchar, 1LL << 50U},   {kVarchar, 1LL << 60U},
      {kGuid, 1LL << 50U},      {kGuid, 1LL << 60U},
      {kVarwchar, 1LL << 50U},  {kVarwchar, 1LL << 60U},
      {kVarbinary, 1LL << 50U}, {kVarbinary, 1LL << 60U},
      {kVarbinary, kLargest},   {kByKind, 1LL << 50U},
      {kByKind, 1LL << 60U},
  };
  void* const connection = open();
  for (const auto& row : table) {
    for (const std::int64_t direction : {kOutput, kInputOutput, kReturnValue}) {
      script().clear_log();
      const Parameters before{
          parameter(kInteger, kOutput, 0, integer(1)),
          parameter(row.type, direction, row.size, null_value())};
      Parameters parameters = before;
      ZirdbOdbcResult result;

      EXPECT_EQ(attempt(0,
                        [&] {
                          return zirdb_odbc_execute(connection, "call",
                                                    &parameters, &result);
                        }),
                kNoMemory)
          << row.type << " " << direction << " " << row.size;

      EXPECT_EQ(describe(parameters), describe(before));
      EXPECT_EQ(script().count("SQLBindParameter"), 1U);
      EXPECT_EQ(script().live("STMT"), 0U);
      EXPECT_TRUE(works(connection));
    }
  }
}

}  // namespace
