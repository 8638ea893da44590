// SPDX-License-Identifier: MIT
//
// Identifiers against their published texts, byte by byte.

#ifndef ZIRDB_TESTS_SUPPORT_IDENTIFIERS_H
#define ZIRDB_TESTS_SUPPORT_IDENTIFIERS_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "zir.h"

namespace identifiers {

struct Identifier {
  const char* name;
  const GUID& guid;
  const char* text;
};

/// The text of the 16 bytes at an address. The first three numbers are stored
/// with their least byte first, the rest in reading order.
inline std::string text_at(const void* address) {
  constexpr std::array<std::size_t, 16> kReadingOrder = {
      3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  std::array<unsigned char, 16> bytes{};
  std::memcpy(bytes.data(), address, bytes.size());
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    constexpr char kDigits[] = "0123456789ABCDEF";
    text += kDigits[bytes[kReadingOrder[i]] >> 4U];
    text += kDigits[bytes[kReadingOrder[i]] & 15U];
  }
  return text;
}

inline void expect_published(const std::vector<Identifier>& all) {
  for (const Identifier& row : all) {
    EXPECT_EQ(text_at(&row.guid), row.text) << row.name;
  }
}

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

/// The library that the test links.
inline Library linked_library() {
  return Library(dlopen("libzirdb.so.0", RTLD_NOW | RTLD_NOLOAD));
}

inline void expect_exported(const std::vector<Identifier>& all) {
  const Library library = linked_library();
  ASSERT_NE(library, nullptr) << dlerror();
  for (const Identifier& row : all) {
    const void* const symbol = dlsym(library.get(), row.name);
    ASSERT_NE(symbol, nullptr) << row.name;
    EXPECT_EQ(text_at(symbol), row.text) << row.name;
  }
}

}  // namespace identifiers

#endif  // ZIRDB_TESTS_SUPPORT_IDENTIFIERS_H
