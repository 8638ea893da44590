// SPDX-License-Identifier: MIT
//
// Recordset.forEach: the rows it visits, which callbacks it takes, what they
// see, and what becomes of their failures.
//
// Sections: the walk; call shapes; callbacks that are refused; what a callback
// sees; failures.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/for_each.h"
#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::expect_exception;
using component::kClosedCode;
using component::kClosedText;
using component::kNotBackwardCode;
using recordsets::expect_only;
using recordsets::Fields;
using recordsets::for_each;
using recordsets::kForEach;
using recordsets::kSource;
using recordsets::numbered;
using recordsets::Recordset;
using recordsets::row_of;
using recordsets::Rows;
using recordsets::Seen;
using recordsets::Visitor;
using recordsets::where;

// ---------------------------------------------------------------------------
// The walk
// ---------------------------------------------------------------------------

struct Walk {
  int rows;
  int moved;
  Rows visited;
};

TEST(ForEach, VisitsEachRowFromTheCurrentOneAndCloses) {
  const Walk kCases[] = {
      {0, 0, {}},     {1, 0, {1}}, {1, 1, {}}, {3, 0, {1, 2, 3}},
      {3, 1, {2, 3}}, {3, 2, {3}}, {3, 3, {}}, {5, 0, {1, 2, 3, 4, 5}},
  };
  for (const Walk& walk : kCases) {
    SCOPED_TRACE(testing::Message()
                 << walk.rows << " rows, moved " << walk.moved);
    const Recordset recordset = numbered(walk.rows);
    for (int i = 0; i < walk.moved; ++i) {
      ASSERT_EQ(recordset->MoveNext(), S_OK);
    }
    Visitor visitor;
    expect_only(for_each(recordset, visitor), S_OK);
    EXPECT_EQ(visitor.rows(), walk.visited);
    EXPECT_EQ(where(recordset), "closed");
    EXPECT_EQ(recordset->MoveNext(), kClosedCode);
  }
}

TEST(ForEach, BehindARefusedMoveLastVisitsNothingAndCloses) {
  const Recordset recordset = numbered(3);
  ASSERT_EQ(recordset->MoveLast(), kNotBackwardCode);
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows());
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEach, AfterARewindVisitsEveryRow) {
  const Recordset recordset = numbered(3);
  while (recordset->MoveNext() == S_OK) {
  }
  ASSERT_EQ(recordset->MoveFirst(), S_OK);
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2, 3}));
}

TEST(ForEach, LeavesOutALastRowThatIsToldAsTheEnd) {
  const Recordset recordset = numbered(3);
  workbench::set_eof_on_last_row(recordset.get());
  ASSERT_EQ(recordset->MoveFirst(), S_OK);
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEach, ClosesByItself) {
  const Recordset recordset = numbered(2);
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  const Fields fields = recordsets::fields_of(recordset);
  EXPECT_EQ(recordsets::count_of(fields), 2) << "the names stay";
  EXPECT_EQ(recordsets::item_of(fields, _variant_t(0)).first, kClosedCode);
}

TEST(ForEach, VisitsManyRows) {
  constexpr std::size_t kRows = 10000;
  const Recordset recordset =
      workbench::recordset({"number"}, kRows, [](std::size_t row, std::size_t) {
        return workbench::Cell(static_cast<std::int64_t>(row));
      });
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  ASSERT_EQ(visitor.rows().size(), kRows);
  for (std::size_t row = 0; row < kRows; ++row) {
    ASSERT_EQ(visitor.rows()[row], static_cast<std::int64_t>(row));
  }
}

TEST(ForEach, GoesBehindTheDefaultMember) {
  const Recordset recordset = numbered(1);
  DISPID id = 77;
  for (const wchar_t* text : {L"forEach", L"foreach", L"FOREACH"}) {
    _bstr_t name(text);
    EXPECT_EQ(dispatch_of(recordset.get())
                  ->GetIDsOfNames(IID_NULL, &name.m_s, 1, 0, &id),
              S_OK);
    EXPECT_EQ(id, kForEach) << text;
  }
}

// ---------------------------------------------------------------------------
// Call shapes
// ---------------------------------------------------------------------------

struct Shape {
  const char* name;
  int flags;
  int good;  ///< callbacks among the arguments, in front
  int bad;   ///< numbers behind them
  HRESULT result;
};

