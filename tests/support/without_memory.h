// SPDX-License-Identifier: MIT
//
// For tests of the component without memory: each operation is repeated with
// its first, second, third, ... request failing until none fails any more, once
// with that request alone and once with all that follow. Every time it is to
// say so by its result, store nothing, leave the objects as they were and
// nothing behind, and do its work when it is called again.
//
// The program links runtime_allocator.cpp and has no other threads than those
// of the attempts.
//
// Sections: attempts; the world; calls.

#ifndef ZIRDB_TESTS_SUPPORT_WITHOUT_MEMORY_H
#define ZIRDB_TESTS_SUPPORT_WITHOUT_MEMORY_H

#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace without_memory {

using allocator::Fail;
using allocator::g_watched;
using component::dispatch_of;
using workbench::Blob;

// ---------------------------------------------------------------------------
// Attempts
// ---------------------------------------------------------------------------

/// What a call came to that an exception left: no code at all.
constexpr HRESULT kThrown = 0x0BAD;

/// One run of a call with some request failing.
class Attempt {
 public:
  Attempt(Fail mode, long fail_at) : mode_(mode), fail_at_(fail_at) {}

  /// The result of the call; nothing but the call is watched.
  template <class Call>
  HRESULT run(const Call& call) {
    HRESULT result = kThrown;
    try {
      const allocator::Watch watch(mode_, fail_at_);
      result = call();
    } catch (const std::exception&) {
      result = kThrown;
    }
    failed_ = g_watched.requests >= fail_at_;
    return result;
  }
  /// The same for what is called inside of an operation only, which turns the
  /// exception into this code.
  template <class Call>
  HRESULT run_inner(const Call& call) {
    const HRESULT result = run(call);
    return result == kThrown ? E_OUTOFMEMORY : result;
  }

  /// Whether a request was refused.
  bool failed() const { return failed_; }
  bool one() const { return mode_ == Fail::One; }

 private:
  Fail mode_;
  long fail_at_;
  bool failed_ = false;
};

/// What the test itself does inside of a watched call is not the component's.
class Unwatched {
 public:
  Unwatched() : was_on_(std::exchange(g_watched.on, false)) {}
  Unwatched(const Unwatched&) = delete;
  Unwatched& operator=(const Unwatched&) = delete;
  ~Unwatched() { g_watched.on = was_on_; }

 private:
  bool was_on_;
};

/// Runs the body, which makes one attempt and clears up behind it, until no
/// request is left to fail. The number of failures with one at a time.
///
/// Every attempt has a thread of its own, whose error record is new and has to
/// ask for what it is to hold.
inline long everywhere(const std::function<void(Attempt&)>& body) {
  long failures = 0;
  for (const Fail mode : {Fail::One, Fail::AllFromThere}) {
    for (long fail_at = 1;; ++fail_at) {
      const long live = g_watched.live;
      Attempt attempt(mode, fail_at);
      std::thread thread([&] {
        SCOPED_TRACE("request " + std::to_string(fail_at) +
                     (mode == Fail::One ? "" : " and all behind"));
        workbench::set_error(E_FAIL, L"", L"");
        body(attempt);
        EXPECT_EQ(workbench::objects_alive(), 0U);
        EXPECT_EQ(workbench::locks_held(), 0U);
      });
      thread.join();
      EXPECT_EQ(g_watched.live, live) << "request " << fail_at;
      if (testing::Test::HasFailure()) return failures;
      if (!attempt.failed()) break;
      if (mode == Fail::One) ++failures;
    }
  }
  return failures;
}

// ---------------------------------------------------------------------------
// The world
// ---------------------------------------------------------------------------

// Names and texts are longer than what a string keeps inside of itself.
constexpr const char* kNumberColumn = "the number of the row";
constexpr const char* kTextColumn = "the text of the row";
constexpr const char* kBlobColumn = "the bytes of the row";
constexpr const wchar_t* kWideTextColumn = L"the text of the row";
constexpr const wchar_t* kWrittenOtherwise = L"The Text Of The Row";

inline std::string text_of_row(std::size_t row) {
  return "a text that fills row " + std::to_string(row);
}

inline workbench::Cell cell(std::size_t row, std::size_t column) {
  const auto number = static_cast<std::int64_t>(row);
  if (column == 0) return number;
  if (column == 1) return text_of_row(row);
  return Blob(40, static_cast<unsigned char>('a' + number));
}

inline _variant_t bytes_value(const Blob& bytes) {
  VARIANT value{};
  EXPECT_EQ(workbench::make_byte_array_variant(bytes, &value), S_OK);
  return values::owned(value);
}

inline std::wstring shown(IUnknown* object);

