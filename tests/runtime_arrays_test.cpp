// SPDX-License-Identifier: MIT
//
// Arrays: what a created one looks like, what destroying frees, how deep a copy
// goes, what bounds and locks answer, and in which order faults are told.
//
// Sections: helpers; creation; destruction; copies; bounds; locks; no memory.

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "support/objects.h"
#include "zir.h"

#ifdef __SANITIZE_ADDRESS__
// Lets malloc refuse what no memory can hold, as it does without sanitizer.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that is looked for
extern "C" __attribute__((visibility("default"))) const char*
__asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

namespace {

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------

struct Destroy {
  void operator()(SAFEARRAY* array) const { SafeArrayDestroy(array); }
};
using OwnedArray = std::unique_ptr<SAFEARRAY, Destroy>;

OwnedArray vector_of(VARENUM type, std::uint32_t count, LONG lower = 0) {
  return OwnedArray(
      SafeArrayCreateVector(static_cast<VARTYPE>(type), lower, count));
}

/// What SafeArrayCopy stores.
OwnedArray copy_of(SAFEARRAY* array) {
  SAFEARRAY* copy = nullptr;
  EXPECT_EQ(SafeArrayCopy(array, &copy), S_OK);
  return OwnedArray(copy);
}

template <class Element>
Element* elements(const OwnedArray& array) {
  return static_cast<Element*>(array->pvData);
}

/// The nth bound, from 0, which may stand behind the struct's end.
SAFEARRAYBOUND bound_at(const SAFEARRAY* array, std::size_t at) {
  const void* const start = array;
  SAFEARRAYBOUND bound = {};
  std::memcpy(&bound, static_cast<const char*>(start) + 24 + at * sizeof bound,
              sizeof bound);
  return bound;
}

/// Gives `element` a reference of its own.
void hold(VARIANT* element, IUnknown* object) {
  *element = _variant_t(object).Detach();
}

/// Owns a descriptor that did not come from SafeArrayCreate, nor does it say
/// so: neither it nor its elements are the runtime's to free.
class HandMade {
 public:
  HandMade(USHORT features, std::uint32_t element_size, void* data,
           const std::vector<SAFEARRAYBOUND>& bounds)
      : block_(2 + bounds.size() + 1) {
    SAFEARRAY header = {};
    header.cDims = static_cast<USHORT>(bounds.size());
    header.fFeatures = features;
    header.cbElements = element_size;
    header.pvData = data;
    std::memcpy(block_.data(), &header, 24);
    if (!bounds.empty()) {
      void* const start = block_.data();
      std::memcpy(static_cast<char*>(start) + 24, bounds.data(),
                  bounds.size() * sizeof(SAFEARRAYBOUND));
    }
  }

  SAFEARRAY* get() {
    void* const start = block_.data();
    return static_cast<SAFEARRAY*>(start);
  }

 private:
  struct alignas(8) Piece {
    char bytes[16];
  };
  std::vector<Piece> block_;
};

std::vector<char> bytes_at(const void* address, std::size_t count) {
  const auto* const bytes = static_cast<const char*>(address);
  return std::vector<char>(bytes, bytes + count);
}

#ifdef __SANITIZE_ADDRESS__
constexpr bool kSizesAreExact = true;
#else
constexpr bool kSizesAreExact = false;
#endif

/// Whether a block has the room of `bytes` from malloc, exactly where the
/// allocator says so.
testing::AssertionResult has_room(void* block, std::size_t bytes) {
  const std::size_t room = malloc_usable_size(block);
  if (kSizesAreExact ? room == bytes : room >= bytes) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << room << " bytes, expected " << bytes;
}

// ---------------------------------------------------------------------------
// Creation
// ---------------------------------------------------------------------------

struct ElementType {
  VARENUM type;
  std::uint32_t size;
  USHORT features;
};
constexpr ElementType kElementTypes[] = {
    {VT_VARIANT, 16, 0x0801}, {VT_BSTR, 8, 0x0101}, {VT_UI1, 1, 0x0001}};

TEST(SafeArrayCreate, EachElementTypeHasItsSizeAndFeatures) {
  for (const ElementType& row : kElementTypes) {
    SAFEARRAYBOUND bounds[] = {{2, 10}, {3, -20}};
    const OwnedArray array(
        SafeArrayCreate(static_cast<VARTYPE>(row.type), 2, bounds));
    ASSERT_NE(array, nullptr) << row.type;
    EXPECT_EQ(array->cDims, 2) << row.type;
    EXPECT_EQ(array->fFeatures, row.features) << row.type;
    EXPECT_EQ(array->cbElements, row.size) << row.type;
    EXPECT_EQ(array->cLocks, 0U) << row.type;
    EXPECT_TRUE(has_room(array->pvData, std::size_t{6} * row.size));
    EXPECT_TRUE(has_room(array.get(), 24 + 16 * 3));
  }
}

TEST(SafeArrayCreate, EveryOtherTypeIsRefused) {
  SAFEARRAYBOUND bound = {1, 0};
  for (int type = 0; type <= 0xFFFF; ++type) {
    if (type == VT_VARIANT || type == VT_BSTR || type == VT_UI1) continue;
    const auto vt = static_cast<VARTYPE>(type);
    ASSERT_EQ(SafeArrayCreate(vt, 1, &bound), nullptr) << type;
    ASSERT_EQ(SafeArrayCreate(vt, 0, nullptr), nullptr) << type;
    ASSERT_EQ(SafeArrayCreateVector(vt, 0, 1), nullptr) << type;
  }
}

TEST(SafeArrayCreate, BoundsStandInTheOrderTheyWerePassedThenOneOfZeros) {
  SAFEARRAYBOUND bounds[] = {{2, 10}, {3, -20}, {1, 30}};
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array(
        SafeArrayCreate(static_cast<VARTYPE>(row.type), 3, bounds));
    ASSERT_NE(array, nullptr);
    for (std::size_t at = 0; at < 3; ++at) {
      EXPECT_EQ(bound_at(array.get(), at).cElements, bounds[at].cElements);
      EXPECT_EQ(bound_at(array.get(), at).lLbound, bounds[at].lLbound);
    }
    EXPECT_EQ(bound_at(array.get(), 3).cElements, 0U);
    EXPECT_EQ(bound_at(array.get(), 3).lLbound, 0);
  }
}

