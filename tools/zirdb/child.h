// SPDX-License-Identifier: MIT
//
// Work that may crash or never end, such as loading a driver, done by a child
// process.

#ifndef ZIRDB_TOOL_CHILD_H
#define ZIRDB_TOOL_CHILD_H

#include <chrono>
#include <functional>
#include <string>

/// Whether something worked, and what there is to say about it.
struct Outcome {
  bool ok = false;
  std::string text;
};

/// What the work returns or, as a failure, what it throws, what ended it, or
/// that it took longer than `limit`. What it prints is dropped. Call it while
/// there is one thread.
Outcome in_child(std::chrono::seconds limit,
                 const std::function<Outcome()>& work);

#endif  // ZIRDB_TOOL_CHILD_H
