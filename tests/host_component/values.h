// SPDX-License-Identifier: MIT
//
// Values of every type by name, among them those that no database has, and
// texts that say exactly what a value is.

#ifndef ZIRDB_TESTS_HOST_COMPONENT_VALUES_H
#define ZIRDB_TESTS_HOST_COMPONENT_VALUES_H

#include <string>

#include "zir.h"

namespace echo {

/// "0x80020009"
std::wstring code_text(HRESULT code);

/// The place of a kind of value among all of them, or -1.
int kind_of(const wchar_t* name);

/// A value of that kind. What it owns is the caller's; what a reference leads
/// to stays here.
VARIANT make_value(int kind);

/// Type and payload: "VT_I8 7", "VT_BSTR U+0061 U+1F600", "VT_NULL",
/// "VT_ARRAY|VT_VARIANT from 0 {VT_I8 1} {VT_NULL}",
/// "VT_BYREF|VT_VARIANT -> VT_EMPTY".
std::wstring described(const VARIANT& value);

}  // namespace echo

#endif  // ZIRDB_TESTS_HOST_COMPONENT_VALUES_H
