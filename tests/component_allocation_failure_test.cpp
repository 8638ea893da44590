// SPDX-License-Identifier: MIT
//
// No memory, at every single place where the component asks for some: each
// operation is repeated with its first, second, third, ... request failing
// until none fails any more, once with that request alone and once with all
// that follow. Every time it says so by its result, stores nothing, leaves the
// objects as they were and nothing behind, and does its work when it is called
// again.
//
// Sections: attempts; the world; operations; rows; values that are copied;
// several fields at once; errors; translation; arrays of scripts.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

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
long everywhere(const std::function<void(Attempt&)>& body) {
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

std::string text_of_row(std::size_t row) {
  return "a text that fills row " + std::to_string(row);
}

workbench::Cell cell(std::size_t row, std::size_t column) {
  const auto number = static_cast<std::int64_t>(row);
  if (column == 0) return number;
  if (column == 1) return text_of_row(row);
  return Blob(40, static_cast<unsigned char>('a' + number));
}

std::wstring shown(IUnknown* object);

/// The content as text; "-" for a text or an array that had no memory.
std::wstring shown(const VARIANT& value) {
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

std::wstring shown(IZIRDBField* field) {
  _bstr_t name;
  _variant_t value;
  if (FAILED(field->get_Name(&name.m_s)) || FAILED(field->get_Value(&value))) {
    return L"field without a value";
  }
  return std::wstring(L"field ") + name.m_s + L" = " + shown(value);
}

std::wstring shown(IZIRDBParameter* parameter) {
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

std::wstring shown(IZIRDBParameters* parameters) {
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
std::wstring shown(IEnumVARIANT* enumerator) {
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

std::wstring shown(IUnknown* object) {
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

InterfacePtr<IZIRDBField> item(IZIRDBFields* fields, const _variant_t& index) {
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
// Operations
// ---------------------------------------------------------------------------

/// An operation that says E_OUTOFMEMORY.
struct Operation {
  const char* name;
  void (*arrange)(World&);
  HRESULT (*call)(World&);
  /// Of a late-bound call: the class that its EXCEPINFO names. Else NULL.
  const wchar_t* source;
  /// What it gives, and what it changes (NULL: nothing), when there is memory.
  const wchar_t* gives;
  std::wstring (*changes)(const std::wstring& state) = nullptr;
  /// Whether it may do its work in spite of a request that failed.
  bool may_do_without = false;
};

void nothing(World&) {}
void argument_number(World& w) { w.argument = _variant_t(1); }
void argument_name(World& w) { w.argument = _variant_t(kWrittenOtherwise); }
void argument_exact_name(World& w) { w.argument = _variant_t(kWideTextColumn); }
void argument_name_found_before(World& w) {
  argument_name(w);
  EXPECT_TRUE(item(w.fields.get(), w.argument));
}
void argument_new_name(World& w) {
  w.argument = _variant_t(L"a new name for the first parameter");
}
void to_the_end(World& w) {
  while (w.recordset->MoveNext() == S_OK) {
  }
}

std::wstring replaced(std::wstring state, const std::wstring& what,
                      const std::wstring& by) {
  const std::size_t at = state.find(what);
  EXPECT_NE(at, std::wstring::npos);
  return at == std::wstring::npos ? state : state.replace(at, what.size(), by);
}

std::wstring renamed(const std::wstring& state) {
  return replaced(state, L"the first parameter =",
                  L"a new name for the first parameter =");
}
std::wstring third_appended(const std::wstring& state) {
  return state + L"the third parameter = empty (0, 0, 0); ";
}
std::wstring foreign_appended(const std::wstring& state) {
  return state + L"the foreign parameter = the foreign value (77, 8, 9); ";
}
std::wstring walked(const std::wstring& state) {
  return replaced(state, L"row 0 after 0", L"closed after 3");
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
constexpr const wchar_t* kFirstParameter =
    L"the first parameter = the first value (200, 1, 40)";

HRESULT class_object(World& w, REFCLSID clsid) {
  return w.receive_or_null<IUnknown>([&](IUnknown** out) {
    void* stored = *out;
    const HRESULT result = DllGetClassObject(clsid, IID_IClassFactory, &stored);
    *out = static_cast<IUnknown*>(stored);
    return result;
  });
}

HRESULT create(World& w, REFIID riid) {
  return w.receive_or_null<IUnknown>([&](IUnknown** out) {
    void* stored = *out;
    const HRESULT result = w.factory->CreateInstance(nullptr, riid, &stored);
    *out = static_cast<IUnknown*>(stored);
    return result;
  });
}

HRESULT fields_item(World& w) {
  return w.receive<IZIRDBField>(
      [&](IZIRDBField** out) { return w.fields->Item(w.argument, out); });
}
HRESULT late_fields_item(World& w) {
  return w.late(dispatch_of(w.fields.get()), DISPID_ZIRDB_FIELDS_ITEM, kGet,
                &w.argument);
}

HRESULT parameters_item(World& w) {
  return w.receive_or_null<IZIRDBParameter>([&](IZIRDBParameter** out) {
    return w.parameters->Item(w.argument, out);
  });
}
HRESULT late_parameters_item(World& w) {
  return w.late(dispatch_of(w.parameters.get()), DISPID_ZIRDB_PARAMETERS_ITEM,
                kGet, &w.argument);
}

HRESULT late_append(World& w) {
  return w.late(dispatch_of(w.parameters.get()), DISPID_ZIRDB_PARAMETERS_APPEND,
                kMethod, &w.argument);
}

const Operation kOperations[] = {
    // Class objects and objects.
    {"DllGetClassObjectByClassId", nothing,
     [](World& w) { return class_object(w, CLSID_ZIRDBRecordset); }, nullptr,
     L"factory"},
    {"DllGetClassObjectByName", nothing,
     [](World& w) {
       return w.receive_or_null<IUnknown>([](IUnknown** out) {
         wchar_t name[] = L"recordset";
         void* stored = name;
         const HRESULT result =
             DllGetClassObject(CLSID_NULL, IID_IUnknown, &stored);
         if (stored != name) *out = static_cast<IUnknown*>(stored);
         return result;
       });
     },
     nullptr, L"factory"},
    {"CreateInstance", nothing,
     [](World& w) { return create(w, IID_IZIRDBRecordset); }, nullptr,
     L"recordset"},

    // Recordsets.
    {"GetFields", nothing,
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsAtTheEnd", to_the_end,
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsClosed", [](World& w) { w.recordset->Close(); },
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsClosedByTheConnection",
     [](World& w) { workbench::close_by_connection(w.recordset.get()); },
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"0 fields"},
    {"FieldsLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_FIELDS, kGet);
     },
     kRecordset, L"3 fields"},
    {"FieldsLateBoundAsTheDefaultMember", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()), DISPID_VALUE, kGet);
     },
     kRecordset, L"3 fields"},
    {"ForEach", [](World& w) { w.argument = _variant_t(&w.callback); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_FOREACH, kMethod, &w.argument);
     },
     kRecordset, L"nothing", walked},

    // Fields.
    {"FieldsItemByNumber", argument_number, fields_item, nullptr, kTextField},
    {"FieldsItemByNumberLateBound", argument_number, late_fields_item, kFields,
     kTextField},
    {"FieldsItemByName", argument_name, fields_item, nullptr, kTextField,
     nullptr, true},
    {"FieldsItemByNameLateBound", argument_name, late_fields_item, kFields,
     kTextField, nullptr, true},
    {"FieldsItemByItsOwnName", argument_exact_name, fields_item, nullptr,
     kTextField, nullptr, true},
    {"FieldsItemByANameFoundBefore", argument_name_found_before, fields_item,
     nullptr, kTextField, nullptr, true},
    {"NewEnum", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kGet);
     },
     kFields,
     L"enumerator of field the number of the row = 0; field the text of the "
     L"row = a text that fills row 0; field the bytes of the row = "
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa; "},
    {"NewEnumClosedByTheConnection",
     [](World& w) { workbench::close_by_connection(w.recordset.get()); },
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kMethod);
     },
     kFields, L"enumerator of "},
    {"Clone", [](World& w) { w.enumerator->Skip(1); },
     [](World& w) {
       return w.receive<IEnumVARIANT>(
           [&](IEnumVARIANT** out) { return w.enumerator->Clone(out); });
     },
     nullptr,
     L"enumerator of field the text of the row = a text that fills row 0; "
     L"field the bytes of the row = "
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa; "},

    // One field.
    {"FieldGetName", nothing,
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     nullptr, kWideTextColumn},
    {"FieldNameLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_NAME,
                     kGet);
     },
     kField, kWideTextColumn},
    {"FieldGetValueOfAText", nothing,
     [](World& w) { return w.text_field->get_Value(&w.value); }, nullptr,
     L"a text that fills row 0"},
    {"FieldValueOfATextLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     kField, L"a text that fills row 0"},
    {"FieldGetValueOfBytes", nothing,
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"FieldValueOfBytesLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.blob_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     kField, L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"FieldGetValueOfATextOfBeforeTheEnd", to_the_end,
     [](World& w) { return w.text_field->get_Value(&w.value); }, nullptr,
     L"a text that fills row 0"},
    {"FieldGetValueOfBytesOfBeforeTheEnd", to_the_end,
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"AnEnumeratedFieldsGetName",
     [](World& w) {
       _variant_t field;
       w.enumerator->Next(1, &field, nullptr);
       w.text_field =
           component::query<IZIRDBField>(field.punkVal, IID_IZIRDBField);
     },
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     nullptr, L"the number of the row"},
    {"AnEnumeratedFieldsGetValue",
     [](World& w) {
       _variant_t field;
       w.enumerator->Skip(2);
       w.enumerator->Next(1, &field, nullptr);
       w.blob_field =
           component::query<IZIRDBField>(field.punkVal, IID_IZIRDBField);
     },
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},

    // Parameters.
    {"ParametersItemByNumber", [](World& w) { w.argument = _variant_t(0); },
     parameters_item, nullptr, kFirstParameter},
    {"ParametersItemByNumberLateBound",
     [](World& w) { w.argument = _variant_t(0); }, late_parameters_item,
     kParameters, kFirstParameter},
    {"ParametersItemByName",
     [](World& w) { w.argument = _variant_t(L"The First PARAMETER"); },
     parameters_item, nullptr, kFirstParameter},
    {"ParametersItemByNameLateBound",
     [](World& w) { w.argument = _variant_t(L"The First PARAMETER"); },
     late_parameters_item, kParameters, kFirstParameter},
    {"Append", nothing,
     [](World& w) { return w.parameters->Append(w.third.get()); }, nullptr,
     L"nothing", third_appended},
    {"AppendLateBound",
     [](World& w) {
       w.argument = _variant_t(dispatch_of(w.third.get()).get());
     },
     late_append, kParameters, L"nothing", third_appended},
    {"AppendOfAForeignOne", nothing,
     [](World& w) { return w.parameters->Append(&w.foreign); }, nullptr,
     L"nothing", foreign_appended},
    {"AppendOfAForeignOneLateBound",
     [](World& w) { w.argument = _variant_t(w.foreign.late_bound()); },
     late_append, kParameters, L"nothing", foreign_appended},

    // One parameter.
    {"ParameterGetName", nothing,
     [](World& w) {
       return w.receive_text([&](BSTR* out) { return w.first->get_Name(out); });
     },
     nullptr, L"the first parameter"},
    {"ParameterNameLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_NAME,
                     kGet);
     },
     kParameter, L"the first parameter"},
    {"ParameterPutName", argument_new_name,
     [](World& w) { return w.first->put_Name(w.argument.bstrVal); }, nullptr,
     L"nothing", renamed},
    {"ParameterNamePutLateBound", argument_new_name,
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_NAME,
                     kPut, &w.argument);
     },
     kParameter, L"nothing", renamed},
};

