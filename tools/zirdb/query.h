// SPDX-License-Identifier: MIT
//
// One statement, run through the scriptable objects, and all that it gives.

#ifndef ZIRDB_TOOL_QUERY_H
#define ZIRDB_TOOL_QUERY_H

#include <cstdint>
#include <string>
#include <vector>

#include "late_bound.h"

/// What a statement gave. Without columns it has no rows, only a count.
struct Answer {
  std::vector<std::string> columns;
  std::vector<std::vector<late_bound::Value>> rows;
  std::int64_t affected = -1;  ///< negative: the driver did not say
};

/// The text of a VT_BSTR, with U+FFFD for what is no character: some drivers
/// hand on halves of surrogate pairs, which would make the output no UTF-8.
std::string text_of(const late_bound::Value& value);

/// Opens the connection, runs the statement with its values as texts, and
/// fetches everything. Throws late_bound::Error.
Answer run_query(const std::string& connection_string, const std::string& sql,
                 const std::vector<std::string>& values);

#endif  // ZIRDB_TOOL_QUERY_H
