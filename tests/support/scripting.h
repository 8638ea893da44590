// SPDX-License-Identifier: MIT
//
// Scripts in C++: objects whose members are called late-bound by name, with
// plain values as arguments. A call that fails throws what a script engine
// would report. Text is UTF-8 throughout.
//
//   Object rows = connection.call("Execute", "SELECT 1 AS n");
//   EXPECT_EQ(shown(rows("n").get("Value")), "I8 1");

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPTING_H
#define ZIRDB_TESTS_SUPPORT_SCRIPTING_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace scripting {

// ---------------------------------------------------------------------------
// Text
//
// Converted here rather than by the library, which is what is under test.
// ---------------------------------------------------------------------------

inline std::string utf8(const std::wstring& text) {
  std::string bytes;
  for (const char32_t code : std::u32string(text.begin(), text.end())) {
    const auto tail = [&](unsigned shift) {
      bytes += static_cast<char>(0x80 | (code >> shift & 0x3F));
    };
    if (code < 0x80) {
      bytes += static_cast<char>(code);
    } else if (code < 0x800) {
      bytes += static_cast<char>(0xC0 | code >> 6);
      tail(0);
    } else if (code < 0x10000) {
      bytes += static_cast<char>(0xE0 | code >> 12);
      tail(6);
      tail(0);
    } else {
      bytes += static_cast<char>(0xF0 | code >> 18);
      tail(12);
      tail(6);
      tail(0);
    }
  }
  return bytes;
}

/// Of valid UTF-8.
inline std::wstring wide(const std::string& text) {
  std::wstring units;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    const int more = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    std::uint32_t code = more == 0 ? lead : lead & (0x3FU >> more);
    for (int k = 0; k < more; ++k) {
      code = code << 6 | (static_cast<unsigned char>(text.at(i++)) & 0x3FU);
    }
    units += static_cast<wchar_t>(code);
  }
  return units;
}

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

inline _variant_t number(VARTYPE type, std::int64_t value) {
  return values::plain(type, static_cast<std::uint64_t>(value));
}
inline _variant_t null() { return values::plain(VT_NULL, 0); }
inline _variant_t bytes(const std::string& content) {
  VARIANT value{};
  value.vt = VT_ARRAY | VT_UI1;
  value.parray = SafeArrayCreateVector(
      VT_UI1, 0, static_cast<std::uint32_t>(content.size()));
  const SafeArrayAccess access(value.parray);
  for (std::size_t i = 0; i < content.size(); ++i) {
    access.elements<BYTE>()[i] = static_cast<BYTE>(content[i]);
  }
  return values::owned(value);
}

class Object;
inline _variant_t argument(const std::string& text) {
  return wide(text).c_str();
}
inline _variant_t argument(const char* text) {
  return argument(std::string(text));
}
inline _variant_t argument(const Object& object);
template <class Value>
_variant_t argument(const Value& value) {
  return _variant_t(value);
}

/// What scripts write as Array(...).
class Array {
 public:
  template <class... Element>
  static Array of(const Element&... elements) {
    return Array({argument(elements)...});
  }
  explicit Array(const std::vector<_variant_t>& elements, LONG lower = 0) {
    VARIANT value{};
    value.vt = VT_ARRAY | VT_VARIANT;
    value.parray = SafeArrayCreateVector(
        VT_VARIANT, lower, static_cast<std::uint32_t>(elements.size()));
    value_.Attach(value);
    const SafeArrayAccess access(value_.parray);
    for (std::size_t i = 0; i < elements.size(); ++i) {
      VariantCopy(&access.elements<VARIANT>()[i], &elements[i]);
    }
  }

  /// The array itself, for a call that writes into it; it stays this one's.
  VARIANT reference() { return values::reference_to(&value_); }
  _variant_t operator[](std::size_t i) const {
    const SafeArrayAccess access(value_.parray);
    return access.elements<VARIANT>()[i];
  }

 private:
  _variant_t value_;
};

/// A value as a text: "EMPTY", "NULL", "BOOL -1", "I4 3", "I8 3", "R8 0.1",
/// "BSTR abc", "bytes 00 FF". Other types show their number.
inline std::string shown(const VARIANT& value) {
  switch (value.vt) {
    case VT_EMPTY:
      return "EMPTY";
    case VT_NULL:
      return "NULL";
    case VT_BOOL:
      return "BOOL " + std::to_string(value.boolVal);
    case VT_I4:
      return "I4 " + std::to_string(value.lVal);
    case VT_I8:
      return "I8 " + std::to_string(value.llVal);
    case VT_BSTR:
      return "BSTR " + utf8(values::text_of(value));
    case VT_R8: {
      // The fewest digits that lead back to the same number.
      char digits[40];
      for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(digits, sizeof digits, "%.*g", precision, value.dblVal);
        if (std::strtod(digits, nullptr) == value.dblVal) break;
      }
      return std::string("R8 ") + digits;
    }
    case VT_ARRAY | VT_UI1: {
      LONG from = 0;
      LONG to = -1;
      SafeArrayGetLBound(value.parray, 1, &from);
      SafeArrayGetUBound(value.parray, 1, &to);
      std::string text = "bytes";
      const SafeArrayAccess access(value.parray);
      for (LONG i = 0; i <= to - from; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, " %02X",
                      unsigned{access.elements<BYTE>()[i]});
        text += digits;
      }
      return from == 0 ? text : text + " from " + std::to_string(from);
    }
    default:
      return "type " + std::to_string(value.vt);
  }
}

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