/// The operation said that it lacked memory, and said nothing else.
void expect_out_of_memory(const Operation& operation, World& w, HRESULT result,
                          bool strings_too) {
  EXPECT_EQ(workbench::last_error().description, L"");
  if (operation.source == nullptr) {
    EXPECT_EQ(result, E_OUTOFMEMORY) << std::hex << result;
    return;
  }
  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY)
      << std::hex << w.exception->scode;
  EXPECT_EQ(w.exception->bstrDescription, nullptr);
  if (strings_too) {
    // There was none for the source either.
    EXPECT_EQ(w.exception->bstrSource, nullptr);
  } else {
    EXPECT_STREQ(w.exception->bstrSource, operation.source);
  }
}

void attempt_operation(const Operation& operation, Attempt& attempt) {
  World w;
  operation.arrange(w);
  const std::wstring before = w.state();
  const std::wstring after =
      operation.changes != nullptr ? operation.changes(before) : before;
  const std::uint32_t alive = workbench::objects_alive();

  HRESULT result = attempt.run([&] { return operation.call(w); });

  if (attempt.failed() && !(operation.may_do_without && result == S_OK)) {
    expect_out_of_memory(operation, w, result, !attempt.one());
    EXPECT_EQ(workbench::objects_alive(), alive);
    EXPECT_EQ(w.got(), L"nothing");
    EXPECT_EQ(w.state(), before);
    w.forget();
    result = operation.call(w);
  }
  EXPECT_EQ(result, S_OK) << std::hex << result;
  EXPECT_EQ(w.got(), operation.gives);
  EXPECT_EQ(w.state(), after);
  w.argument = _variant_t();
  EXPECT_EQ(w.callback.references(), 1U);
  EXPECT_EQ(w.foreign.references(), 1U);
}

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
  return stream << operation.name;
}

