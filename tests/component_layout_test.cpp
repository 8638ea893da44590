// SPDX-License-Identifier: MIT
//
// What hosts of the component were compiled against: identifiers, the numbers
// of enumerations and members, and which operation stands in which slot of an
// object's two vtables. None of this may change without breaking them.
//
// Sections: identifiers; numbers; slots of the interfaces; slots of objects.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/identifiers.h"
#include "support/slots.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::dispatch_of;
using component::fields_of;
using component::standalone_recordset;
using identifiers::Identifier;
using slots::kFirst;
using slots::Numbered;
using slots::slot;

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

const std::vector<Identifier>& published_identifiers() {
  static const std::vector<Identifier> rows = {
      {"CLSID_ZIRDBConnection", CLSID_ZIRDBConnection,
       "A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E"},
      {"CLSID_ZIRDBCommand", CLSID_ZIRDBCommand,
       "B250EB07-2332-4C6D-B50D-357641DEAA0D"},
      {"CLSID_ZIRDBRecordset", CLSID_ZIRDBRecordset,
       "8EEDA5E6-0575-4F26-B43A-ED25F95E993B"},
      {"IID_IZIRDBConnection", IID_IZIRDBConnection,
       "42A6B313-5986-4037-AE9D-E90AD9B7BBA4"},
      {"IID_IZIRDBCommand", IID_IZIRDBCommand,
       "8E32A13D-FF0A-410C-80B8-FB517D850222"},
      {"IID_IZIRDBRecordset", IID_IZIRDBRecordset,
       "E844F0B5-B612-48B1-BA57-AB0BC2F08DF9"},
      {"IID_IZIRDBFields", IID_IZIRDBFields,
       "051FBC3E-D6EE-4C23-A4BD-FCB61CC0E093"},
      {"IID_IZIRDBField", IID_IZIRDBField,
       "CFC4200C-426C-40D5-8A39-7B96B8D6323F"},
      {"IID_IZIRDBParameters", IID_IZIRDBParameters,
       "9D1D978C-2A6F-459E-8A8F-1BC0D8276B54"},
      {"IID_IZIRDBParameter", IID_IZIRDBParameter,
       "1C1C4279-4D78-47E8-BA57-4E8B8A3C4A11"},
  };
  return rows;
}

TEST(ComponentIdentifiers, EveryByteIsThePublishedOne) {
  identifiers::expect_published(published_identifiers());
}

TEST(ComponentIdentifiers, TheLibraryExportsThemAndItsEntryPoints) {
  identifiers::expect_exported(published_identifiers());
  const identifiers::Library library = identifiers::linked_library();
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_NE(dlsym(library.get(), "DllGetClassObject"), nullptr);
  EXPECT_NE(dlsym(library.get(), "DllCanUnloadNow"), nullptr);
}

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

TEST(ComponentNumbers, EnumerationsHaveTheirPublishedValues) {
  const struct {
    long value;
    long expected;
  } rows[] = {
      {ZIRDB_STATE_CLOSED, 0},
      {ZIRDB_STATE_OPEN, 1},
      {ZIRDB_AD_EMPTY, 0},
      {ZIRDB_AD_INTEGER, 3},
      {ZIRDB_AD_BOOLEAN, 11},
      {ZIRDB_AD_BIGINT, 20},
      {ZIRDB_AD_GUID, 72},
      {ZIRDB_AD_VARCHAR, 200},
      {ZIRDB_AD_VARWCHAR, 202},
      {ZIRDB_AD_VARBINARY, 204},
      {ZIRDB_AD_PARAM_UNKNOWN, 0},
      {ZIRDB_AD_PARAM_INPUT, 1},
      {ZIRDB_AD_PARAM_OUTPUT, 2},
      {ZIRDB_AD_PARAM_INPUT_OUTPUT, 3},
      {ZIRDB_AD_PARAM_RETURN_VALUE, 4},
      {ZIRDB_AD_CMD_UNSPECIFIED, -1},
      {ZIRDB_AD_CMD_TEXT, 1},
      {ZIRDB_AD_CMD_STORED_PROC, 4},
      {ZIRDB_AD_CMD_UNKNOWN, 8},
  };
  for (const auto& row : rows) EXPECT_EQ(row.value, row.expected);
}