TEST(ForEachCalls, AreRefusedInOtherShapesWhateverTheState) {
  constexpr Shape kCases[] = {
      {"no flag", 0, 1, 0, DISP_E_MEMBERNOTFOUND},
      {"get", 2, 1, 0, DISP_E_MEMBERNOTFOUND},
      {"put", 4, 1, 0, DISP_E_MEMBERNOTFOUND},
      {"get of a number", 2, 0, 1, DISP_E_MEMBERNOTFOUND},
      {"get of nothing", 2, 0, 0, DISP_E_BADPARAMCOUNT},
      {"get of two", 2, 2, 0, DISP_E_BADPARAMCOUNT},
      {"nothing", 1, 0, 0, DISP_E_BADPARAMCOUNT},
      {"two", 1, 2, 0, DISP_E_BADPARAMCOUNT},
      {"one and a number", 1, 1, 1, DISP_E_BADPARAMCOUNT},
      {"two numbers", 3, 0, 2, DISP_E_BADPARAMCOUNT},
  };
  for (const bool closed : {false, true}) {
    for (const Shape& shape : kCases) {
      SCOPED_TRACE(testing::Message() << shape.name << ", closed " << closed);
      const Recordset recordset = numbered(2);
      if (closed) {
        ASSERT_EQ(recordset->Close(), S_OK);
      }
      Visitor visitor;
      component::Call call;
      call.member = kForEach;
      call.flags = static_cast<WORD>(shape.flags);
      for (int i = 0; i < shape.good; ++i) {
        call.arguments.push_back(visitor.argument());
      }
      for (int i = 0; i < shape.bad; ++i) call.arguments.emplace_back(i);
      expect_only(component::invoke(dispatch_of(recordset.get()).get(), call),
                  shape.result);
      EXPECT_EQ(visitor.rows(), Rows());
      EXPECT_EQ(where(recordset), closed ? "closed" : "row 1");
    }
  }
}

TEST(ForEachCalls, NeedTheMethodFlagAmongOthers) {
  for (const int flags : {1, 3, 5, 9}) {
    const Recordset recordset = numbered(2);
    Visitor visitor;
    component::Call call;
    call.member = kForEach;
    call.flags = static_cast<WORD>(flags);
    call.arguments = {visitor.argument()};
    expect_only(component::invoke(dispatch_of(recordset.get()).get(), call),
                S_OK);
    EXPECT_EQ(visitor.rows(), Rows({1, 2})) << flags;
  }
}

TEST(ForEachCalls, LeaveTheResultVariantAlone) {
  const Recordset recordset = numbered(2);
  Visitor visitor([](std::int64_t, const Seen& call) {
    *call.result = _variant_t(L"the callback's").Detach();
    return S_OK;
  });
  _variant_t argument = visitor.argument();
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  _variant_t result = 7;
  EXPECT_EQ(dispatch_of(recordset.get())
                ->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         &result, nullptr, nullptr),
            S_OK);
  EXPECT_EQ(result.vt, VT_I8);
  EXPECT_EQ(result.llVal, 7);
}

