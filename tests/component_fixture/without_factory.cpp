// SPDX-License-Identifier: MIT
//
// A component library that reports success without a factory.

#include "component.h"

component::Log* component_log() { return &component::g_log; }

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  *object = nullptr;
  return S_OK;
}
