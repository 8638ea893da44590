// SPDX-License-Identifier: MIT

#include "misbehaving_late.h"

namespace {

void (*g_function)() = nullptr;

[[gnu::destructor]] void call() {
  if (g_function != nullptr) g_function();
}

}  // namespace

void misbehaving_late_call(void (*function)()) { g_function = function; }