class NoMemoryFor : public testing::TestWithParam<Operation> {};

TEST_P(NoMemoryFor, AnOperationItFailsAndChangesNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_operation(GetParam(), attempt);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryFor, testing::ValuesIn(kOperations),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// recordset(key) may go by way of a Fields object or not: the class that its
// failure names depends on that.
TEST(NoMemory, AFieldOfARecordsetFailsAndChangesNothing) {
  for (const DISPID member :
       {DISPID{DISPID_VALUE}, DISPID{DISPID_ZIRDB_RECORDSET_FIELDS}}) {
    for (const auto arrange : {argument_number, argument_name}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  arrange(w);
                  const std::wstring before = w.state();
                  const auto call = [&] {
                    return w.late(dispatch_of(w.recordset.get()), member,
                                  kMethod | kGet, &w.argument);
                  };

                  HRESULT result = attempt.run(call);

                  if (result != S_OK) {
                    EXPECT_TRUE(attempt.failed());
                    EXPECT_EQ(result, DISP_E_EXCEPTION);
                    EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY);
                    EXPECT_EQ(w.exception->bstrDescription, nullptr);
                    EXPECT_EQ(w.got(), L"nothing");
                    EXPECT_EQ(w.state(), before);
                    w.forget();
                    result = call();
                  }
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(w.got(), kTextField);
                  EXPECT_EQ(w.state(), before);
                }),
                1);
    }
  }
}

// The list grows by doubling, so that not every append needs memory.
TEST(NoMemory, AnAppendThatNeedsNoneSucceeds) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const auto parameters = workbench::parameters();
              const auto parameter =
                  workbench::parameter(L"a parameter", 0, 0, 0, _variant_t());
              constexpr long kAppends = 20;
              long appended = 0;
              const HRESULT result = attempt.run([&]() -> HRESULT {
                for (; appended < kAppends; ++appended) {
                  const HRESULT one = parameters->Append(parameter.get());
                  if (FAILED(one)) return one;
                }
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(appended == kAppends, !attempt.failed());
              long count = 0;
              EXPECT_EQ(parameters->get_Count(&count), S_OK);
              EXPECT_EQ(count, appended);
            }),
            2);
}

// ---------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------

TEST(NoMemory, RowsAreBuiltOrNothingIsLeftOfThem) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              InterfacePtr<IZIRDBRecordset> recordset;
              const HRESULT result = attempt.run_inner([&] {
                recordset = workbench::recordset(
                    {kNumberColumn, kTextColumn, kBlobColumn}, 60, cell);
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(static_cast<bool>(recordset), !attempt.failed());
            }),
            5);
}

