// SPDX-License-Identifier: MIT
//
// For tests of recordsets with rows: small recordsets, where the cursor stands,
// and one way to say how an operation ended, by whichever road it was called.

#ifndef ZIRDB_TESTS_SUPPORT_RECORDSETS_H
#define ZIRDB_TESTS_SUPPORT_RECORDSETS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <ios>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace recordsets {

using component::Answer;
using Recordset = InterfacePtr<IZIRDBRecordset>;
using Fields = InterfacePtr<IZIRDBFields>;
using Field = InterfacePtr<IZIRDBField>;
using Enumerator = InterfacePtr<IEnumVARIANT>;

constexpr const wchar_t* kSource = L"ZIRDB.Recordset";

// ---------------------------------------------------------------------------
// How an operation ended
// ---------------------------------------------------------------------------

/// Result, and what is known of the error. Both roads leave the same record in
/// the thread; a late-bound call hands it over besides.
struct Outcome {
  HRESULT code = S_OK;
  HRESULT recorded = S_OK;
  std::wstring source;
  std::wstring text;
};

inline bool operator==(const Outcome& left, const Outcome& right) {
  return left.code == right.code && left.recorded == right.recorded &&
         left.source == right.source && left.text == right.text;
}

inline std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  const auto narrow = [](const std::wstring& text) {
    return std::string(text.begin(), text.end());
  };
  return out << std::hex << "{" << outcome.code << ", recorded "
             << outcome.recorded << std::dec << ", \"" << narrow(outcome.source)
             << "\", \"" << narrow(outcome.text) << "\"}";
}

/// A result that says everything by itself.
inline Outcome plain(HRESULT code) { return {code, S_OK, L"", L""}; }

inline const Outcome kDone;

/// The failure with this code, with its text, as objects of a recordset report
/// it; S_OK is success.
inline Outcome failure(HRESULT code) {
  const auto with = [code](const wchar_t* text) {
    return Outcome{code, code, kSource, text};
  };
  switch (code) {
    case component::kClosedCode:
      return with(component::kClosedText);
    case component::kNoCurrentRecordCode:
      return with(component::kNoCurrentRecordText);
    case component::kNotInThisContextCode:
      return with(component::kNotInThisContextText);
    case component::kNotBackwardCode:
      return with(component::kNotBackwardText);
    case component::kNotFoundCode:
      return with(component::kNotFoundText);
    case component::kNoFieldCode:
    case E_FAIL:
      return with(component::kNoFieldText);
    default:
      return plain(code);
  }
}

/// Of a call through the vtable, asked before anything else is called.
inline Outcome outcome(HRESULT result) {
  const workbench::Error error = workbench::last_error();
  return {result, error.code, error.source, error.description};
}

/// Of a late-bound call: what went wrong is read from its EXCEPINFO, which has
/// to agree with the thread's record.
inline Outcome outcome(const Answer& answer) {
  const workbench::Error error = workbench::last_error();
  if (answer.result != DISP_E_EXCEPTION) {
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.source, L"");
    EXPECT_FALSE(answer.description.has_value());
    return {answer.result, error.code, error.source, error.description};
  }
  EXPECT_EQ(answer.source, error.source);
  EXPECT_EQ(answer.description.value_or(L""), error.description);
  return {answer.code, error.code, answer.source,
          answer.description.value_or(L"")};
}

enum class Road { Vtable, LateBound };
constexpr Road kRoads[] = {Road::Vtable, Road::LateBound};

inline std::ostream& operator<<(std::ostream& out, Road road) {
  return out << (road == Road::Vtable ? "vtable" : "late-bound");
}

// ---------------------------------------------------------------------------
// Recordsets and what is in them
// ---------------------------------------------------------------------------

/// Columns "number", counting from 1, and "text", "row 1" and so on.
inline Recordset numbered(int rows) {
  std::vector<workbench::Row> cells;
  for (int row = 1; row <= rows; ++row) {
    cells.push_back({std::int64_t{row}, "row " + std::to_string(row)});
  }
  return workbench::recordset({"number", "text"}, cells);
}

inline Fields fields_of(const Recordset& recordset) {
  auto [result, fields] = component::received<IZIRDBFields>(
      [&](IZIRDBFields** out) { return recordset->get_Fields(out); });
  EXPECT_EQ(result, S_OK);
  return fields;
}

inline std::pair<HRESULT, Field> item_of(const Fields& fields,
                                         const VARIANT& index) {
  return component::received<IZIRDBField>(
      [&](IZIRDBField** out) { return fields->Item(index, out); });
}

inline Field field_of(const Recordset& recordset, const VARIANT& index) {
  auto [result, field] = item_of(fields_of(recordset), index);
  EXPECT_EQ(result, S_OK);
  return field;
}