TEST(ForEachCalls, NeedNoResultVariant) {
  const Recordset recordset = numbered(2);
  Visitor visitor;
  component::Call call;
  call.member = kForEach;
  call.arguments = {visitor.argument()};
  call.with_result = false;
  expect_only(component::invoke(dispatch_of(recordset.get()).get(), call),
              S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
}

// ---------------------------------------------------------------------------
// Callbacks that are refused
// ---------------------------------------------------------------------------

TEST(ForEachCallbacks, AreRefusedBeforeTheStateIsLookedAt) {
  objects::Unknown without_dispatch;
  objects::Dispatch object;
  struct Bad {
    const char* name;
    _variant_t callback;
  };
  VARIANT missing = values::reference_to(nullptr);
  VARIANT text = _variant_t(L"text").Detach();
  const _variant_t text_owner = values::owned(text);
  IDispatch* behind = &object;
  VARIANT by_reference{};
  by_reference.vt = VT_BYREF | VT_DISPATCH;
  by_reference.byref = &behind;
  const Bad kCases[] = {
      {"nothing", _variant_t()},
      {"NULL", values::owned(values::plain(VT_NULL, 0))},
      {"a number", 7},
      {"a text", L"text"},
      {"true", true},
      {"a null VT_DISPATCH", values::owned(values::plain(VT_DISPATCH, 0))},
      {"a null VT_UNKNOWN", values::owned(values::plain(VT_UNKNOWN, 0))},
      {"no IDispatch", _variant_t(static_cast<IUnknown*>(&without_dispatch))},
      {"a missing link", values::owned(missing)},
      {"a missing second link", values::owned(values::reference_to(&missing))},
      {"a text behind a link", values::owned(values::reference_to(&text))},
      {"VT_BYREF | VT_DISPATCH", values::owned(by_reference)},
  };
  for (const Bad& bad : kCases) {
    for (const char* state : {"row 1", "eof", "closed", "by its connection"}) {
      SCOPED_TRACE(testing::Message() << bad.name << ", " << state);
      const Recordset recordset = numbered(1);
      const std::string kind = state;
      if (kind == "eof") {
        ASSERT_EQ(recordset->MoveNext(), S_OK);
      } else if (kind == "closed") {
        ASSERT_EQ(recordset->Close(), S_OK);
      } else if (kind == "by its connection") {
        workbench::close_by_connection(recordset.get());
      }
      const std::string before = where(recordset);
      expect_only(for_each(recordset, bad.callback), DISP_E_TYPEMISMATCH);
      EXPECT_EQ(where(recordset), before);
    }
  }
  EXPECT_EQ(without_dispatch.references(), 2U) << "the table's and the test's";
  EXPECT_EQ(object.invocations(), 0);
}

TEST(ForEachCallbacks, MayBeAnUnknownThatAnswersDispatch) {
  const Recordset recordset = numbered(3);
  Rows rows;
  objects::Dispatch callback([&rows](const Seen& call) {
    rows.push_back(row_of(call));
    return S_OK;
  });
  expect_only(
      for_each(recordset, _variant_t(static_cast<IUnknown*>(&callback))), S_OK);
  EXPECT_EQ(rows, Rows({1, 2, 3}));
  EXPECT_EQ(callback.references(), 1U);
}

TEST(ForEachCallbacks, MayBeBehindReferences) {
  for (const bool unknown : {false, true}) {
    const Recordset recordset = numbered(2);
    Rows rows;
    objects::Dispatch callback([&rows](const Seen& call) {
      rows.push_back(row_of(call));
      return S_OK;
    });
    _variant_t first = unknown ? _variant_t(static_cast<IUnknown*>(&callback))
                               : _variant_t(static_cast<IDispatch*>(&callback));
    VARIANT second = values::reference_to(&first);
    const _variant_t third = values::owned(values::reference_to(&second));
    expect_only(for_each(recordset, third), S_OK);
    EXPECT_EQ(rows, Rows({1, 2}));
    EXPECT_EQ(callback.references(), 2U) << "the test's and the argument's";
  }
}

TEST(ForEachCallbacks, OnAClosedRecordsetAreNotCalled) {
  for (const bool by_connection : {false, true}) {
    const Recordset recordset = numbered(2);
    if (by_connection) {
      workbench::close_by_connection(recordset.get());
    } else {
      ASSERT_EQ(recordset->Close(), S_OK);
    }
    Visitor visitor;
    expect_exception(for_each(recordset, visitor), kClosedCode, kSource,
                     kClosedText);
    EXPECT_EQ(visitor.rows(), Rows());
  }
}

// ---------------------------------------------------------------------------
// What a callback sees
// ---------------------------------------------------------------------------

TEST(ForEachCallbacks, AreCalledByTheirDefaultMember) {
  const Recordset recordset = numbered(3);
  component::Exception info;
  Visitor visitor([&info](std::int64_t, const Seen& call) {
    EXPECT_EQ(call.member, 0);
    EXPECT_EQ(call.riid, IID_NULL);
    EXPECT_EQ(call.lcid, 0U);
    EXPECT_EQ(call.flags, DISPATCH_METHOD);
    EXPECT_EQ(call.parameters->cArgs, 1U);
    EXPECT_EQ(call.parameters->cNamedArgs, 0U);
    EXPECT_NE(call.result, nullptr);
    EXPECT_EQ(call.result->vt, VT_EMPTY);
    EXPECT_EQ(call.exception, info.get());
    EXPECT_EQ(call.bad_argument, nullptr);
    *call.result = _variant_t(7).Detach();
    return S_OK;
  });
  _variant_t argument = visitor.argument();
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  UINT bad_argument = 77;
  constexpr LCID kSomeLocale = 0x0409;
  EXPECT_EQ(dispatch_of(recordset.get())
                ->Invoke(kForEach, IID_NULL, kSomeLocale,
                         DISPATCH_METHOD | DISPATCH_PROPERTYGET, &parameters,
                         nullptr, info.get(), &bad_argument),
            S_OK);
  EXPECT_EQ(visitor.rows().size(), 3U);
  EXPECT_EQ(bad_argument, 77U);
}

TEST(ForEachCallbacks, GetNoExceptionRecordWhereTheCallerGaveNone) {
  const Recordset recordset = numbered(1);
  Visitor visitor([](std::int64_t, const Seen& call) {
    EXPECT_EQ(call.exception, nullptr);
    return S_OK;
  });
  component::Call call;
  call.member = kForEach;
  call.arguments = {visitor.argument()};
  call.with_exception = false;
  expect_only(component::invoke(dispatch_of(recordset.get()).get(), call),
              S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1}));
}