// ---------------------------------------------------------------------------
// Values that are copied: copies of values do not fail, their texts and arrays
// do
// ---------------------------------------------------------------------------

_variant_t bytes_value(const Blob& bytes) {
  VARIANT value{};
  EXPECT_EQ(workbench::make_byte_array_variant(bytes, &value), S_OK);
  return values::owned(value);
}

_variant_t valued(bool text) {
  return text ? _variant_t(L"the given value") : bytes_value(Blob(15, 'x'));
}

TEST(NoMemory, AParametersValueIsReadWithoutItsText) {
  for (const bool text : {true, false}) {
    for (const bool late : {true, false}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  w.first->put_Value(valued(text));
                  const std::wstring before = w.state();
                  const HRESULT result = attempt.run([&] {
                    return late ? w.late(dispatch_of(w.first.get()),
                                         DISPID_ZIRDB_PARAMETER_VALUE, kGet)
                                : w.first->get_Value(&w.value);
                  });
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(w.value.vt, text ? VT_BSTR : VT_ARRAY | VT_UI1);
                  EXPECT_EQ(w.got() == L"-", attempt.failed());
                  EXPECT_EQ(w.state(), before);
                }),
                1);
    }
  }
}

TEST(NoMemory, AParametersValueIsSetWithoutItsText) {
  for (const bool text : {true, false}) {
    for (const bool late : {true, false}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  w.argument = valued(text);
                  const auto call = [&] {
                    return late ? w.late(dispatch_of(w.first.get()),
                                         DISPID_ZIRDB_PARAMETER_VALUE, kPut,
                                         &w.argument)
                                : w.first->put_Value(w.argument);
                  };
                  const auto set = [&] {
                    _variant_t value;
                    EXPECT_EQ(w.first->get_Value(&value), S_OK);
                    EXPECT_EQ(value.vt, w.argument.vt);
                    return shown(value);
                  };
                  EXPECT_EQ(attempt.run(call), S_OK);
                  EXPECT_EQ(set(), attempt.failed() ? L"-" : shown(w.argument));
                  EXPECT_EQ(w.got(), L"nothing");
                  EXPECT_EQ(call(), S_OK);
                  EXPECT_EQ(set(), shown(w.argument));
                }),
                1);
    }
  }
}

// ---------------------------------------------------------------------------
// Several fields at once
// ---------------------------------------------------------------------------

// Those that were made are the caller's, and the enumerator stands behind them.
TEST(NoMemory, AnEnumeratorGivesTheFieldsThatItCouldMake) {
  constexpr const wchar_t* kNames[] = {L"the number of the row",
                                       L"the text of the row",
                                       L"the bytes of the row"};
  EXPECT_GE(
      everywhere([&](Attempt& attempt) {
        World w;
        const std::uint32_t alive = workbench::objects_alive();
        _variant_t got[3];
        std::uint32_t fetched = 77;

        const HRESULT result =
            attempt.run([&] { return w.enumerator->Next(3, got, &fetched); });

        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
        EXPECT_EQ(fetched < 3, attempt.failed());
        ASSERT_LE(fetched, 3U);
        EXPECT_EQ(workbench::objects_alive(), alive + fetched);
        for (std::uint32_t i = 0; i < 3; ++i) {
          if (i >= fetched) {
            EXPECT_EQ(got[i].vt, VT_EMPTY);
            EXPECT_EQ(w.enumerator->Next(1, &got[i], nullptr), S_OK);
          }
          ASSERT_EQ(got[i].vt, VT_DISPATCH);
          EXPECT_EQ(shown(got[i]).find(std::wstring(L"field ") + kNames[i]),
                    0U);
        }
        EXPECT_EQ(w.enumerator->Next(1, &w.value, nullptr), S_FALSE);
      }),
      3);
}

TEST(NoMemory, AnEnumeratorThatGivesOneFieldOnlyStaysWhereItWas) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              const std::wstring before = w.state();
              HRESULT result = attempt.run(
                  [&] { return w.enumerator->Next(1, &w.value, nullptr); });
              if (attempt.failed()) {
                EXPECT_EQ(result, E_OUTOFMEMORY);
                EXPECT_EQ(w.got(), L"nothing");
                EXPECT_EQ(w.state(), before);
                result = w.enumerator->Next(1, &w.value, nullptr);
              }
              EXPECT_EQ(result, S_OK);
              EXPECT_EQ(w.got(), L"field the number of the row = 0");
            }),
            1);
}

// ---------------------------------------------------------------------------
// Errors: the record of an error is copied into the record of the thread, and
// from there into the host's
// ---------------------------------------------------------------------------

/// An operation that fails anyway.
struct Failing {
  const char* name;
  void (*arrange)(World&);
  HRESULT (*call)(World&);  ///< NULL when there is only the late-bound one
  HRESULT (*late_call)(World&);
  HRESULT code;
  const wchar_t* source;
  const wchar_t* text;
  /// The class that the late-bound call belongs to.
  const wchar_t* own_source;
  /// What it changes all the same.
  std::wstring (*changes)(const std::wstring& state) = nullptr;
};

std::wstring behind_the_end(const std::wstring& state) {
  return replaced(state, L"row 0", L"BOF EOF");
}

constexpr const wchar_t* kCommand = L"ZIRDB.Command";