TEST(SafeArrayCreate, VariantElementsBeginEmpty) {
  SAFEARRAYBOUND bounds[] = {{2, 0}, {3, 0}, {4, 0}};
  const OwnedArray array(SafeArrayCreate(VT_VARIANT, 3, bounds));
  EXPECT_EQ(bytes_at(array->pvData, std::size_t{24} * 16),
            std::vector<char>(std::size_t{24} * 16));
}

TEST(SafeArrayCreate, StringElementsBeginNull) {
  SAFEARRAYBOUND bounds[] = {{3, 0}, {5, 0}};
  const OwnedArray array(SafeArrayCreate(VT_BSTR, 2, bounds));
  for (std::size_t at = 0; at < 15; ++at) {
    EXPECT_EQ(elements<BSTR>(array)[at], nullptr) << at;
  }
}

TEST(SafeArrayCreate, ByteElementsMayAllBeWritten) {
  const OwnedArray array = vector_of(VT_UI1, 1000);
  std::memset(array->pvData, 0x5A, 1000);
  EXPECT_EQ(elements<BYTE>(array)[999], 0x5A);
}

#ifdef __SANITIZE_ADDRESS__
TEST(SafeArrayCreate, ByteElementsAreLeftUnwritten) {
  // What a fresh block holds here, so that a write would show.
  void* const fresh = std::malloc(100);
  const OwnedArray array = vector_of(VT_UI1, 100);
  EXPECT_EQ(bytes_at(array->pvData, 100), bytes_at(fresh, 100));
  std::free(fresh);
}
#endif

TEST(SafeArrayCreate, WithoutBoundsEveryDimensionIsEmpty) {
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array(
        SafeArrayCreate(static_cast<VARTYPE>(row.type), 2, nullptr));
    ASSERT_NE(array, nullptr) << row.type;
    EXPECT_EQ(array->cDims, 2) << row.type;
    for (std::size_t at = 0; at < 3; ++at) {
      EXPECT_EQ(bound_at(array.get(), at).cElements, 0U) << row.type;
      EXPECT_EQ(bound_at(array.get(), at).lLbound, 0) << row.type;
    }
    EXPECT_NE(copy_of(array.get()), nullptr) << row.type;
  }
}

TEST(SafeArrayCreate, WithoutDimensionsTheBoundsAreNotRead) {
  SAFEARRAYBOUND bound = {1000, 5};
  SAFEARRAYBOUND* const none = nullptr;
  for (SAFEARRAYBOUND* const bounds : {&bound, none}) {
    for (const ElementType& row : kElementTypes) {
      SAFEARRAY* const array =
          SafeArrayCreate(static_cast<VARTYPE>(row.type), 0, bounds);
      ASSERT_NE(array, nullptr) << row.type;
      EXPECT_EQ(array->cDims, 0) << row.type;
      EXPECT_EQ(bound_at(array, 0).cElements, 0U) << row.type;
      EXPECT_EQ(bound_at(array, 0).lLbound, 0) << row.type;
      EXPECT_TRUE(has_room(array, 24 + 16)) << row.type;
      EXPECT_EQ(SafeArrayDestroy(array), S_OK) << row.type;
    }
  }
}

TEST(SafeArrayCreate, AnEmptyDimensionMakesTheWholeArrayEmpty) {
  const SAFEARRAYBOUND full = {0xFFFFFFFF, 0};
  const SAFEARRAYBOUND empty = {0, 0};
  std::vector<SAFEARRAYBOUND> rows[] = {{empty, full, full, full},
                                        {full, full, full, empty},
                                        {full, empty, full, full}};
  for (std::vector<SAFEARRAYBOUND>& bounds : rows) {
    for (const ElementType& row : kElementTypes) {
      const OwnedArray array(
          SafeArrayCreate(static_cast<VARTYPE>(row.type), 4, bounds.data()));
      ASSERT_NE(array, nullptr) << row.type;
      EXPECT_NE(copy_of(array.get()), nullptr) << row.type;
    }
  }
}

TEST(SafeArrayCreate, MoreElementsThanCanBeCountedAreRefused) {
  // 2^64, nearly 2^65, and 2^64 + 4: none may wrap around to few.
  SAFEARRAYBOUND wraps_to_zero[] = {{0x80000000, 0}, {0x80000000, 0}, {4, 0}};
  SAFEARRAYBOUND wraps[] = {{0xFFFFFFFF, 0}, {0xFFFFFFFF, 0}, {2, 0}};
  SAFEARRAYBOUND wraps_to_few[] = {{197908, 0}, {242243305, 0}, {384773, 0}};
  for (const ElementType& row : kElementTypes) {
    const auto vt = static_cast<VARTYPE>(row.type);
    EXPECT_EQ(SafeArrayCreate(vt, 3, wraps_to_zero), nullptr) << row.type;
    EXPECT_EQ(SafeArrayCreate(vt, 3, wraps), nullptr) << row.type;
    EXPECT_EQ(SafeArrayCreate(vt, 3, wraps_to_few), nullptr) << row.type;
  }
}

