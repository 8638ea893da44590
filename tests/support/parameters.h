// SPDX-License-Identifier: MIT
//
// For tests of parameters: records and values that print and compare as a
// whole, arrays as scripts pass them, and late-bound calls of any shape.

#ifndef ZIRDB_TESTS_SUPPORT_PARAMETERS_H
#define ZIRDB_TESTS_SUPPORT_PARAMETERS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace parameters {

constexpr const wchar_t* kCommandSource = L"ZIRDB.Command";

// ---------------------------------------------------------------------------
// Numbers that a property takes and refuses
// ---------------------------------------------------------------------------

constexpr long kTwoTo32 = 0x100000000;
constexpr long kAcceptedTypes[] = {0, 3, 11, 20, 72, 200, 202, 204};
constexpr long kRefusedTypes[] = {1,
                                  2,
                                  4,
                                  5,
                                  8,
                                  10,
                                  12,
                                  19,
                                  21,
                                  71,
                                  73,
                                  129,
                                  199,
                                  201,
                                  203,
                                  205,
                                  -1,
                                  -3,
                                  kTwoTo32,
                                  kTwoTo32 + 3,
                                  3 - kTwoTo32,
                                  values::kSmallest,
                                  values::kLargest};
constexpr long kAcceptedDirections[] = {0, 1, 2, 3, 4};
constexpr long kRefusedDirections[] = {5,
                                       6,
                                       255,
                                       256,
                                       -1,
                                       -4,
                                       kTwoTo32,
                                       kTwoTo32 + 1,
                                       1 - kTwoTo32,
                                       values::kSmallest,
                                       values::kLargest};
constexpr long kSizes[] = {0,
                           1,
                           -1,
                           -5,
                           50,
                           kTwoTo32,
                           kTwoTo32 + 7,
                           values::kSmallest,
                           values::kLargest};

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

/// An array that owns its elements.
inline _variant_t array_value(VARTYPE element_type, SAFEARRAY* array) {
  VARIANT value{};
  value.vt = static_cast<VARTYPE>(VT_ARRAY | element_type);
  value.parray = array;
  return values::owned(value);
}

inline _variant_t bytes_value(const std::vector<unsigned char>& bytes,
                              LONG lower_bound = 0) {
  SAFEARRAY* const array = SafeArrayCreateVector(
      VT_UI1, lower_bound, static_cast<std::uint32_t>(bytes.size()));
  const SafeArrayAccess access(array);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    access.elements<BYTE>()[i] = bytes[i];
  }
  return array_value(VT_UI1, array);
}

/// An array as a script passes it. The elements are moved into it, so that
/// texts keep their zeros.
inline _variant_t script_array(std::vector<_variant_t> elements,
                               LONG lower_bound = 0) {
  SAFEARRAY* const array = SafeArrayCreateVector(
      VT_VARIANT, lower_bound, static_cast<std::uint32_t>(elements.size()));
  const SafeArrayAccess access(array);
  for (std::size_t i = 0; i < elements.size(); ++i) {
    access.elements<VARIANT>()[i] = elements[i].Detach();
  }
  return array_value(VT_VARIANT, array);
}
template <class... Element>
_variant_t script_array_of(Element&&... element) {
  std::vector<_variant_t> elements;
  (elements.push_back(std::forward<Element>(element)), ...);
  return script_array(std::move(elements));
}

/// Rows by columns of empty elements.
inline _variant_t script_matrix(std::uint32_t rows, std::uint32_t columns) {
  SAFEARRAYBOUND bounds[] = {{rows, 0}, {columns, 0}};
  return array_value(VT_VARIANT, SafeArrayCreate(VT_VARIANT, 2, bounds));
}

/// A null link.
inline VARIANT null_reference() { return values::reference_to(nullptr); }

/// A chain of `depth` references to a value.
class Chain {
 public:
  Chain(VARIANT* value, std::size_t depth) : links_(depth) {
    for (VARIANT& link : links_) {
      link = values::reference_to(value);
      value = &link;
    }
    front_ = value;
  }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;
  ~Chain() = default;

  const VARIANT& front() const { return *front_; }

 private:
  std::vector<VARIANT> links_;
  VARIANT* front_;
};

