// SPDX-License-Identifier: MIT
//
// A host that ends, in one of many ways, with objects alive and a connection
// open: misbehaving_host <scenario> <connection string>. It ends with code 3
// and prints nothing unless something is wrong. misbehaving_processes_test.cpp
// runs it.

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "misbehaving_late.h"
#include "zir.h"
#include "zirdb.h"

namespace {

constexpr int kEnd = 3;

void require(bool holds, const char* what) {
  if (holds) return;
  std::printf("wrong: %s\n", what);
  std::fflush(stdout);
  _exit(1);
}

template <class Interface>
InterfacePtr<Interface> made(REFCLSID clsid, REFIID riid) {
  InterfacePtr<IClassFactory> factory;
  factory.receive([&](void** out) {
    return DllGetClassObject(clsid, IID_IClassFactory, out);
  });
  InterfacePtr<Interface> object;
  object.receive(
      [&](void** out) { return factory->CreateInstance(nullptr, riid, out); });
  require(static_cast<bool>(object), "an object is made");
  return object;
}

using Connection = InterfacePtr<IZIRDBConnection>;
using Recordset = InterfacePtr<IZIRDBRecordset>;

const char* g_connection_string;

Connection opened() {
  auto connection =
      made<IZIRDBConnection>(CLSID_ZIRDBConnection, IID_IZIRDBConnection);
  std::wstring text(g_connection_string,
                    g_connection_string + std::strlen(g_connection_string));
  const _bstr_t argument(text.c_str());
  require(connection->Open(argument.m_s, nullptr, nullptr, 0) == S_OK, "Open");
  return connection;
}

Recordset executed(const Connection& connection, const wchar_t* sql) {
  const _bstr_t text(sql);
  Recordset rows;
  IZIRDBRecordset* out = nullptr;
  require(connection->Execute(text.m_s, nullptr, 0, &out) == S_OK, "Execute");
  return Recordset::adopt(out);
}

/// An object of each kind, alive.
struct Everything {
  Connection connection = opened();
  Recordset rows = executed(connection, L"SELECT 1 AS a");
  InterfacePtr<IZIRDBFields> fields;
  InterfacePtr<IZIRDBCommand> command =
      made<IZIRDBCommand>(CLSID_ZIRDBCommand, IID_IZIRDBCommand);
  InterfacePtr<IZIRDBParameters> parameters;

  Everything() {
    IZIRDBFields* out = nullptr;
    require(rows->get_Fields(&out) == S_OK, "Fields");
    fields = InterfacePtr<IZIRDBFields>::adopt(out);
    command->putref_ActiveConnection(
        connection.query<IDispatch>(IID_IDispatch).get());
    IZIRDBParameters* list = nullptr;
    require(command->get_Parameters(&list) == S_OK, "Parameters");
    parameters = InterfacePtr<IZIRDBParameters>::adopt(list);
    // An error of the thread, and its object context.
    require(rows->MovePrevious() < 0, "MovePrevious");
    CoInitializeEx(nullptr, 0);
  }
  // Whether all of it still works.
  void use() const {
    long count = 0;
    require(fields->get_Count(&count) == S_OK && count == 1, "Count");
    require(rows->MovePrevious() == zir_hresult(0x800A0C93), "an error");
    executed(connection, L"SELECT 2 AS b");
    require(connection->Close() == S_OK, "Close");
    require(rows->MoveFirst() == zir_hresult(0x800A0E78), "a closed one");
    CoUninitialize();
  }
};

/// Lives as long as the process, on purpose.
Everything& kept() {
  static auto* const everything = new Everything;
  return *everything;
}

/// Destroyed among the program's static variables.
Everything& in_static_variable() {
  static Everything everything;
  return everything;
}

class UsedWhenDestroyed {
 public:
  UsedWhenDestroyed() = default;
  UsedWhenDestroyed(const UsedWhenDestroyed&) = delete;
  UsedWhenDestroyed& operator=(const UsedWhenDestroyed&) = delete;
  ~UsedWhenDestroyed() {
    if (everything != nullptr) everything->use();
  }
  const Everything* everything = nullptr;
};
// Made before, and so destroyed behind, everything that main makes.
UsedWhenDestroyed g_used_when_destroyed;

/// A walk whose callback does as told, in which the thread then stays.
class StayingCallback final : public IDispatch {
 public:
  explicit StayingCallback(std::function<void()> then)
      : then_(std::move(then)) {}
  HRESULT QueryInterface(REFIID /*riid*/, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return 2; }
  std::uint32_t Release() override { return 1; }
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID /*member*/, REFIID /*riid*/, LCID /*lcid*/,
                 WORD /*flags*/, DISPPARAMS* /*parameters*/,
                 VARIANT* /*result*/, EXCEPINFO* /*exception*/,
                 UINT* /*bad_argument*/) override {
    then_();
    return S_OK;
  }

 private:
  std::function<void()> then_;
};

