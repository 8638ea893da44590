// SPDX-License-Identifier: MIT
//
// Masking what is secret in a connection string. In doubt it is.

#include "connection_string.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

namespace {

constexpr char kMask[] = "***";
constexpr std::string_view kSecretWords[] = {"pwd", "pass", "secret", "token"};

bool is_secret(std::string key) {
  for (char& byte : key) {
    byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
  }
  return std::any_of(std::begin(kSecretWords), std::end(kSecretWords),
                     [&key](std::string_view word) {
                       return key.find(word) != std::string::npos;
                     });
}

// Where the value that begins at `start` ends. In braces it may hold ";".
std::size_t end_of_value(const std::string& text, std::size_t start) {
  std::size_t at = text.find_first_not_of(" \t", start);
  if (at != std::string::npos && text[at] == '{') {
    at = text.find('}', at);
    // A doubled brace is one of the value's own.
    while (at != std::string::npos && text.compare(at, 2, "}}") == 0) {
      at = text.find('}', at + 2);
    }
    start = at;
  }
  return std::min(text.size(), start == std::string::npos
                                   ? std::string::npos
                                   : text.find(';', start));
}

// The password itself, as drivers repeat it.
std::string bare(const std::string& value) {
  const std::size_t first = value.find_first_not_of(" \t{");
  if (first == std::string::npos) return "";
  return value.substr(first, value.find_last_not_of(" \t}") + 1 - first);
}

}  // namespace

MaskedString masked(const std::string& connection_string) {
  MaskedString result;
  for (std::size_t at = 0; at < connection_string.size();) {
    const std::size_t mark = connection_string.find_first_of("=;", at);
    const bool has_key =
        mark != std::string::npos && connection_string[mark] == '=';
    const std::size_t value = has_key ? mark + 1 : at;
    const std::size_t end = has_key ? end_of_value(connection_string, value)
                                    : std::min(mark, connection_string.size());
    const std::string key = connection_string.substr(at, value - at);
    const std::string secret =
        bare(connection_string.substr(value, end - value));
    result.text += key;
    if (secret.empty() || (has_key && !is_secret(key))) {
      result.text += connection_string.substr(value, end - value);
    } else {
      result.text += kMask;
      result.secrets.push_back(secret);
    }
    if (end < connection_string.size()) result.text += ';';
    at = end + 1;
  }
  return result;
}

std::string without(const std::vector<std::string>& secrets, std::string text) {
  for (const std::string& secret : secrets) {
    for (std::size_t at = text.find(secret); at != std::string::npos;
         at = text.find(secret, at + sizeof kMask - 1)) {
      text.replace(at, secret.size(), kMask);
    }
  }
  return text;
}
