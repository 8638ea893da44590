// SPDX-License-Identifier: MIT
//
// The members of a recordset with rows, late-bound: its default member, which
// is its fields and one of them, and the shapes in which the others are called.
//
// Sections: the default member; moves and properties.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::expect_exception;
using component::expect_refused;
using component::kClosedCode;
using component::kNotFoundCode;
using component::kNotFoundText;
using recordsets::go;
using recordsets::kSource;
using recordsets::numbered;
using recordsets::Recordset;
using recordsets::where;

// ---------------------------------------------------------------------------
// The default member
// ---------------------------------------------------------------------------

constexpr DISPID kFieldsMembers[] = {0, 1};

TEST(RecordsetDefaultMember, IsTheFieldsObject) {
  const Recordset recordset = numbered(2);
  for (const DISPID member : kFieldsMembers) {
    for (const int flags : {2, 3, 6}) {
      component::Call call;
      call.member = member;
      call.flags = static_cast<WORD>(flags);
      const component::Answer answer =
          component::invoke(dispatch_of(recordset.get()).get(), call);
      const auto fields = recordsets::object_in<IZIRDBFields>(
          answer, VT_DISPATCH, IID_IZIRDBFields);
      ASSERT_TRUE(fields) << member << " with flags " << flags;
      EXPECT_EQ(recordsets::count_of(fields), 2);
    }
  }
}

TEST(RecordsetDefaultMember, IsRefusedWithoutArgumentsUnlessItIsAGet) {
  const Recordset recordset = numbered(2);
  for (const DISPID member : kFieldsMembers) {
    for (const int flags : {0, 1, 4, 8, 9}) {
      component::Call call;
      call.member = member;
      call.flags = static_cast<WORD>(flags);
      SCOPED_TRACE(testing::Message() << member << " with flags " << flags);
      expect_refused(
          component::invoke(dispatch_of(recordset.get()).get(), call),
          E_INVALIDARG);
    }
    component::Call call;
    call.member = member;
    call.flags = DISPATCH_PROPERTYGET;
    call.with_result = false;
    expect_refused(component::invoke(dispatch_of(recordset.get()).get(), call),
                   E_INVALIDARG);
  }
}

struct Forwarded {
  const char* name;
  int flags;
  std::vector<_variant_t> arguments;
  bool with_result;
  HRESULT result;
};

TEST(RecordsetDefaultMember, ForwardsArgumentsWithTheCallersFlagsToItem) {
  const Forwarded kCases[] = {
      {"method by number", 1, {0}, true, S_OK},
      {"get by name", 2, {L"TEXT"}, true, S_OK},
      {"both flags", 3, {L"text"}, true, S_OK},
      {"get and put", 6, {L"text"}, true, S_OK},
      {"no flag", 0, {0}, true, E_INVALIDARG},
      {"put", 4, {0}, true, E_INVALIDARG},
      {"put of a reference", 8, {0}, true, E_INVALIDARG},
      {"no result", 2, {0}, false, E_INVALIDARG},
      {"no result, unknown name", 2, {L"none"}, false, E_INVALIDARG},
      {"two arguments", 2, {0, 1}, true, DISP_E_BADPARAMCOUNT},
      {"two arguments, no flag", 0, {0, 1}, true, DISP_E_BADPARAMCOUNT},
      {"three arguments, no result", 1, {0, 1, 2}, false, DISP_E_BADPARAMCOUNT},
  };
  const Recordset recordset = numbered(2);
  for (const DISPID member : kFieldsMembers) {
    for (const Forwarded& forwarded : kCases) {
      SCOPED_TRACE(testing::Message()
                   << forwarded.name << ", member " << member);
      component::Call call;
      call.member = member;
      call.flags = static_cast<WORD>(forwarded.flags);
      call.arguments = forwarded.arguments;
      call.with_result = forwarded.with_result;
      const component::Answer answer =
          component::invoke(dispatch_of(recordset.get()).get(), call);
      if (forwarded.result != S_OK) {
        expect_refused(answer, forwarded.result);
        continue;
      }
      EXPECT_TRUE(recordsets::object_in<IZIRDBField>(answer, VT_DISPATCH,
                                                     IID_IZIRDBField));
    }
  }
}

TEST(RecordsetDefaultMember, ReportsWhatItemReports) {
  const Recordset recordset = numbered(2);
  for (const DISPID member : kFieldsMembers) {
    expect_exception(component::method(dispatch_of(recordset.get()).get(),
                                       member, {L"none"}),
                     kNotFoundCode, kSource, kNotFoundText);
    expect_exception(
        component::method(dispatch_of(recordset.get()).get(), member, {2}),
        kNotFoundCode, kSource, kNotFoundText);
  }
}

TEST(RecordsetDefaultMember, ReportsAMissingIndexAsFieldsDo) {
  const Recordset recordset = numbered(2);
  const _variant_t missing = values::owned(values::reference_to(nullptr));
  for (const DISPID member : kFieldsMembers) {
    expect_exception(component::method(dispatch_of(recordset.get()).get(),
                                       member, {missing}),
                     E_INVALIDARG, L"ZIRDB.Fields", nullptr);
  }
}

