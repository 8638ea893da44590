// SPDX-License-Identifier: MIT
//
// The library that this program runs with, and where objects are found by name.

#ifndef ZIRDB_TOOL_LIBRARY_H
#define ZIRDB_TOOL_LIBRARY_H

#include <string>

/// The file, links resolved, that holds the code or data at `address`; empty
/// when none does.
std::string file_of(const void* address);

/// The zirdb library in use.
std::string library_file();

/// The folder of a file's path.
std::string folder_of(const std::string& path);

/// Where REGISTRY comes from.
enum class Registry { kFromEnvironment, kByDefault, kNone };

/// Sets REGISTRY to the folder that belongs to the library, unless the user has
/// set it, be it to nothing. Before any thread is started.
Registry use_default_registry();

#endif  // ZIRDB_TOOL_LIBRARY_H
