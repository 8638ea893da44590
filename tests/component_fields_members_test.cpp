// SPDX-License-Identifier: MIT
//
// The members of Fields and Field objects, late-bound: the shapes in which they
// are called, their names, and the objects' interfaces.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::expect_refused;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::go;
using recordsets::numbered;
using recordsets::Recordset;
using recordsets::value_of;

std::int64_t number_in(const Field& field) {
  const auto [result, read] = value_of(field);
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(read.vt, VT_I8);
  return read.llVal;
}

struct Shape {
  DISPID member;
  int flags;
  std::vector<_variant_t> arguments;
  bool with_result;
  HRESULT result;
};

void expect_shapes_refused(IDispatch* object,
                           const std::vector<Shape>& shapes) {
  for (const Shape& shape : shapes) {
    SCOPED_TRACE(testing::Message()
                 << "member " << shape.member << ", flags " << shape.flags
                 << ", " << shape.arguments.size() << " arguments"
                 << (shape.with_result ? "" : ", no result"));
    component::Call call;
    call.member = shape.member;
    call.flags = static_cast<WORD>(shape.flags);
    call.arguments = shape.arguments;
    call.with_result = shape.with_result;
    expect_refused(component::invoke(object, call), shape.result);
  }
}

TEST(FieldsMembers, AreRefusedInOtherShapes) {
  const std::vector<Shape> shapes = {
      {0, 0, {0}, true, E_INVALIDARG},
      {0, 4, {0}, true, E_INVALIDARG},
      {0, 8, {0}, true, E_INVALIDARG},
      {0, 1, {0}, false, E_INVALIDARG},
      {0, 2, {0}, false, E_INVALIDARG},
      {0, 1, {}, true, DISP_E_BADPARAMCOUNT},
      {0, 2, {}, true, DISP_E_BADPARAMCOUNT},
      {0, 0, {}, false, DISP_E_BADPARAMCOUNT},
      {0, 3, {0, 1}, true, DISP_E_BADPARAMCOUNT},
      {0, 4, {0, 1}, true, DISP_E_BADPARAMCOUNT},
      {1, 0, {}, true, E_INVALIDARG},
      {1, 1, {}, true, E_INVALIDARG},
      {1, 4, {}, true, E_INVALIDARG},
      {1, 2, {}, false, E_INVALIDARG},
      {1, 2, {0}, true, DISP_E_BADPARAMCOUNT},
      {1, 1, {0}, true, DISP_E_BADPARAMCOUNT},
      {-4, 0, {}, true, E_INVALIDARG},
      {-4, 4, {}, true, E_INVALIDARG},
      {-4, 8, {}, true, E_INVALIDARG},
      {-4, 1, {}, false, E_INVALIDARG},
      {-4, 2, {}, false, E_INVALIDARG},
      {-4, 2, {0}, true, DISP_E_BADPARAMCOUNT},
      {-4, 1, {0}, true, DISP_E_BADPARAMCOUNT},
      {-4, 0, {0}, false, DISP_E_BADPARAMCOUNT},
      {2, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-1, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-3, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-5, 1, {0}, true, DISP_E_MEMBERNOTFOUND},
  };
  const Recordset recordset = numbered(2);
  for (const char* steps : {"", "e", "c", "d"}) {
    SCOPED_TRACE(steps);
    go(recordset, steps);
    expect_shapes_refused(dispatch_of(fields_of(recordset).get()).get(),
                          shapes);
  }
}

TEST(FieldMembers, AreRefusedInOtherShapes) {
  std::vector<Shape> shapes = {
      {2, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-1, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-4, 2, {}, true, DISP_E_MEMBERNOTFOUND},
      {-3, 4, {0}, true, DISP_E_MEMBERNOTFOUND},
  };
  for (const DISPID member : {0, 1}) {
    shapes.insert(shapes.end(),
                  {{member, 0, {}, true, E_INVALIDARG},
                   {member, 1, {}, true, E_INVALIDARG},
                   {member, 4, {}, true, E_INVALIDARG},
                   {member, 2, {}, false, E_INVALIDARG},
                   {member, 2, {0}, true, DISP_E_BADPARAMCOUNT},
                   {member, 1, {0}, true, DISP_E_BADPARAMCOUNT},
                   {member, 4, {0}, true, DISP_E_BADPARAMCOUNT},
                   {member, 3, {0, 1}, false, DISP_E_BADPARAMCOUNT}});
  }
  const Recordset recordset = numbered(2);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  for (const char* steps : {"", "e", "c", "d"}) {
    SCOPED_TRACE(steps);
    go(recordset, steps);
    expect_shapes_refused(dispatch_of(field.get()).get(), shapes);
  }
}

HRESULT without_parameters(IDispatch* object, DISPID member, VARIANT* result) {
  return object->Invoke(member, IID_NULL, 0,
                        DISPATCH_METHOD | DISPATCH_PROPERTYGET, nullptr, result,
                        nullptr, nullptr);
}

