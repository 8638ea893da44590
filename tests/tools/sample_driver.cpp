// SPDX-License-Identifier: MIT
//
// A library that is registered as a driver. SAMPLE_DRIVER says what becomes of
// it when it is loaded.

#include <unistd.h>

#include <cstdlib>
#include <string_view>

extern "C" {
// What a driver is recognised by; nobody calls it.
__attribute__((visibility("default"))) int SQLDriverConnect() { return -1; }
}

namespace {

__attribute__((constructor)) void loaded() {
  constexpr std::string_view kFate = SAMPLE_DRIVER;
  if constexpr (kFate == "crashes") std::abort();
  if constexpr (kFate == "hangs") {
    for (;;) pause();
  }
}

}  // namespace