TEST(ComponentNumbers, MembersHaveTheirPublishedIds) {
  const struct {
    DISPID id;
    int expected;
  } rows[] = {
      {DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING, 1},
      {DISPID_ZIRDB_CONNECTION_STATE, 2},
      {DISPID_ZIRDB_CONNECTION_OPEN, 3},
      {DISPID_ZIRDB_CONNECTION_CLOSE, 4},
      {DISPID_ZIRDB_CONNECTION_EXECUTE, 5},
      {DISPID_ZIRDB_COMMAND_ACTIVECONNECTION, 1},
      {DISPID_ZIRDB_COMMAND_COMMANDTEXT, 2},
      {DISPID_ZIRDB_COMMAND_EXECUTE, 3},
      {DISPID_ZIRDB_COMMAND_CREATEPARAMETER, 4},
      {DISPID_ZIRDB_COMMAND_PARAMETERS, 5},
      {DISPID_ZIRDB_COMMAND_COMMANDTYPE, 6},
      {DISPID_ZIRDB_RECORDSET_FIELDS, 1},
      {DISPID_ZIRDB_RECORDSET_STATE, 2},
      {DISPID_ZIRDB_RECORDSET_EOF, 3},
      {DISPID_ZIRDB_RECORDSET_BOF, 4},
      {DISPID_ZIRDB_RECORDSET_MOVENEXT, 5},
      {DISPID_ZIRDB_RECORDSET_CLOSE, 6},
      {DISPID_ZIRDB_RECORDSET_RECORDCOUNT, 7},
      {DISPID_ZIRDB_RECORDSET_MOVEFIRST, 8},
      {DISPID_ZIRDB_RECORDSET_MOVELAST, 9},
      {DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, 10},
      {DISPID_ZIRDB_RECORDSET_FOREACH, 11},
      {DISPID_ZIRDB_FIELDS_ITEM, 0},
      {DISPID_ZIRDB_FIELDS_COUNT, 1},
      {DISPID_ZIRDB_FIELD_VALUE, 0},
      {DISPID_ZIRDB_FIELD_NAME, 1},
      {DISPID_ZIRDB_PARAMETERS_ITEM, 0},
      {DISPID_ZIRDB_PARAMETERS_COUNT, 1},
      {DISPID_ZIRDB_PARAMETERS_APPEND, 2},
      {DISPID_ZIRDB_PARAMETER_VALUE, 0},
      {DISPID_ZIRDB_PARAMETER_NAME, 1},
      {DISPID_ZIRDB_PARAMETER_TYPE, 2},
      {DISPID_ZIRDB_PARAMETER_DIRECTION, 3},
      {DISPID_ZIRDB_PARAMETER_SIZE, 4},
  };
  for (const auto& row : rows) EXPECT_EQ(row.id, row.expected);
}

// ---------------------------------------------------------------------------
// Slots of the interfaces
//
// Each operation of these implementations says its number; each slot is called
// without the compiler's knowledge of the interface.
// ---------------------------------------------------------------------------

struct NumberedConnection final : Numbered<IZIRDBConnection> {
  HRESULT get_ConnectionString(BSTR*) override { return kFirst + 3; }
  HRESULT put_ConnectionString(BSTR) override { return kFirst + 4; }
  HRESULT get_State(long*) override { return kFirst + 5; }
  HRESULT Open(BSTR, BSTR, BSTR, long) override { return kFirst + 6; }
  HRESULT Close() override { return kFirst + 7; }
  HRESULT Execute(BSTR, VARIANT*, long, IZIRDBRecordset**) override {
    return kFirst + 8;
  }
};

struct NumberedCommand final : Numbered<IZIRDBCommand> {
  HRESULT get_ActiveConnection(IDispatch**) override { return kFirst + 3; }
  HRESULT putref_ActiveConnection(IDispatch*) override { return kFirst + 4; }
  HRESULT get_CommandText(BSTR*) override { return kFirst + 5; }
  HRESULT put_CommandText(BSTR) override { return kFirst + 6; }
  HRESULT get_CommandType(long*) override { return kFirst + 7; }
  HRESULT put_CommandType(long) override { return kFirst + 8; }
  HRESULT CreateParameter(BSTR, long, long, long, VARIANT,
                          IZIRDBParameter**) override {
    return kFirst + 9;
  }
  HRESULT get_Parameters(IZIRDBParameters**) override { return kFirst + 10; }
  HRESULT Execute(VARIANT*, long, IZIRDBRecordset**) override {
    return kFirst + 11;
  }
};

