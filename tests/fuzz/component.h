// SPDX-License-Identifier: MIT
//
// The component's objects for the fuzz targets: making them, late-bound calls,
// and the texts that they give.

#ifndef ZIRDB_TESTS_FUZZ_COMPONENT_H
#define ZIRDB_TESTS_FUZZ_COMPONENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "zirdb.h"

namespace fuzz {

/// A new object of a class, as one of its interfaces.
template <class Interface>
InterfacePtr<Interface> create(REFCLSID clsid, REFIID riid) {
  void* factory = nullptr;
  check(DllGetClassObject(clsid, IID_IClassFactory, &factory) == S_OK,
        "a class factory");
  const auto held =
      InterfacePtr<IClassFactory>::adopt(static_cast<IClassFactory*>(factory));
  InterfacePtr<Interface> object;
  check(object.receive([&](void** out) {
    return held->CreateInstance(nullptr, riid, out);
  }) == S_OK,
        "an object");
  return object;
}

/// What a late-bound call brought.
struct Outcome {
  Outcome() { ExcepinfoInit(&exception); }
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;
  ~Outcome() { ExcepinfoClear(&exception); }

  HRESULT result = S_OK;
  _variant_t value{};
  EXCEPINFO exception{};
};

/// Calls a member; `arguments` are in the order in which they would be written.
inline void invoke(IDispatch* object, DISPID member, WORD flags,
                   const std::vector<VARIANT>& arguments, Outcome& outcome) {
  std::vector<VARIANT> reversed(arguments.rbegin(), arguments.rend());
  DISPID put = DISPID_PROPERTYPUT;
  const bool is_put = flags == DISPATCH_PROPERTYPUT;
  DISPPARAMS parameters = {reversed.data(), is_put ? &put : nullptr,
                           static_cast<UINT>(reversed.size()),
                           is_put ? 1U : 0U};
  outcome.result = object->Invoke(member, IID_NULL, 0, flags, &parameters,
                                  &outcome.value, &outcome.exception, nullptr);
}

/// The text of UTF-8, as it arrives from the ODBC layer: up to its first zero
/// byte, and none for what is not UTF-8. A zero of more bytes stays inside.
inline std::wstring text_of(const std::string& utf8) {
  const auto decoded =
      convert<wchar_t>(until_zero(utf8), SIZE_MAX, decode_utf8);
  if (decoded.result == 0) return {};
  return {decoded.written.begin(), decoded.written.end()};
}

/// The UTF-8 of a text, up to its first zero.
inline std::string utf8_of(const std::wstring& text) {
  std::string utf8;
  for (const wchar_t unit : until_zero(text)) utf8 += encode_utf8(unit);
  return utf8;
}

}  // namespace fuzz

#endif  // ZIRDB_TESTS_FUZZ_COMPONENT_H