inline std::pair<HRESULT, _variant_t> value_of(const Field& field) {
  std::pair<HRESULT, _variant_t> read;
  read.first = field->get_Value(&read.second);
  return read;
}

inline std::pair<HRESULT, std::wstring> name_of(const Field& field) {
  _bstr_t name;
  const HRESULT result = field->get_Name(&name.m_s);
  return {result, name.m_s == nullptr
                      ? std::wstring()
                      : std::wstring(name.m_s, SysStringLen(name.m_s))};
}

inline long count_of(const Fields& fields) {
  long count = -77;
  EXPECT_EQ(fields->get_Count(&count), S_OK);
  return count;
}

/// The number in the first column of the current row; 0 without a row.
inline std::int64_t current_number(const Recordset& recordset) {
  const auto [found, field] = item_of(fields_of(recordset), _variant_t(0));
  if (found != S_OK) return 0;
  const auto [read, value] = value_of(field);
  if (read != S_OK) return 0;
  EXPECT_EQ(value.vt, VT_I8);
  return value.llVal;
}

/// Where the cursor stands: "row 2", "eof", "bof eof", "row 3 eof", "closed".
inline std::string where(const Recordset& recordset) {
  long state = -77;
  EXPECT_EQ(recordset->get_State(&state), S_OK);
  if (state == ZIRDB_STATE_CLOSED) return "closed";
  EXPECT_EQ(state, ZIRDB_STATE_OPEN);
  std::string place;
  const auto add = [&place](const std::string& word) {
    place += (place.empty() ? "" : " ") + word;
  };
  const std::int64_t row = current_number(recordset);
  if (row != 0) add("row " + std::to_string(row));
  for (const bool end : {false, true}) {
    VARIANT_BOOL flag = 77;
    EXPECT_EQ(end ? recordset->get_EOF(&flag) : recordset->get_BOF(&flag),
              S_OK);
    EXPECT_TRUE(flag == VARIANT_TRUE || flag == VARIANT_FALSE) << flag;
    if (flag != VARIANT_FALSE) add(end ? "eof" : "bof");
  }
  return place;
}

/// One step per letter: n MoveNext, f MoveFirst, l MoveLast (refused), e to the
/// end, c Close, d closed by the connection, C a Close that is refused.
inline void go(const Recordset& recordset, const std::string& steps) {
  for (const char step : steps) {
    switch (step) {
      case 'n':
        EXPECT_EQ(recordset->MoveNext(), S_OK);
        break;
      case 'f':
        EXPECT_EQ(recordset->MoveFirst(), S_OK);
        break;
      case 'l':
        EXPECT_EQ(recordset->MoveLast(), component::kNotBackwardCode);
        break;
      case 'e':
        while (recordset->MoveNext() == S_OK) {
        }
        EXPECT_EQ(where(recordset), "eof");
        break;
      case 'c':
        EXPECT_EQ(recordset->Close(), S_OK);
        break;
      case 'd':
        workbench::close_by_connection(recordset.get());
        break;
      default:
        EXPECT_EQ(recordset->Close(), component::kClosedCode);
    }
  }
}

/// References on an object, as its next caller of Release would learn.
template <class Interface>
std::uint32_t references(Interface* object) {
  object->AddRef();
  return object->Release();
}

// ---------------------------------------------------------------------------
// Enumerators
// ---------------------------------------------------------------------------

/// The interface in an answer; the answer keeps a reference of its own.
template <class Interface>
InterfacePtr<Interface> object_in(const Answer& answer, VARTYPE type,
                                  REFIID riid) {
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(answer.value.vt, type);
  if (answer.value.vt != type) return {};
  IUnknown* const object = type == VT_DISPATCH
                               ? static_cast<IUnknown*>(answer.value.pdispVal)
                               : answer.value.punkVal;
  return component::query<Interface>(object, riid);
}

inline Answer new_enum(const Fields& fields) {
  return component::get(component::dispatch_of(fields.get()).get(),
                        DISPID_NEWENUM);
}

inline Enumerator enumerator_of(const Fields& fields) {
  return object_in<IEnumVARIANT>(new_enum(fields), VT_UNKNOWN,
                                 IID_IEnumVARIANT);
}

/// The next field; empty at the end.
inline Field next_of(const Enumerator& enumerator) {
  _variant_t element;
  const HRESULT result = enumerator->Next(1, &element, nullptr);
  if (result == S_FALSE) return {};
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(element.vt, VT_DISPATCH);
  return component::query<IZIRDBField>(element.pdispVal, IID_IZIRDBField);
}

}  // namespace recordsets

#endif  // ZIRDB_TESTS_SUPPORT_RECORDSETS_H
