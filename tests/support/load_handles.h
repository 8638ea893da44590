// SPDX-License-Identifier: MIT
//
// Counts the ODBC handles of a program that works with the real driver manager.
// The program must export its symbols (ENABLE_EXPORTS): load_handles.cpp
// defines the two functions that allocate and free, and hands every call on.

#ifndef ZIRDB_TESTS_SUPPORT_LOAD_HANDLES_H
#define ZIRDB_TESTS_SUPPORT_LOAD_HANDLES_H

#include <cstddef>

namespace load {

/// Allocated so far, and allocated but not freed; of all kinds. A handle that
/// the driver manager refuses to free is not freed.
std::size_t handles_allocated();
std::size_t handles_live();

}  // namespace load

#endif  // ZIRDB_TESTS_SUPPORT_LOAD_HANDLES_H