TEST(SafeArrayCreate, MoreBytesThanCanBeCountedAreRefused) {
  // 2^60 variants and 2^61 strings are 2^64 bytes.
  SAFEARRAYBOUND bounds[] = {{0x40000000, 0}, {0x40000000, 0}};
  EXPECT_EQ(SafeArrayCreate(VT_VARIANT, 2, bounds), nullptr);
  bounds[0].cElements = 0x80000000;
  EXPECT_EQ(SafeArrayCreate(VT_BSTR, 2, bounds), nullptr);
}

TEST(SafeArrayCreate, AsManyDimensionsAsTheFieldCountsArePossible) {
  std::vector<SAFEARRAYBOUND> bounds(65536, SAFEARRAYBOUND{1, 0});
  bounds[0] = {3, 7};
  bounds[65534] = {2, 9};
  const OwnedArray array(SafeArrayCreate(VT_BSTR, 65535, bounds.data()));
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->cDims, 65535);
  EXPECT_TRUE(has_room(array->pvData, std::size_t{6} * 8));
  LONG bound = 0;
  EXPECT_EQ(SafeArrayGetUBound(array.get(), 65535, &bound), S_OK);
  EXPECT_EQ(bound, 10);
  EXPECT_EQ(SafeArrayGetUBound(array.get(), 65536, &bound), DISP_E_BADINDEX);
  EXPECT_EQ(bound_at(array.get(), 65535).cElements, 0U);
  EXPECT_EQ(copy_of(array.get())->cDims, 65535);
}

TEST(SafeArrayCreate, MoreDimensionsThanTheFieldCountsAreRefused) {
  std::vector<SAFEARRAYBOUND> bounds(65537, SAFEARRAYBOUND{1, 0});
  for (const ElementType& row : kElementTypes) {
    const auto vt = static_cast<VARTYPE>(row.type);
    for (const UINT dimensions : {65536U, 65537U}) {
      EXPECT_EQ(SafeArrayCreate(vt, dimensions, bounds.data()), nullptr);
      EXPECT_EQ(SafeArrayCreate(vt, dimensions, nullptr), nullptr);
    }
    EXPECT_EQ(SafeArrayCreate(vt, 0xFFFFFFFF, nullptr), nullptr);
  }
}

TEST(SafeArrayCreateVector, MakesOneDimension) {
  const OwnedArray array = vector_of(VT_UI1, 3, 5);
  EXPECT_EQ(array->cDims, 1);
  EXPECT_EQ(array->fFeatures, 0x0001);
  EXPECT_EQ(array->cbElements, 1U);
  EXPECT_EQ(array->cLocks, 0U);
  EXPECT_EQ(bound_at(array.get(), 0).cElements, 3U);
  EXPECT_EQ(bound_at(array.get(), 0).lLbound, 5);
  EXPECT_EQ(bound_at(array.get(), 1).cElements, 0U);
  EXPECT_EQ(bound_at(array.get(), 1).lLbound, 0);
}

TEST(SafeArrayCreateVector, LowerBoundsHave64Bits) {
  for (const LONG lower : {std::numeric_limits<LONG>::min(), LONG{-5000000000},
                           std::numeric_limits<LONG>::max()}) {
    const OwnedArray array = vector_of(VT_UI1, 1, lower);
    EXPECT_EQ(bound_at(array.get(), 0).lLbound, lower);
  }
}

// ---------------------------------------------------------------------------
// Destruction
// ---------------------------------------------------------------------------

TEST(SafeArrayDestroy, NoArrayIsRefused) {
  EXPECT_EQ(SafeArrayDestroy(nullptr), E_INVALIDARG);
}

