// SPDX-License-Identifier: MIT
//
// What others made, where nothing else goes: connections of other programs that
// throw, and arrays whose descriptors do not agree with themselves.
//
// Sections: connections; arrays.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <vector>

#include "support/commands.h"
#include "support/objects.h"
#include "zir.h"

namespace {

using namespace commands;

// ---------------------------------------------------------------------------
// Connections
// ---------------------------------------------------------------------------

struct Thrown {
  const char* name;
  void (*raise)();
  HRESULT code;
};

const Thrown kThrown[] = {
    {"a number", [] { throw 7; }, E_FAIL},
    {"an exception", [] { throw std::runtime_error("text"); }, E_FAIL},
    {"no memory", [] { throw std::bad_alloc(); }, E_OUTOFMEMORY},
    {"too long", [] { throw std::length_error("text"); }, E_OUTOFMEMORY},
    {"a code", [] { throw _com_error(E_NOTIMPL); }, E_NOTIMPL},
    {"a code of success", [] { throw _com_error(S_FALSE); }, E_FAIL},
};

TEST(ForeignConnectionThatThrows, FailsTheCommandAndNothingElse) {
  for (const Thrown& thrown : kThrown) {
    SCOPED_TRACE(thrown.name);
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"SELECT 1");

    foreign.on_execute = thrown.raise;
    IZIRDBRecordset* recordset = nullptr;
    EXPECT_EQ(made->Execute(nullptr, 0, &recordset), thrown.code);
    EXPECT_EQ(recordset, nullptr);

    foreign.on_execute = nullptr;
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
    EXPECT_EQ(foreign.executed.size(), 2U);
  }
}

TEST(ForeignConnectionThatThrows, LeavesNothingOfAnEarlierFailureBehind) {
  for (const Thrown& thrown : kThrown) {
    SCOPED_TRACE(thrown.name);
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"SELECT 1");
    const Command without_a_connection = component::command();
    foreign.on_execute = [&] {
      // Records a failure with a text of its own.
      IZIRDBRecordset* none = nullptr;
      EXPECT_LT(without_a_connection->Execute(nullptr, 0, &none), 0);
      thrown.raise();
    };
    const Outcome outcome = run(Road::kLateBound, made).outcome;
    EXPECT_EQ(outcome.code, thrown.code);
    EXPECT_EQ(outcome.text, L"");
  }
}

// ---------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------

/// A descriptor that did not come from SafeArrayCreate: freed by its owner.
class Descriptor {
 public:
  Descriptor(USHORT features, void* data,
             const std::vector<SAFEARRAYBOUND>& bounds)
      : block_(offsetof(SAFEARRAY, rgsabound) / sizeof(void*) +
               (bounds.size() + 1) * (sizeof(SAFEARRAYBOUND) / sizeof(void*))) {
    SAFEARRAY* const array = get();
    array->cDims = static_cast<USHORT>(bounds.size());
    array->fFeatures = features;
    array->cbElements = sizeof(VARIANT);
    array->pvData = data;
    std::memcpy(reinterpret_cast<char*>(array) + offsetof(SAFEARRAY, rgsabound),
                bounds.data(), bounds.size() * sizeof(SAFEARRAYBOUND));
  }

  SAFEARRAY* get() { return reinterpret_cast<SAFEARRAY*>(block_.data()); }

 private:
  std::vector<void*> block_;
};

/// More elements than can be counted.
const std::vector<SAFEARRAYBOUND> kUncountable = {
    {0x80000000, 0}, {0x80000000, 0}, {4, 0}};

TEST(ArrayThatCannotBe, OfVariantsWithoutStorageHasNothingToClear) {
  Descriptor array(FADF_VARIANT, nullptr, {{3, 0}});
  EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
  EXPECT_EQ(array.get()->cLocks, 0U);
  EXPECT_EQ(array.get()->cDims, 1);
  EXPECT_EQ(array.get()->pvData, nullptr);
}

TEST(ArrayThatCannotBe, OfMoreVariantsThanCanBeCountedIsNotTouched) {
  objects::Unknown object;
  {
    _variant_t element(static_cast<IUnknown*>(&object));
    Descriptor array(FADF_VARIANT, &element, kUncountable);
    EXPECT_EQ(SafeArrayDestroy(array.get()), S_OK);
    EXPECT_EQ(array.get()->cLocks, 0U);
    EXPECT_EQ(element.vt, VT_UNKNOWN);
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(ArrayThatCannotBe, OfStringsWithoutStorageOrNumberIsNotTouchedEither) {
  Descriptor without_storage(FADF_BSTR, nullptr, {{3, 0}});
  EXPECT_EQ(SafeArrayDestroy(without_storage.get()), S_OK);

  const _bstr_t text(L"text");
  BSTR element = text.m_s;
  Descriptor uncountable(FADF_BSTR, &element, kUncountable);
  EXPECT_EQ(SafeArrayDestroy(uncountable.get()), S_OK);
  EXPECT_EQ(element, text.m_s);
  EXPECT_EQ(uncountable.get()->cLocks, 0U);
}

}  // namespace
