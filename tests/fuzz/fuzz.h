// SPDX-License-Identifier: MIT
//
// What the fuzz targets share: reading an input as numbers and texts, texts and
// buffers that end where the sanitizer looks, and failing.
//
// Each target is a program of libFuzzer: LLVMFuzzerTestOneInput makes one call
// of an input's bytes and compares everything it did with a model of its own,
// written for being obviously right and nothing else.

#ifndef ZIRDB_TESTS_FUZZ_FUZZ_H
#define ZIRDB_TESTS_FUZZ_FUZZ_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size);

namespace fuzz {

/// Ends the process, which makes the input a find.
inline void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "WRONG: %s\n", what);
    std::abort();
  }
}

/// Walks an input. Behind its end everything is zero.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), left_(size) {}

  std::size_t left() const { return left_; }

  std::uint8_t byte() {
    if (left_ == 0) return 0;
    --left_;
    return *at_++;
  }

  template <class Integer>
  Integer integer() {
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < sizeof(Integer); ++i) {
      bits |= std::uint64_t{byte()} << (8 * i);
    }
    return static_cast<Integer>(bits);
  }

  /// Any pattern of bits.
  double number() {
    const auto bits = integer<std::uint64_t>();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  /// Up to `most` bytes, as they are.
  std::string bytes(std::size_t most) {
    std::string text;
    while (left_ > 0 && text.size() < most) {
      text += static_cast<char>(byte());
    }
    return text;
  }

  /// Up to `most` wide units. A byte below F0 is a unit, so that readable
  /// inputs are readable texts; any other announces a whole unit.
  template <class Unit>
  std::basic_string<Unit> units(std::size_t most) {
    std::basic_string<Unit> text;
    while (left_ > 0 && text.size() < most) {
      const std::uint8_t first = byte();
      text += first < 0xF0 ? static_cast<Unit>(first) : integer<Unit>();
    }
    return text;
  }

 private:
  const std::uint8_t* at_;
  std::size_t left_;
};

/// A zero-terminated copy that begins `offset` units into its block and ends
/// with it: a read beyond the terminator is a find.
template <class Unit>
class ExactText {
 public:
  ExactText(const std::basic_string<Unit>& text, std::size_t offset)
      : block_(new Unit[offset + text.size() + 1]()),
        text_(block_.get() + offset) {
    for (std::size_t i = 0; i < text.size(); ++i) text_[i] = text[i];
  }

  const Unit* get() const { return text_; }

 private:
  std::unique_ptr<Unit[]> block_;
  Unit* text_;
};

/// The text up to its first zero, which is where a reader stops.
template <class Unit>
std::basic_string<Unit> until_zero(const std::basic_string<Unit>& text) {
  return text.substr(0, text.find(Unit{0}));
}

/// What a converter does with a text: its result, and the units it writes from
/// the start of its buffer. Others stay as they were.
template <class Unit>
struct Conversion {
  std::size_t result = 0;
  std::vector<Unit> written{};
  std::size_t zero_at = SIZE_MAX;  ///< one more unit that becomes zero
};

/// One unit decoded from a text and how far it reaches.
struct Decoded {
  bool valid = false;
  std::uint32_t unit = 0;
  std::size_t length = 1;  ///< units of the source
};

/// The rules that three of the converters share. `decode(source, position)`
/// gives the character at a position.
template <class To, class From, class Decode>
Conversion<To> convert(const std::basic_string<From>& source,
                       std::size_t capacity, Decode decode) {
  Conversion<To> conversion;
  std::size_t count = 0;
  for (std::size_t position = 0; position < source.size();) {
    if (capacity != 0 && count + 1 == capacity) {
      conversion.result = capacity;
      conversion.zero_at = count;
      return conversion;
    }
    const Decoded decoded = decode(source, position);
    if (!decoded.valid) return conversion;
    if (capacity != 0) {
      conversion.written.push_back(static_cast<To>(decoded.unit));
    }
    ++count;
    position += decoded.length;
  }
  if (capacity != 0) conversion.zero_at = count;
  conversion.result = count + 1;
  return conversion;
}

/// One UTF-8 sequence, by the number of ones its first byte begins with.
inline Decoded decode_utf8(const std::string& source, std::size_t position) {
  const auto byte_at = [&](std::size_t index) -> std::uint32_t {
    return index < source.size() ? static_cast<std::uint8_t>(source[index]) : 0;
  };
  const std::uint32_t first = byte_at(position);
  std::size_t ones = 0;
  while (ones < 8 && (first & (0x80U >> ones)) != 0) ++ones;
  if (ones == 0) return {true, first, 1};
  if (ones == 1 || ones > 4) return {};
  std::uint32_t unit = first & (0x7FU >> ones);
  for (std::size_t i = 1; i < ones; ++i) {
    const std::uint32_t next = byte_at(position + i);
    if (next / 0x40 != 2) return {};
    unit = unit * 0x40 + next % 0x40;
  }
  return {true, unit, ones};
}

/// A unit's value, which is never negative.
inline std::uint32_t value_of(wchar_t unit) {
  return static_cast<std::uint32_t>(std::int32_t{unit});
}

/// The UTF-8 of one unit of any value.
inline std::string encode_utf8(wchar_t unit) {
  const std::uint32_t value = value_of(unit);
  if (value < 0x80) return std::string(1, static_cast<char>(value));
  const std::size_t length = value < 0x800 ? 2 : value < 0x10000 ? 3 : 4;
  std::string bytes(length, '\0');
  std::uint32_t rest = value;
  for (std::size_t i = length - 1; i > 0; --i) {
    bytes[i] = static_cast<char>(0x80 + rest % 0x40);
    rest /= 0x40;
  }
  // Bits that do not fit are dropped, not refused.
  const std::uint32_t lead = length == 2 ? 0xC0 : length == 3 ? 0xE0 : 0xF0;
  bytes[0] = static_cast<char>((lead | rest) & 0xFF);
  return bytes;
}

}  // namespace fuzz

#endif  // ZIRDB_TESTS_FUZZ_FUZZ_H