TEST(SafeArrayDestroy, EveryElementOfEveryDimensionIsFreed) {
  objects::Unknown object;
  SAFEARRAYBOUND bounds[] = {{2, 1}, {3, -1}};
  SAFEARRAY* const variants = SafeArrayCreate(VT_VARIANT, 2, bounds);
  for (int i = 0; i < 6; ++i) {
    hold(static_cast<VARIANT*>(variants->pvData) + i, &object);
  }
  SAFEARRAY* const strings = SafeArrayCreate(VT_BSTR, 2, bounds);
  for (int i = 0; i < 6; ++i) {
    static_cast<BSTR*>(strings->pvData)[i] = SysAllocString(L"text");
  }
  EXPECT_EQ(object.references(), 7U);
  EXPECT_EQ(SafeArrayDestroy(variants), S_OK);
  EXPECT_EQ(SafeArrayDestroy(strings), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayDestroy, NestedArraysAreDestroyedAndReferencesLeftAlone) {
  objects::Unknown object;
  _variant_t target(&object);
  SAFEARRAY* const inner = SafeArrayCreateVector(VT_VARIANT, 0, 1);
  hold(static_cast<VARIANT*>(inner->pvData), &object);
  SAFEARRAY* const outer = SafeArrayCreateVector(VT_VARIANT, 0, 2);
  auto* const outer_elements = static_cast<VARIANT*>(outer->pvData);
  outer_elements[0].vt = VT_ARRAY | VT_VARIANT;
  outer_elements[0].parray = inner;
  outer_elements[1].vt = VT_BYREF | VT_VARIANT;
  outer_elements[1].pvarVal = &target;
  EXPECT_EQ(SafeArrayDestroy(outer), S_OK);
  EXPECT_EQ(object.references(), 2U);
}

TEST(SafeArrayDestroy, AnElementCannotDestroyTheArrayOnceMore) {
  objects::Unknown object;
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 2);
  hold(static_cast<VARIANT*>(array->pvData), &object);
  HRESULT again = S_OK;
  object.on_release = [&] { again = SafeArrayDestroy(array); };
  EXPECT_EQ(SafeArrayDestroy(array), S_OK);
  EXPECT_EQ(again, DISP_E_ARRAYISLOCKED);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayDestroy, ALockedArrayIsRefusedAndKept) {
  objects::Unknown object;
  OwnedArray array = vector_of(VT_VARIANT, 1);
  hold(elements<VARIANT>(array), &object);
  {
    const SafeArrayAccess access(array.get());
    EXPECT_EQ(SafeArrayDestroy(array.get()), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(object.references(), 2U);
    EXPECT_EQ(access.elements<VARIANT>()->punkVal, &object);
  }
  EXPECT_EQ(SafeArrayDestroy(array.release()), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayDestroy, AnyLockCountRefuses) {
  OwnedArray array = vector_of(VT_UI1, 1);
  for (const std::uint32_t locks : {1U, 2U, 0x10000U, 0xFFFFFFFFU}) {
    array->cLocks = locks;
    EXPECT_EQ(SafeArrayDestroy(array.get()), DISP_E_ARRAYISLOCKED) << locks;
  }
  array->cLocks = 0;
}

TEST(SafeArrayDestroy, WithoutOwnershipVariantsAreClearedAndNothingFreed) {
  objects::Unknown object;
  VARIANT data[2] = {};
  hold(&data[0], &object);
  hold(&data[1], &object);
  HandMade array(FADF_VARIANT, 16, data, {{2, 4}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(data[0].vt, VT_EMPTY);
  EXPECT_EQ(data[1].vt, VT_EMPTY);
  EXPECT_EQ(array.get()->pvData, data);
  EXPECT_EQ(array.get()->cDims, 1);
  EXPECT_EQ(bound_at(array.get(), 0).cElements, 2U);
}

TEST(SafeArrayDestroy, WithoutOwnershipStringsAreFreedAndNothingElse) {
  BSTR data[] = {SysAllocString(L"one"), nullptr, SysAllocString(L"two")};
  HandMade array(FADF_BSTR, 8, data, {{3, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(array.get()->pvData, data);
}

TEST(SafeArrayDestroy, WithoutOwnershipTheArrayCanBeUsedAgain) {
  VARIANT data[1] = {};
  HandMade array(FADF_VARIANT, 16, data, {{1, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(array.get()->cLocks, 0U);
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
}

TEST(SafeArrayDestroy, WithoutOwnershipBytesStayAsTheyAre) {
  BYTE data[] = {1, 2, 3};
  HandMade array(0, 1, data, {{3, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(data[2], 3);
  EXPECT_EQ(array.get()->pvData, data);
}

TEST(SafeArrayDestroy, WithoutOwnershipALockStillRefuses) {
  objects::Unknown object;
  VARIANT data = {};
  hold(&data, &object);
  HandMade array(FADF_VARIANT, 16, &data, {{1, 0}});
  array.get()->cLocks = 1;
  EXPECT_EQ(SafeArrayDestroy(array.get()), DISP_E_ARRAYISLOCKED);
  EXPECT_EQ(data.vt, VT_UNKNOWN);
  VariantClear(&data);
}

TEST(SafeArrayDestroy, OnlyTheBoundedElementsAreCleared) {
  objects::Unknown object;
  VARIANT data[3] = {};
  for (VARIANT& element : data) hold(&element, &object);
  HandMade array(FADF_VARIANT, 16, data, {{2, 0}, {1, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(data[1].vt, VT_EMPTY);
  EXPECT_EQ(data[2].vt, VT_UNKNOWN);
  EXPECT_EQ(object.references(), 2U);
  VariantClear(&data[2]);
}

TEST(SafeArrayDestroy, AnEmptyDimensionLeavesNoElementToClear) {
  objects::Unknown object;
  VARIANT data = {};
  hold(&data, &object);
  HandMade array(FADF_VARIANT, 16, &data, {{3, 0}, {0, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(object.references(), 2U);
  VariantClear(&data);
}

TEST(SafeArrayDestroy, WithoutDimensionsThereIsOneElement) {
  objects::Unknown object;
  VARIANT variants[2] = {};
  hold(&variants[0], &object);
  hold(&variants[1], &object);
  BSTR string = SysAllocString(L"text");
  HandMade of_variants(FADF_VARIANT, 16, variants, {});
  HandMade of_strings(FADF_BSTR, 8, &string, {});
  EXPECT_EQ(SafeArrayDestroy(of_variants.get()), S_OK);
  EXPECT_EQ(SafeArrayDestroy(of_strings.get()), S_OK);
  EXPECT_EQ(variants[0].vt, VT_EMPTY);
  EXPECT_EQ(variants[1].vt, VT_UNKNOWN);
  VariantClear(&variants[1]);
}

TEST(SafeArrayDestroy, VariantsPrevailOverStrings) {
  objects::Unknown object;
  VARIANT data = {};
  hold(&data, &object);
  HandMade array(FADF_VARIANT | FADF_BSTR, 16, &data, {{1, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayDestroy, BlocksFromMallocThatAreMarkedOwnedAreFreed) {
  void* const block = std::calloc(1, 24 + 2 * 16);
  ASSERT_NE(block, nullptr);
  auto* const array = static_cast<SAFEARRAY*>(block);
  array->cDims = 1;
  array->fFeatures = FADF_AUTO;
  array->cbElements = 4;
  array->pvData = std::malloc(8);
  array->rgsabound[0] = {2, 0};
  EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

// ---------------------------------------------------------------------------
// Copies
// ---------------------------------------------------------------------------

TEST(SafeArrayCopy, KeepsShapeFeaturesAndLowerBounds) {
  SAFEARRAYBOUND bounds[] = {{2, -7}, {3, 5000000000}};
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array(
        SafeArrayCreate(static_cast<VARTYPE>(row.type), 2, bounds));
    std::memset(array->pvData, 0, std::size_t{6} * row.size);
    const OwnedArray copy = copy_of(array.get());
    ASSERT_NE(copy, nullptr) << row.type;
    EXPECT_NE(copy, array) << row.type;
    EXPECT_NE(copy->pvData, array->pvData) << row.type;
    EXPECT_EQ(copy->cDims, 2) << row.type;
    EXPECT_EQ(copy->fFeatures, row.features) << row.type;
    EXPECT_EQ(copy->cbElements, row.size) << row.type;
    for (std::size_t at = 0; at < 3; ++at) {
      EXPECT_EQ(bound_at(copy.get(), at).cElements,
                at < 2 ? bounds[at].cElements : 0U);
      EXPECT_EQ(bound_at(copy.get(), at).lLbound,
                at < 2 ? bounds[at].lLbound : 0);
    }
    EXPECT_TRUE(has_room(copy->pvData, std::size_t{6} * row.size));
    EXPECT_TRUE(has_room(copy.get(), 24 + 16 * 3));
  }
}

TEST(SafeArrayCopy, EveryByteIsCopied) {
  SAFEARRAYBOUND bounds[] = {{3, 0}, {5, 0}};
  const OwnedArray array(SafeArrayCreate(VT_UI1, 2, bounds));
  for (int i = 0; i < 15; ++i) {
    elements<BYTE>(array)[i] = static_cast<BYTE>(i * 17);
  }
  const OwnedArray copy = copy_of(array.get());
  EXPECT_EQ(std::memcmp(copy->pvData, array->pvData, 15), 0);
}

TEST(SafeArrayCopy, EveryStringIsDuplicated) {
  const OwnedArray array = vector_of(VT_BSTR, 4);
  elements<BSTR>(array)[0] = SysAllocString(L"one");
  elements<BSTR>(array)[2] = SysAllocString(L"");
  elements<BSTR>(array)[3] = SysAllocStringLen(L"a\0b", 3);
  const OwnedArray copy = copy_of(array.get());
  const BSTR* const strings = elements<BSTR>(copy);
  EXPECT_EQ(std::wstring(strings[0]), L"one");
  EXPECT_NE(strings[0], elements<BSTR>(array)[0]);
  EXPECT_EQ(strings[1], nullptr);
  ASSERT_NE(strings[2], nullptr);
  EXPECT_EQ(SysStringLen(strings[2]), 0U);
  EXPECT_EQ(SysStringLen(strings[3]), 1U);
}

TEST(SafeArrayCopy, EveryVariantIsCopiedDeeply) {
  objects::Unknown object;
  {
    const OwnedArray array = vector_of(VT_VARIANT, 3);
    hold(elements<VARIANT>(array), &object);
    elements<VARIANT>(array)[1] = _variant_t(L"text").Detach();
    elements<VARIANT>(array)[2].vt = VT_BYREF | VT_BSTR;
    elements<VARIANT>(array)[2].byref = &object;
    const OwnedArray copy = copy_of(array.get());
    const VARIANT* const values = elements<VARIANT>(copy);
    EXPECT_EQ(object.references(), 3U);
    EXPECT_EQ(values[0].punkVal, &object);
    EXPECT_EQ(std::wstring(values[1].bstrVal), L"text");
    EXPECT_NE(values[1].bstrVal, elements<VARIANT>(array)[1].bstrVal);
    EXPECT_EQ(values[2].vt, VT_BYREF | VT_BSTR);
    EXPECT_EQ(values[2].byref, &object);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayCopy, NestedArraysAreCopiedToTheLastLevel) {
  objects::Unknown object;
  {
    // An array in an array in an array, with the object at the bottom.
    OwnedArray array = vector_of(VT_VARIANT, 1);
    hold(elements<VARIANT>(array), &object);
    for (int level = 0; level < 2; ++level) {
      OwnedArray outer = vector_of(VT_VARIANT, 1);
      elements<VARIANT>(outer)->vt = VT_ARRAY | VT_VARIANT;
      elements<VARIANT>(outer)->parray = array.release();
      array = std::move(outer);
    }
    const OwnedArray copy = copy_of(array.get());
    array.reset();
    EXPECT_EQ(object.references(), 2U);
    EXPECT_EQ(copy->cDims, 1);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayCopy, ACopyBeginsUnlockedWhileItsSourceStaysLocked) {
  const OwnedArray array = vector_of(VT_BSTR, 1);
  const SafeArrayAccess access(array.get());
  const OwnedArray copy = copy_of(array.get());
  EXPECT_EQ(copy->cLocks, 0U);
  EXPECT_EQ(array->cLocks, 1U);
}

TEST(SafeArrayCopy, TheSourceIsLeftAsItIs) {
  const OwnedArray array = vector_of(VT_BSTR, 1, 3);
  elements<BSTR>(array)[0] = SysAllocString(L"one");
  const std::vector<char> before = bytes_at(array.get(), 24 + 2 * 16);
  copy_of(array.get());
  EXPECT_EQ(bytes_at(array.get(), 24 + 2 * 16), before);
  EXPECT_EQ(std::wstring(elements<BSTR>(array)[0]), L"one");
}

TEST(SafeArrayCopy, ElementsWithoutAFeatureAreCopiedByTheirSize) {
  std::uint32_t data[] = {1, 2, 3, 4, 5, 6};
  HandMade array(0, 4, data, {{2, 1}, {3, 2}});
  SAFEARRAY* copy = nullptr;
  EXPECT_EQ(SafeArrayCopy(array.get(), &copy), S_OK);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->cbElements, 4U);
  EXPECT_EQ(copy->fFeatures, 0);
  EXPECT_EQ(std::memcmp(copy->pvData, data, sizeof data), 0);
  EXPECT_TRUE(has_room(copy->pvData, sizeof data));
  // The flags say that nobody else does.
  std::free(copy->pvData);
  std::free(copy);
}

TEST(SafeArrayCopy, StringsOfAForeignArrayAreDuplicatedToo) {
  _bstr_t string(L"one");
  HandMade array(FADF_BSTR, 8, &string.m_s, {{1, 0}});
  SAFEARRAY* copied = nullptr;
  EXPECT_EQ(SafeArrayCopy(array.get(), &copied), S_OK);
  ASSERT_NE(copied, nullptr);
  EXPECT_EQ(copied->fFeatures, FADF_BSTR);
  copied->fFeatures |= FADF_AUTO;
  const OwnedArray copy(copied);
  EXPECT_NE(elements<BSTR>(copy)[0], string.m_s);
  EXPECT_EQ(std::wstring(elements<BSTR>(copy)[0]), L"one");
}

TEST(SafeArrayCopy, VariantsPrevailOverStrings) {
  objects::Unknown object;
  VARIANT data = {};
  hold(&data, &object);
  HandMade array(FADF_VARIANT | FADF_BSTR | FADF_AUTO, 16, &data, {{1, 0}});
  {
    const OwnedArray copy = copy_of(array.get());
    EXPECT_EQ(object.references(), 3U);
    EXPECT_TRUE(has_room(copy->pvData, 16));
  }
  VariantClear(&data);
}

// The flags say what the elements are; the size beside them is only kept.
TEST(SafeArrayCopy, VariantsAndStringsHaveTheirSizeWhateverTheDescriptorSays) {
  objects::Unknown object;
  VARIANT variants[3] = {};
  hold(&variants[2], &object);
  _bstr_t string(L"text");
  BSTR strings[] = {nullptr, nullptr, string.m_s};
  for (const std::uint32_t size : {0U, 1U, 100U}) {
    HandMade of_variants(FADF_VARIANT | FADF_AUTO, size, variants, {{3, 0}});
    HandMade of_strings(FADF_BSTR | FADF_AUTO, size, strings, {{3, 0}});
    const OwnedArray first = copy_of(of_variants.get());
    const OwnedArray second = copy_of(of_strings.get());
    EXPECT_EQ(first->cbElements, size);
    EXPECT_EQ(second->cbElements, size);
    ASSERT_TRUE(has_room(first->pvData, 3 * sizeof(VARIANT))) << size;
    ASSERT_TRUE(has_room(second->pvData, 3 * sizeof(BSTR))) << size;
    EXPECT_EQ(elements<VARIANT>(first)[2].punkVal, &object) << size;
    EXPECT_EQ(std::wstring(elements<BSTR>(second)[2]), L"text") << size;
  }
  VariantClear(&variants[2]);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayCopy, NullPointersAreRefused) {
  const OwnedArray array = vector_of(VT_UI1, 1);
  SAFEARRAY* copy = nullptr;
  EXPECT_EQ(SafeArrayCopy(nullptr, &copy), E_INVALIDARG);
  EXPECT_EQ(SafeArrayCopy(array.get(), nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayCopy(nullptr, nullptr), E_INVALIDARG);
}

TEST(SafeArrayCopy, WhatAnArrayWithoutDataGivesCanBeDestroyed) {
  for (const USHORT features : {USHORT{0}, FADF_BSTR, FADF_VARIANT}) {
    HandMade array(features | FADF_AUTO, 8, nullptr, {{3, 0}});
    SAFEARRAY* copied = nullptr;
    const HRESULT result = SafeArrayCopy(array.get(), &copied);
    const OwnedArray copy(copied);
    EXPECT_EQ(copy != nullptr, result == S_OK) << features;
    if (copy != nullptr && copy->pvData != nullptr) {
      const std::size_t size = features == 0           ? 8
                               : features == FADF_BSTR ? sizeof(BSTR)
                                                       : sizeof(VARIANT);
      EXPECT_TRUE(has_room(copy->pvData, 3 * size)) << features;
    }
  }
}

TEST(SafeArrayCopy, WithoutDimensionsThereIsOneElement) {
  objects::Unknown object;
  VARIANT variants[2] = {};
  hold(&variants[0], &object);
  _bstr_t string(L"text");
  std::uint32_t number = 0x12345678;
  HandMade of_variants(FADF_VARIANT | FADF_AUTO, 16, variants, {});
  HandMade of_strings(FADF_BSTR | FADF_AUTO, 8, &string.m_s, {});
  HandMade of_numbers(FADF_AUTO, 4, &number, {});
  {
    const OwnedArray first = copy_of(of_variants.get());
    const OwnedArray second = copy_of(of_strings.get());
    const OwnedArray third = copy_of(of_numbers.get());
    EXPECT_EQ(object.references(), 3U);
    EXPECT_EQ(std::wstring(elements<BSTR>(second)[0]), L"text");
    EXPECT_EQ(elements<std::uint32_t>(third)[0], 0x12345678U);
    EXPECT_EQ(bound_at(first.get(), 0).cElements, 0U);
    EXPECT_TRUE(has_room(third->pvData, 4));
  }
  VariantClear(&variants[0]);
  EXPECT_EQ(object.references(), 1U);
}

TEST(SafeArrayCopy, ACreatedArrayWithoutDimensionsCanBeCopied) {
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array(
        SafeArrayCreate(static_cast<VARTYPE>(row.type), 0, nullptr));
    const OwnedArray copy = copy_of(array.get());
    ASSERT_NE(copy, nullptr) << row.type;
    EXPECT_EQ(copy->cDims, 0) << row.type;
    EXPECT_EQ(copy->fFeatures, row.features) << row.type;
  }
}

TEST(SafeArrayCopy, AnEmptyVectorCanBeCopied) {
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array = vector_of(row.type, 0, 4);
    const OwnedArray copy = copy_of(array.get());
    ASSERT_NE(copy, nullptr) << row.type;
    EXPECT_EQ(bound_at(copy.get(), 0).cElements, 0U) << row.type;
    EXPECT_EQ(bound_at(copy.get(), 0).lLbound, 4) << row.type;
  }
}

// ---------------------------------------------------------------------------
// Bounds
// ---------------------------------------------------------------------------

struct Answer {
  HRESULT result;
  LONG bound;
};
constexpr LONG kUntouched = 0x7777777777777777;

Answer upper(SAFEARRAY* array, UINT dimension) {
  LONG bound = kUntouched;
  const HRESULT result = SafeArrayGetUBound(array, dimension, &bound);
  return {result, bound};
}

Answer lower(SAFEARRAY* array, UINT dimension) {
  LONG bound = kUntouched;
  const HRESULT result = SafeArrayGetLBound(array, dimension, &bound);
  return {result, bound};
}

TEST(SafeArrayBounds, TheFirstDimensionIsTheFirstThatWasPassed) {
  SAFEARRAYBOUND bounds[] = {{2, 10}, {3, -20}, {0, 30}};
  const OwnedArray array(SafeArrayCreate(VT_UI1, 3, bounds));
  const LONG lowers[] = {10, -20, 30};
  const LONG uppers[] = {11, -18, 29};
  for (UINT dimension = 1; dimension <= 3; ++dimension) {
    const Answer low = lower(array.get(), dimension);
    const Answer high = upper(array.get(), dimension);
    EXPECT_EQ(low.result, S_OK);
    EXPECT_EQ(low.bound, lowers[dimension - 1]);
    EXPECT_EQ(high.result, S_OK);
    EXPECT_EQ(high.bound, uppers[dimension - 1]);
  }
}

TEST(SafeArrayBounds, UpperBoundsOfVectors) {
  struct Row {
    LONG lower;
    std::uint32_t count;
    LONG upper;
  };
  constexpr LONG kMost = std::numeric_limits<LONG>::max();
  constexpr LONG kLeast = std::numeric_limits<LONG>::min();
  // The last three leave the range on the way or for good, and wrap around.
  const Row rows[] = {
      {5, 3, 7},          {0, 0, -1},          {0, 1, 0},
      {-5, 5, -1},        {7, 0, 6},           {5000000000, 2, 5000000001},
      {kMost, 1, kMost},  {kLeast, 1, kLeast}, {kMost - 1, 2, kMost},
      {kMost, 2, kLeast}, {kLeast, 0, kMost}};
  for (const Row& row : rows) {
    const OwnedArray array = vector_of(VT_UI1, row.count, row.lower);
    const Answer answer = upper(array.get(), 1);
    EXPECT_EQ(answer.result, S_OK) << row.lower << " + " << row.count;
    EXPECT_EQ(answer.bound, row.upper) << row.lower << " + " << row.count;
    EXPECT_EQ(lower(array.get(), 1).bound, row.lower);
  }
}

TEST(SafeArrayBounds, TheCountIsUnsigned) {
  HandMade array(0, 1, nullptr, {{0xFFFFFFFF, 1}});
  EXPECT_EQ(upper(array.get(), 1).bound, 0xFFFFFFFF);
}

TEST(SafeArrayBounds, DimensionsThatAreNotThereAreABadIndex) {
  SAFEARRAYBOUND bounds[] = {{2, 10}, {3, -20}};
  const OwnedArray array(SafeArrayCreate(VT_UI1, 2, bounds));
  for (const UINT dimension : {0U, 3U, 4U, 0x10001U, 0x10002U, 0xFFFFFFFFU}) {
    for (const Answer answer :
         {upper(array.get(), dimension), lower(array.get(), dimension)}) {
      EXPECT_EQ(answer.result, DISP_E_BADINDEX) << dimension;
      EXPECT_EQ(answer.bound, kUntouched) << dimension;
    }
  }
}

TEST(SafeArrayBounds, AnArrayWithoutDimensionsHasNoBounds) {
  const OwnedArray array(SafeArrayCreate(VT_UI1, 0, nullptr));
  for (const UINT dimension : {0U, 1U}) {
    EXPECT_EQ(upper(array.get(), dimension).result, DISP_E_BADINDEX);
    EXPECT_EQ(lower(array.get(), dimension).result, DISP_E_BADINDEX);
  }
}

TEST(SafeArrayBounds, NullPointersAreToldBeforeABadIndex) {
  const OwnedArray array = vector_of(VT_UI1, 1);
  for (const UINT dimension : {0U, 1U, 2U}) {
    EXPECT_EQ(upper(nullptr, dimension).result, E_INVALIDARG);
    EXPECT_EQ(lower(nullptr, dimension).result, E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetUBound(array.get(), dimension, nullptr),
              E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetLBound(array.get(), dimension, nullptr),
              E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetUBound(nullptr, dimension, nullptr), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetLBound(nullptr, dimension, nullptr), E_INVALIDARG);
  }
}

TEST(SafeArrayBounds, ALockedArrayAnswers) {
  const OwnedArray array = vector_of(VT_UI1, 3, 5);
  const SafeArrayAccess access(array.get());
  EXPECT_EQ(upper(array.get(), 1).bound, 7);
  EXPECT_EQ(lower(array.get(), 1).bound, 5);
}

// ---------------------------------------------------------------------------
// Locks
// ---------------------------------------------------------------------------

TEST(SafeArrayLock, AccessLocksAndGivesTheData) {
  for (const ElementType& row : kElementTypes) {
    const OwnedArray array = vector_of(row.type, 2);
    void* data = nullptr;
    EXPECT_EQ(SafeArrayAccessData(array.get(), &data), S_OK) << row.type;
    EXPECT_EQ(data, array->pvData) << row.type;
    EXPECT_EQ(array->cLocks, 1U) << row.type;
    EXPECT_EQ(SafeArrayUnaccessData(array.get()), S_OK) << row.type;
    EXPECT_EQ(array->cLocks, 0U) << row.type;
  }
}

TEST(SafeArrayLock, ASecondHolderIsRefused) {
  const OwnedArray array = vector_of(VT_UI1, 2);
  const SafeArrayAccess access(array.get());
  int untouched = 0;
  void* data = &untouched;
  EXPECT_EQ(SafeArrayAccessData(array.get(), &data), E_UNEXPECTED);
  EXPECT_EQ(data, &untouched);
  EXPECT_EQ(array->cLocks, 1U);
}

TEST(SafeArrayLock, AnArrayCanBeAccessedAgainOnceLetGo) {
  const OwnedArray array = vector_of(VT_UI1, 2);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(SafeArrayAccess(array.get()).result(), S_OK);
  }
}

TEST(SafeArrayLock, UnaccessOfAnUnlockedArrayIsRefused) {
  const OwnedArray array = vector_of(VT_UI1, 2);
  EXPECT_EQ(SafeArrayUnaccessData(array.get()), E_UNEXPECTED);
  EXPECT_EQ(array->cLocks, 0U);
}

TEST(SafeArrayLock, UnaccessTakesOneOffAForeignLockCount) {
  const OwnedArray array = vector_of(VT_UI1, 2);
  array->cLocks = 3;
  void* data = nullptr;
  EXPECT_EQ(SafeArrayAccessData(array.get(), &data), E_UNEXPECTED);
  EXPECT_EQ(SafeArrayUnaccessData(array.get()), S_OK);
  EXPECT_EQ(array->cLocks, 2U);
  array->cLocks = 0;
}

TEST(SafeArrayLock, NullPointersAreToldBeforeTheLock) {
  const OwnedArray array = vector_of(VT_UI1, 2);
  void* data = nullptr;
  EXPECT_EQ(SafeArrayAccessData(nullptr, &data), E_INVALIDARG);
  EXPECT_EQ(SafeArrayAccessData(nullptr, nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayAccessData(array.get(), nullptr), E_INVALIDARG);
  EXPECT_EQ(array->cLocks, 0U);
  const SafeArrayAccess access(array.get());
  EXPECT_EQ(SafeArrayAccessData(array.get(), nullptr), E_INVALIDARG);
  EXPECT_EQ(SafeArrayUnaccessData(nullptr), E_INVALIDARG);
}

// ---------------------------------------------------------------------------
// No memory
// ---------------------------------------------------------------------------

// 2^62 elements can be counted, but no machine holds them.
const std::vector<SAFEARRAYBOUND> kTooMany = {{0x80000000, 0}, {0x80000000, 0}};
// 2^64 elements cannot even be counted.
const std::vector<SAFEARRAYBOUND> kUncountable = {
    {0x80000000, 0}, {0x80000000, 0}, {4, 0}};

TEST(SafeArrayWithoutMemory, CreateGivesNone) {
  std::vector<SAFEARRAYBOUND> bounds = kTooMany;
  EXPECT_EQ(SafeArrayCreate(VT_UI1, 2, bounds.data()), nullptr);
  bounds[0].cElements = 0x4000000;
  EXPECT_EQ(SafeArrayCreate(VT_VARIANT, 2, bounds.data()), nullptr);
  EXPECT_EQ(SafeArrayCreate(VT_BSTR, 2, bounds.data()), nullptr);
}

TEST(SafeArrayWithoutMemory, CopySaysSoAndStoresNone) {
  for (const USHORT features : {USHORT{0}, FADF_BSTR, FADF_VARIANT}) {
    for (const auto& bounds : {kTooMany, kUncountable}) {
      char data[16] = {};
      HandMade array(features, 16, data, bounds);
      SAFEARRAY* copy = array.get();
      EXPECT_EQ(SafeArrayCopy(array.get(), &copy), E_OUTOFMEMORY) << features;
      EXPECT_EQ(copy, nullptr) << features;
    }
  }
}

TEST(SafeArrayWithoutMemory, VariantCopyGivesTheTypeWithoutArray) {
  char data[16] = {};
  HandMade array(0, 1, data, kTooMany);
  VARIANT source = {};
  source.vt = VT_ARRAY | VT_UI1;
  source.parray = array.get();
  VARIANT copy = {};
  EXPECT_EQ(VariantCopy(&copy, &source), S_OK);
  EXPECT_EQ(copy.vt, VT_ARRAY | VT_UI1);
  EXPECT_EQ(copy.parray, nullptr);
}

}  // namespace
