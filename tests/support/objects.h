// SPDX-License-Identifier: MIT
//
// Automation objects for tests: they count references and answer as told.

#ifndef ZIRDB_TESTS_SUPPORT_OBJECTS_H
#define ZIRDB_TESTS_SUPPORT_OBJECTS_H

#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "zir.h"

namespace objects {

/// Lives as long as the test's scope, whatever its count: the count starts at 1
/// for the test and is read with references().
class Unknown final : public IUnknown {
 public:
  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IUnknown) return E_NOINTERFACE;
    AddRef();
    *object = static_cast<IUnknown*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    --references_;
    if (on_release) on_release();
    return references_;
  }

  std::uint32_t references() const { return references_; }

  std::function<void()> on_release;  ///< runs inside of Release

 private:
  std::uint32_t references_ = 1;
};

/// The same with late binding: every Invoke goes to `on_invoke`.
class Dispatch final : public IDispatch {
 public:
  struct Call {
    DISPID member;
    IID riid;
    LCID lcid;
    WORD flags;
    DISPPARAMS* parameters;
    VARIANT* result;
    EXCEPINFO* exception;
    UINT* bad_argument;
  };

  explicit Dispatch(std::function<HRESULT(const Call&)> on_invoke = {})
      : on_invoke_(std::move(on_invoke)) {}

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IDispatch) return E_NOINTERFACE;
    AddRef();
    *object = static_cast<IDispatch*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  HRESULT GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(DISPID member, REFIID riid, LCID lcid, WORD flags,
                 DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* exception,
                 UINT* bad_argument) override {
    ++invocations_;
    if (!on_invoke_) return DISP_E_MEMBERNOTFOUND;
    return on_invoke_({member, riid, lcid, flags, parameters, result, exception,
                       bad_argument});
  }

  std::uint32_t references() const { return references_; }
  int invocations() const { return invocations_; }

 private:
  std::function<HRESULT(const Call&)> on_invoke_;
  std::uint32_t references_ = 1;
  int invocations_ = 0;
};

/// What a double that nobody calls late-bound has besides `Interface`.
template <class Interface>
class NeverInvoked : public Interface, public IDispatch {
 public:
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return unwanted(); }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return unwanted();
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return unwanted();
  }
  HRESULT Invoke(DISPID /*member*/, REFIID /*riid*/, LCID /*lcid*/,
                 WORD /*flags*/, DISPPARAMS* /*parameters*/,
                 VARIANT* /*result*/, EXCEPINFO* /*exception*/,
                 UINT* /*bad_argument*/) override {
    return unwanted();
  }

 protected:
  NeverInvoked() = default;
  ~NeverInvoked() = default;

  /// The answer of an operation that nobody should call.
  static HRESULT unwanted() {
    ADD_FAILURE() << "this operation is not called";
    return E_UNEXPECTED;
  }
};

/// The thread's object context; empty without one.
inline InterfacePtr<IContextProperties> context() {
  InterfacePtr<IContextProperties> properties;
  properties.receive([](void** out) {
    return CoGetObjectContext(IID_IContextProperties, out);
  });
  return properties;
}

}  // namespace objects

#endif  // ZIRDB_TESTS_SUPPORT_OBJECTS_H
