// SPDX-License-Identifier: MIT
//
// Fields and Field objects are new with every call; how long they live and what
// they keep alive, counted.
//
// Sections: new objects; lifetimes.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/recordsets.h"

namespace {

using component::Answer;
using component::dispatch_of;
using component::kClosedCode;
using component::kNoFieldCode;
using recordsets::enumerator_of;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::go;
using recordsets::item_of;
using recordsets::name_of;
using recordsets::numbered;
using recordsets::Recordset;
using recordsets::references;
using recordsets::value_of;

std::int64_t number_in(const Field& field) {
  const auto [result, read] = value_of(field);
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(read.vt, VT_I8);
  return read.llVal;
}

// ---------------------------------------------------------------------------
// New objects
// ---------------------------------------------------------------------------

template <class Interface>
IUnknown* identity(const InterfacePtr<Interface>& object) {
  return object.template query<IUnknown>(IID_IUnknown).get();
}

TEST(FieldsObjects, AreNewWithEveryCall) {
  const Recordset recordset = numbered(1);
  for (const char* steps : {"", "e", "c", "d"}) {
    go(recordset, steps);
    const Fields first = fields_of(recordset);
    const Fields second = fields_of(recordset);
    EXPECT_NE(identity(first), identity(second)) << steps;
  }
}

TEST(FieldObjects, AreNewWithEveryCall) {
  const Recordset recordset = numbered(1);
  const Fields fields = fields_of(recordset);
  const Field first = item_of(fields, _variant_t(0)).second;
  const Field second = item_of(fields, _variant_t(0)).second;
  EXPECT_NE(identity(first), identity(second));
}

// ---------------------------------------------------------------------------
// Lifetimes
// ---------------------------------------------------------------------------

TEST(FieldsLifetime, HoldsOneReferenceOnTheRecordset) {
  const Recordset recordset = numbered(2);
  ASSERT_EQ(references(recordset.get()), 1U);
  Fields fields = fields_of(recordset);
  EXPECT_EQ(references(recordset.get()), 2U);
  EXPECT_EQ(references(fields.get()), 1U);
  Field field = item_of(fields, _variant_t(0)).second;
  EXPECT_EQ(references(recordset.get()), 3U);
  EXPECT_EQ(references(fields.get()), 1U);
  EXPECT_EQ(references(field.get()), 1U);
  fields = {};
  EXPECT_EQ(references(recordset.get()), 2U);
  field = {};
  EXPECT_EQ(references(recordset.get()), 1U);
}

TEST(FieldsLifetime, HoldsAReferenceOnAClosedRecordsetToo) {
  const Recordset recordset = numbered(2);
  go(recordset, "c");
  const Fields fields = fields_of(recordset);
  EXPECT_EQ(references(recordset.get()), 2U);
}

TEST(FieldsLifetime, HoldsNothingAfterTheConnectionClosed) {
  const Recordset recordset = numbered(2);
  go(recordset, "d");
  const Fields fields = fields_of(recordset);
  EXPECT_EQ(references(recordset.get()), 1U);
  EXPECT_EQ(references(fields.get()), 1U);
}

TEST(FieldsLifetime, AddRefAndReleaseTellTheCount) {
  const Recordset recordset = numbered(2);
  const Fields fields = fields_of(recordset);
  const Field field = item_of(fields, _variant_t(0)).second;
  EXPECT_EQ(recordset->AddRef(), 4U);
  EXPECT_EQ(recordset->Release(), 3U);
  EXPECT_EQ(fields->AddRef(), 2U);
  EXPECT_EQ(fields->Release(), 1U);
  EXPECT_EQ(field->AddRef(), 2U);
  EXPECT_EQ(field->Release(), 1U);
  EXPECT_EQ(recordset->AddRef(), 4U);
  EXPECT_EQ(dispatch_of(recordset.get())->AddRef(), 6U);
  EXPECT_EQ(recordset->Release(), 4U);
  EXPECT_EQ(recordset->Release(), 3U);
}

TEST(FieldsLifetime, TheLastReferenceEndsIt) {
  const std::uint32_t before = workbench::objects_alive();
  Recordset recordset = numbered(2);
  Fields fields = fields_of(recordset);
  Field field = item_of(fields, _variant_t(0)).second;
  EXPECT_EQ(workbench::objects_alive(), before + 3);
  EXPECT_EQ(field.detach()->Release(), 0U);
  EXPECT_EQ(workbench::objects_alive(), before + 2);
  EXPECT_EQ(fields.detach()->Release(), 0U);
  EXPECT_EQ(workbench::objects_alive(), before + 1);
  EXPECT_EQ(recordset.detach()->Release(), 0U);
  EXPECT_EQ(workbench::objects_alive(), before);
}

TEST(FieldsLifetime, KeepsTheRecordsetAliveForItsHost) {
  Recordset recordset = numbered(2);
  const Fields fields = fields_of(recordset);
  EXPECT_EQ(recordset.detach()->Release(), 1U);
  EXPECT_EQ(workbench::objects_alive(), 2U);
  EXPECT_EQ(number_in(item_of(fields, _variant_t(L"number")).second), 1);
  EXPECT_TRUE(enumerator_of(fields));
}

TEST(FieldsLifetime, AFieldAloneKeepsTheRecordsetAlive) {
  Recordset recordset = numbered(2);
  const Field field = recordsets::field_of(recordset, _variant_t(L"text"));
  EXPECT_EQ(recordset.detach()->Release(), 1U);
  EXPECT_EQ(workbench::objects_alive(), 2U);
  EXPECT_EQ(name_of(field).second, L"text");
  EXPECT_EQ(values::text_of(value_of(field).second), L"row 1");
}

TEST(FieldsLifetime, TheDefaultMemberLeavesOnlyTheFieldBehind) {
  const Recordset recordset = numbered(2);
  const std::uint32_t before = workbench::objects_alive();
  const Answer answer =
      component::method(dispatch_of(recordset.get()).get(), 0, {L"text"});
  ASSERT_EQ(answer.value.vt, VT_DISPATCH);
  EXPECT_EQ(workbench::objects_alive(), before + 1);
  EXPECT_EQ(references(answer.value.pdispVal), 1U);
  EXPECT_EQ(references(recordset.get()), 2U);
}

TEST(FieldsLifetime, AnswersCarryOneReference) {
  const Recordset recordset = numbered(2);
  const Answer fields = component::get(dispatch_of(recordset.get()).get(), 1);
  ASSERT_EQ(fields.value.vt, VT_DISPATCH);
  EXPECT_EQ(references(fields.value.pdispVal), 1U);
  const Answer field = component::method(fields.value.pdispVal, 0, {0});
  ASSERT_EQ(field.value.vt, VT_DISPATCH);
  EXPECT_EQ(references(field.value.pdispVal), 1U);
}

TEST(FieldsLifetime, FailedItemsLeaveNothingBehind) {
  const Recordset recordset = numbered(2);
  const Fields fields = fields_of(recordset);
  const std::uint32_t before = workbench::objects_alive();
  item_of(fields, _variant_t(L"none"));
  component::method(dispatch_of(fields.get()).get(), 0, {7});
  component::method(dispatch_of(recordset.get()).get(), 0, {7});
  EXPECT_EQ(workbench::objects_alive(), before);
  EXPECT_EQ(references(recordset.get()), 2U);
}

TEST(FieldsLifetime, RowsMayGoWhileFieldsAreStillThere) {
  Recordset recordset = workbench::recordset(
      {"text"}, {{std::string(100000, 'x')}, {std::string(100000, 'y')}});
  const Fields fields = fields_of(recordset);
  const Field field = item_of(fields, _variant_t(0)).second;
  go(recordset, "n");
  const Field second = item_of(fields, _variant_t(0)).second;
  go(recordset, "c");
  EXPECT_EQ(value_of(field).first, kNoFieldCode);
  EXPECT_EQ(value_of(second).first, kNoFieldCode);
  EXPECT_EQ(item_of(fields, _variant_t(0)).first, kClosedCode);
  EXPECT_EQ(recordset.detach()->Release(), 3U);
  EXPECT_EQ(value_of(second).first, kNoFieldCode);
}

}  // namespace