TEST(RecordsetDefaultMember, OnAClosedRecordsetReportsTheClosedError) {
  const Recordset recordset = numbered(2);
  go(recordset, "c");
  for (const DISPID member : kFieldsMembers) {
    expect_exception(
        component::method(dispatch_of(recordset.get()).get(), member, {0}),
        kClosedCode, kSource, component::kClosedText);
    expect_refused(
        component::method(dispatch_of(recordset.get()).get(), member, {0, 1}),
        DISP_E_BADPARAMCOUNT);
  }
}

TEST(RecordsetDefaultMember, AfterTheConnectionClosedFindsNoColumn) {
  const Recordset recordset = numbered(2);
  go(recordset, "d");
  for (const DISPID member : kFieldsMembers) {
    expect_exception(
        component::method(dispatch_of(recordset.get()).get(), member, {0}),
        kNotFoundCode, kSource, kNotFoundText);
  }
}

TEST(RecordsetDefaultMember, WorksWithoutAnExceptionRecord) {
  const Recordset recordset = numbered(2);
  component::Call call;
  call.arguments = {L"none"};
  call.with_exception = false;
  EXPECT_EQ(component::invoke(dispatch_of(recordset.get()).get(), call).result,
            DISP_E_EXCEPTION);
}

// ---------------------------------------------------------------------------
// Moves and properties
// ---------------------------------------------------------------------------

struct Shape {
  int flags;
  std::vector<_variant_t> arguments;
  bool with_result;
  HRESULT result;
};

/// Each shape is refused by each member, open or closed, and moves nothing.
void expect_shapes_refused(const std::vector<DISPID>& members,
                           const std::vector<Shape>& shapes) {
  for (const bool closed : {false, true}) {
    const Recordset recordset = numbered(3);
    if (closed) {
      EXPECT_EQ(recordset->Close(), S_OK);
    }
    for (const DISPID member : members) {
      for (const Shape& shape : shapes) {
        component::Call call;
        call.member = member;
        call.flags = static_cast<WORD>(shape.flags);
        call.arguments = shape.arguments;
        call.with_result = shape.with_result;
        SCOPED_TRACE(testing::Message()
                     << "member " << member << ", flags " << shape.flags << ", "
                     << shape.arguments.size() << " arguments, closed "
                     << closed);
        expect_refused(
            component::invoke(dispatch_of(recordset.get()).get(), call),
            shape.result);
        EXPECT_EQ(where(recordset), closed ? "closed" : "row 1");
      }
    }
  }
}

TEST(RecordsetMembers, MovesAndCloseAreMethodsWithoutArguments) {
  expect_shapes_refused({5, 6, 8, 9, 10},
                        {{0, {}, true, DISP_E_MEMBERNOTFOUND},
                         {2, {}, true, DISP_E_MEMBERNOTFOUND},
                         {4, {}, true, DISP_E_MEMBERNOTFOUND},
                         {2, {1}, true, DISP_E_BADPARAMCOUNT},
                         {4, {1}, true, DISP_E_BADPARAMCOUNT},
                         {1, {1}, true, DISP_E_BADPARAMCOUNT},
                         {3, {1, 2}, false, DISP_E_BADPARAMCOUNT}});
}

TEST(RecordsetMembers, PropertiesAreGetsWithoutArguments) {
  expect_shapes_refused({2, 3, 4, 7}, {{0, {}, true, E_INVALIDARG},
                                       {1, {}, true, E_INVALIDARG},
                                       {4, {}, true, E_INVALIDARG},
                                       {2, {}, false, E_INVALIDARG},
                                       {2, {1}, true, DISP_E_BADPARAMCOUNT},
                                       {1, {1}, true, DISP_E_BADPARAMCOUNT},
                                       {4, {1}, false, DISP_E_BADPARAMCOUNT}});
}

TEST(RecordsetMembers, MovesLeaveTheResultVariantAlone) {
  for (const DISPID member : {5, 6, 8, 9, 10}) {
    const Recordset recordset = numbered(2);
    DISPPARAMS none{};
    _variant_t result = 7;
    dispatch_of(recordset.get())
        ->Invoke(member, IID_NULL, 0, DISPATCH_METHOD, &none, &result, nullptr,
                 nullptr);
    EXPECT_EQ(result.vt, VT_I8) << member;
    EXPECT_EQ(result.llVal, 7) << member;
  }
}

TEST(RecordsetMembers, MethodsNeedNoResultVariant) {
  const Recordset recordset = numbered(2);
  component::Call call;
  call.member = DISPID_ZIRDB_RECORDSET_MOVENEXT;
  call.with_result = false;
  EXPECT_EQ(component::invoke(dispatch_of(recordset.get()).get(), call).result,
            S_OK);
  EXPECT_EQ(where(recordset), "row 2");
}

}  // namespace
