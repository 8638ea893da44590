// SPDX-License-Identifier: MIT
//
// A library that ends later than all others of its process, and then calls what
// it was told to.

#ifndef ZIRDB_TESTS_MISBEHAVING_LATE_H
#define ZIRDB_TESTS_MISBEHAVING_LATE_H

extern "C" __attribute__((visibility("default"))) void misbehaving_late_call(
    void (*function)());

#endif  // ZIRDB_TESTS_MISBEHAVING_LATE_H