struct NumberedRecordset final : Numbered<IZIRDBRecordset> {
  HRESULT get_Fields(IZIRDBFields**) override { return kFirst + 3; }
  HRESULT get_State(long*) override { return kFirst + 4; }
  HRESULT get_EOF(VARIANT_BOOL*) override { return kFirst + 5; }
  HRESULT get_BOF(VARIANT_BOOL*) override { return kFirst + 6; }
  HRESULT get_RecordCount(long*) override { return kFirst + 7; }
  HRESULT MoveFirst() override { return kFirst + 8; }
  HRESULT MoveLast() override { return kFirst + 9; }
  HRESULT MovePrevious() override { return kFirst + 10; }
  HRESULT MoveNext() override { return kFirst + 11; }
  HRESULT Close() override { return kFirst + 12; }
};

struct NumberedFields final : Numbered<IZIRDBFields> {
  HRESULT get_Count(long*) override { return kFirst + 3; }
  HRESULT Item(VARIANT, IZIRDBField**) override { return kFirst + 4; }
};

struct NumberedField final : Numbered<IZIRDBField> {
  HRESULT get_Name(BSTR*) override { return kFirst + 3; }
  HRESULT get_Value(VARIANT*) override { return kFirst + 4; }
};

struct NumberedParameters final : Numbered<IZIRDBParameters> {
  HRESULT get_Count(long*) override { return kFirst + 3; }
  HRESULT Item(VARIANT, IZIRDBParameter**) override { return kFirst + 4; }
  HRESULT Append(IZIRDBParameter*) override { return kFirst + 5; }
};

struct NumberedParameter final : Numbered<IZIRDBParameter> {
  HRESULT get_Name(BSTR*) override { return kFirst + 3; }
  HRESULT put_Name(BSTR) override { return kFirst + 4; }
  HRESULT get_Value(VARIANT*) override { return kFirst + 5; }
  HRESULT put_Value(VARIANT) override { return kFirst + 6; }
  HRESULT get_Type(long*) override { return kFirst + 7; }
  HRESULT put_Type(long) override { return kFirst + 8; }
  HRESULT get_Direction(long*) override { return kFirst + 9; }
  HRESULT put_Direction(long) override { return kFirst + 10; }
  HRESULT get_Size(long*) override { return kFirst + 11; }
  HRESULT put_Size(long) override { return kFirst + 12; }
};

template <class Implementation>
void expect_slots_in_order(const char* name, int count) {
  SCOPED_TRACE(name);
  Implementation object;
  slots::expect_in_order(&object, count);
}

TEST(ComponentInterfaces, EverySlotReachesTheOperationOfItsNumber) {
  expect_slots_in_order<NumberedConnection>("connection", 9);
  expect_slots_in_order<NumberedCommand>("command", 12);
  expect_slots_in_order<NumberedRecordset>("recordset", 13);
  expect_slots_in_order<NumberedFields>("fields", 5);
  expect_slots_in_order<NumberedField>("field", 5);
  expect_slots_in_order<NumberedParameters>("parameters", 6);
  expect_slots_in_order<NumberedParameter>("parameter", 13);
}

TEST(ComponentInterfaces, HaveNoVirtualDestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBConnection>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBCommand>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBRecordset>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBFields>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBField>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBParameters>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IZIRDBParameter>);
}

// ---------------------------------------------------------------------------
// Slots of objects
//
// An object begins with two vtables: that of its own interface, which goes on
// with the destructor (two slots) and the four operations of IDispatch, and
// that of IDispatch.
// ---------------------------------------------------------------------------

using Query = HRESULT (*)(void*, const IID*, void**);
using Count = std::uint32_t (*)(void*);
using Act = HRESULT (*)(void*);
using GetLong = HRESULT (*)(void*, std::int64_t*);
using GetBool = HRESULT (*)(void*, std::int16_t*);
using GetObject = HRESULT (*)(void*, void**);
/// A variant by value travels in two registers.
using Item = HRESULT (*)(void*, std::uint64_t tag, std::uint64_t payload,
                         void**);
using TypeInfoCount = HRESULT (*)(void*, std::uint32_t*);
using TypeInfo = HRESULT (*)(void*, std::uint32_t, std::uint32_t, void**);
using IdsOfNames = HRESULT (*)(void*, const IID*, wchar_t**, std::uint32_t,
                               std::uint32_t, std::int32_t*);
using Invoke = HRESULT (*)(void*, std::int32_t, const IID*, std::uint32_t,
                           std::uint16_t, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                           std::uint32_t*);

/// A pattern in which every byte shows whether it was written.
constexpr std::int64_t kUnwritten = 0x7777777777777777;

void expect_unknown_slots(void* object, const IID& own) {
  EXPECT_EQ(slot<Count>(object, 1)(object), 2U);
  EXPECT_EQ(slot<Count>(object, 2)(object), 1U);
  void* found = nullptr;
  EXPECT_EQ(slot<Query>(object, 0)(object, &own, &found), S_OK);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(slot<Count>(object, 2)(object), 1U);
}

