// SPDX-License-Identifier: MIT
//
// For tests of hosts that misbehave: an object of a host's whose every
// operation does as it is told, and all objects of the library around one
// connection.

#ifndef ZIRDB_TESTS_SUPPORT_MISBEHAVING_PUPPET_H
#define ZIRDB_TESTS_SUPPORT_MISBEHAVING_PUPPET_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace misbehaving {

/// Counted like any other object.
class Puppet final : public IDispatch {
 public:
  /// What happens in an operation, besides what it does. May throw.
  struct Strings {
    std::function<HRESULT(VARIANT* result)> on_invoke = {};
    std::function<void()> on_query = {};
    std::function<void()> on_add_ref = {};
    std::function<void()> on_end = {};  ///< the last Release
    /// Whose interfaces it answers for besides its own.
    InterfacePtr<IDispatch> stands_for = {};
  };

  /// The only reference, as a value.
  static _variant_t made(Strings strings) {
    VARIANT value{};
    value.vt = VT_DISPATCH;
    value.pdispVal = new Puppet(std::move(strings));
    return values::owned(value);
  }
  static int alive() { return alive_; }

  Puppet(const Puppet&) = delete;
  Puppet& operator=(const Puppet&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (strings_.on_query) strings_.on_query();
    if (riid != IID_IUnknown && riid != IID_IDispatch) {
      return strings_.stands_for
                 ? strings_.stands_for->QueryInterface(riid, object)
                 : E_NOINTERFACE;
    }
    ++references_;
    *object = static_cast<IDispatch*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override {
    if (strings_.on_add_ref) strings_.on_add_ref();
    return ++references_;
  }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left != 0) return left;
    if (strings_.on_end) strings_.on_end();
    delete this;
    return 0;
  }
  HRESULT GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** info) override {
    *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(DISPID /*member*/, REFIID /*riid*/, LCID /*lcid*/,
                 WORD /*flags*/, DISPPARAMS* /*parameters*/, VARIANT* result,
                 EXCEPINFO* /*exception*/, UINT* /*bad_argument*/) override {
    return strings_.on_invoke ? strings_.on_invoke(result)
                              : DISP_E_MEMBERNOTFOUND;
  }

 private:
  explicit Puppet(Strings strings) : strings_(std::move(strings)) { ++alive_; }
  ~Puppet() { --alive_; }

  static inline int alive_ = 0;
  Strings strings_;
  std::uint32_t references_ = 1;
};

/// A text as the result of a default member.
inline HRESULT answer_text(VARIANT* result, const wchar_t* text) {
  if (result != nullptr) *result = _variant_t(text).Detach();
  return S_OK;
}

/// An object of every class around one connection with a table s(n).
struct Stage {
  scripting::Object connection = opened();
  scripting::Object rows =
      connection("SELECT 1 AS n UNION SELECT 2 UNION SELECT 3");
  scripting::Object fields = rows.get("Fields");
  scripting::Object field = fields(0);
  scripting::Object command = scripting::new_command();
  scripting::Object list = command.get("Parameters");
  scripting::Object parameter =
      command.call("CreateParameter", "p", ZIRDB_AD_VARCHAR);

  Stage() {
    connection("CREATE TABLE s (n INTEGER)");
    command.put("ActiveConnection", connection);
    command.put("CommandText", "SELECT ? AS n");
    list.call("Append", parameter);
  }

  /// Everything that a host holds.
  void let_go() {
    for (scripting::Object* each :
         {&parameter, &list, &command, &field, &fields, &rows, &connection}) {
      each->release();
    }
  }

  static scripting::Object opened() {
    scripting::Object connection = scripting::new_connection();
    connection.call("Open", "Driver={SQLite3};Database=:memory:");
    return connection;
  }
};

}  // namespace misbehaving

#endif  // ZIRDB_TESTS_SUPPORT_MISBEHAVING_PUPPET_H
