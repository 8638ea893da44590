// SPDX-License-Identifier: MIT

#include "support/load_handles.h"

#include <dlfcn.h>
#include <sql.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace {

std::atomic<std::size_t> allocated{0};
std::atomic<std::size_t> freed{0};

// The driver manager's function of this name.
template <class Function>
Function* next(const char* name) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function*>(found);
}

}  // namespace

namespace load {

std::size_t handles_allocated() { return allocated; }
std::size_t handles_live() { return allocated - freed; }

}  // namespace load

#pragma GCC visibility push(default)
extern "C" {

SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT type, SQLHANDLE parent,
                                 SQLHANDLE* handle) {
  static auto* const manager = next<decltype(SQLAllocHandle)>("SQLAllocHandle");
  const SQLRETURN code = manager(type, parent, handle);
  if (SQL_SUCCEEDED(code)) ++allocated;
  return code;
}

SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
  static auto* const manager = next<decltype(SQLFreeHandle)>("SQLFreeHandle");
  const SQLRETURN code = manager(type, handle);
  if (SQL_SUCCEEDED(code)) ++freed;
  return code;
}

}  // extern "C"
#pragma GCC visibility pop