TEST(ForEachCallbacks, GetTheSameFieldsInEveryRow) {
  const Recordset recordset = numbered(4);
  std::vector<IDispatch*> arguments;
  std::vector<std::uint32_t> references;
  InterfacePtr<IZIRDBFields> fields;
  Visitor visitor([&](std::int64_t, const Seen& call) {
    IDispatch* const argument = call.parameters->rgvarg[0].pdispVal;
    arguments.push_back(argument);
    references.push_back(recordsets::references(argument));
    if (!fields) {
      fields = component::query<IZIRDBFields>(argument, IID_IZIRDBFields);
    }
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  ASSERT_EQ(arguments.size(), 4U);
  EXPECT_EQ(arguments, std::vector<IDispatch*>(4, arguments[0]));
  EXPECT_GE(references[0], 2U) << "the walk's and the call's";
  EXPECT_EQ(references[1], references[0] + 1) << "the test keeps one";
  EXPECT_EQ(references[2], references[1]);
  EXPECT_EQ(references[3], references[1]);
  ASSERT_TRUE(fields);
  EXPECT_EQ(recordsets::references(fields.get()), 1U) << "the test's";
  EXPECT_EQ(recordsets::count_of(fields), 2);
}

TEST(ForEachCallbacks, GetAFieldsObjectOfTheirWalk) {
  const Recordset recordset = numbered(2);
  const std::uint32_t before = workbench::objects_alive();
  Visitor visitor([before](std::int64_t, const Seen&) {
    EXPECT_EQ(workbench::objects_alive(), before + 1);
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(workbench::objects_alive(), before);
  EXPECT_EQ(recordsets::references(recordset.get()), 1U);
}

TEST(ForEachCallbacks, SeeTheirResultsFreed) {
  const Recordset recordset = numbered(3);
  objects::Unknown object;
  Visitor visitor([&object](std::int64_t, const Seen& call) {
    EXPECT_EQ(object.references(), 1U) << "that of the row before is gone";
    EXPECT_EQ(call.result->vt, VT_EMPTY);
    *call.result = _variant_t(static_cast<IUnknown*>(&object)).Detach();
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

TEST(ForEachCallbacks, SeeTheirResultFreedWhenTheyFailToo) {
  const Recordset recordset = numbered(3);
  objects::Unknown object;
  Visitor visitor([&object](std::int64_t, const Seen& call) {
    *call.result = _variant_t(static_cast<IUnknown*>(&object)).Detach();
    return E_FAIL;
  });
  expect_only(for_each(recordset, visitor), E_FAIL);
  EXPECT_EQ(object.references(), 1U);
}

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

TEST(ForEachFailures, EndTheWalkOnTheirRowWithTheirCode) {
  for (const HRESULT code :
       {E_FAIL, E_INVALIDARG, DISP_E_MEMBERNOTFOUND, DISP_E_EXCEPTION,
        kClosedCode, zir_hresult(0x80000000), zir_hresult(0xFFFFFFFF)}) {
    const Recordset recordset = numbered(3);
    Visitor visitor([code](std::int64_t row, const Seen&) {
      return row == 2 ? code : S_OK;
    });
    expect_only(for_each(recordset, visitor), code);
    EXPECT_EQ(visitor.rows(), Rows({1, 2}));
    EXPECT_EQ(where(recordset), "row 2");
    EXPECT_EQ(recordsets::references(recordset.get()), 1U);
  }
}

TEST(ForEachFailures, OfTheFirstAndTheLastRowEndItThere) {
  for (const std::int64_t failing : {1, 3}) {
    const Recordset recordset = numbered(3);
    Visitor visitor([failing](std::int64_t row, const Seen&) {
      return row == failing ? E_FAIL : S_OK;
    });
    expect_only(for_each(recordset, visitor), E_FAIL);
    EXPECT_EQ(where(recordset), "row " + std::to_string(failing));
  }
}

TEST(ForEachFailures, LetTheWalkBeTakenUpAgain) {
  const Recordset recordset = numbered(3);
  Visitor failing(
      [](std::int64_t row, const Seen&) { return row == 2 ? E_FAIL : S_OK; });
  expect_only(for_each(recordset, failing), E_FAIL);
  Visitor visitor;
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({2, 3}));
}

TEST(ForEachFailures, LeaveTheCallbacksOwnExceptionAlone) {
  const Recordset recordset = numbered(3);
  Visitor visitor([](std::int64_t row, const Seen& call) {
    if (row != 2) return S_OK;
    call.exception->scode = E_UNEXPECTED;
    call.exception->bstrSource = SysAllocString(L"script");
    call.exception->bstrDescription = SysAllocString(L"line 7");
    return DISP_E_EXCEPTION;
  });
  expect_exception(for_each(recordset, visitor), E_UNEXPECTED, L"script",
                   L"line 7");
  EXPECT_EQ(where(recordset), "row 2");
}

TEST(ForEachFailures, AreNotWhatPositiveCodesAre) {
  const Recordset recordset = numbered(3);
  Visitor visitor([](std::int64_t row, const Seen&) {
    return row == 3 ? 0x7FFFFFFF : S_FALSE;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2, 3}));
  EXPECT_EQ(where(recordset), "closed");
}

}  // namespace
