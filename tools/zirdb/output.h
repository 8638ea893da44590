// SPDX-License-Identifier: MIT
//
// Answers as text: a table for people, CSV and JSON for programs.

#ifndef ZIRDB_TOOL_OUTPUT_H
#define ZIRDB_TOOL_OUTPUT_H

#include <string>
#include <string_view>

#include "query.h"

/// The text with everything escaped that could act on a terminal or break a
/// layout: controls, line breaks, marks that turn the direction of writing, and
/// bytes that are not UTF-8.
std::string visible(std::string_view utf8);

/// Aligned columns under a header and a rule; numbers to the right.
std::string as_table(const Answer& answer);

/// RFC 4180 with line feeds: NULL is an empty field, the empty text is "".
std::string as_csv(const Answer& answer);

/// An array with an object for each row; "[]" without rows.
std::string as_json(const Answer& answer);

#endif  // ZIRDB_TOOL_OUTPUT_H
