// SPDX-License-Identifier: MIT
//
// A component library whose factory makes nothing.

#include "component.h"

component::Log* component_log() { return &component::g_log; }

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  component::g_log.create_answer = E_NOINTERFACE;
  *object = static_cast<IClassFactory*>(&component::g_factory);
  return S_OK;
}
