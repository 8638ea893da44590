// SPDX-License-Identifier: MIT
//
// Fuzz target: utf32_utf8, any units into any buffer.

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

/// Characters are written while a byte stays free behind them; the result is
/// what the whole text needs.
fuzz::Conversion<char> model(const std::wstring& text, std::size_t capacity) {
  fuzz::Conversion<char> conversion;
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  fuzz::check_converter(fuzz::Input(data, size), utf32_utf8, model);
  return 0;
}
