// SPDX-License-Identifier: MIT
//
// late_bound: Automation objects in a few lines of C++, for hosts that have no
// script engine. It needs zir.h and the library and nothing else, and it knows
// nothing of databases: copy it into your program.
//
//   Object connection("ZIRDB.Connection");
//   connection.call("Open", "Driver=SQLite3;Database=shop.db");
//   Object rows = connection.call("Execute", "SELECT * FROM item").object();
//   rows.call("forEach", callback([](const Object& fields) {
//     std::cout << fields("name").object().get("Value").text() << '\n';
//   }));
//
// Sections: errors; texts; values; objects; callbacks.
//
// Texts are UTF-8 here. What goes wrong is thrown as an Error; nothing is
// thrown through an object's interface. Values and objects own what they hold.

#ifndef LATE_BOUND_H
#define LATE_BOUND_H

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zir.h"

namespace late_bound {

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

/// What an object reports: a code that programs compare, who reports it, and
/// the description as what().
class Error : public std::runtime_error {
 public:
  Error(HRESULT code, std::string source, const std::string& description)
      : std::runtime_error(description),
        code_(code),
        source_(std::move(source)) {}

  HRESULT code() const { return code_; }
  const std::string& source() const { return source_; }

 private:
  HRESULT code_;
  std::string source_;
};

/// An Error for a code without a description.
inline Error plain_error(HRESULT code, const std::string& doing,
                         const std::string& source = "") {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(code));
  return {code, source, doing + ": code " + text};
}

