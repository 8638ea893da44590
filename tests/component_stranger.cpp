// SPDX-License-Identifier: MIT
//
// The parameter of a host that is compiled without type information.

#include "component_stranger.h"

#include <cstdint>

#ifdef __GXX_RTTI
#error "This file is there to be compiled without type information."
#endif

namespace {

class Stranger final : public IZIRDBParameter {
 public:
  explicit Stranger(HRESULT result) : result_(result) {}
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;

  HRESULT QueryInterface(REFIID /*riid*/, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT get_Name(BSTR* name) override {
    *name = SysAllocString(L"stranger");
    return S_OK;
  }
  HRESULT get_Value(VARIANT* value) override {
    value->vt = VT_I8;
    value->llVal = 7;
    return S_OK;
  }
  HRESULT get_Type(long* type) override { return store(20, type, S_OK); }
  HRESULT get_Direction(long* direction) override {
    return store(3, direction, S_OK);
  }
  HRESULT get_Size(long* size) override { return store(40, size, result_); }

  HRESULT put_Name(BSTR /*name*/) override { return E_NOTIMPL; }
  HRESULT put_Value(VARIANT /*value*/) override { return E_NOTIMPL; }
  HRESULT put_Type(long /*type*/) override { return E_NOTIMPL; }
  HRESULT put_Direction(long /*direction*/) override { return E_NOTIMPL; }
  HRESULT put_Size(long /*size*/) override { return E_NOTIMPL; }

 private:
  ~Stranger() = default;

  static HRESULT store(long number, long* out, HRESULT result) {
    *out = number;
    return result;
  }

  HRESULT result_;
  std::uint32_t references_ = 1;
};

}  // namespace

InterfacePtr<IZIRDBParameter> stranger(HRESULT result) {
  return InterfacePtr<IZIRDBParameter>::adopt(new Stranger(result));
}
