// SPDX-License-Identifier: MIT
//
// Sees, and fails, every request for memory of a program that links
// runtime_allocator.cpp: malloc and operator new of the whole process, those of
// the C library and of the loader included. The program has one thread and
// exports its symbols, so that all libraries find them.

#ifndef ZIRDB_TESTS_RUNTIME_ALLOCATOR_H
#define ZIRDB_TESTS_RUNTIME_ALLOCATOR_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zir.h"

namespace allocator {

enum class Fail { None, One, AllFromThere };

enum class By { Malloc, Calloc, Realloc, New };

struct Request {
  By by;
  std::size_t size;
  void* block;
};

constexpr long kMostRequests = 4096;

/// What the program asks for while it is watched. The program has one thread.
/// Plain arrays: this is used before anything is initialised.
struct Watched {
  bool on;
  Fail mode;
  long fail_at;  ///< counted from 1
  long requests;
  long frees;
  void* last_freed;
  Request made[kMostRequests];
  long live;  ///< blocks of this or an earlier watch that are still there
  void* blocks[kMostRequests];
};
extern Watched g_watched;

/// Watches while it lives.
class Watch {
 public:
  explicit Watch(Fail mode = Fail::None, long fail_at = 0) {
    g_watched.mode = mode;
    g_watched.fail_at = fail_at;
    g_watched.requests = 0;
    g_watched.frees = 0;
    g_watched.on = true;
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { g_watched.on = false; }
};

/// What a call asks for.
template <class Call>
std::vector<Request> requests_of(const Call& call) {
  {
    const Watch watch;
    call();
  }
  return {g_watched.made, g_watched.made + g_watched.requests};
}

// ---------------------------------------------------------------------------
// Values that need memory, and some that need none
// ---------------------------------------------------------------------------

/// A VT_BSTR that the test owns.
inline _variant_t text(const wchar_t* content) { return {content}; }

inline _variant_t lpstr(const char* content) {
  _variant_t value;
  value.pszVal = _str_t(content).Detach();
  value.vt = VT_LPSTR;
  return value;
}

inline _variant_t scalar(int type, std::int64_t payload) {
  _variant_t value;
  value.vt = static_cast<VARTYPE>(type);
  value.llVal = payload;
  return value;
}

inline _variant_t date(double day) {
  _variant_t value(day);
  value.vt = VT_DATE;
  return value;
}

inline _variant_t array_of(SAFEARRAY* array, int type) {
  _variant_t value;
  value.parray = array;
  value.vt = static_cast<VARTYPE>(VT_ARRAY | type);
  return value;
}

/// VT_VARIANT elements: a text, a number, an array of two texts, an object.
inline _variant_t nested_array(IUnknown* object) {
  SAFEARRAY* const inner = SafeArrayCreateVector(VT_BSTR, 0, 3);
  {
    const SafeArrayAccess access(inner);
    access.elements<BSTR>()[0] = SysAllocString(L"inner");
    access.elements<BSTR>()[2] = SysAllocString(L"");
  }
  SAFEARRAY* const outer = SafeArrayCreateVector(VT_VARIANT, 7, 4);
  {
    const SafeArrayAccess access(outer);
    auto* const elements = access.elements<VARIANT>();
    elements[0] = text(L"element").Detach();
    elements[1] = scalar(VT_I8, 5).Detach();
    elements[2] = array_of(inner, VT_BSTR).Detach();
    elements[3] = _variant_t(object).Detach();
  }
  return array_of(outer, VT_VARIANT);
}

}  // namespace allocator

#endif  // ZIRDB_TESTS_RUNTIME_ALLOCATOR_H
