// SPDX-License-Identifier: MIT
//
// The entry points outside the fifteen, each of which only reports that it was
// called. The names are all that matters: no arguments are read, and sql.h,
// which would declare them with arguments, is deliberately not included.

#include "support/scripted_odbc_forbidden.h"

#define SCRIPTED_ODBC_FORBID(name)                                 \
  extern "C" __attribute__((visibility("default"))) short name() { \
    return scripted_odbc_forbidden(#name);                         \
  }
#define SCRIPTED_ODBC_NOTE(name)                                   \
  extern "C" __attribute__((visibility("default"))) short name() { \
    return scripted_odbc_manager_call(#name);                      \
  }

SCRIPTED_ODBC_FORBIDDEN(SCRIPTED_ODBC_FORBID)
#ifdef SCRIPTED_ODBC_IS_DRIVER
SCRIPTED_ODBC_MANAGERS_OWN(SCRIPTED_ODBC_NOTE)
#else
SCRIPTED_ODBC_MANAGERS_OWN(SCRIPTED_ODBC_FORBID)
SCRIPTED_ODBC_STAND_IN_ONLY(SCRIPTED_ODBC_FORBID)
SCRIPTED_ODBC_STAND_IN_ONLY_WIDE(SCRIPTED_ODBC_FORBID)
#endif
