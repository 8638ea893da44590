// SPDX-License-Identifier: MIT
//
// Recordset.forEach under callbacks that interfere: that close the recordset or
// its connection, move its cursor, let go of it, walk it themselves, or keep
// what they are given.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/for_each.h"
#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::Answer;
using component::dispatch_of;
using component::expect_exception;
using component::kClosedCode;
using component::kClosedText;
using component::kNoCurrentRecordCode;
using component::kNoCurrentRecordText;
using component::kNotBackwardCode;
using recordsets::expect_only;
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

TEST(ForEachInterference, ClosingTheRecordsetFailsTheWalk) {
  const Recordset recordset = numbered(3);
  Visitor visitor(
      [&](std::int64_t, const Seen&) { return recordset->Close(); });
  expect_exception(for_each(recordset, visitor), kClosedCode, kSource,
                   kClosedText);
  EXPECT_EQ(visitor.rows(), Rows({1}));
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEachInterference, ClosingItOnTheLastRowFailsTheWalkToo) {
  const Recordset recordset = numbered(2);
  Visitor visitor([&](std::int64_t row, const Seen&) {
    return row == 2 ? recordset->Close() : S_OK;
  });
  expect_exception(for_each(recordset, visitor), kClosedCode, kSource,
                   kClosedText);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
}

TEST(ForEachInterference, ClosingTheConnectionFailsTheWalk) {
  const Recordset recordset = numbered(3);
  Visitor visitor([&](std::int64_t row, const Seen&) {
    if (row == 2) workbench::close_by_connection(recordset.get());
    return S_OK;
  });
  expect_exception(for_each(recordset, visitor), kClosedCode, kSource,
                   kClosedText);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
  EXPECT_EQ(recordsets::count_of(recordsets::fields_of(recordset)), 0);
}

TEST(ForEachInterference, ClosingAndFailingReturnsTheCallbacksCode) {
  const Recordset recordset = numbered(3);
  Visitor visitor([&](std::int64_t, const Seen&) {
    EXPECT_EQ(recordset->Close(), S_OK);
    return E_NOTIMPL;
  });
  expect_only(for_each(recordset, visitor), E_NOTIMPL);
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEachInterference, MovingOnLeavesRowsOut) {
  const Recordset recordset = numbered(5);
  Visitor visitor([&](std::int64_t row, const Seen& call) {
    if (row % 3 != 1) return S_OK;
    EXPECT_EQ(recordset->MoveNext(), S_OK);
    EXPECT_EQ(row_of(call), row + 1) << "the argument follows";
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 3, 4}));
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEachInterference, MovingToTheEndFailsTheWalk) {
  const Recordset recordset = numbered(2);
  Visitor visitor([&](std::int64_t row, const Seen&) {
    return row == 2 ? recordset->MoveNext() : S_OK;
  });
  expect_exception(for_each(recordset, visitor), kNoCurrentRecordCode, kSource,
                   kNoCurrentRecordText);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
  EXPECT_EQ(where(recordset), "eof");
}

TEST(ForEachInterference, ARefusedMoveLastFailsTheWalk) {
  const Recordset recordset = numbered(3);
  Visitor visitor([&](std::int64_t, const Seen&) {
    EXPECT_EQ(recordset->MoveLast(), kNotBackwardCode);
    return S_OK;
  });
  expect_exception(for_each(recordset, visitor), kNoCurrentRecordCode, kSource,
                   kNoCurrentRecordText);
  EXPECT_EQ(visitor.rows(), Rows({1}));
  EXPECT_EQ(where(recordset), "bof eof");
}

TEST(ForEachInterference, MovingToTheFirstRowBeginsAgain) {
  const Recordset recordset = numbered(3);
  bool rewound = false;
  Visitor visitor([&](std::int64_t row, const Seen&) {
    if (row != 2 || rewound) return S_OK;
    rewound = true;
    return recordset->MoveFirst();
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2, 2, 3}));
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEachInterference, AWalkWithinTheWalkLeavesNothingToTheOuterOne) {
  const Recordset recordset = numbered(3);
  Visitor inner;
  Visitor outer([&](std::int64_t, const Seen&) {
    expect_only(for_each(recordset, inner), S_OK);
    return S_OK;
  });
  expect_exception(for_each(recordset, outer), kClosedCode, kSource,
                   kClosedText);
  EXPECT_EQ(outer.rows(), Rows({1}));
  EXPECT_EQ(inner.rows(), Rows({1, 2, 3}));
}

