// SPDX-License-Identifier: MIT
//
// Variants for tests: made, looked into and compared, byte by byte where it
// matters.

#ifndef ZIRDB_TESTS_SUPPORT_VALUES_H
#define ZIRDB_TESTS_SUPPORT_VALUES_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/printed.h"
#include "zir.h"

namespace values {

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

constexpr VARTYPE kReference = VT_BYREF | VT_VARIANT;

inline std::uint64_t bits_of(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

/// A value that owns nothing, by its payload.
inline VARIANT plain(VARTYPE type, std::uint64_t bits) {
  VARIANT value{};
  value.vt = type;
  value.ullVal = bits;
  return value;
}

inline VARIANT reference_to(VARIANT* value) {
  VARIANT reference{};
  reference.vt = kReference;
  reference.pvarVal = value;
  return reference;
}

inline _variant_t owned(VARIANT value) {
  _variant_t owner;
  owner.Attach(value);
  return owner;
}

/// A VT_BSTR with every unit of `text`, zeros included.
inline _variant_t text_value(const std::wstring& text) {
  VARIANT value{};
  value.vt = VT_BSTR;
  value.bstrVal =
      SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  return owned(value);
}

inline _variant_t lpstr_value(const char* text) {
  VARIANT value{};
  value.vt = VT_LPSTR;
  value.pszVal = _str_t(text).Detach();
  return owned(value);
}

/// The counted units of a text.
inline std::wstring text_of(const VARIANT& value) {
  if (value.bstrVal == nullptr) return {};
  return {value.bstrVal, SysStringLen(value.bstrVal)};
}

inline std::array<unsigned char, sizeof(VARIANT)> bytes_of(
    const VARIANT& value) {
  std::array<unsigned char, sizeof(VARIANT)> bytes{};
  std::memcpy(bytes.data(), &value, bytes.size());
  return bytes;
}

inline bool same_bytes(const VARIANT& left, const VARIANT& right) {
  return bytes_of(left) == bytes_of(right);
}

/// What `act(0)` to `act(count - 1)` print, one by one.
template <class Act>
std::vector<std::string> printed_by_each(std::size_t count, Act act) {
  constexpr char kEnd = '\f';
  const std::string all = printed::by([&] {
    for (std::size_t i = 0; i < count; ++i) {
      act(i);
      std::putchar(kEnd);
    }
  });
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t end = all.find(kEnd, from);
    parts.push_back(all.substr(from, end - from));
    from = end + 1;
  }
  return parts;
}

}  // namespace values

#endif  // ZIRDB_TESTS_SUPPORT_VALUES_H
