// SPDX-License-Identifier: MIT
//
// Fuzz target: utf16_utf32, any units into any buffer.

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

/// Every unit is a character, and a high surrogate is none.
fuzz::Decoded decode(const std::basic_string<std::uint16_t>& text,
                     std::size_t position) {
  const std::uint16_t unit = text[position];
  return {unit < 0xD800 || unit > 0xDBFF, unit, 1};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  fuzz::check_converter(
      fuzz::Input(data, size), utf16_utf32,
      [](const std::basic_string<std::uint16_t>& text, std::size_t capacity) {
        return fuzz::convert<wchar_t>(text, capacity, decode);
      });
  return 0;
}