const Failing kFailing[] = {
    {"MoveNextAtTheEnd", to_the_end,
     [](World& w) { return w.recordset->MoveNext(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVENEXT, kMethod);
     },
     component::kNoCurrentRecordCode, kRecordset,
     component::kNoCurrentRecordText, kRecordset},
    {"MoveLast", nothing, [](World& w) { return w.recordset->MoveLast(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVELAST, kMethod);
     },
     component::kNotBackwardCode, kRecordset, component::kNotBackwardText,
     kRecordset, behind_the_end},
    {"MovePrevious", nothing,
     [](World& w) { return w.recordset->MovePrevious(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, kMethod);
     },
     component::kNotInThisContextCode, kRecordset,
     component::kNotInThisContextText, kRecordset},
    {"ASecondClose", [](World& w) { w.recordset->Close(); },
     [](World& w) { return w.recordset->Close(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_CLOSE, kMethod);
     },
     component::kClosedCode, kRecordset, component::kClosedText, kRecordset},
    {"FieldsItemOfAnUnknownName",
     [](World& w) { w.argument = _variant_t(L"no such column anywhere"); },
     fields_item, late_fields_item, component::kNotFoundCode, kRecordset,
     component::kNotFoundText, kFields},
    {"NewEnumOfAClosedRecordset", [](World& w) { w.recordset->Close(); },
     nullptr,
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kGet);
     },
     component::kClosedCode, kRecordset, component::kClosedText, kFields},
    {"FieldNameOfAClosedRecordset", [](World& w) { w.recordset->Close(); },
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_NAME,
                     kGet);
     },
     component::kNoFieldCode, kRecordset, component::kNoFieldText, kField},
    {"FieldValueAtTheEnd",
     [](World& w) {
       to_the_end(w);
       const auto fields =
           component::received<IZIRDBFields>([&](IZIRDBFields** out) {
             return w.recordset->get_Fields(out);
           }).second;
       w.text_field = item(fields.get(), 1);
     },
     [](World& w) { return w.text_field->get_Value(&w.value); },
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     component::kNoCurrentRecordCode, kRecordset,
     component::kNoCurrentRecordText, kField},
    {"ParametersItemOfAnUnknownName",
     [](World& w) { w.argument = _variant_t(L"no such parameter anywhere"); },
     parameters_item, late_parameters_item, component::kNotFoundCode, kCommand,
     component::kNotFoundText, kParameters},
    {"ParameterPutTypeOfAnUnknownOne",
     [](World& w) { w.argument = _variant_t(201); },
     [](World& w) { return w.first->put_Type(201); },
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_TYPE,
                     kPut, &w.argument);
     },
     component::kBadArgumentsCode, kCommand, component::kBadArgumentsText,
     kParameter},
    {"ParameterPutDirectionOfAnUnknownOne",
     [](World& w) { w.argument = _variant_t(5); },
     [](World& w) { return w.first->put_Direction(5); },
     [](World& w) {
       return w.late(dispatch_of(w.first.get()),
                     DISPID_ZIRDB_PARAMETER_DIRECTION, kPut, &w.argument);
     },
     component::kBadArgumentsCode, kCommand, component::kBadArgumentsText,
     kParameter},
};

/// The operation itself: with its own code and the whole record or, when there
/// was none for the record, with the code that says so and no record.
void attempt_failing(const Failing& failing, Attempt& attempt) {
  World w;
  failing.arrange(w);
  const std::wstring before = w.state();

  HRESULT result = attempt.run([&] { return failing.call(w); });

  if (result == E_OUTOFMEMORY && attempt.failed()) {
    EXPECT_EQ(workbench::last_error().description, L"");
    EXPECT_EQ(w.got(), L"nothing");
    EXPECT_EQ(w.state(),
              failing.changes != nullptr ? failing.changes(before) : before);
    result = failing.call(w);
  }
  EXPECT_EQ(result, failing.code) << std::hex << result;
  EXPECT_EQ(workbench::last_error().code, failing.code);
  EXPECT_EQ(workbench::last_error().source, failing.source);
  EXPECT_EQ(workbench::last_error().description, failing.text);
  EXPECT_EQ(w.got(), L"nothing");
}

std::ostream& operator<<(std::ostream& stream, const Failing& failing) {
  return stream << failing.name;
}

class NoMemoryForAnError : public testing::TestWithParam<Failing> {};

TEST_P(NoMemoryForAnError, ItsRecordIsWholeOrThereIsNone) {
  if (GetParam().call == nullptr) return;
  everywhere([](Attempt& attempt) { attempt_failing(GetParam(), attempt); });
}

std::wstring shown(BSTR string) { return string == nullptr ? L"-" : string; }

/// The late-bound call: its code always arrives, with what texts there was
/// memory for.
void attempt_failing_late(const Failing& failing, Attempt& attempt) {
  World w;
  failing.arrange(w);
  const std::wstring before = w.state();

  HRESULT result = attempt.run([&] { return failing.late_call(w); });

  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  const std::wstring texts = shown(w.exception->bstrSource) + L": " +
                             shown(w.exception->bstrDescription);
  const std::wstring source(failing.source);
  if (!attempt.failed()) {
    EXPECT_EQ(w.exception->scode, failing.code);
    EXPECT_EQ(texts, source + L": " + failing.text);
  } else if (w.exception->scode == E_OUTOFMEMORY) {
    // The record itself had none.
    EXPECT_EQ(texts, attempt.one() ? std::wstring(failing.own_source) + L": -"
                                   : L"-: -");
  } else {
    EXPECT_EQ(w.exception->scode, failing.code);
    if (attempt.one()) {
      EXPECT_TRUE(texts == source + L": -" ||
                  texts == std::wstring(L"-: ") + failing.text);
    } else {
      EXPECT_TRUE(texts == source + L": -" || texts == L"-: -");
    }
  }
  EXPECT_EQ(w.got(), L"nothing");
  EXPECT_EQ(w.state(),
            failing.changes != nullptr ? failing.changes(before) : before);

  w.forget();
  result = failing.late_call(w);
  EXPECT_EQ(result, DISP_E_EXCEPTION);
  EXPECT_EQ(w.exception->scode, failing.code);
  EXPECT_EQ(shown(w.exception->bstrSource), source);
  EXPECT_EQ(shown(w.exception->bstrDescription), failing.text);
}

