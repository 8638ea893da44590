// SPDX-License-Identifier: MIT
//
// Fuzz target: utf8_utf32, any bytes into any buffer.

#include "fuzz/fuzz.h"
#include "zir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  fuzz::check_converter(fuzz::Input(data, size), utf8_utf32,
                        [](const std::string& text, std::size_t capacity) {
                          return fuzz::convert<wchar_t>(text, capacity,
                                                        fuzz::decode_utf8);
                        });
  return 0;
}
