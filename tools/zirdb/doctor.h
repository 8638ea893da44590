// SPDX-License-Identifier: MIT
//
// Looking at everything that a connection depends on.

#ifndef ZIRDB_TOOL_DOCTOR_H
#define ZIRDB_TOOL_DOCTOR_H

#include <string>

#include "library.h"

/// Prints what there is on standard output, a line beginning with "problem:"
/// for everything that is wrong, and how many there are. With a connection
/// string it also tries to connect. Returns how many problems there are.
int run_doctor(Registry registry, const std::string* connection_string);

/// What to do about an error whose text tells that a driver was not found;
/// empty for other errors.
std::string driver_hint(const std::string& error);

#endif  // ZIRDB_TOOL_DOCTOR_H