TEST_P(NoMemoryForAnError, ItsLateBoundCallLosesTextsButNotItsCode) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_failing_late(GetParam(), attempt);
            }),
            2);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForAnError, testing::ValuesIn(kFailing),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

TEST(NoMemory, ALateBoundCallWithoutAnExceptionRecordFailsTheSame) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              const auto fields = dispatch_of(w.fields.get());
              w.argument = _variant_t(1);
              DISPPARAMS arguments{&w.argument, nullptr, 1, 0};
              const HRESULT result = attempt.run([&] {
                return fields->Invoke(DISPID_ZIRDB_FIELDS_ITEM, IID_NULL, 0,
                                      kMethod, &arguments, &w.value, nullptr,
                                      nullptr);
              });
              EXPECT_EQ(result, attempt.failed() ? DISP_E_EXCEPTION : S_OK);
              EXPECT_EQ(w.got(), attempt.failed() ? L"nothing" : kTextField);
            }),
            1);
}

// The record of a thread comes to be with the thread's first error. The C
// library ends the program when it cannot note what is to be destroyed with a
// thread: the record must not depend on that.
TEST(NoMemory, AThreadsFirstErrorDoesNotEndTheProgram) {
  const auto fail_for_the_first_time = [] {
    bool known = true;
    for (const Fail mode : {Fail::One, Fail::AllFromThere}) {
      for (long fail_at = 1; fail_at <= 8; ++fail_at) {
        std::thread([&] {
          const auto recordset = workbench::recordset({"a"}, {});
          const allocator::Watch watch(mode, fail_at);
          const HRESULT result = recordset->MovePrevious();
          known = known && (result == E_OUTOFMEMORY ||
                            result == component::kNotInThisContextCode);
        }).join();
      }
    }
    std::_Exit(known ? 0 : 1);
  };
  EXPECT_EXIT(fail_for_the_first_time(), testing::ExitedWithCode(0), "");
}

// The texts of one failure do not become those of the next one.
TEST(NoMemory, ALackOfMemoryDoesNotShowTheTextOfAnEarlierError) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              w.argument = _variant_t(1);
              workbench::set_error(E_FAIL, L"the source of before",
                                   L"the text of before");
              const HRESULT result =
                  attempt.run([&] { return late_fields_item(w); });
              if (!attempt.failed()) return;
              EXPECT_EQ(result, DISP_E_EXCEPTION);
              EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY);
              EXPECT_EQ(shown(w.exception->bstrSource),
                        attempt.one() ? kFields : L"-");
              EXPECT_EQ(w.exception->bstrDescription, nullptr);
            }),
            1);
}

TEST(NoMemory, AnExceptionRecordIsFilledWithTheTextsThatThereIsMemoryFor) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              workbench::set_error(E_FAIL, L"the stored source",
                                   L"the stored description");
              component::Exception exception;
              exception->bstrSource = SysAllocString(L"of before");
              exception->bstrDescription = SysAllocString(L"of before");
              exception->bstrHelpFile = SysAllocString(L"of before");
              EXPECT_EQ(attempt.run([&] {
                workbench::fill_exception(exception.get(), E_FAIL, L"unused");
                return S_OK;
              }),
                        S_OK);
              EXPECT_EQ(exception->scode, E_FAIL);
              EXPECT_EQ(exception->bstrHelpFile, nullptr);
              const std::wstring source = shown(exception->bstrSource);
              const std::wstring text = shown(exception->bstrDescription);
              EXPECT_TRUE(source == L"the stored source" || source == L"-");
              EXPECT_TRUE(text == L"the stored description" || text == L"-");
              EXPECT_EQ(source == L"-" || text == L"-", attempt.failed());
              if (attempt.one()) {
                EXPECT_FALSE(source == L"-" && text == L"-");
              }
            }),
            2);
}

// ---------------------------------------------------------------------------
// Translation
// ---------------------------------------------------------------------------

/// A parameter that is sent as something that needs memory.
struct Sent {
  const char* name;
  long type;
  _variant_t value;
  std::string bytes;
};

std::vector<Sent> sent_parameters() {
  const _variant_t text(L"a text that is sent \u00E9");
  const std::string utf8 = "a text that is sent \xC3\xA9";
  _variant_t date(45292.75);
  date.vt = VT_DATE;
  return {
      {"VarcharOfAText", ZIRDB_AD_VARCHAR, text, utf8},
      {"VarwcharOfAText", ZIRDB_AD_VARWCHAR, text, utf8},
      {"GuidOfAText", ZIRDB_AD_GUID, text, utf8},
      {"AText", ZIRDB_AD_EMPTY, text, utf8},
      {"VarcharOfANumber", ZIRDB_AD_VARCHAR, _variant_t(1234567890123456789),
       "1234567890123456789"},
      {"ADate", ZIRDB_AD_EMPTY, date, "2024/01/01 18:00:00"},
      {"Varbinary", ZIRDB_AD_VARBINARY, bytes_value(Blob(40, 'b')),
       std::string(40, 'b')},
      {"Bytes", ZIRDB_AD_EMPTY, bytes_value(Blob(40, 'b')),
       std::string(40, 'b')},
  };
}