TEST(FieldsMembers, TakeMissingParametersAsNone) {
  const Recordset recordset = numbered(2);
  const auto whole = dispatch_of(recordset.get());
  const auto fields = dispatch_of(fields_of(recordset).get());
  const auto field =
      dispatch_of(recordsets::field_of(recordset, _variant_t(0)).get());
  const auto expect_type = [](IDispatch* object, DISPID member, VARTYPE type) {
    _variant_t result;
    EXPECT_EQ(without_parameters(object, member, &result), S_OK) << member;
    EXPECT_EQ(result.vt, type) << member;
  };
  expect_type(whole.get(), 0, VT_DISPATCH);
  expect_type(whole.get(), 1, VT_DISPATCH);
  expect_type(whole.get(), 5, VT_EMPTY);
  expect_type(fields.get(), 1, VT_I4);
  expect_type(fields.get(), DISPID_NEWENUM, VT_UNKNOWN);
  expect_type(field.get(), 0, VT_I8);
  expect_type(field.get(), 1, VT_BSTR);
  _variant_t result;
  EXPECT_EQ(without_parameters(fields.get(), 0, &result), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(without_parameters(whole.get(), 11, &result), DISP_E_BADPARAMCOUNT);
}

TEST(FieldMembers, AreReadOnly) {
  const Recordset recordset = numbered(2);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  for (const DISPID member : {0, 1}) {
    expect_refused(
        component::put(dispatch_of(field.get()).get(), member, _variant_t(7)),
        DISP_E_BADPARAMCOUNT);
  }
  EXPECT_EQ(number_in(field), 1);
}

TEST(FieldMembers, AnswerTheFlagsThatScriptEnginesSend) {
  const Recordset recordset = numbered(2);
  const Fields fields = fields_of(recordset);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  component::Call call;
  call.flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
  EXPECT_EQ(component::invoke(dispatch_of(field.get()).get(), call).value.llVal,
            1);
  call.member = 1;
  EXPECT_EQ(component::invoke(dispatch_of(fields.get()).get(), call).value.lVal,
            2);
  call.member = DISPID_NEWENUM;
  EXPECT_EQ(component::invoke(dispatch_of(fields.get()).get(), call).value.vt,
            VT_UNKNOWN);
}

struct Name {
  const wchar_t* text;
  DISPID fields;
  DISPID field;
};

TEST(FieldsMembers, AreFoundByNameInAnyCase) {
  constexpr Name kNames[] = {
      {L"Item", 0, -1},       {L"iTEM", 0, -1},      {L"Count", 1, -1},
      {L"COUNT", 1, -1},      {L"_NewEnum", -4, -1}, {L"_newenum", -4, -1},
      {L"NewEnum", -4, -1},   {L"NEWENUM", -4, -1},  {L"Value", -1, 0},
      {L"value", -1, 0},      {L"Name", -1, 1},      {L"NAME", -1, 1},
      {L"__NewEnum", -1, -1}, {L"", -1, -1},         {L"Names", -1, -1},
      {L"number", -1, -1}};
  const Recordset recordset = numbered(1);
  const Fields fields = fields_of(recordset);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  const auto id = [](IDispatch* object, const wchar_t* text) {
    DISPID found = 77;
    _bstr_t name(text);
    const HRESULT result =
        object->GetIDsOfNames(IID_NULL, &name.m_s, 1, 0, &found);
    EXPECT_EQ(result, found == -1 ? DISP_E_UNKNOWNNAME : S_OK) << text;
    return found;
  };
  for (const Name& name : kNames) {
    EXPECT_EQ(id(dispatch_of(fields.get()).get(), name.text), name.fields)
        << name.text;
    EXPECT_EQ(id(dispatch_of(field.get()).get(), name.text), name.field)
        << name.text;
  }
}

TEST(FieldsMembers, RefuseAnotherInterfaceId) {
  const Recordset recordset = numbered(1);
  const Fields fields = fields_of(recordset);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  component::Call call;
  call.flags = DISPATCH_PROPERTYGET;
  call.member = 99;
  call.riid = IID_IUnknown;
  expect_refused(component::invoke(dispatch_of(fields.get()).get(), call),
                 E_INVALIDARG);
  expect_refused(component::invoke(dispatch_of(field.get()).get(), call),
                 E_INVALIDARG);
}

TEST(FieldsMembers, HaveNoTypeInformation) {
  const Recordset recordset = numbered(1);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  const auto dispatch = dispatch_of(field.get());
  UINT count = 77;
  EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(dispatch->GetTypeInfoCount(nullptr), E_INVALIDARG);
  EXPECT_EQ(dispatch->GetTypeInfo(0, 0, nullptr), E_NOTIMPL);
}

TEST(FieldsInterfaces, AreTheirOwnUnknownAndDispatch) {
  const Recordset recordset = numbered(1);
  const Fields fields = fields_of(recordset);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  const auto answers = [](IUnknown* object, REFIID riid) {
    return static_cast<bool>(component::query<IUnknown>(object, riid));
  };
  for (const IID& riid : {IID_IUnknown, IID_IDispatch}) {
    EXPECT_TRUE(answers(fields.get(), riid));
    EXPECT_TRUE(answers(field.get(), riid));
  }
  EXPECT_TRUE(answers(fields.get(), IID_IZIRDBFields));
  EXPECT_FALSE(answers(fields.get(), IID_IZIRDBField));
  EXPECT_FALSE(answers(fields.get(), IID_IEnumVARIANT));
  EXPECT_TRUE(answers(field.get(), IID_IZIRDBField));
  EXPECT_FALSE(answers(field.get(), IID_IZIRDBFields));
  EXPECT_EQ(fields->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
  EXPECT_EQ(field->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
}

}  // namespace
