// SPDX-License-Identifier: MIT
//
// Fuzz target: the four converters, any text into any buffer. The first byte of
// an input picks the converter.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

using fuzz::Conversion;
using fuzz::Decoded;
using fuzz::Input;

/// Calls `converter` as `input` says (capacity, alignment, no destination) and
/// compares with `model(text, capacity)`.
template <class To, class From, class Model>
void check_converter(Input input,
                     std::size_t (*converter)(To*, std::size_t, const From*),
                     Model model) {
  const std::uint8_t mode = input.byte();
  const std::size_t capacity_byte = input.byte();
  const std::size_t offset = mode & 15;
  const bool no_destination = (mode & 0xF0) == 0x10;
  const auto text = [&] {
    if constexpr (sizeof(From) == 1) {
      return fuzz::until_zero(input.bytes(SIZE_MAX));
    } else {
      return fuzz::until_zero(input.units<From>(SIZE_MAX));
    }
  }();
  // Around what the text needs, where the rules change, as often as anywhere.
  const std::size_t needed = model(text, 0).result;
  const std::size_t near = needed + 3 - std::min(needed + 3, capacity_byte % 9);
  const std::size_t capacity = (mode & 0x80) == 0 ? capacity_byte : near;
  const fuzz::ExactText<From> source(text, offset);

  const Conversion<To> expected = model(text, no_destination ? 0 : capacity);
  constexpr To kUntouched = static_cast<To>(0x5A5A5A5A);
  std::vector<To> whole(capacity, kUntouched);
  for (std::size_t i = 0; i < expected.written.size(); ++i) {
    whole[i] = expected.written[i];
  }
  if (expected.zero_at != SIZE_MAX) whole[expected.zero_at] = 0;

  const std::unique_ptr<To[]> buffer(new To[capacity]);
  for (std::size_t i = 0; i < capacity; ++i) buffer[i] = kUntouched;
  const std::size_t result = converter(no_destination ? nullptr : buffer.get(),
                                       capacity, source.get());
  fuzz::check(result == expected.result, "the result");
  for (std::size_t i = 0; i < capacity; ++i) {
    fuzz::check(buffer[i] == (no_destination ? kUntouched : whole[i]),
                "a unit of the buffer");
  }
}

/// UTF-16 to UTF-32: every unit is a character, and a high surrogate is none.
Decoded decode_utf16(const std::basic_string<std::uint16_t>& text,
                     std::size_t position) {
  const std::uint16_t unit = text[position];
  return {unit < 0xD800 || unit > 0xDBFF, unit, 1};
}

/// UTF-32 to UTF-16: characters go up to 7FFF; negative ones lie beyond.
Decoded decode_utf32(const std::wstring& text, std::size_t position) {
  const std::uint32_t unit = fuzz::value_of(text[position]);
  return {unit <= 0x7FFF, unit, 1};
}

/// UTF-32 to UTF-8: characters are written while a byte stays free behind them;
/// the result is what the whole text needs.
Conversion<char> model_of_utf8(const std::wstring& text, std::size_t capacity) {
  Conversion<char> conversion;
  std::size_t needed = 1;
  bool fits = true;
  for (const wchar_t unit : text) {
    const std::string bytes = fuzz::encode_utf8(unit);
    needed += bytes.size();
    fits = fits && needed <= capacity;
    if (fits) {
      conversion.written.insert(conversion.written.end(), bytes.begin(),
                                bytes.end());
    }
  }
  conversion.result = needed;
  if (capacity != 0) {
    conversion.zero_at = needed <= capacity ? needed - 1 : capacity - 1;
  }
  return conversion;
}

/// The model of a converter that decodes.
template <class To, class From, class Decode>
auto model_of(Decode decode) {
  return [decode](const std::basic_string<From>& text, std::size_t capacity) {
    return fuzz::convert<To>(text, capacity, decode);
  };
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  switch (input.byte() % 4) {
    case 0:
      check_converter(input, utf8_utf32,
                      model_of<wchar_t, char>(fuzz::decode_utf8));
      break;
    case 1:
      check_converter(input, utf32_utf8, model_of_utf8);
      break;
    case 2:
      check_converter(input, utf16_utf32,
                      model_of<wchar_t, std::uint16_t>(decode_utf16));
      break;
    default:
      check_converter(input, utf32_utf16,
                      model_of<std::uint16_t, wchar_t>(decode_utf32));
  }
  return 0;
}
