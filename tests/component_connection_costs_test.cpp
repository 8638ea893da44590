// SPDX-License-Identifier: MIT
//
// A recordset costs the same to release, and to be closed, however many others
// its connection has: the same number of them is timed with many alive at a
// time and with few. The database is in here, and does next to nothing.

#include <gtest/gtest.h>
#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "zir.h"
#include "zirdb.h"

// ---------------------------------------------------------------------------
// A database whose statements all have one column and no rows. These are found
// before the driver manager's; what is not here cannot be called without
// failing on the handles of these.
// ---------------------------------------------------------------------------

#pragma GCC visibility push(default)
extern "C" {

SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT /*type*/, SQLHANDLE /*parent*/,
                                 SQLHANDLE* handle) {
  static char some = 0;
  *handle = &some;
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT /*type*/, SQLHANDLE /*handle*/) {
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLSetEnvAttr(SQLHENV /*env*/, SQLINTEGER /*attribute*/,
                                SQLPOINTER /*value*/, SQLINTEGER /*length*/) {
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLDriverConnect(SQLHDBC /*dbc*/, SQLHWND /*window*/,
                                   SQLCHAR* /*in*/, SQLSMALLINT /*in_length*/,
                                   SQLCHAR* /*out*/, SQLSMALLINT /*out_size*/,
                                   SQLSMALLINT* /*out_length*/,
                                   SQLUSMALLINT /*completion*/) {
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLDisconnect(SQLHDBC /*dbc*/) { return SQL_SUCCESS; }
SQLRETURN SQL_API SQLExecDirect(SQLHSTMT /*statement*/, SQLCHAR* /*text*/,
                                SQLINTEGER /*length*/) {
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLNumResultCols(SQLHSTMT /*statement*/, SQLSMALLINT* count) {
  *count = 1;
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLDescribeCol(SQLHSTMT /*statement*/,
                                 SQLUSMALLINT /*column*/, SQLCHAR* name,
                                 SQLSMALLINT /*size*/, SQLSMALLINT* name_length,
                                 SQLSMALLINT* type, SQLULEN* column_size,
                                 SQLSMALLINT* digits, SQLSMALLINT* nullable) {
  name[0] = 'n';
  name[1] = 0;
  *name_length = 1;
  *type = SQL_INTEGER;
  *column_size = 10;
  *digits = 0;
  *nullable = SQL_NULLABLE;
  return SQL_SUCCESS;
}
SQLRETURN SQL_API SQLFetch(SQLHSTMT /*statement*/) { return SQL_NO_DATA; }
SQLRETURN SQL_API SQLRowCount(SQLHSTMT /*statement*/, SQLLEN* count) {
  *count = 0;
  return SQL_SUCCESS;
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

using component::Connection;
using component::Recordset;

constexpr std::size_t kTotal = 50000;
// As many as caches hold: what they miss would be taken for work.
constexpr std::size_t kMany = 10000;
constexpr std::size_t kFew = 500;
/// Work that grows with the number alive multiplies the time by more than this
/// (by ten and more at these numbers); caches that overflow at most double it.
constexpr double kMost = 5.0;
constexpr int kAttempts = 5;

enum class Order { OldestFirst, NewestFirst, Shuffled, ClosedFirst };
constexpr Order kOrders[] = {Order::OldestFirst, Order::NewestFirst,
                             Order::Shuffled, Order::ClosedFirst};
std::ostream& operator<<(std::ostream& out, Order order) {
  static const char* const kNames[] = {"oldest first", "newest first",
                                       "shuffled",
                                       "closed by the connection first"};
  return out << kNames[static_cast<std::size_t>(order)];
}

/// Of this thread, so that other programs do not count.
double cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) +
         1e-9 * static_cast<double>(now.tv_nsec);
}

/// CPU seconds for letting go of kTotal recordsets, `alive` at a time.
double seconds(Order order, std::size_t alive) {
  const Connection made = component::opened("any");
  double sum = 0;
  for (std::size_t done = 0; done < kTotal; done += alive) {
    std::vector<Recordset> all;
    all.reserve(alive);
    for (std::size_t i = 0; i < alive; ++i) {
      all.push_back(component::execute(made, L"select").second);
      if (!all.back()) throw std::runtime_error("no recordset");
    }
    if (order == Order::NewestFirst) std::reverse(all.begin(), all.end());
    if (order == Order::Shuffled) {
      std::shuffle(all.begin(), all.end(), std::mt19937(12345));
    }
    const double before = cpu_seconds();
    if (order == Order::ClosedFirst) {
      EXPECT_EQ(made->Close(), S_OK);
    }
    for (Recordset& each : all) each = {};
    sum += cpu_seconds() - before;
    if (order == Order::ClosedFirst) {
      EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
    }
  }
  return sum;
}

TEST(ConnectionCosts, LettingGoOfARecordsetCostsTheSameAmongManyOthers) {
  for (const Order order : kOrders) {
    // A cache that another program has just emptied is no reason to fail: the
    // best of a few attempts counts.
    double least = 0;
    for (int i = 0; i < kAttempts; ++i) {
      const double ratio = seconds(order, kMany) / seconds(order, kFew);
      if (i == 0 || ratio < least) least = ratio;
      if (least < kMost) break;
    }
    EXPECT_LT(least, kMost) << order;
  }
}

}  // namespace