std::ostream& operator<<(std::ostream& stream, const Sent& sent) {
  return stream << sent.name;
}

class NoMemoryToSend : public testing::TestWithParam<Sent> {};

// What has no memory is never sent as an empty text.
TEST_P(NoMemoryToSend, AParameterIsTranslatedOrFails) {
  const Sent& sent = GetParam();
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              const auto parameter = workbench::parameter(
                  L"a parameter", sent.type, 1, 0, sent.value);
              const std::wstring before = shown(parameter.get());
              ZirdbOdbcParameter odbc;

              HRESULT result = attempt.run_inner(
                  [&] { return workbench::to_odbc(parameter.get(), &odbc); });

              EXPECT_EQ(shown(parameter.get()), before);
              if (attempt.failed()) {
                // The second one is the runtime's, of conversions.
                EXPECT_TRUE(result == E_OUTOFMEMORY || result == E_INVALIDARG)
                    << std::hex << result;
                result = workbench::to_odbc(parameter.get(), &odbc);
              }
              EXPECT_EQ(result, S_OK);
              const auto& binary = odbc.value.binary_value;
              EXPECT_EQ(odbc.value.kind == ZirdbOdbcValueKind::Binary
                            ? std::string(binary.begin(), binary.end())
                            : odbc.value.text_value,
                        sent.bytes);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryToSend,
                         testing::ValuesIn(sent_parameters()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// An array that had no memory for its bytes must be usable again.
TEST(NoMemory, BytesAreReadOrFailAndTheirArrayIsUnlocked) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const _variant_t array = bytes_value(Blob(40, 'b'));
              Blob bytes;
              const HRESULT result = attempt.run_inner([&] {
                return workbench::variant_to_byte_array(&array, &bytes);
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(array.parray->cLocks, 0U);
              if (!attempt.failed()) {
                EXPECT_EQ(bytes, Blob(40, 'b'));
              }
            }),
            1);
}

TEST(NoMemory, BytesBecomeAnArrayOrNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const Blob bytes(40, 'b');
              _variant_t array;
              const HRESULT result = attempt.run([&] {
                return workbench::make_byte_array_variant(bytes, &array);
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(shown(array),
                        attempt.failed() ? L"empty" : std::wstring(40, L'b'));
            }),
            2);
}

ZirdbOdbcParameter result_of(ZirdbOdbcValueKind kind, long type = 0) {
  ZirdbOdbcParameter odbc;
  odbc.type = type;
  odbc.value.kind = kind;
  odbc.value.text_value = "a text that came back";
  odbc.value.binary_value = Blob(40, 'c');
  odbc.value.int64_value = 42;
  return odbc;
}

/// Four parameters and what came back for each.
struct Results {
  Results() {
    for (int i = 0; i < 4; ++i) {
      parameters->Append(workbench::parameter(L"a parameter", 0, 1, 0,
                                              _variant_t(L"the old value"))
                             .get());
    }
  }

  std::wstring value(int i) const {
    _variant_t value;
    const auto parameter =
        component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
          return parameters->Item(_variant_t(i), out);
        }).second;
    EXPECT_EQ(parameter->get_Value(&value), S_OK);
    return shown(value);
  }

  InterfacePtr<IZIRDBParameters> parameters = workbench::parameters();
  std::vector<ZirdbOdbcParameter> odbc = {
      result_of(ZirdbOdbcValueKind::Text),
      result_of(ZirdbOdbcValueKind::Binary),
      result_of(ZirdbOdbcValueKind::Int64, ZIRDB_AD_INTEGER),
      result_of(ZirdbOdbcValueKind::Text)};
};

const std::wstring kWrittenBack[] = {L"a text that came back",
                                     std::wstring(40, L'c'), L"42",
                                     L"a text that came back"};

// Those before the one that had none are refreshed, those behind it are not.
TEST(NoMemory, WriteBackStopsWhereItLackedMemory) {
  EXPECT_GE(
      everywhere([](Attempt& attempt) {
        const Results results;
        const HRESULT result = attempt.run_inner([&] {
          return workbench::write_back(results.parameters.get(), results.odbc);
        });
        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
        int refreshed = 0;
        while (refreshed < 4 &&
               results.value(refreshed) == kWrittenBack[refreshed]) {
          ++refreshed;
        }
        EXPECT_EQ(refreshed < 4, attempt.failed());
        for (int i = refreshed; i < 4; ++i) {
          EXPECT_EQ(results.value(i), L"the old value") << i;
        }
        EXPECT_EQ(workbench::write_back(results.parameters.get(), results.odbc),
                  S_OK);
        for (int i = 0; i < 4; ++i) {
          EXPECT_EQ(results.value(i), kWrittenBack[i]) << i;
        }
      }),
      3);
}

TEST(NoMemory, ClearingOutputsNeedsNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              const World w;
              attempt.run([&] {
                workbench::clear_outputs(w.parameters.get());
                return S_OK;
              });
            }),
            0);
}

