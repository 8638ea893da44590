// SPDX-License-Identifier: MIT
//
// Threads that have no memory from their first moment on. What a library keeps
// for each thread has to come from somewhere when a thread first asks for it:
// the loader and the C library end the process when there is nothing there. No
// call may depend on that. The library is opened late, as scripting hosts do,
// because that is when the loader has nothing set aside for it.
//
// Not among the calls is CoCreateGuid: libuuid has something for each thread
// itself, and a process that opens it late ends like that.
//
// Sections: the library; what a thread works on; threads.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <thread>

#include "runtime_allocator.h"
#include "support/printed.h"
#include "zir.h"
#include "zirdb.h"

namespace {

// ---------------------------------------------------------------------------
// The library
// ---------------------------------------------------------------------------

void* library() {
  static void* const kLibrary = dlopen(LIBRARY, RTLD_NOW);
  return kLibrary;
}
template <class Function>
Function* function(const char* name) {
  return reinterpret_cast<Function*>(dlsym(library(), name));
}
template <class Constant>
Constant constant(const char* name) {
  return *static_cast<const Constant*>(dlsym(library(), name));
}

/// All that is called, looked up while there is memory.
struct Library {
#define ENTRY(name) \
  decltype(::name)* const name = function<decltype(::name)>(#name)
  ENTRY(CLSIDFromProgID);
  ENTRY(CLSIDFromString);
  ENTRY(CoCreateInstance);
  ENTRY(CoCreateInstanceByName);
  ENTRY(CoGetObject);
  ENTRY(CoGetObjectContext);
  ENTRY(CoInitializeEx);
  ENTRY(CoUninitialize);
  ENTRY(DllGetClassObject);
  ENTRY(GetLocalTime);
  ENTRY(GetModuleHandleW);
  ENTRY(GetProcAddress);
  ENTRY(LoadLibraryW);
  ENTRY(SafeArrayCreateVector);
  ENTRY(SafeArrayDestroy);
  ENTRY(SetErrorInfo);
  ENTRY(StringFromGUID2);
  ENTRY(SysAllocString);
  ENTRY(SysFreeString);
  ENTRY(VarCat);
  ENTRY(VarCmp);
  ENTRY(VarDateFromStr);
  ENTRY(VariantChangeType);
  ENTRY(VariantClear);
#undef ENTRY
  IID none = constant<IID>("IID_NULL");
  IID unknown = constant<IID>("IID_IUnknown");
  IID dispatch = constant<IID>("IID_IDispatch");
  IID factory = constant<IID>("IID_IClassFactory");
  IID recordset = constant<IID>("IID_IZIRDBRecordset");
  IID context = constant<IID>("IID_IContextProperties");
  CLSID classes[3] = {constant<CLSID>("CLSID_ZIRDBConnection"),
                      constant<CLSID>("CLSID_ZIRDBCommand"),
                      constant<CLSID>("CLSID_ZIRDBRecordset")};
};
const Library& in() {
  static const Library kFunctions;
  return kFunctions;
}

// ---------------------------------------------------------------------------
// What a thread works on
// ---------------------------------------------------------------------------

/// An object of the host's own, which needs no memory.
class OwnObject final : public IDispatch {
 public:
  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != in().unknown && riid != in().dispatch) return E_NOINTERFACE;
    *object = static_cast<IDispatch*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override { return 2; }
  std::uint32_t Release() override { return 1; }
  HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                 UINT*) override {
    return S_OK;
  }
};