inline void check(HRESULT result, const std::string& doing) {
  if (FAILED(result)) throw plain_error(result, doing);
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

/// Throws for what is not UTF-8, and for a zero, where a text would end.
inline std::wstring wide(const std::string& utf8) {
  if (utf8.find('\0') != std::string::npos) {
    throw Error(E_INVALIDARG, "", "a text holds a zero");
  }
  const std::size_t size = utf8_utf32(nullptr, 0, utf8.c_str());
  if (size == 0) throw Error(E_INVALIDARG, "", "a text is not UTF-8");
  std::wstring text(size - 1, L'\0');
  utf8_utf32(text.data(), size, utf8.c_str());
  return text;
}

inline std::string narrow(const wchar_t* text) {
  const std::size_t size = utf32_utf8(nullptr, 0, text);
  std::string utf8(size - 1, '\0');
  utf32_utf8(utf8.data(), size, text);
  return utf8;
}

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

class Object;
struct Null {};
using Bytes = std::vector<unsigned char>;

/// What is passed and returned: nothing at all, Null, a truth value, a number,
/// a text, bytes, an object or an array of values.
class Value {
 public:
  Value() = default;
  // NOLINTBEGIN(google-explicit-constructor): values are passed as values
  Value(Null /*null*/) { variant_.vt = VT_NULL; }
  template <class Number, std::enable_if_t<std::is_arithmetic_v<Number> ||
                                               std::is_enum_v<Number>,
                                           int> = 0>
  Value(Number number) : variant_(number) {
    if constexpr (!std::is_floating_point_v<Number> &&
                  !std::is_same_v<Number, bool>) {
      // Integers have 64 bits and a sign.
      if (variant_.llVal < 0 && number > Number()) {
        throw std::out_of_range("a number too large for a value");
      }
    }
  }
  Value(const char* utf8) : variant_(wide(utf8).c_str()) {}
  Value(const std::string& utf8) : variant_(wide(utf8).c_str()) {}
  Value(const Bytes& bytes);
  Value(const Object& object);
  Value(const std::vector<Value>& elements);
  // NOLINTEND(google-explicit-constructor)
  explicit Value(_variant_t variant) : variant_(std::move(variant)) {}

  /// Stands for `value`, which must outlive it: what a member stores in its
  /// argument arrives there. Arguments that are passed without this are copied,
  /// arrays with all their elements.
  static Value reference_to(Value& value) {
    Value reference;
    reference.variant_.vt = VT_BYREF | VT_VARIANT;
    reference.variant_.pvarVal = &value.variant_;
    return reference;
  }

  VARTYPE type() const { return variant_.vt; }
  bool is_nothing() const { return type() == VT_EMPTY || type() == VT_NULL; }

  // These convert, and throw where the runtime has no conversion: a number of
  // 32 bits, such as a State, has no truth. The runtime prints a line then.
  bool truth() const { return converted(VT_BOOL).boolVal != VARIANT_FALSE; }
  std::int64_t integer() const { return converted(VT_I8).llVal; }
  double number() const { return converted(VT_R8).dblVal; }
  std::string text() const { return narrow(converted(VT_BSTR).bstrVal); }
  // These do not.
  Bytes bytes() const;
  Object object() const;
  std::vector<Value> elements() const;

  const VARIANT& variant() const { return variant_; }

 private:
  // The elements of an array of `type` with one dimension.
  template <class Element>
  std::vector<Element> elements_of(VARTYPE type) const {
    if (variant_.vt != (VT_ARRAY | type) || variant_.parray == nullptr ||
        variant_.parray->cDims != 1) {
      throw plain_error(DISP_E_TYPEMISMATCH, "reading an array");
    }
    LONG lower = 0;
    LONG upper = 0;
    check(SafeArrayGetLBound(variant_.parray, 1, &lower), "reading an array");
    check(SafeArrayGetUBound(variant_.parray, 1, &upper), "reading an array");
    const SafeArrayAccess access(variant_.parray);
    check(access.result(), "reading an array");
    const auto* const first = access.elements<Element>();
    return {first, first + (upper - lower + 1)};
  }

  // An array of `type` with these elements, moved into it one by one.
  template <class Element, class Elements, class Store>
  void make_array(VARTYPE type, const Elements& elements, Store store) {
    if (elements.size() > std::numeric_limits<std::uint32_t>::max()) {
      throw std::length_error("too many elements for an array");
    }
    variant_.parray = SafeArrayCreateVector(
        type, 0, static_cast<std::uint32_t>(elements.size()));
    if (variant_.parray == nullptr) throw std::bad_alloc();
    variant_.vt = VT_ARRAY | type;
    const SafeArrayAccess access(variant_.parray);
    check(access.result(), "making an array");
    auto* const first = access.elements<Element>();
    for (std::size_t i = 0; i < elements.size(); ++i) {
      store(first[i], elements[i]);
    }
  }

  _variant_t converted(VARTYPE type) const {
    _variant_t result;
    check(VariantChangeType(&result, &variant_, 0, type), "converting a value");
    return result;
  }

  _variant_t variant_;
};

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

/// A reference to an object; its members go by name, in any case.
class Object {
 public:
  Object() = default;
  explicit Object(InterfacePtr<IDispatch> dispatch)
      : dispatch_(std::move(dispatch)) {}
  /// A new object of the class with this name. The environment variable
  /// REGISTRY says where libraries are looked for.
  explicit Object(const char* program_id) {
    const HRESULT result = dispatch_.receive([&](void** out) {
      return CoCreateInstanceByName(wide(program_id).c_str(), nullptr,
                                    CLSCTX_INPROC_SERVER, IID_IDispatch, out);
    });
    check(result, std::string("creating ") + program_id +
                      " (does REGISTRY name the registry folder?)");
  }

  explicit operator bool() const { return static_cast<bool>(dispatch_); }
  IDispatch* dispatch() const { return dispatch_.get(); }

  /// Calls a method, or reads a property, with the arguments in their order.
  template <class... Arguments>
  Value call(const char* member, const Arguments&... arguments) const {
    return invoke(id_of(member), DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                  {Value(arguments)...}, member);
  }
  Value get(const char* property) const {
    return invoke(id_of(property), DISPATCH_PROPERTYGET, {}, property);
  }
  void put(const char* property, const Value& value) const {
    invoke(id_of(property), DISPATCH_PROPERTYPUT, {value}, property);
  }
  /// The default member: what a script writes as object(arguments).
  template <class... Arguments>
  Value operator()(const Arguments&... arguments) const {
    return invoke(DISPID_VALUE, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                  {Value(arguments)...}, "the default member");
  }

 private:
  IDispatch* required(const char* member) const {
    if (!dispatch_) {
      throw Error(E_INVALIDARG, "", std::string(member) + ": no object");
    }
    return dispatch_.get();
  }

  DISPID id_of(const char* member) const {
    std::wstring name = wide(member);
    wchar_t* text = name.data();
    DISPID id = DISPID_UNKNOWN;
    check(required(member)->GetIDsOfNames(IID_NULL, &text, 1, 0, &id), member);
    return id;
  }

  Value invoke(DISPID id, WORD flags, const std::vector<Value>& arguments,
               const char* member) const {
    // Last first. These are not copies: their owners are the arguments.
    std::vector<VARIANT> passed;
    for (auto each = arguments.rbegin(); each != arguments.rend(); ++each) {
      passed.push_back(each->variant());
    }
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS parameters = {passed.data(), nullptr,
                             static_cast<UINT>(passed.size()), 0};
    const bool puts = flags == DISPATCH_PROPERTYPUT;
    if (puts) {
      parameters.rgdispidNamedArgs = &named;
      parameters.cNamedArgs = 1;
    }
    _variant_t result;
    Exception exception;
    const HRESULT code = required(member)->Invoke(
        id, IID_NULL, 0, flags, &parameters, puts ? nullptr : &result,
        &exception.info, nullptr);
    if (code == DISP_E_EXCEPTION) throw exception.error(member);
    check(code, member);
    return Value(std::move(result));
  }

  struct Exception {
    Exception() { ExcepinfoInit(&info); }
    Exception(const Exception&) = delete;
    Exception& operator=(const Exception&) = delete;
    ~Exception() { ExcepinfoClear(&info); }

    Error error(const char* member) {
      if (info.pfnDeferredFillIn != nullptr) info.pfnDeferredFillIn(&info);
      // Some objects report a number of their own instead of a code.
      const HRESULT code = FAILED(info.scode) ? info.scode : E_FAIL;
      const std::string source = narrow(info.bstrSource);
      if (info.bstrDescription == nullptr) {
        return plain_error(code, member, source);
      }
      return {code, source, narrow(info.bstrDescription)};
    }

    EXCEPINFO info = {};
  };

  InterfacePtr<IDispatch> dispatch_;
};

inline Value::Value(const Bytes& bytes) {
  make_array<unsigned char>(
      VT_UI1, bytes, [](unsigned char& to, unsigned char from) { to = from; });
}

inline Value::Value(const Object& object) : variant_(object.dispatch()) {}

inline Value::Value(const std::vector<Value>& elements) {
  make_array<VARIANT>(VT_VARIANT, elements, [](VARIANT& to, const Value& from) {
    VariantCopy(&to, &from.variant_);
  });
}

inline Bytes Value::bytes() const { return elements_of<unsigned char>(VT_UI1); }

inline Object Value::object() const {
  if (variant_.vt != VT_DISPATCH || variant_.pdispVal == nullptr) {
    throw plain_error(DISP_E_TYPEMISMATCH, "reading an object");
  }
  return Object(InterfacePtr<IDispatch>::share(variant_.pdispVal));
}

inline std::vector<Value> Value::elements() const {
  std::vector<Value> values;
  // Not copies: they are the array's.
  for (const VARIANT& each : elements_of<VARIANT>(VT_VARIANT)) {
    values.emplace_back(_variant_t(each));
  }
  return values;
}

// ---------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------

/// An object that objects can call: its default member is a C++ function of one
/// object. What that throws is reported to the caller as an error.
class Callback final : public IDispatch {
 public:
  using Function = std::function<void(const Object& argument)>;

  explicit Callback(Function function) : function_(std::move(function)) {}
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IDispatch) return E_NOINTERFACE;
    *object = static_cast<IDispatch*>(this);
    AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_INVALIDARG;
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT count, LCID,
                        DISPID* ids) override {
    if (ids == nullptr) return E_INVALIDARG;
    std::fill_n(ids, count, DISPID_UNKNOWN);
    return DISP_E_UNKNOWNNAME;
  }

  HRESULT Invoke(DISPID member, REFIID, LCID, WORD flags,
                 DISPPARAMS* parameters, VARIANT*, EXCEPINFO* exception,
                 UINT*) override {
    if (member != DISPID_VALUE || (flags & DISPATCH_METHOD) == 0) {
      return DISP_E_MEMBERNOTFOUND;
    }
    if (parameters == nullptr || parameters->rgvarg == nullptr ||
        parameters->cArgs != 1) {
      return DISP_E_BADPARAMCOUNT;
    }
    // Callers pass variables by reference.
    const VARIANT* argument = parameters->rgvarg;
    if (argument->vt == (VT_BYREF | VT_VARIANT)) argument = argument->pvarVal;
    if (argument == nullptr || argument->vt != VT_DISPATCH) {
      return DISP_E_TYPEMISMATCH;
    }
    try {
      function_(Object(InterfacePtr<IDispatch>::share(argument->pdispVal)));
      return S_OK;
    } catch (const Error& error) {
      return report(exception, error.code(), error.source(), error.what());
    } catch (const std::exception& error) {
      return report(exception, E_FAIL, "", error.what());
    } catch (const abi::__forced_unwind&) {
      throw;  // the thread is being cancelled
    } catch (...) {
      return report(exception, E_FAIL, "", "a callback failed");
    }
  }

 private:
  // Objects are destroyed by their last Release.
  ~Callback() = default;

  static HRESULT report(EXCEPINFO* exception, HRESULT code,
                        const std::string& source,
                        const std::string& description) {
    if (SUCCEEDED(code)) code = E_FAIL;
    if (exception == nullptr) return code;
    ExcepinfoClear(exception);
    exception->scode = code;
    try {
      exception->bstrSource = SysAllocString(wide(source).c_str());
      exception->bstrDescription = SysAllocString(wide(description).c_str());
    } catch (const std::exception&) {
      return DISP_E_EXCEPTION;  // texts are lost, the failure is not
    }
    return DISP_E_EXCEPTION;
  }

  std::atomic<std::uint32_t> references_{1};
  Function function_;
};

/// A new callback, as an argument.
inline Object callback(Callback::Function function) {
  return Object(
      InterfacePtr<IDispatch>::adopt(new Callback(std::move(function))));
}

}  // namespace late_bound

#endif  // LATE_BOUND_H