TEST(NoMemory, TextsAreConvertedOrThrowAndLeaveNothing) {
  const std::function<bool()> conversions[] = {
      [] {
        return workbench::utf8_from_bstr(L"a text that is sent \u00E9") ==
               "a text that is sent \xC3\xA9";
      },
      [] {
        return workbench::utf32_from_utf8("a text that is sent \xC3\xA9") ==
               L"a text that is sent \u00E9";
      },
      [text = _bstr_t(L"a text that is sent \u00E9")] {
        return workbench::wstring_from_bstr(text.m_s) == text.m_s;
      },
  };
  for (const auto& conversion : conversions) {
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                bool right = false;
                const HRESULT result = attempt.run([&] {
                  right = conversion();
                  return S_OK;
                });
                EXPECT_EQ(result, attempt.failed() ? kThrown : S_OK);
                EXPECT_EQ(right, !attempt.failed());
              }),
              1);
  }
}

TEST(NoMemory, ATextIsReadOrFailsAndIsNeverAnEmptyOne) {
  for (const _variant_t& value :
       {_variant_t(L"a text of a variant"), _variant_t(1234567890123)}) {
    const std::wstring expected =
        value.vt == VT_BSTR ? L"a text of a variant" : L"1234567890123";
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                _bstr_t text;
                const HRESULT result = attempt.run_inner([&] {
                  return workbench::variant_to_bstr_value(&value, &text);
                });
                EXPECT_EQ(SUCCEEDED(result), !attempt.failed());
                if (SUCCEEDED(result)) {
                  EXPECT_EQ(shown(text.m_s), expected);
                }
              }),
              1);
  }
}

// ---------------------------------------------------------------------------
// Arrays of scripts
// ---------------------------------------------------------------------------

/// Array("a text of a script", 5, bytes, Empty, "another text of a script").
_variant_t script_array() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 5);
  {
    const SafeArrayAccess access(array);
    auto* const elements = access.elements<VARIANT>();
    elements[0] = _variant_t(L"a text of a script").Detach();
    elements[1] = _variant_t(5).Detach();
    elements[2] = bytes_value(Blob(20, 'd')).Detach();
    elements[4] = _variant_t(L"another text of a script").Detach();
  }
  return allocator::array_of(array, VT_VARIANT);
}

const std::wstring kFromArray[] = {
    L"p1 = a text of a script (202, 1, 18); ",       L"p2 = 5 (20, 1, 0); ",
    L"p3 = dddddddddddddddddddd (204, 1, 0); ",      L"p4 = empty (20, 3, 0); ",
    L"p5 = another text of a script (202, 1, 24); ",
};

// Those that were built stay, each of them whole.
TEST(NoMemory, AnArrayBecomesParametersUpToTheOneThatLackedMemory) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const _variant_t array = script_array();
              InterfacePtr<IZIRDBParameters> parameters;
              HRESULT result = attempt.run_inner(
                  [&] { return workbench::from_array(&array, &parameters); });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK)
                  << std::hex << result;
              EXPECT_EQ(array.parray->cLocks, 0U);
              const std::wstring built =
                  parameters ? shown(parameters.get()) : L"";
              std::wstring whole;
              for (const std::wstring& one : kFromArray) {
                if (built.size() <= whole.size()) break;
                whole += one;
              }
              EXPECT_EQ(built, whole);

              parameters = {};
              result = workbench::from_array(&array, &parameters);
              EXPECT_EQ(result, S_OK);
              whole.clear();
              for (const std::wstring& one : kFromArray) whole += one;
              ASSERT_TRUE(parameters);
              EXPECT_EQ(shown(parameters.get()), whole);
            }),
            6);
}

// Elements before the one that had none are refreshed; those behind it are as
// they were.
TEST(NoMemory, AnArrayIsRefreshedUpToTheElementThatLackedMemory) {
  EXPECT_GE(
      everywhere([](Attempt& attempt) {
        const World w;
        w.parameters->Append(w.third.get());
        w.third->put_Value(_variant_t(L"the third value"));
        const _variant_t array = script_array();
        const HRESULT result = attempt.run_inner([&] {
          return workbench::write_back_array(w.parameters.get(), array.parray);
        });
        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK)
            << std::hex << result;
        ASSERT_EQ(array.parray->cLocks, 0U);
        const auto elements = [&] {
          std::vector<std::wstring> all;
          const SafeArrayAccess access(array.parray);
          for (int i = 0; i < 5; ++i) {
            all.push_back(shown(access.elements<VARIANT>()[i]));
          }
          return all;
        };
        const std::vector<std::wstring> old_ones = {
            L"a text of a script", L"5", std::wstring(20, L'd'), L"empty",
            L"another text of a script"};
        const std::vector<std::wstring> new_ones = {
            L"the first value", L"2", L"the third value", L"empty",
            L"another text of a script"};
        std::size_t at = 0;
        while (at < 5 && elements()[at] == new_ones[at]) ++at;
        EXPECT_EQ(at < 5, attempt.failed());
        // The one itself has been cleared already, or not yet.
        if (at < 5) {
          EXPECT_TRUE(elements()[at] == L"empty" ||
                      elements()[at] == old_ones[at])
              << at;
        }
        for (std::size_t i = at + 1; i < 5; ++i) {
          EXPECT_EQ(elements()[i], old_ones[i]) << i;
        }
        EXPECT_EQ(workbench::write_back_array(w.parameters.get(), array.parray),
                  S_OK);
        EXPECT_EQ(elements(), new_ones);
      }),
      2);
}

}  // namespace