/// A call that failed. `code` is the one of the operation where that is what
/// failed, else the one that refused the call.
class Error : public std::runtime_error {
 public:
  explicit Error(const component::Answer& answer)
      : std::runtime_error(
            utf8(answer.source + L": " + answer.description.value_or(L""))),
        code_(answer.result == DISP_E_EXCEPTION ? answer.code : answer.result),
        source_(utf8(answer.source)),
        text_(utf8(answer.description.value_or(L""))) {}

  HRESULT code() const { return code_; }
  const std::string& source() const { return source_; }
  const std::string& text() const { return text_; }

 private:
  HRESULT code_;
  std::string source_;
  std::string text_;
};

class Object {
 public:
  Object() = default;
  explicit Object(InterfacePtr<IDispatch> object)
      : object_(std::move(object)) {}
  /// Throws where the value is no object.
  Object(const VARIANT& value)  // NOLINT(google-explicit-constructor)
      : object_(InterfacePtr<IDispatch>::share(
            value.vt == VT_DISPATCH ? value.pdispVal : nullptr)) {
    if (!object_) throw std::runtime_error("no object: " + shown(value));
  }

  IDispatch* dispatch() const { return object_.get(); }
  explicit operator bool() const { return static_cast<bool>(object_); }
  void release() { object_ = {}; }

  _variant_t get(const char* name) const {
    return value_of(component::get(dispatch(), id_of(name)));
  }
  template <class Value>
  void put(const char* name, const Value& value) const {
    value_of(component::put(dispatch(), id_of(name), argument(value)));
  }
  template <class... Argument>
  _variant_t call(const char* name, const Argument&... arguments) const {
    return value_of(invoke(id_of(name), {argument(arguments)...}));
  }
  /// The object itself, called: its default member.
  template <class... Argument>
  _variant_t operator()(const Argument&... arguments) const {
    return value_of(invoke(0, {argument(arguments)...}));
  }

 private:
  DISPID id_of(const char* name) const {
    std::wstring copy = wide(name);
    wchar_t* names[] = {copy.data()};
    DISPID id = DISPID_UNKNOWN;
    if (FAILED(object_->GetIDsOfNames(IID_NULL, names, 1, 0, &id))) {
      throw std::runtime_error(std::string("no member ") + name);
    }
    return id;
  }
  // Script engines do not know whether they call a method or read a property.
  component::Answer invoke(DISPID member,
                           std::vector<_variant_t> arguments) const {
    component::Call call;
    call.member = member;
    call.flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
    call.arguments = std::move(arguments);
    return component::invoke(dispatch(), call);
  }
  static _variant_t value_of(component::Answer answer) {
    if (FAILED(answer.result)) throw Error(answer);
    return std::move(answer.value);
  }

  InterfacePtr<IDispatch> object_;
};

inline _variant_t argument(const Object& object) { return object.dispatch(); }

inline Object new_connection() {
  return Object(component::dispatch_of(component::connection().get()));
}
inline Object new_command() {
  return Object(component::dispatch_of(component::command().get()));
}

/// The error of what must fail.
template <class Act>
Error error_of(Act act) {
  try {
    act();
  } catch (const Error& error) {
    return error;
  }
  throw std::runtime_error("nothing failed");
}

/// "The operation was refused with this code, source and text."
inline void expect_error(const Error& error, HRESULT code, const char* source,
                         const wchar_t* text) {
  EXPECT_EQ(error.code(), code) << std::hex << error.code();
  EXPECT_EQ(error.source(), source);
  EXPECT_EQ(error.text(), utf8(text));
}

/// A callback whose argument is an object. What it throws fails the test, and
/// is a failure to its caller.
class Callback {
 public:
  explicit Callback(std::function<HRESULT(const Object&)> body)
      : callback_([body = std::move(body)](
                      const objects::Dispatch::Call& call) -> HRESULT {
          try {
            return body(Object(call.parameters->rgvarg[0]));
          } catch (const std::exception& failure) {
            ADD_FAILURE() << failure.what();
            return E_UNEXPECTED;
          }
        }) {}
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;
  ~Callback() { EXPECT_EQ(callback_.references(), 1U) << "the test's own"; }

  _variant_t argument() { return static_cast<IDispatch*>(&callback_); }
  int calls() const { return callback_.invocations(); }

 private:
  objects::Dispatch callback_;
};

// ---------------------------------------------------------------------------
// Recordsets
// ---------------------------------------------------------------------------

inline std::string value_of(const Object& row, const char* column) {
  return shown(Object(row(column)).get("Value"));
}

/// The values of the row where the recordset stands.
inline std::vector<std::string> row_of(const Object& recordset) {
  const Object fields = recordset.get("Fields");
  const std::int64_t count = fields.get("Count").lVal;
  std::vector<std::string> row;
  for (std::int64_t i = 0; i < count; ++i) {
    row.push_back(shown(Object(fields(i)).get("Value")));
  }
  return row;
}

/// All rows from the current one on, walked with MoveNext.
inline std::vector<std::vector<std::string>> rows_of(const Object& recordset) {
  std::vector<std::vector<std::string>> rows;
  while (recordset.get("EOF").boolVal == VARIANT_FALSE) {
    rows.push_back(row_of(recordset));
    recordset.call("MoveNext");
  }
  return rows;
}

/// The only value of a recordset.
inline std::string only_value(const Object& recordset) {
  const std::vector<std::vector<std::string>> rows = rows_of(recordset);
  if (rows.size() != 1 || rows[0].size() != 1) {
    throw std::runtime_error("not exactly one value");
  }
  return rows[0][0];
}

}  // namespace scripting

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPTING_H