/// "-" for NULL.
inline std::wstring shown(BSTR string) {
  return string == nullptr ? L"-" : string;
}

/// The content as text; "-" for a text or an array that had no memory.
inline std::wstring shown(const VARIANT& value) {
  switch (static_cast<int>(value.vt)) {
    case VT_EMPTY:
      return L"empty";
    case VT_NULL:
      return L"null";
    case VT_BSTR:
      return value.bstrVal == nullptr ? L"-" : values::text_of(value);
    case VT_DISPATCH:
    case VT_UNKNOWN:
      return shown(value.punkVal);
    case VT_ARRAY | VT_UI1: {
      if (value.parray == nullptr) return L"-";
      const SafeArrayAccess access(value.parray);
      if (FAILED(access.result())) return L"locked";
      const auto* const bytes = access.elements<BYTE>();
      return {bytes, bytes + value.parray->rgsabound[0].cElements};
    }
    default:
      return std::to_wstring(value.llVal);
  }
}

inline std::wstring shown(IZIRDBField* field) {
  _bstr_t name;
  _variant_t value;
  if (FAILED(field->get_Name(&name.m_s)) || FAILED(field->get_Value(&value))) {
    return L"field without a value";
  }
  return std::wstring(L"field ") + name.m_s + L" = " + shown(value);
}

inline std::wstring shown(IZIRDBParameter* parameter) {
  _bstr_t name;
  _variant_t value;
  long type = 0;
  long direction = 0;
  long size = 0;
  EXPECT_EQ(parameter->get_Name(&name.m_s), S_OK);
  EXPECT_EQ(parameter->get_Value(&value), S_OK);
  EXPECT_EQ(parameter->get_Type(&type), S_OK);
  EXPECT_EQ(parameter->get_Direction(&direction), S_OK);
  EXPECT_EQ(parameter->get_Size(&size), S_OK);
  return (name.m_s == nullptr ? std::wstring() : std::wstring(name.m_s)) +
         L" = " + shown(value) + L" (" + std::to_wstring(type) + L", " +
         std::to_wstring(direction) + L", " + std::to_wstring(size) + L")";
}

inline std::wstring shown(IZIRDBParameters* parameters) {
  long count = 0;
  EXPECT_EQ(parameters->get_Count(&count), S_OK);
  std::wstring all;
  for (long i = 0; i < count; ++i) {
    const auto [result, parameter] =
        component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
          return parameters->Item(_variant_t(i), out);
        });
    EXPECT_EQ(result, S_OK);
    if (parameter) all += shown(parameter.get()) + L"; ";
  }
  return all;
}

/// What is left to enumerate.
inline std::wstring shown(IEnumVARIANT* enumerator) {
  const auto [result, rest] = component::received<IEnumVARIANT>(
      [&](IEnumVARIANT** out) { return enumerator->Clone(out); });
  EXPECT_EQ(result, S_OK);
  if (!rest) return L"-";
  std::wstring all = L"enumerator of ";
  for (;;) {
    _variant_t field;
    if (rest->Next(1, &field, nullptr) != S_OK) return all;
    all += shown(field) + L"; ";
  }
}

inline std::wstring shown(IUnknown* object) {
  if (object == nullptr) return L"-";
  if (const auto field =
          component::query<IZIRDBField>(object, IID_IZIRDBField)) {
    return shown(field.get());
  }
  if (const auto parameter =
          component::query<IZIRDBParameter>(object, IID_IZIRDBParameter)) {
    return shown(parameter.get());
  }
  if (const auto fields =
          component::query<IZIRDBFields>(object, IID_IZIRDBFields)) {
    long count = 0;
    EXPECT_EQ(fields->get_Count(&count), S_OK);
    return std::to_wstring(count) + L" fields";
  }
  if (const auto enumerator =
          component::query<IEnumVARIANT>(object, IID_IEnumVARIANT)) {
    return shown(enumerator.get());
  }
  if (component::query<IZIRDBRecordset>(object, IID_IZIRDBRecordset)) {
    return L"recordset";
  }
  if (component::query<IClassFactory>(object, IID_IClassFactory)) {
    return L"factory";
  }
  return L"unknown object";
}