TEST(ForEachInterference, AWalkWithinTheWalkThatFailsLeavesItsRow) {
  const Recordset recordset = numbered(5);
  Visitor inner(
      [](std::int64_t row, const Seen&) { return row == 3 ? E_FAIL : S_OK; });
  Visitor outer([&](std::int64_t row, const Seen&) {
    if (row == 1) expect_only(for_each(recordset, inner), E_FAIL);
    return S_OK;
  });
  expect_only(for_each(recordset, outer), S_OK);
  EXPECT_EQ(inner.rows(), Rows({1, 2, 3}));
  EXPECT_EQ(outer.rows(), Rows({1, 4, 5}));
}

TEST(ForEachInterference, LettingGoOfTheRecordsetDoesNotEndTheWalk) {
  for (const int rows : {1, 3}) {
    Recordset recordset = numbered(rows);
    Visitor visitor([&recordset](std::int64_t, const Seen&) {
      recordset = {};
      return S_OK;
    });
    _variant_t argument = visitor.argument();
    DISPPARAMS parameters{&argument, nullptr, 1, 0};
    // Without a reference of its own, unlike other calls of these tests.
    IDispatch* const bare = dispatch_of(recordset.get()).get();
    EXPECT_EQ(bare->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                           nullptr, nullptr, nullptr),
              S_OK);
    EXPECT_EQ(visitor.rows().size(), static_cast<std::size_t>(rows));
    EXPECT_EQ(workbench::objects_alive(), 0U);
  }
}

TEST(ForEachInterference, LettingGoOfTheRecordsetAndFailingFreesIt) {
  Recordset recordset = numbered(3);
  Visitor visitor([&recordset](std::int64_t, const Seen&) {
    recordset = {};
    return E_FAIL;
  });
  _variant_t argument = visitor.argument();
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  IDispatch* const bare = dispatch_of(recordset.get()).get();
  EXPECT_EQ(bare->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         nullptr, nullptr, nullptr),
            E_FAIL);
  EXPECT_EQ(workbench::objects_alive(), 0U);
}

TEST(ForEachInterference, LettingGoOfAClosedRecordsetReportsItsError) {
  Recordset recordset = numbered(3);
  Visitor visitor([&recordset](std::int64_t, const Seen&) {
    EXPECT_EQ(recordset->Close(), S_OK);
    recordset = {};
    return S_OK;
  });
  _variant_t argument = visitor.argument();
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  component::Exception exception;
  IDispatch* const bare = dispatch_of(recordset.get()).get();
  EXPECT_EQ(bare->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         nullptr, exception.get(), nullptr),
            DISP_E_EXCEPTION);
  EXPECT_EQ(exception->scode, kClosedCode);
  EXPECT_STREQ(exception->bstrDescription, kClosedText);
  EXPECT_EQ(workbench::objects_alive(), 0U);
}

TEST(ForEachInterference, TheCallbackMayBeFreedByItsOwnArgument) {
  // The argument variant is the caller's: when the callback clears it, only the
  // walk's own reference keeps the callback.
  const Recordset recordset = numbered(2);
  _variant_t argument;
  Visitor visitor([&argument](std::int64_t, const Seen&) {
    argument = _variant_t();
    return S_OK;
  });
  argument = visitor.argument();
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  EXPECT_EQ(visitor.callback().references(), 2U);
  EXPECT_EQ(dispatch_of(recordset.get())
                ->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         nullptr, nullptr, nullptr),
            S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
  EXPECT_EQ(visitor.callback().references(), 1U);
}