void walk(const Recordset& rows, std::function<void()> then) {
  StayingCallback callback(std::move(then));
  VARIANT argument{};
  argument.vt = VT_DISPATCH;
  argument.pdispVal = &callback;
  DISPPARAMS parameters = {&argument, nullptr, 1, 0};
  rows.query<IDispatch>(IID_IDispatch)
      ->Invoke(DISPID_ZIRDB_RECORDSET_FOREACH, IID_NULL, 0, DISPATCH_METHOD,
               &parameters, nullptr, nullptr, nullptr);
}

/// Another thread that is inside of the library, without an end.
void leave_a_thread_in_a_callback() {
  static std::atomic<bool> inside{false};
  std::thread([] {
    const Connection connection = opened();
    walk(executed(connection, L"SELECT 1"), [] {
      inside = true;
      for (;;) pause();
    });
  }).detach();
  while (!inside) std::this_thread::yield();
}

void leave_threads_in_statements() {
  static std::atomic<int> executions{0};
  for (int i = 0; i < 2; ++i) {
    std::thread([] {
      const Connection connection = opened();
      for (;;) {
        executed(connection,
                 L"WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL"
                 L" SELECT x + 1 FROM c WHERE x < 900) SELECT x FROM c");
        ++executions;
      }
    }).detach();
  }
  while (executions < 4) std::this_thread::yield();
}

[[noreturn]] void end_on_another_thread(void (*end)(int)) {
  std::thread([end] { end(kEnd); }).detach();
  for (;;) pause();
}

using Scenario = int (*)();
struct Named {
  const char* name;
  Scenario run;
};

const Named kScenarios[] = {
    {"return",
     [] {
       kept();
       return kEnd;
     }},
    {"exit",
     [] {
       const Everything everything;
       std::exit(kEnd);
       return 0;
     }},
    {"_exit",
     [] {
       const Everything everything;
       _exit(kEnd);
       return 0;
     }},
    {"quick_exit",
     [] {
       static const Everything* everything = &kept();
       std::at_quick_exit([] { everything->use(); });
       std::quick_exit(kEnd);
       return 0;
     }},
    {"pthread_exit",
     [] {
       // The process ends with its last thread, and then with 0.
       std::thread([] {
         std::this_thread::sleep_for(std::chrono::milliseconds(50));
         std::exit(kEnd);
       }).detach();
       kept();
       // The context of a thread that does not do so stays.
       CoUninitialize();
       pthread_exit(nullptr);
       return 0;
     }},
    {"static_variable",
     [] {
       in_static_variable();
       return kEnd;
     }},
    {"used_behind_main",
     [] {
       g_used_when_destroyed.everything = &kept();
       return kEnd;
     }},
    {"atexit_before",
     [] {
       // Runs behind what the library registers when it is used.
       static const Everything* everything = nullptr;
       std::atexit([] { everything->use(); });
       everything = &kept();
       return kEnd;
     }},
    {"atexit_alone",
     [] {
       // The first use of the library.
       std::atexit([] {
         const Everything everything;
         everything.use();
       });
       return kEnd;
     }},
    {"behind_the_library",
     [] {
       // When the library itself has ended.
       static const Everything& all = kept();
       misbehaving_late_call([] {
         long state = 0;
         require(all.rows->get_State(&state) == S_OK && state == 1, "State");
         EXCEPINFO exception{};
         DISPPARAMS none{};
         require(
             all.rows.query<IDispatch>(IID_IDispatch)
                     ->Invoke(DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, IID_NULL, 0,
                              DISPATCH_METHOD, &none, nullptr, &exception,
                              nullptr) == zir_hresult(0x80020009),
             "a late error");
         require(exception.scode == zir_hresult(0x800A0C93), "its code");
         require(exception.bstrSource != nullptr, "its source");
         // What a thread keeps of its errors is gone.
         require(exception.bstrDescription == nullptr, "the library is there");
         ExcepinfoClear(&exception);
         all.use();
       });
       return kEnd;
     }},
    {"exit_on_another_thread",
     [] {
       kept();
       end_on_another_thread(std::exit);
       return 0;
     }},
    {"_exit_on_another_thread",
     [] {
       kept();
       end_on_another_thread(_exit);
       return 0;
     }},
    {"exit_in_a_callback",
     [] {
       const Everything everything;
       walk(everything.rows, [] { std::exit(kEnd); });
       return 0;
     }},
    {"_exit_in_a_callback",
     [] {
       const Everything everything;
       walk(everything.rows, [] { _exit(kEnd); });
       return 0;
     }},
    {"exit_on_another_thread_in_a_callback",
     [] {
       const Everything everything;
       walk(everything.rows, [] { end_on_another_thread(std::exit); });
       return 0;
     }},
    {"return_with_a_thread_in_a_callback",
     [] {
       leave_a_thread_in_a_callback();
       kept();
       return kEnd;
     }},
    {"return_with_threads_in_statements",
     [] {
       leave_threads_in_statements();
       kept();
       return kEnd;
     }},
    {"_exit_with_threads_in_statements",
     [] {
       leave_threads_in_statements();
       kept();
       _exit(kEnd);
       return 0;
     }},
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  g_connection_string = arguments[2];
  alarm(60);
  for (const Named& each : kScenarios) {
    if (std::strcmp(each.name, arguments[1]) == 0) return each.run();
  }
  return 2;
}