/// The operations of IDispatch, of which the first is in slot `first`. The
/// member `name` with the id `id` gives a VT_I4 of `value`.
void expect_dispatch_slots(void* object, std::size_t first, const wchar_t* name,
                           DISPID id, std::int64_t value) {
  std::uint32_t count = 0x77777777;
  EXPECT_EQ(slot<TypeInfoCount>(object, first)(object, &count), S_OK);
  EXPECT_EQ(count, 0U);

  void* info = &count;
  EXPECT_EQ(slot<TypeInfo>(object, first + 1)(object, 0, 0, &info), E_NOTIMPL);
  EXPECT_EQ(info, nullptr);

  std::wstring text = name;
  wchar_t* names = text.data();
  // The second element shows that an id takes 32 bits.
  std::array<std::int32_t, 2> ids = {77, 77};
  EXPECT_EQ(slot<IdsOfNames>(object, first + 2)(object, &IID_NULL, &names, 1, 0,
                                                ids.data()),
            S_OK);
  EXPECT_EQ(ids[0], id);
  EXPECT_EQ(ids[1], 77);

  DISPPARAMS none{};
  _variant_t result;
  EXPECT_EQ(slot<Invoke>(object, first + 3)(object, id, &IID_NULL, 0,
                                            DISPATCH_PROPERTYGET, &none,
                                            &result, nullptr, nullptr),
            S_OK);
  EXPECT_EQ(result.vt, VT_I4);
  EXPECT_EQ(result.lVal, value);
}

TEST(RecordsetSlots, BeginWithIUnknown) {
  const auto recordset = standalone_recordset();
  expect_unknown_slots(recordset.get(), IID_IZIRDBRecordset);
}

TEST(RecordsetSlots, GoOnWithTheOperationsOfItsInterface) {
  const auto recordset = standalone_recordset();
  void* const object = recordset.get();

  void* fields = nullptr;
  EXPECT_EQ(slot<GetObject>(object, 3)(object, &fields), S_OK);
  ASSERT_NE(fields, nullptr);
  EXPECT_EQ(slot<Count>(fields, 2)(fields), 0U);

  std::int64_t state = kUnwritten;
  EXPECT_EQ(slot<GetLong>(object, 4)(object, &state), S_OK);
  EXPECT_EQ(state, 1);

  for (const std::size_t number : {5U, 6U}) {
    // The second element shows that a truth value takes 16 bits.
    std::array<std::int16_t, 2> flag = {0x7777, 0x7777};
    EXPECT_EQ(slot<GetBool>(object, number)(object, flag.data()), S_OK);
    EXPECT_EQ(flag[0], -1);
    EXPECT_EQ(flag[1], 0x7777);
  }

  std::int64_t count = kUnwritten;
  EXPECT_EQ(slot<GetLong>(object, 7)(object, &count), S_OK);
  EXPECT_EQ(count, -1);

  EXPECT_EQ(slot<Act>(object, 8)(object), component::kNoCurrentRecordCode);
  EXPECT_EQ(slot<Act>(object, 9)(object), component::kNotBackwardCode);
  EXPECT_EQ(slot<Act>(object, 10)(object), component::kNotInThisContextCode);
  EXPECT_EQ(slot<Act>(object, 11)(object), component::kNoCurrentRecordCode);
  EXPECT_EQ(slot<Act>(object, 12)(object), S_OK);
  EXPECT_EQ(slot<GetLong>(object, 4)(object, &state), S_OK);
  EXPECT_EQ(state, 0);
}

TEST(RecordsetSlots, EndWithLateBindingBehindTheDestructor) {
  const auto recordset = standalone_recordset();
  expect_dispatch_slots(recordset.get(), 15, L"State", 2, 1);
}

TEST(RecordsetSlots, OfTheSecondTableAreThoseOfIDispatch) {
  const auto recordset = standalone_recordset();
  const auto dispatch = dispatch_of(recordset.get());

  // Two references are held: by `recordset` and by `dispatch`.
  void* const object = dispatch.get();
  EXPECT_EQ(slot<Count>(object, 1)(object), 3U);
  EXPECT_EQ(slot<Count>(object, 2)(object), 2U);
  void* primary = nullptr;
  EXPECT_EQ(slot<Query>(object, 0)(object, &IID_IZIRDBRecordset, &primary),
            S_OK);
  EXPECT_EQ(primary, static_cast<void*>(recordset.get()));
  EXPECT_EQ(slot<Count>(object, 2)(object), 2U);
  expect_dispatch_slots(object, 3, L"RecordCount", 7, -1);
}

