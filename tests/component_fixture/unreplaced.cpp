// SPDX-License-Identifier: MIT
//
// A component library that reports success and leaves the out-pointer as it
// was: for CLSID_NULL that is the class name, not a factory.

#include "component.h"

component::Log* component_log() { return &component::g_log; }

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  return S_OK;
}