/// A parameter of a host's own, which needs none of the memory that fails.
class ForeignParameter final : public IZIRDBParameter {
 public:
  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid == IID_IUnknown || riid == IID_IZIRDBParameter) {
      *object = static_cast<IZIRDBParameter*>(this);
    } else if (riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(&late_bound_);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  HRESULT get_Name(BSTR* name) override {
    const Unwatched unwatched;
    *name = SysAllocString(L"the foreign parameter");
    return S_OK;
  }
  HRESULT put_Name(BSTR) override { return E_NOTIMPL; }
  HRESULT get_Value(VARIANT* value) override {
    const Unwatched unwatched;
    *value = _variant_t(L"the foreign value").Detach();
    return S_OK;
  }
  HRESULT put_Value(VARIANT) override { return E_NOTIMPL; }
  HRESULT get_Type(long* type) override { return store(type, 77); }
  HRESULT put_Type(long) override { return E_NOTIMPL; }
  HRESULT get_Direction(long* direction) override {
    return store(direction, 8);
  }
  HRESULT put_Direction(long) override { return E_NOTIMPL; }
  HRESULT get_Size(long* size) override { return store(size, 9); }
  HRESULT put_Size(long) override { return E_NOTIMPL; }

  /// As an argument of a late-bound call.
  IDispatch* late_bound() { return &late_bound_; }
  std::uint32_t references() const { return references_; }

 private:
  /// The other face of the same object.
  struct LateBound final : IDispatch {
    explicit LateBound(ForeignParameter& whole_object) : whole(whole_object) {}
    HRESULT QueryInterface(REFIID riid, void** object) override {
      return whole.QueryInterface(riid, object);
    }
    std::uint32_t AddRef() override { return whole.AddRef(); }
    std::uint32_t Release() override { return whole.Release(); }
    HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
      return E_NOTIMPL;
    }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*,
                   EXCEPINFO*, UINT*) override {
      return E_NOTIMPL;
    }
    ForeignParameter& whole;
  };

  static HRESULT store(long* out, long number) {
    *out = number;
    return S_OK;
  }

  std::uint32_t references_ = 1;
  LateBound late_bound_{*this};
};

inline InterfacePtr<IZIRDBField> item(IZIRDBFields* fields,
                                      const _variant_t& index) {
  return component::received<IZIRDBField>(
             [&](IZIRDBField** out) { return fields->Item(index, out); })
      .second;
}

/// Everything that an operation works on, new for every attempt, and what the
/// operation gave.
struct World {
  World() {
    fields = component::received<IZIRDBFields>([&](IZIRDBFields** out) {
               return recordset->get_Fields(out);
             }).second;
    text_field = item(fields.get(), 1);
    blob_field = item(fields.get(), 2);
    enumerator = component::query<IEnumVARIANT>(
        component::get(dispatch_of(fields.get()).get(), DISPID_NEWENUM)
            .value.punkVal,
        IID_IEnumVARIANT);
    parameters->Append(first.get());
    parameters->Append(second.get());
    factory.receive([](void** out) {
      return DllGetClassObject(CLSID_ZIRDBRecordset, IID_IClassFactory, out);
    });
  }

  /// Calls `call(Interface** out)`, which must store an interface or nothing.
  template <class Interface, class Call>
  HRESULT receive(const Call& call) {
    Interface* stored = nullptr;
    const HRESULT result = call(&stored);
    object = InterfacePtr<IUnknown>::adopt(stored);
    return result;
  }
  /// The same for a call that is to store NULL when it fails.
  template <class Interface, class Call>
  HRESULT receive_or_null(const Call& call) {
    auto* const untouched = reinterpret_cast<Interface*>(this);
    Interface* stored = untouched;
    const HRESULT result = call(&stored);
    left_untouched = stored == untouched;
    if (!left_untouched) object = InterfacePtr<IUnknown>::adopt(stored);
    return result;
  }
  /// Calls `call(BSTR* out)`.
  template <class Call>
  HRESULT receive_text(const Call& call) {
    BSTR stored = nullptr;
    const HRESULT result = call(&stored);
    if (stored != nullptr) {
      value.bstrVal = stored;
      value.vt = VT_BSTR;
    }
    return result;
  }

  /// A late-bound call with at most one argument.
  HRESULT late(const InterfacePtr<IDispatch>& target, DISPID member, WORD flags,
               VARIANT* given = nullptr) {
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS arguments{};
    arguments.rgvarg = given;
    arguments.cArgs = given == nullptr ? 0 : 1;
    if (flags == DISPATCH_PROPERTYPUT) {
      arguments.rgdispidNamedArgs = &named;
      arguments.cNamedArgs = 1;
    }
    return target->Invoke(member, IID_NULL, 0, flags, &arguments, &value,
                          exception.get(), nullptr);
  }

  /// What the operation stored.
  std::wstring got() const {
    if (left_untouched) return L"a pointer that was not set";
    if (object) return shown(object.get());
    return value.vt == VT_EMPTY ? L"nothing" : shown(value);
  }

  /// Makes room for another call.
  void forget() {
    object = {};
    value = _variant_t();
    left_untouched = false;
    ExcepinfoClear(exception.get());
  }

