// SPDX-License-Identifier: MIT
//
// Vtables by number: operations called by their slot, without the compiler's
// knowledge of the interface, and implementations whose operations say where
// they should stand.

#ifndef ZIRDB_TESTS_SUPPORT_SLOTS_H
#define ZIRDB_TESTS_SUPPORT_SLOTS_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zir.h"

namespace slots {

/// The operation in a slot of the vtable that `object` points at first.
template <class Function>
Function slot(void* object, std::size_t number) {
  const void* const* table = nullptr;
  std::memcpy(&table, object, sizeof table);
  Function function = nullptr;
  std::memcpy(&function, table + number, sizeof function);
  return function;
}

/// What the operation in slot 0 of a Numbered answers; the next one more.
constexpr HRESULT kFirst = 100;

/// The three operations of IUnknown on top of any interface.
template <class Interface>
struct Numbered : Interface {
  HRESULT QueryInterface(REFIID, void**) override { return kFirst; }
  zir_types::ULONG AddRef() override { return kFirst + 1; }
  zir_types::ULONG Release() override { return kFirst + 2; }

 protected:
  ~Numbered() = default;
};

/// Each of the `count` slots answers with its number.
template <class Interface>
void expect_in_order(Interface* object, int count) {
  // Enough arguments for every operation.
  using Any = HRESULT (*)(void* object, std::uint64_t, std::uint64_t,
                          std::uint64_t, std::uint64_t, std::uint64_t,
                          std::uint64_t, std::uint64_t, std::uint64_t);
  for (int number = 0; number < count; ++number) {
    const auto operation = slot<Any>(object, static_cast<std::size_t>(number));
    EXPECT_EQ(operation(object, 0, 0, 0, 0, 0, 0, 0, 0), kFirst + number);
  }
}

}  // namespace slots

#endif  // ZIRDB_TESTS_SUPPORT_SLOTS_H