TEST(ForEachInterference, FieldsThatTheCallbackKeepsOutliveTheWalk) {
  Recordset recordset = numbered(2);
  std::vector<InterfacePtr<IZIRDBField>> kept;
  Visitor visitor([&kept](std::int64_t, const Seen& call) {
    const Answer field =
        component::method(call.parameters->rgvarg[0].pdispVal, 0, {0});
    kept.push_back(recordsets::object_in<IZIRDBField>(field, VT_DISPATCH,
                                                      IID_IZIRDBField));
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(recordset.detach()->Release(), 2U);
  for (const auto& field : kept) {
    EXPECT_EQ(recordsets::value_of(field).first, component::kNoFieldCode);
  }
}

TEST(ForEachInterference, EnumeratorsOfTheArgumentWalkTheRowOfItsMaking) {
  const Recordset recordset = numbered(3);
  Rows rows;
  Visitor visitor([&rows](std::int64_t, const Seen& call) {
    const Answer answer =
        component::get(call.parameters->rgvarg[0].pdispVal, DISPID_NEWENUM);
    const auto enumerator = recordsets::object_in<IEnumVARIANT>(
        answer, VT_UNKNOWN, IID_IEnumVARIANT);
    rows.push_back(
        recordsets::value_of(recordsets::next_of(enumerator)).second.llVal);
    return S_OK;
  });
  expect_only(for_each(recordset, visitor), S_OK);
  EXPECT_EQ(visitor.rows(), Rows({1, 2, 3}));
  EXPECT_EQ(rows, Rows({1, 1, 1}));
}

/// Does as told whenever a reference on it is dropped.
class Parting final : public IDispatch {
 public:
  explicit Parting(std::function<void()> on_release)
      : on_release_(std::move(on_release)) {}

  HRESULT QueryInterface(REFIID riid, void** object) override {
    return inner_.QueryInterface(riid, object);
  }
  std::uint32_t AddRef() override { return inner_.AddRef(); }
  std::uint32_t Release() override {
    on_release_();
    return inner_.Release();
  }
  HRESULT GetTypeInfoCount(UINT* count) override {
    return inner_.GetTypeInfoCount(count);
  }
  HRESULT GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override {
    return inner_.GetTypeInfo(index, lcid, info);
  }
  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                        DISPID* ids) override {
    return inner_.GetIDsOfNames(riid, names, count, lcid, ids);
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                 UINT*) override {
    return S_OK;
  }

 private:
  std::function<void()> on_release_;
  objects::Dispatch inner_;
};

/// The argument is lent: only the walk counts references on the callback.
Answer for_each_lending(const Recordset& recordset, Parting& callback) {
  VARIANT lent{};
  lent.vt = VT_DISPATCH;
  lent.pdispVal = &callback;
  DISPPARAMS parameters{&lent, nullptr, 1, 0};
  component::Exception exception;
  Answer answer;
  answer.result = dispatch_of(recordset.get())
                      ->Invoke(kForEach, IID_NULL, 0, DISPATCH_METHOD,
                               &parameters, nullptr, exception.get(), nullptr);
  answer.code = exception->scode;
  if (exception->bstrSource != nullptr) answer.source = exception->bstrSource;
  if (exception->bstrDescription != nullptr) {
    answer.description = exception->bstrDescription;
  }
  return answer;
}

TEST(ForEachInterference, TheCallbackIsLetGoBeforeTheRecordsetIsClosed) {
  const Recordset recordset = numbered(2);
  std::vector<std::string> places;
  Parting callback([&] { places.push_back(where(recordset)); });
  expect_only(for_each_lending(recordset, callback), S_OK);
  ASSERT_FALSE(places.empty());
  EXPECT_EQ(places.back(), "eof");
  EXPECT_EQ(where(recordset), "closed");
}

TEST(ForEachInterference, ACloseThatFailsAtTheEndFailsTheWalk) {
  const Recordset recordset = numbered(2);
  Parting callback([&] { recordset->Close(); });
  expect_exception(for_each_lending(recordset, callback), kClosedCode, kSource,
                   kClosedText);
}

TEST(ForEachInterference, WhatTheCallbackLeavesOnItsWayIsNoErrorOfTheWalk) {
  const Recordset recordset = numbered(2);
  bool refused = false;
  Parting callback([&] { refused = FAILED(recordset->MovePrevious()); });
  expect_only(for_each_lending(recordset, callback), S_OK);
  EXPECT_TRUE(refused);
  EXPECT_EQ(workbench::last_error().code, S_OK);
  EXPECT_EQ(workbench::last_error().description, L"");
}

}  // namespace