/// A value as a text that two can be compared by: its type and all it holds.
inline std::string describe(const VARIANT& value) {
  std::string all = "vt " + std::to_string(value.vt) + ": ";
  if ((value.vt & VT_ARRAY) != 0 && value.parray != nullptr) {
    LONG from = 0;
    LONG to = -1;
    SafeArrayGetLBound(value.parray, 1, &from);
    SafeArrayGetUBound(value.parray, 1, &to);
    all += std::to_string(value.parray->cDims) + " dimensions, from " +
           std::to_string(from);
    const SafeArrayAccess access(value.parray);
    if (FAILED(access.result())) return all + ", locked";
    for (LONG i = 0; i <= to - from; ++i) {
      all += "; ";
      if ((value.vt & VT_TYPEMASK) == VT_VARIANT) {
        all += describe(access.elements<VARIANT>()[i]);
      } else if ((value.vt & VT_TYPEMASK) == VT_BSTR) {
        VARIANT element = values::plain(VT_BSTR, 0);
        element.bstrVal = access.elements<BSTR>()[i];
        all += describe(element);
      } else {
        all += std::to_string(access.elements<BYTE>()[i]);
      }
    }
    return all;
  }
  switch (value.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return all;
    case VT_BSTR:
      return all + testing::PrintToString(values::text_of(value));
    case VT_LPSTR:
      return all + value.pszVal;
    case VT_BOOL:
      return all + std::to_string(value.boolVal);
    default:
      return all + std::to_string(value.llVal);
  }
}

constexpr VARTYPE kToText = VT_BSTR;
constexpr VARTYPE kToInteger = VT_I8;
constexpr VARTYPE kToBoolean = VT_BOOL;
constexpr VARTYPE kToDouble = VT_R8;

/// The line of a conversion that is not implemented, to one of these types.
inline std::string conversion_stub(int from, int to) {
  const int line = to == kToText      ? 940
                   : to == kToInteger ? 1045
                   : to == kToBoolean ? 981
                                      : 1009;
  return printed::stub_line(
      "VariantChangeType", line,
      "vt:" + std::to_string(from) + "->" + std::to_string(to));
}

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

inline InterfacePtr<IZIRDBParameter> parameter_with(const VARIANT& value,
                                                    long type = 0,
                                                    long direction = 1) {
  return workbench::parameter(L"p", type, direction, 0, value);
}
inline InterfacePtr<IZIRDBParameter> parameter_named(const std::wstring& name) {
  return workbench::parameter(name, 0, 0, 0, VARIANT());
}

/// A list of new parameters with these values.
inline InterfacePtr<IZIRDBParameters> list_with(
    const std::vector<_variant_t>& contents) {
  InterfacePtr<IZIRDBParameters> list = workbench::parameters();
  for (const _variant_t& content : contents) {
    EXPECT_EQ(list->Append(parameter_with(content).get()), S_OK);
  }
  return list;
}
inline InterfacePtr<IZIRDBParameters> list_named(
    const std::vector<std::wstring>& names) {
  InterfacePtr<IZIRDBParameters> list = workbench::parameters();
  for (const std::wstring& name : names) {
    EXPECT_EQ(list->Append(parameter_named(name).get()), S_OK);
  }
  return list;
}

inline long count_of(const InterfacePtr<IZIRDBParameters>& list) {
  long count = -1;
  EXPECT_EQ(list->get_Count(&count), S_OK);
  return count;
}

/// What an index finds; a test that finds nothing ends.
inline InterfacePtr<IZIRDBParameter> item(
    const InterfacePtr<IZIRDBParameters>& list, const _variant_t& index) {
  auto [result, found] = component::received<IZIRDBParameter>(
      [&](IZIRDBParameter** out) { return list->Item(index, out); });
  if (result != S_OK || !found) {
    throw std::runtime_error("no parameter for " + describe(index));
  }
  return std::move(found);
}

inline std::wstring name_of(IZIRDBParameter* parameter) {
  _bstr_t name;
  EXPECT_EQ(parameter->get_Name(&name.m_s), S_OK);
  return name.m_s == nullptr ? std::wstring()
                             : std::wstring(name.m_s, SysStringLen(name.m_s));
}
inline _variant_t value_of(IZIRDBParameter* parameter) {
  _variant_t value;
  EXPECT_EQ(parameter->get_Value(&value), S_OK);
  return value;
}

/// All that a parameter says of itself.
struct Record {
  std::wstring name;
  long type;
  long direction;
  long size;
  std::string value;  ///< described

