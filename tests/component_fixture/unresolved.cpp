// SPDX-License-Identifier: MIT
//
// A component library that calls a function nobody defines: it loads only where
// functions are looked up as late as they are called.

#include "component.h"

extern "C" void component_function_that_nobody_defines();

component::Log* component_log() { return &component::g_log; }

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  if (component::g_log.asked < 0) component_function_that_nobody_defines();
  *object = static_cast<IClassFactory*>(&component::g_factory);
  return S_OK;
}
