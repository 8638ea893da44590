// SPDX-License-Identifier: MIT
//
// Parameters that are let go in the depth of others, many at once: all of them
// let go of what they hold, with memory to remember them in and without.

#include <gtest/gtest.h>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "zir.h"

namespace {

constexpr int kMany = 40;
/// Somewhere between, the calls become too deep to go on so.
constexpr int kLeastDepth = 56, kMostDepth = 72;

/// A parameter that holds `value`, as a value.
_variant_t held(const _variant_t& value) {
  const auto parameter = parameters::parameter_with(value);
  return {static_cast<IUnknown*>(parameter.get())};
}

/// Many parameters side by side, each with a reference to the object, in a
/// parameter in a parameter and so on.
_variant_t buried(IUnknown* object, int depth) {
  _variant_t value = allocator::array_of(
      SafeArrayCreateVector(VT_VARIANT, 0, kMany), VT_VARIANT);
  {
    const SafeArrayAccess access(value.parray);
    for (int i = 0; i < kMany; ++i) {
      access.elements<VARIANT>()[i] = held(_variant_t(object)).Detach();
    }
  }
  for (int i = 0; i < depth; ++i) value = held(value);
  return value;
}

TEST(LettingGoOfManyDeepDown, ForgetsNone) {
  for (int depth = kLeastDepth; depth <= kMostDepth; ++depth) {
    objects::Unknown object;
    _variant_t value = buried(&object, depth);
    ASSERT_EQ(object.references(), 1U + kMany);
    EXPECT_EQ(VariantClear(&value), S_OK);
    EXPECT_EQ(object.references(), 1U) << depth;
  }
}

TEST(LettingGoOfManyDeepDown, ForgetsNoneWithoutMemory) {
  long requests = 0;
  for (int depth = kLeastDepth; depth <= kMostDepth; ++depth) {
    objects::Unknown object;
    _variant_t value = buried(&object, depth);
    {
      const allocator::Watch watch(allocator::Fail::AllFromThere, 1);
      VariantClear(&value);
    }
    requests += allocator::g_watched.requests;
    EXPECT_EQ(object.references(), 1U) << depth;
  }
  // Otherwise there was none that failed.
  EXPECT_GT(requests, 0);
}

}  // namespace
