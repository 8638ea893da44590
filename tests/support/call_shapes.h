// SPDX-License-Identifier: MIT
//
// Late-bound calls in every shape that a host can give them: flags, number of
// arguments, names for them, a place for the result or none.

#ifndef ZIRDB_TESTS_SUPPORT_CALL_SHAPES_H
#define ZIRDB_TESTS_SUPPORT_CALL_SHAPES_H

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/parameters.h"
#include "zir.h"

namespace call_shapes {

constexpr WORD kAllFlags = 15;

/// How the arguments are named; `count` may disagree with `ids`.
struct Naming {
  const char* description;
  std::vector<DISPID> ids;
  UINT count;
};
inline const std::vector<Naming> kNamings{
    {"not named", {}, 0},
    {"named as a put", {DISPID_PROPERTYPUT}, 1},
    {"named otherwise", {DISPID_UNKNOWN}, 1},
    {"named as the first argument", {0}, 1},
    {"two names", {DISPID_PROPERTYPUT, DISPID_PROPERTYPUT}, 2},
    {"a name but no count", {DISPID_PROPERTYPUT}, 0},
    {"a count but no names", {}, 1}};
constexpr std::size_t kNamedAsPut = 1;

struct Shape {
  WORD flags;
  std::size_t arguments;
  const Naming* naming;
  bool with_result;

  friend std::ostream& operator<<(std::ostream& out, const Shape& shape) {
    return out << "flags " << shape.flags << ", " << shape.arguments
               << " arguments, " << shape.naming->description
               << (shape.with_result ? ", result" : ", no result");
  }
};

/// Every combination of flags, number of arguments, naming and result.
inline std::vector<Shape> every_shape() {
  std::vector<Shape> shapes;
  for (WORD flags = 0; flags <= kAllFlags; ++flags) {
    for (std::size_t arguments = 0; arguments <= 3; ++arguments) {
      for (const Naming& naming : kNamings) {
        for (const bool with_result : {false, true}) {
          shapes.push_back({flags, arguments, &naming, with_result});
        }
      }
    }
  }
  return shapes;
}

inline bool has(const Shape& shape, WORD flags) {
  return (shape.flags & flags) != 0;
}

inline component::Answer call(IDispatch* object, DISPID member,
                              const Shape& shape, const VARIANT& argument) {
  parameters::RawCall raw;
  raw.member = member;
  raw.flags = shape.flags;
  raw.arguments.assign(shape.arguments, argument);
  raw.named = shape.naming->ids;
  raw.named_count = shape.naming->count;
  raw.with_result = shape.with_result;
  return parameters::invoke_raw(object, raw);
}

/// Calls with a count of arguments that are not there.
inline HRESULT invoke_counting(IDispatch* object, DISPID member, WORD flags,
                               VARIANT* result) {
  DISPID named = DISPID_PROPERTYPUT;
  DISPPARAMS parameters{nullptr, &named, 1, 1};
  return object->Invoke(member, IID_NULL, 0, flags, &parameters, result,
                        nullptr, nullptr);
}

/// GetIDsOfNames for one name.
inline DISPID id_of(IDispatch* object, const wchar_t* name) {
  std::wstring copy = name;
  wchar_t* names[] = {copy.data()};
  DISPID id = 77;
  const HRESULT result = object->GetIDsOfNames(IID_NULL, names, 1, 0, &id);
  EXPECT_EQ(result, id == DISPID_UNKNOWN ? DISP_E_UNKNOWNNAME : S_OK) << id;
  return id;
}

/// The line that a source prints which is not convertible to an integer.
inline std::string not_an_integer(int type) {
  return parameters::conversion_stub(type, parameters::kToInteger);
}

}  // namespace call_shapes

#endif  // ZIRDB_TESTS_SUPPORT_CALL_SHAPES_H
