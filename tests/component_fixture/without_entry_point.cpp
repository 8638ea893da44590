// SPDX-License-Identifier: MIT
//
// A library that is no component: it has no DllGetClassObject. It is linked
// with nothing, because what it is linked with is searched for one too.

extern "C" __attribute__((visibility("default"))) int
component_without_entry_point() {
  return 0;
}
