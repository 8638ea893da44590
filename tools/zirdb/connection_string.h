// SPDX-License-Identifier: MIT
//
// Connection strings that may be shown.

#ifndef ZIRDB_TOOL_CONNECTION_STRING_H
#define ZIRDB_TOOL_CONNECTION_STRING_H

#include <string>
#include <vector>

/// A connection string without its secrets, and the secrets themselves.
struct MaskedString {
  std::string text;
  std::vector<std::string> secrets;
};

/// Masks the values of all keys that sound like secrets, and what belongs to no
/// key: the rest of a password that holds a ";" and is not in braces.
MaskedString masked(const std::string& connection_string);

/// `text` without any of the secrets.
std::string without(const std::vector<std::string>& secrets, std::string text);

#endif  // ZIRDB_TOOL_CONNECTION_STRING_H