/// An error of the host's own.
class OwnError final : public IErrorInfo {
 public:
  HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 2; }
  std::uint32_t Release() override { return 1; }
  HRESULT GetGUID(GUID*) override { return E_NOTIMPL; }
  HRESULT GetSource(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetDescription(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpContext(DWORD*) override { return E_NOTIMPL; }
};

/// Made before the thread begins, and what the thread made.
struct Things {
  Things() {
    for (int i = 0; i < 3; ++i) {
      factories[i].receive([&](void** out) {
        return in().DllGetClassObject(in().classes[i], in().factory, out);
      });
      objects[i].receive([&](void** out) {
        return factories[i]->CreateInstance(nullptr, in().dispatch, out);
      });
    }
    recordset = objects[2].query<IZIRDBRecordset>(in().recordset);
    text.vt = VT_BSTR;
    text.bstrVal = in().SysAllocString(L"a text that is not a short one");
    callback.vt = VT_DISPATCH;
    callback.pdispVal = &own;
  }
  Things(const Things&) = delete;
  Things& operator=(const Things&) = delete;
  ~Things() {
    in().VariantClear(&result);
    in().VariantClear(&text);
    in().SysFreeString(info.bstrSource);
    in().SysFreeString(info.bstrDescription);
    if (array != nullptr) in().SafeArrayDestroy(array);
  }

  HRESULT invoke(int which, DISPID member, WORD flags,
                 VARIANT* argument = nullptr) {
    DISPPARAMS list = {argument, nullptr, argument == nullptr ? 0U : 1U, 0};
    return objects[which]->Invoke(member, in().none, 0, flags, &list, &result,
                                  &info, nullptr);
  }
  HRESULT convert(VARTYPE from, std::int64_t payload, VARTYPE to) {
    VARIANT value = {};
    value.vt = from;
    value.llVal = payload;
    return in().VariantChangeType(&result, &value, 0, to);
  }
  template <class Call>
  HRESULT receive(const Call& call) {
    return made.receive(call);
  }

  OwnObject own;
  OwnError error;
  InterfacePtr<IClassFactory> factories[3];
  InterfacePtr<IDispatch> objects[3];
  InterfacePtr<IZIRDBRecordset> recordset;
  VARIANT text = {};
  VARIANT callback = {};
  VARIANT result = {};
  EXCEPINFO info = {};
  SAFEARRAY* array = nullptr;
  InterfacePtr<IUnknown> made;
};

// ---------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------

struct Call {
  const char* name;
  HRESULT (*call)(Things&);
  /// What it answers with memory, and with none at all.
  HRESULT usual;
  HRESULT without;
};

std::ostream& operator<<(std::ostream& out, const Call& call) {
  return out << call.name;
}

constexpr HRESULT kNotInThisContext = zir_hresult(0x800A0C93);
constexpr WORD kMethod = DISPATCH_METHOD;
constexpr WORD kGet = DISPATCH_PROPERTYGET;
/// The classes by their places in Things.
enum { kConnection, kCommand, kRecordset };

template <int kWhich>
HRESULT create(Things& t) {
  return t.receive([&](void** out) {
    return t.factories[kWhich]->CreateInstance(nullptr, in().unknown, out);
  });
}

const Call kCalls[] = {
    // What is kept for each thread.
    {"CoInitializeEx", [](Things&) { return in().CoInitializeEx(nullptr, 0); },
     S_OK, E_OUTOFMEMORY},
    {"CoUninitialize",
     [](Things&) {
       in().CoUninitialize();
       return S_OK;
     },
     S_OK, S_OK},
    {"CoGetObjectContext",
     [](Things& t) {
       return t.receive([](void** out) {
         return in().CoGetObjectContext(in().context, out);
       });
     },
     E_FAIL, E_FAIL},
    {"SetErrorInfo", [](Things& t) { return in().SetErrorInfo(0, &t.error); },
     S_OK, S_OK},
    {"AnErrorWithAText", [](Things& t) { return t.recordset->MovePrevious(); },
     kNotInThisContext, E_OUTOFMEMORY},
    {"AnErrorWithATextLateBound",
     [](Things& t) {
       return t.invoke(kRecordset, DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS,
                       kMethod);
     },
     DISP_E_EXCEPTION, DISP_E_EXCEPTION},

    // Objects.
    {"DllGetClassObject",
     [](Things& t) {
       return t.receive([](void** out) {
         return in().DllGetClassObject(in().classes[0], in().unknown, out);
       });
     },
     S_OK, E_OUTOFMEMORY},
    {"CreateAConnection", create<kConnection>, S_OK, E_OUTOFMEMORY},
    {"CreateACommand", create<kCommand>, S_OK, E_OUTOFMEMORY},
    {"CreateARecordset", create<kRecordset>, S_OK, E_OUTOFMEMORY},
    {"ForEach",
     [](Things& t) {
       return t.invoke(kRecordset, DISPID_ZIRDB_RECORDSET_FOREACH, kMethod,
                       &t.callback);
     },
     S_OK, DISP_E_EXCEPTION},
    {"ForEachWithoutACallback",
     [](Things& t) {
       return t.invoke(kRecordset, DISPID_ZIRDB_RECORDSET_FOREACH, kMethod,
                       &t.text);
     },
     DISP_E_TYPEMISMATCH, DISP_E_TYPEMISMATCH},
    {"Fields",
     [](Things& t) {
       return t.invoke(kRecordset, DISPID_ZIRDB_RECORDSET_FIELDS, kGet);
     },
     S_OK, DISP_E_EXCEPTION},
    {"ExecuteOnAClosedConnection",
     [](Things& t) {
       return t.invoke(kConnection, DISPID_ZIRDB_CONNECTION_EXECUTE, kMethod,
                       &t.text);
     },
     DISP_E_EXCEPTION, DISP_E_EXCEPTION},
    {"ExecuteOfACommandWithoutAConnection",
     [](Things& t) {
       return t.invoke(kCommand, DISPID_ZIRDB_COMMAND_EXECUTE, kMethod);
     },
     DISP_E_EXCEPTION, DISP_E_EXCEPTION},
    {"CreateParameter",
     [](Things& t) {
       return t.invoke(kCommand, DISPID_ZIRDB_COMMAND_CREATEPARAMETER, kMethod,
                       &t.text);
     },
     S_OK, DISP_E_EXCEPTION},
    {"Parameters",
     [](Things& t) {
       return t.invoke(kCommand, DISPID_ZIRDB_COMMAND_PARAMETERS, kGet);
     },
     S_OK, DISP_E_EXCEPTION},
    {"ConnectionString",
     [](Things& t) {
       return t.invoke(kConnection, DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING,
                       kGet);
     },
     S_OK, S_OK},

    // Activation. Nothing is registered under these names.
    {"CoCreateInstance",
     [](Things& t) {
       return t.receive([](void** out) {
         return in().CoCreateInstance(in().classes[0], nullptr, 1, in().unknown,
                                      out);
       });
     },
     E_FAIL, E_FAIL},
    {"CoCreateInstanceByName",
     [](Things& t) {
       return t.receive([](void** out) {
         return in().CoCreateInstanceByName(L"NOBODY.Knows", nullptr, 1,
                                            in().unknown, out);
       });
     },
     zir_hresult(0x800401F3), zir_hresult(0x800401F3)},
    {"CoGetObject",
     [](Things& t) {
       return t.receive([](void** out) {
         return in().CoGetObject(L"new:NOBODY.Knows", nullptr, in().unknown,
                                 out);
       });
     },
     E_FAIL, E_FAIL},
    {"CLSIDFromProgID",
     [](Things&) {
       CLSID clsid = {};
       return in().CLSIDFromProgID(L"NOBODY.Knows", &clsid);
     },
     zir_hresult(0x800401F3), zir_hresult(0x800401F3)},
    {"AStubLine",
     [](Things&) {
       CLSID clsid = {};
       return in().CLSIDFromString(L"a text", &clsid);
     },
     E_NOTIMPL, E_NOTIMPL},
    {"LoadLibraryW",
     [](Things&) {
       return in().LoadLibraryW(L"nobody") == nullptr ? S_OK : S_FALSE;
     },
     S_OK, S_OK},
    {"GetProcAddress",
     [](Things&) {
       return in().GetProcAddress(library(), "nobody") == nullptr ? S_OK
                                                                  : S_FALSE;
     },
     S_OK, S_OK},

    // Values.
    {"SysAllocString",
     [](Things& t) {
       t.result.bstrVal = in().SysAllocString(L"a text");
       if (t.result.bstrVal == nullptr) return E_OUTOFMEMORY;
       t.result.vt = VT_BSTR;
       return S_OK;
     },
     S_OK, E_OUTOFMEMORY},
    {"SafeArrayCreateVector",
     [](Things& t) {
       t.array = in().SafeArrayCreateVector(VT_UI1, 0, 5);
       return t.array != nullptr ? S_OK : E_OUTOFMEMORY;
     },
     S_OK, E_OUTOFMEMORY},
    {"ANumberToAText", [](Things& t) { return t.convert(VT_I8, 5, VT_BSTR); },
     S_OK, E_INVALIDARG},
    {"ADateToAText", [](Things& t) { return t.convert(VT_DATE, 0, VT_BSTR); },
     S_OK, E_INVALIDARG},
    {"AConversionThatThereIsNot",
     [](Things& t) { return t.convert(VT_ERROR, 5, VT_DATE); }, E_INVALIDARG,
     E_INVALIDARG},
    {"VarCat",
     [](Things& t) { return in().VarCat(&t.text, &t.text, &t.result); }, S_OK,
     E_OUTOFMEMORY},
    {"VarDateFromStr",
     [](Things&) {
       DATE date = 0;
       return in().VarDateFromStr(L"2024-01-01 10:00:00", 0, 0, &date);
     },
     S_OK, S_OK},
    {"GetLocalTime",
     [](Things&) {
       SYSTEMTIME now = {};
       in().GetLocalTime(&now);
       return S_OK;
     },
     S_OK, S_OK},
};

class AThread : public testing::TestWithParam<Call> {};

TEST_P(AThread, WithoutMemoryGetsAnAnswer) {
  ASSERT_NE(library(), nullptr) << dlerror();
  in();
  printed::Capture printed;
  HRESULT none_at_all = S_OK;
  HRESULT answer = S_OK;
  bool known = true;
  bool kept = true;
  long requests = 0;
  for (long allowed = 0; allowed == 0 || requests > allowed - 1; ++allowed) {
    const long live = allocator::g_watched.live;
    {
      Things things;
      std::thread([&] {
        {
          const allocator::Watch watch(allocator::Fail::AllFromThere,
                                       allowed + 1);
          answer = GetParam().call(things);
        }
        in().CoUninitialize();
      }).join();
      requests = allocator::g_watched.requests;
    }
    if (allowed == 0) none_at_all = answer;
    known =
        known && (answer == GetParam().usual || answer == GetParam().without);
    kept = kept && allocator::g_watched.live == live;
  }
  EXPECT_EQ(none_at_all, GetParam().without) << std::hex << none_at_all;
  EXPECT_EQ(answer, GetParam().usual) << std::hex << answer;
  EXPECT_TRUE(known);
  EXPECT_TRUE(kept) << "something is left of a thread";
}

INSTANTIATE_TEST_SUITE_P(Of, AThread, testing::ValuesIn(kCalls),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

}  // namespace
