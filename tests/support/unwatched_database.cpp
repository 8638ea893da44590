// SPDX-License-Identifier: MIT
//
// For a program that links runtime_allocator.cpp and the scripted database:
// what the database asks for while it serves a call of the library is the
// database's own, neither watched nor failed.

#include <utility>

#include "runtime_allocator.h"
#include "support/scripted_odbc_engine.h"

void scripted_odbc_at_work(bool entered) {
  // Calls of a program of one thread do not overlap.
  static bool was_on = false;
  if (entered) {
    was_on = std::exchange(allocator::g_watched.on, false);
  } else {
    allocator::g_watched.on = was_on;
  }
}