  /// What can be observed of the objects.
  std::wstring state() const {
    long open = 0;
    EXPECT_EQ(recordset->get_State(&open), S_OK);
    std::wstring all;
    if (open == ZIRDB_STATE_OPEN) {
      VARIANT_BOOL at_end = 0;
      VARIANT_BOOL at_start = 0;
      EXPECT_EQ(recordset->get_EOF(&at_end), S_OK);
      EXPECT_EQ(recordset->get_BOF(&at_start), S_OK);
      if (at_start != 0) all += L"BOF ";
      all += at_end != 0 ? L"EOF" : L"row " + current_number();
    } else {
      all = L"closed";
    }
    return all + L" after " + std::to_wstring(callback.invocations()) +
           L" calls | " + shown(enumerator.get()) + L"| " +
           shown(parameters.get());
  }

  objects::Dispatch callback{
      [](const objects::Dispatch::Call&) { return S_OK; }};
  ForeignParameter foreign;
  InterfacePtr<IZIRDBRecordset> recordset =
      workbench::recordset({kNumberColumn, kTextColumn, kBlobColumn}, 3, cell);
  InterfacePtr<IZIRDBFields> fields;
  InterfacePtr<IZIRDBField> text_field;
  InterfacePtr<IZIRDBField> blob_field;
  InterfacePtr<IEnumVARIANT> enumerator;
  InterfacePtr<IZIRDBParameters> parameters = workbench::parameters();
  InterfacePtr<IZIRDBParameter> first = workbench::parameter(
      L"the first parameter", ZIRDB_AD_VARCHAR, ZIRDB_AD_PARAM_INPUT, 40,
      _variant_t(L"the first value"));
  InterfacePtr<IZIRDBParameter> second =
      workbench::parameter(L"the second parameter", ZIRDB_AD_BIGINT,
                           ZIRDB_AD_PARAM_OUTPUT, 0, _variant_t(2));
  InterfacePtr<IZIRDBParameter> third =
      workbench::parameter(L"the third parameter", ZIRDB_AD_EMPTY,
                           ZIRDB_AD_PARAM_UNKNOWN, 0, _variant_t());
  InterfacePtr<IClassFactory> factory;
  _variant_t argument;

  InterfacePtr<IUnknown> object;
  _variant_t value;
  component::Exception exception;
  bool left_untouched = false;

 private:
  std::wstring current_number() const {
    _variant_t number;
    EXPECT_EQ(item(fields.get(), 0)->get_Value(&number), S_OK);
    return shown(number);
  }
};

// ---------------------------------------------------------------------------
// Calls
// ---------------------------------------------------------------------------

inline void nothing(World&) {}
inline void to_the_end(World& w) {
  while (w.recordset->MoveNext() == S_OK) {
  }
}

inline std::wstring replaced(std::wstring state, const std::wstring& what,
                             const std::wstring& by) {
  const std::size_t at = state.find(what);
  EXPECT_NE(at, std::wstring::npos);
  return at == std::wstring::npos ? state : state.replace(at, what.size(), by);
}

constexpr WORD kGet = DISPATCH_PROPERTYGET;
constexpr WORD kPut = DISPATCH_PROPERTYPUT;
constexpr WORD kMethod = DISPATCH_METHOD;

constexpr const wchar_t* kRecordset = L"ZIRDB.Recordset";
constexpr const wchar_t* kFields = L"ZIRDB.Fields";
constexpr const wchar_t* kField = L"ZIRDB.Field";
constexpr const wchar_t* kParameters = L"ZIRDB.Parameters";
constexpr const wchar_t* kParameter = L"ZIRDB.Parameter";

constexpr const wchar_t* kTextField =
    L"field the text of the row = a text that fills row 0";

inline HRESULT fields_item(World& w) {
  return w.receive<IZIRDBField>(
      [&](IZIRDBField** out) { return w.fields->Item(w.argument, out); });
}
inline HRESULT late_fields_item(World& w) {
  return w.late(dispatch_of(w.fields.get()), DISPID_ZIRDB_FIELDS_ITEM, kGet,
                &w.argument);
}

inline HRESULT parameters_item(World& w) {
  return w.receive_or_null<IZIRDBParameter>([&](IZIRDBParameter** out) {
    return w.parameters->Item(w.argument, out);
  });
}
inline HRESULT late_parameters_item(World& w) {
  return w.late(dispatch_of(w.parameters.get()), DISPID_ZIRDB_PARAMETERS_ITEM,
                kGet, &w.argument);
}

}  // namespace without_memory

#endif  // ZIRDB_TESTS_SUPPORT_WITHOUT_MEMORY_H
