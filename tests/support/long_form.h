// SPDX-License-Identifier: MIT
//
// Tests that have a short form and a long one: CTest runs the short one among
// the others and the long one under the label "slow", with ZIRDB_LONG set.

#ifndef ZIRDB_TESTS_SUPPORT_LONG_FORM_H
#define ZIRDB_TESTS_SUPPORT_LONG_FORM_H

#include <cstdlib>

namespace zirdb_test {

inline bool is_long_form() { return std::getenv("ZIRDB_LONG") != nullptr; }

/// How much of something a test does.
template <class Amount>
Amount short_or_long(Amount short_form, Amount long_form) {
  return is_long_form() ? long_form : short_form;
}

}  // namespace zirdb_test

#endif  // ZIRDB_TESTS_SUPPORT_LONG_FORM_H
