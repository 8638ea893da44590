// SPDX-License-Identifier: MIT
//
// Fuzz target: utf32_utf16, any units into any buffer.

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

/// Characters go up to 7FFF; negative ones lie beyond.
fuzz::Decoded decode(const std::wstring& text, std::size_t position) {
  const std::uint32_t unit = fuzz::value_of(text[position]);
  return {unit <= 0x7FFF, unit, 1};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  fuzz::check_converter(fuzz::Input(data, size), utf32_utf16,
                        [](const std::wstring& text, std::size_t capacity) {
                          return fuzz::convert<std::uint16_t>(text, capacity,
                                                              decode);
                        });
  return 0;
}
