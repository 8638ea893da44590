// SPDX-License-Identifier: MIT
//
// Arrays in arrays, as deep as memory goes: they are copied and destroyed
// without calls as deep, in the order of their elements, and circles end.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/objects.h"
#include "zir.h"

namespace {

constexpr VARTYPE kVariants = VT_ARRAY | VT_VARIANT;
// Calls as deep would not fit on a thread's stack.
constexpr int kDeep = 300'000;

VARIANT* elements_of(SAFEARRAY* array) {
  return static_cast<VARIANT*>(array->pvData);
}

/// Moves `values` into a new array.
_variant_t array_of(std::vector<_variant_t> values) {
  _variant_t array;
  array.parray = SafeArrayCreateVector(
      VT_VARIANT, 0, static_cast<std::uint32_t>(values.size()));
  array.vt = kVariants;
  for (std::size_t i = 0; i < values.size(); ++i) {
    elements_of(array.parray)[i] = values[i].Detach();
  }
  return array;
}

_variant_t one_in(_variant_t value) {
  std::vector<_variant_t> values;
  values.push_back(std::move(value));
  return array_of(std::move(values));
}

/// `value` in so many arrays of one element.
_variant_t nested(int depth, _variant_t value) {
  for (int i = 0; i < depth; ++i) value = one_in(std::move(value));
  return value;
}

/// How many arrays there are around the value at the bottom.
struct Bottom {
  int depth = 0;
  const VARIANT* value = nullptr;
};
Bottom bottom_of(const VARIANT& outermost) {
  Bottom bottom = {0, &outermost};
  while (bottom.value->vt == kVariants && bottom.value->parray != nullptr) {
    bottom.value = elements_of(bottom.value->parray);
    ++bottom.depth;
  }
  return bottom;
}

_variant_t holding(IUnknown* object) { return {object}; }

TEST(NestedArrays, AreCopiedAndDestroyedHoweverDeepTheyAre) {
  objects::Unknown object;
  {
    const _variant_t deep = nested(kDeep, holding(&object));
    const _variant_t copy = deep;
    EXPECT_EQ(bottom_of(copy).depth, kDeep);
    EXPECT_EQ(bottom_of(copy).value->punkVal, &object);
    EXPECT_NE(bottom_of(copy).value, bottom_of(deep).value);
    EXPECT_EQ(object.references(), 3U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(NestedArrays, AreDestroyedInTheOrderOfTheirElements) {
  std::string released;
  std::vector<objects::Unknown> objects(5);
  for (std::size_t i = 0; i < objects.size(); ++i) {
    objects[i].on_release = [&released, i] { released += std::to_string(i); };
  }
  {
    const _variant_t array = array_of(
        {holding(&objects[0]),
         array_of({holding(&objects[1]), one_in(holding(&objects[2]))}),
         array_of({}), holding(&objects[3]), one_in(holding(&objects[4]))});
    released.clear();
  }
  EXPECT_EQ(released, "01234");
}

TEST(NestedArrays, AreCopiedWithAllTheirElements) {
  const _variant_t array =
      array_of({L"first", array_of({1LL, one_in(L"inner"), 2LL}), array_of({}),
                L"last"});
  const _variant_t copy = array;
  ASSERT_EQ(copy.vt, kVariants);
  const VARIANT* const outer = elements_of(copy.parray);
  EXPECT_STREQ(outer[0].bstrVal, L"first");
  ASSERT_EQ(outer[1].vt, kVariants);
  const VARIANT* const middle = elements_of(outer[1].parray);
  EXPECT_EQ(middle[0].llVal, 1);
  ASSERT_EQ(middle[1].vt, kVariants);
  EXPECT_STREQ(elements_of(middle[1].parray)->bstrVal, L"inner");
  EXPECT_EQ(middle[2].llVal, 2);
  ASSERT_EQ(outer[2].vt, kVariants);
  EXPECT_EQ(outer[2].parray->rgsabound[0].cElements, 0U);
  EXPECT_STREQ(outer[3].bstrVal, L"last");
}

TEST(NestedArrays, StayWhereTheyAreLocked) {
  _variant_t inner = one_in(L"kept");
  SAFEARRAY* const locked = inner.parray;
  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(locked, &data), S_OK);
  nested(40, std::move(inner));
  EXPECT_EQ(static_cast<VARIANT*>(data)->vt, VT_BSTR);
  EXPECT_EQ(SafeArrayUnaccessData(locked), S_OK);
  EXPECT_EQ(SafeArrayDestroy(locked), S_OK);
}

TEST(NestedArrays, AreLockedWhileTheirElementsAreReleased) {
  objects::Unknown object;
  _variant_t array = nested(40, holding(&object));
  std::vector<SAFEARRAY*> all;
  for (const VARIANT* at = &array; at->vt == kVariants;
       at = elements_of(at->parray)) {
    all.push_back(at->parray);
  }
  std::size_t refused = 0;
  object.on_release = [&] {
    for (SAFEARRAY* const each : all) {
      if (SafeArrayDestroy(each) == DISP_E_ARRAYISLOCKED) ++refused;
    }
  };
  VariantClear(&array);
  object.on_release = {};
  EXPECT_EQ(refused, 40U);
}

/// The last array of a chain of so many, and the one in it that the chain
/// comes back to.
class Circle : public testing::TestWithParam<std::pair<int, int>> {};

TEST_P(Circle, OfArraysIsCopiedOnceAroundAndEnds) {
  const auto [length, back_to] = GetParam();
  _variant_t outermost = nested(length, {});
  SAFEARRAY* met_again = outermost.parray;
  const VARIANT* at = &outermost;
  for (int i = 0; i < back_to; ++i) at = elements_of(at->parray);
  met_again = at->parray;
  VARIANT* bottom = elements_of(outermost.parray);
  while (bottom->vt == kVariants) bottom = elements_of(bottom->parray);
  bottom->vt = kVariants;
  bottom->parray = met_again;
  {
    const _variant_t copy = outermost;
    EXPECT_EQ(bottom_of(copy).depth, length);
    EXPECT_EQ(bottom_of(copy).value->parray, nullptr);
  }
  // Locked while it is destroyed, it is not destroyed twice.
  VariantClear(&outermost);
}

INSTANTIATE_TEST_SUITE_P(OfAnyLength, Circle,
                         testing::Values(std::pair(1, 0), std::pair(2, 0),
                                         std::pair(2, 1), std::pair(3, 1),
                                         std::pair(31, 0), std::pair(32, 7),
                                         std::pair(33, 32),
                                         std::pair(1000, 900)));

// Each array of the ring holds the next one so many times.
TEST(NestedArrays, InARingThatBranchesAreCopiedAndEnd) {
  for (const std::size_t width : {1U, 2U, 3U}) {
    for (const std::size_t length : {1U, 2U, 5U}) {
      std::vector<SAFEARRAY*> ring;
      for (std::size_t i = 0; i < length; ++i) {
        ring.push_back(SafeArrayCreateVector(
            VT_VARIANT, 0, static_cast<std::uint32_t>(width)));
      }
      for (std::size_t i = 0; i < length; ++i) {
        for (std::size_t k = 0; k < width; ++k) {
          VARIANT& slot = elements_of(ring[i])[k];
          slot.vt = kVariants;
          slot.parray = ring[(i + 1) % length];
        }
      }
      SAFEARRAY* copy = nullptr;
      ASSERT_EQ(SafeArrayCopy(ring[0], &copy), S_OK);
      _variant_t owner;
      owner.vt = kVariants;
      owner.parray = copy;
      EXPECT_EQ(bottom_of(owner).depth, static_cast<int>(length));
      for (SAFEARRAY* const array : ring) {
        for (std::size_t k = 0; k < width; ++k) {
          elements_of(array)[k].vt = VT_EMPTY;
        }
        SafeArrayDestroy(array);
      }
    }
  }
}

/// Deliberately not how arrays are owned; but a copy has always been two.
TEST(NestedArrays, ThatComeUpTwiceWithoutACircleAreCopiedTwice) {
  _variant_t shared = nested(5, L"text");
  _variant_t both = array_of({one_in(shared), one_in({}), one_in({})});
  VARIANT* const slots = elements_of(both.parray);
  SAFEARRAY* const again = slots[0].parray;
  for (int i = 1; i < 3; ++i) {
    elements_of(slots[i].parray)->vt = kVariants;
    elements_of(slots[i].parray)->parray = again;
  }
  {
    const _variant_t copy = both;
    for (int i = 0; i < 3; ++i) {
      const Bottom bottom = bottom_of(elements_of(copy.parray)[i]);
      EXPECT_EQ(bottom.depth, i == 0 ? 6 : 7);
      ASSERT_EQ(bottom.value->vt, VT_BSTR);
      EXPECT_STREQ(bottom.value->bstrVal, L"text");
    }
  }
  for (int i = 1; i < 3; ++i) elements_of(slots[i].parray)->vt = VT_EMPTY;
}

}  // namespace
