// SPDX-License-Identifier: MIT
//
// A component library that has no class to give, and yet stores a factory,
// which nobody may use.

#include "component.h"

component::Log* component_log() { return &component::g_log; }

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  *object = static_cast<IClassFactory*>(&component::g_factory);
  return CLASS_E_CLASSNOTAVAILABLE;
}