  friend bool operator==(const Record& left, const Record& right) {
    return left.name == right.name && left.type == right.type &&
           left.direction == right.direction && left.size == right.size &&
           left.value == right.value;
  }
  friend std::ostream& operator<<(std::ostream& out, const Record& record) {
    return out << testing::PrintToString(record.name) << ", type "
               << record.type << ", direction " << record.direction << ", size "
               << record.size << ", " << record.value;
  }
};

inline Record record_of(IZIRDBParameter* parameter) {
  Record record{name_of(parameter), -99, -99, -99,
                describe(value_of(parameter))};
  EXPECT_EQ(parameter->get_Type(&record.type), S_OK);
  EXPECT_EQ(parameter->get_Direction(&record.direction), S_OK);
  EXPECT_EQ(parameter->get_Size(&record.size), S_OK);
  return record;
}

/// The records of a list without empty slots.
inline std::vector<Record> records_of(
    const InterfacePtr<IZIRDBParameters>& list) {
  std::vector<Record> records;
  const long count = count_of(list);
  for (long i = 0; i < count; ++i) {
    records.push_back(record_of(item(list, i).get()));
  }
  return records;
}

/// The values of a list without empty slots.
inline std::vector<std::string> values_of(
    const InterfacePtr<IZIRDBParameters>& list) {
  std::vector<std::string> all;
  for (const Record& record : records_of(list)) all.push_back(record.value);
  return all;
}

// ---------------------------------------------------------------------------
// Errors of the calling thread
// ---------------------------------------------------------------------------

/// Something that the next operation must take away or replace.
inline void leave_an_error() {
  workbench::set_error(E_FAIL, L"somewhere", L"long ago");
}

inline void expect_error(HRESULT code, const std::wstring& source,
                         const std::wstring& description) {
  const workbench::Error error = workbench::last_error();
  EXPECT_EQ(error.code, code) << std::hex << error.code;
  EXPECT_EQ(error.source, source);
  EXPECT_EQ(error.description, description);
}
inline void expect_no_error() { expect_error(S_OK, L"", L""); }

// ---------------------------------------------------------------------------
// Late-bound calls of any shape
// ---------------------------------------------------------------------------

/// As component::invoke, with arguments that keep the zeros in their texts,
/// with any naming, and with no DISPPARAMS at all.
struct RawCall {
  DISPID member = 0;
  WORD flags = DISPATCH_METHOD;
  std::vector<VARIANT> arguments = {};  ///< as a script writes them, not owned
  std::vector<DISPID> named = {};
  UINT named_count = 0;  ///< may disagree with `named`
  bool with_result = true;
  bool with_parameters = true;
};

inline component::Answer invoke_raw(IDispatch* object, const RawCall& call) {
  std::vector<VARIANT> arguments(call.arguments.rbegin(),
                                 call.arguments.rend());
  std::vector<DISPID> named = call.named;
  DISPPARAMS parameters{};
  parameters.rgvarg = arguments.empty() ? nullptr : arguments.data();
  parameters.cArgs = static_cast<UINT>(arguments.size());
  parameters.rgdispidNamedArgs = named.empty() ? nullptr : named.data();
  parameters.cNamedArgs = call.named_count;
  component::Exception exception;
  component::Answer answer;
  answer.result = object->Invoke(call.member, IID_NULL, 0, call.flags,
                                 call.with_parameters ? &parameters : nullptr,
                                 call.with_result ? &answer.value : nullptr,
                                 exception.get(), nullptr);
  answer.code = exception->scode;
  if (exception->bstrSource != nullptr) answer.source = exception->bstrSource;
  if (exception->bstrDescription != nullptr) {
    answer.description = exception->bstrDescription;
  }
  return answer;
}

/// A property put whose argument keeps the zeros in its text.
inline component::Answer put_raw(IDispatch* object, DISPID member,
                                 const VARIANT& argument) {
  RawCall call;
  call.member = member;
  call.flags = DISPATCH_PROPERTYPUT;
  call.arguments = {argument};
  call.named = {DISPID_PROPERTYPUT};
  call.named_count = 1;
  call.with_result = false;
  return invoke_raw(object, call);
}

}  // namespace parameters

#endif  // ZIRDB_TESTS_SUPPORT_PARAMETERS_H