TEST(FieldsSlots, BeginWithIUnknown) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  expect_unknown_slots(fields.get(), IID_IZIRDBFields);
}

TEST(FieldsSlots, GoOnWithTheOperationsOfItsInterface) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  void* const object = fields.get();

  std::int64_t count = kUnwritten;
  EXPECT_EQ(slot<GetLong>(object, 3)(object, &count), S_OK);
  EXPECT_EQ(count, 0);

  void* field = nullptr;
  EXPECT_EQ(slot<Item>(object, 4)(object, VT_I8, 0, &field),
            component::kNotFoundCode);
  EXPECT_EQ(slot<Item>(object, 4)(object, values::kReference, 0, &field),
            E_INVALIDARG);
  EXPECT_EQ(field, nullptr);
}

TEST(FieldsSlots, EndWithLateBindingBehindTheDestructor) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  expect_dispatch_slots(fields.get(), 7, L"Count", 1, 0);
}

TEST(FieldsSlots, OfTheSecondTableAreThoseOfIDispatch) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  const auto dispatch = dispatch_of(fields.get());

  void* const object = dispatch.get();
  EXPECT_EQ(slot<Count>(object, 1)(object), 3U);
  EXPECT_EQ(slot<Count>(object, 2)(object), 2U);
  void* primary = nullptr;
  EXPECT_EQ(slot<Query>(object, 0)(object, &IID_IZIRDBFields, &primary), S_OK);
  EXPECT_EQ(primary, static_cast<void*>(fields.get()));
  EXPECT_EQ(slot<Count>(object, 2)(object), 2U);
  expect_dispatch_slots(object, 3, L"Count", 1, 0);
}

TEST(FactorySlots, AreThoseOfIClassFactory) {
  const auto factory = component::factory_of(CLSID_ZIRDBRecordset);
  void* const object = factory.get();
  expect_unknown_slots(object, IID_IClassFactory);

  using Create = HRESULT (*)(void*, void*, const IID*, void**);
  void* made = nullptr;
  EXPECT_EQ(
      slot<Create>(object, 3)(object, nullptr, &IID_IZIRDBRecordset, &made),
      S_OK);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(slot<Count>(made, 2)(made), 0U);

  using Lock = HRESULT (*)(void*, std::int32_t);
  EXPECT_EQ(slot<Lock>(object, 4)(object, 1), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  EXPECT_EQ(slot<Lock>(object, 4)(object, 0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

// A host may widen an id to 64 bits, with or without its sign.
TEST(RecordsetSlots, InvokeTakesTheLower32BitsOfAnId) {
  using WideInvoke = HRESULT (*)(void*, std::uint64_t, const IID*,
                                 std::uint32_t, std::uint16_t, DISPPARAMS*,
                                 VARIANT*, EXCEPINFO*, std::uint32_t*);
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  const auto of_recordset = dispatch_of(recordset.get());
  const auto of_fields = dispatch_of(fields.get());
  const struct {
    IDispatch* object;
    std::uint64_t member;
    HRESULT result;
  } rows[] = {
      // _NewEnum, which is refused where there is no row.
      {of_fields.get(), 0x00000000FFFFFFFC, DISP_E_EXCEPTION},
      {of_fields.get(), 0xFFFFFFFFFFFFFFFC, DISP_E_EXCEPTION},
      {of_fields.get(), 0xDEADBEEFFFFFFFFC, DISP_E_EXCEPTION},
      {of_fields.get(), 0xDEADBEEF00000001, S_OK},
      {of_fields.get(), 0xFFFFFFFF00000002, DISP_E_MEMBERNOTFOUND},
      {of_fields.get(), 0x00000000FFFFFFFB, DISP_E_MEMBERNOTFOUND},
      {of_recordset.get(), 0xDEADBEEF00000002, S_OK},
      {of_recordset.get(), 0x8000000000000007, S_OK},
      {of_recordset.get(), 0x00000000FFFFFFFC, DISP_E_MEMBERNOTFOUND},
  };
  for (const auto& row : rows) {
    DISPPARAMS none{};
    _variant_t result;
    component::Exception exception;
    EXPECT_EQ(slot<WideInvoke>(row.object, 6)(
                  row.object, row.member, &IID_NULL, 0, DISPATCH_PROPERTYGET,
                  &none, &result, exception.get(), nullptr),
              row.result)
        << std::hex << row.member;
    if (row.result == DISP_E_EXCEPTION) {
      EXPECT_EQ(exception->scode, component::kNoCurrentRecordCode);
    }
  }
}

}  // namespace
