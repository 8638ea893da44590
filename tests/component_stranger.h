// SPDX-License-Identifier: MIT
//
// A parameter of a host that is compiled without type information, as some
// hosts are: nobody may ask such an object for its type.

#ifndef ZIRDB_TESTS_COMPONENT_STRANGER_H
#define ZIRDB_TESTS_COMPONENT_STRANGER_H

#include "zir.h"
#include "zirdb.h"

/// "stranger", value 7, type 20, direction 3, size 40; get_Size returns
/// `result`.
InterfacePtr<IZIRDBParameter> stranger(HRESULT result);

#endif  // ZIRDB_TESTS_COMPONENT_STRANGER_H
