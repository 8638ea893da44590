// SPDX-License-Identifier: MIT
//
// For tests of the component's frame: what a host does at the library's door.
// Factories, standalone recordsets and their fields. What cannot be had fails
// the test that asked.

#ifndef ZIRDB_TESTS_SUPPORT_COMPONENT_HOST_H
#define ZIRDB_TESTS_SUPPORT_COMPONENT_HOST_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "zir.h"
#include "zirdb.h"

namespace component {

constexpr const wchar_t* kRecordsetSource = L"ZIRDB.Recordset";

/// What `call(void** out)` stores.
template <class Interface, class Call>
InterfacePtr<Interface> obtained(const char* what, Call call) {
  InterfacePtr<Interface> object;
  const HRESULT result = object.receive(call);
  if (result != S_OK || !object) {
    throw std::runtime_error(std::string("no ") + what + ": " +
                             std::to_string(result));
  }
  return object;
}

inline InterfacePtr<IClassFactory> factory_of(REFCLSID clsid) {
  return obtained<IClassFactory>("factory", [&](void** out) {
    return DllGetClassObject(clsid, IID_IClassFactory, out);
  });
}

inline InterfacePtr<IZIRDBRecordset> standalone_recordset() {
  return obtained<IZIRDBRecordset>("recordset", [](void** out) {
    return factory_of(CLSID_ZIRDBRecordset)
        ->CreateInstance(nullptr, IID_IZIRDBRecordset, out);
  });
}

inline InterfacePtr<IZIRDBFields> fields_of(IZIRDBRecordset* recordset) {
  return obtained<IZIRDBFields>("fields", [&](void** out) {
    IZIRDBFields* fields = nullptr;
    const HRESULT result = recordset->get_Fields(&fields);
    *out = fields;
    return result;
  });
}

/// What an untouched out-pointer holds: nobody may mistake it for an object.
inline void* unset() {
  static char mark = 0;
  return &mark;
}

/// An out-pointer. Lets go of what it holds when that may be an object, so that
/// nothing leaks where a test fails.
class Out {
 public:
  explicit Out(void* on_entry = unset())
      : on_entry_(on_entry), object_(on_entry) {}
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;
  ~Out() {
    if (object_ != nullptr && !untouched()) {
      static_cast<IUnknown*>(object_)->Release();
    }
  }
  void** address() { return &object_; }
  void* object() const { return object_; }
  bool untouched() const { return object_ == on_entry_; }

 private:
  void* on_entry_;
  void* object_;
};

/// The number of references, as an object itself reports it.
inline std::uint32_t references_of(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

}  // namespace component

#endif  // ZIRDB_TESTS_SUPPORT_COMPONENT_HOST_H
