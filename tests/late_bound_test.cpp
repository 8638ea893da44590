// SPDX-License-Identifier: MIT
//
// The header that hosts in C++ copy (examples/late_bound.h): with an object of
// the test's own, which notes how it is called, and with this library's objects
// over the scripted database.
//
// Sections: an object that notes; calls; numbers; texts; bytes and arrays;
// references; objects; errors; creation; callbacks; callbacks in forEach.

#include "late_bound.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "support/scripted_odbc_fixture.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;
using late_bound::Bytes;
using late_bound::callback;
using late_bound::Error;
using late_bound::Null;
using late_bound::Object;
using late_bound::Value;
using scripted_odbc::cell;

/// What `act` throws.
template <class Act>
std::optional<Error> error_of(Act act) {
  try {
    act();
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

void expect_error(const std::optional<Error>& error, HRESULT code,
                  const std::string& source, const std::string& what) {
  ASSERT_TRUE(error.has_value()) << "nothing was thrown";
  EXPECT_EQ(error->code(), code) << std::hex << error->code();
  EXPECT_EQ(error->source(), source);
  EXPECT_EQ(error->what(), what);
}
template <class Act>
void expect_code(Act act, HRESULT code) {
  const std::optional<Error> error = error_of(act);
  ASSERT_TRUE(error.has_value()) << "nothing was thrown";
  EXPECT_EQ(error->code(), code) << std::hex << error->code();
}

// ---------------------------------------------------------------------------
// An object that notes
// ---------------------------------------------------------------------------

constexpr DISPID kKnown = 7;

/// Has one member by name, "Known", and notes every call of a member. Lives as
/// long as the test's scope, at the end of which nobody else may hold it.
class Noting final : public IDispatch {
 public:
  struct Called {
    DISPID member;
    WORD flags;
    std::vector<_variant_t> arguments;  ///< as they were written
    std::vector<DISPID> named;
    bool has_result;
  };
  using Act = std::function<HRESULT(DISPPARAMS*, VARIANT*, EXCEPINFO*)>;

  explicit Noting(Act act = {}) : act_(std::move(act)) {}
  Noting(const Noting&) = delete;
  Noting& operator=(const Noting&) = delete;
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
  virtual ~Noting() { EXPECT_EQ(references_, 1U); }

  Object object() { return Object(InterfacePtr<IDispatch>::share(this)); }
  std::uint32_t references() const { return references_; }
  std::vector<Called> called;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IDispatch) return E_NOINTERFACE;
    AddRef();
    *object = static_cast<IDispatch*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID /*lcid*/,
                        DISPID* ids) override {
    EXPECT_EQ(riid, IID_NULL);
    EXPECT_EQ(count, 1U);
    *ids = DISPID_UNKNOWN;
    if (std::wcscmp(names[0], L"Known") != 0) return DISP_E_UNKNOWNNAME;
    *ids = kKnown;
    return S_OK;
  }
  HRESULT Invoke(DISPID member, REFIID riid, LCID /*lcid*/, WORD flags,
                 DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* exception,
                 UINT* /*bad_argument*/) override {
    EXPECT_EQ(riid, IID_NULL);
    Called noted{member, flags, {}, {}, result != nullptr};
    for (UINT i = parameters->cArgs; i-- > 0;) {
      noted.arguments.emplace_back(parameters->rgvarg[i]);
    }
    noted.named.assign(parameters->rgdispidNamedArgs,
                       parameters->rgdispidNamedArgs + parameters->cNamedArgs);
    called.push_back(std::move(noted));
    return act_ ? act_(parameters, result, exception) : S_OK;
  }

 private:
  Act act_;
  std::uint32_t references_ = 1;
};

/// Fails with this EXCEPINFO.
Noting::Act raising(std::function<void(EXCEPINFO*)> fill) {
  return [fill = std::move(fill)](DISPPARAMS* /*parameters*/,
                                  VARIANT* /*result*/, EXCEPINFO* exception) {
    fill(exception);
    return DISP_E_EXCEPTION;
  };
}

// ---------------------------------------------------------------------------
// Calls
// ---------------------------------------------------------------------------

constexpr WORD kCall = DISPATCH_METHOD | DISPATCH_PROPERTYGET;

TEST(LateBoundCall, PassesItsArgumentsInTheirOrder) {
  Noting noting;
  noting.object().call("Known", 1, "two", 3.5);
  ASSERT_EQ(noting.called.size(), 1U);
  const Noting::Called& called = noting.called[0];
  EXPECT_EQ(called.member, kKnown);
  EXPECT_EQ(called.flags, kCall);
  EXPECT_TRUE(called.named.empty());
  EXPECT_TRUE(called.has_result);
  ASSERT_EQ(called.arguments.size(), 3U);
  EXPECT_EQ(called.arguments[0].llVal, 1);
  EXPECT_STREQ(called.arguments[1].bstrVal, L"two");
  EXPECT_EQ(called.arguments[2].dblVal, 3.5);
}

TEST(LateBoundCall, ReturnsTheResult) {
  Noting noting([](DISPPARAMS* /*parameters*/, VARIANT* result,
                   EXCEPINFO* /*exception*/) {
    *result = _variant_t(L"result").Detach();
    return S_OK;
  });
  const Object object = noting.object();
  EXPECT_EQ(object.call("Known").text(), "result");
  EXPECT_EQ(object.get("Known").text(), "result");
  EXPECT_EQ(object().text(), "result");
}

TEST(LateBoundCall, OfAPropertyNamesTheValueThatIsPut) {
  Noting noting;
  noting.object().put("Known", 5);
  ASSERT_EQ(noting.called.size(), 1U);
  EXPECT_EQ(noting.called[0].flags, DISPATCH_PROPERTYPUT);
  EXPECT_EQ(noting.called[0].named, std::vector<DISPID>{DISPID_PROPERTYPUT});
  EXPECT_FALSE(noting.called[0].has_result);
  ASSERT_EQ(noting.called[0].arguments.size(), 1U);
  EXPECT_EQ(noting.called[0].arguments[0].llVal, 5);
}

TEST(LateBoundCall, OfAPropertyReadsIt) {
  Noting noting;
  EXPECT_EQ(noting.object().get("Known").type(), VT_EMPTY);
  ASSERT_EQ(noting.called.size(), 1U);
  EXPECT_EQ(noting.called[0].flags, DISPATCH_PROPERTYGET);
  EXPECT_TRUE(noting.called[0].arguments.empty());
}

TEST(LateBoundCall, OfTheDefaultMemberNeedsNoName) {
  Noting noting;
  noting.object()(1, 2);
  ASSERT_EQ(noting.called.size(), 1U);
  EXPECT_EQ(noting.called[0].member, DISPID_VALUE);
  EXPECT_EQ(noting.called[0].flags, kCall);
  ASSERT_EQ(noting.called[0].arguments.size(), 2U);
  EXPECT_EQ(noting.called[0].arguments[0].llVal, 1);
}

TEST(LateBoundCall, OfAnUnknownMemberThrows) {
  Noting noting;
  expect_error(error_of([&] { noting.object().call("Nothing"); }),
               DISP_E_UNKNOWNNAME, "", "Nothing: code 80020006");
  EXPECT_TRUE(noting.called.empty());
}

TEST(LateBoundCall, OfNoObjectThrows) {
  const Object none;
  EXPECT_FALSE(none);
  expect_error(error_of([&] { none.call("Known"); }), E_INVALIDARG, "",
               "Known: no object");
  expect_error(error_of([&] { none.get("Known"); }), E_INVALIDARG, "",
               "Known: no object");
  expect_error(error_of([&] { none.put("Known", 1); }), E_INVALIDARG, "",
               "Known: no object");
  expect_error(error_of([&] { none(); }), E_INVALIDARG, "",
               "the default member: no object");
}

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

template <class Integer>
void expect_integer(Integer number, std::int64_t expected) {
  const Value value(number);
  EXPECT_EQ(value.type(), VT_I8);
  EXPECT_EQ(value.variant().llVal, expected);
  EXPECT_EQ(value.integer(), expected);
}
template <class Integer>
void expect_limits() {
  using Limits = std::numeric_limits<Integer>;
  expect_integer(Limits::min(), static_cast<std::int64_t>(Limits::min()));
  if (static_cast<std::uint64_t>(Limits::max()) <= INT64_MAX) {
    expect_integer(Limits::max(), static_cast<std::int64_t>(Limits::max()));
  } else {
    EXPECT_THROW(Value{Limits::max()}, std::out_of_range);
  }
}

TEST(LateBoundNumber, IsAnIntegerOf64Bits) {
  expect_limits<unsigned char>();
  expect_limits<short>();
  expect_limits<unsigned short>();
  expect_limits<int>();
  expect_limits<unsigned>();
  expect_limits<long>();
  expect_limits<unsigned long>();
  expect_limits<long long>();
  expect_limits<unsigned long long>();
}

TEST(LateBoundNumber, IsRefusedBeyond64BitsWithASign) {
  constexpr auto kMost = static_cast<std::uint64_t>(INT64_MAX);
  expect_integer(kMost, INT64_MAX);
  EXPECT_THROW(Value(kMost + 1), std::out_of_range);
  EXPECT_THROW(Value(UINT64_MAX), std::out_of_range);
  enum Wide : std::uint64_t { kWide = UINT64_MAX };
  EXPECT_THROW(Value{kWide}, std::out_of_range);
}

TEST(LateBoundNumber, MayBeAnEnumerator) {
  enum Plain { kMinus = -3 };
  expect_integer(kMinus, -3);
  expect_integer(ZIRDB_AD_VARWCHAR, 202);
}

TEST(LateBoundNumber, MayBeAFractionOrATruthValue) {
  EXPECT_EQ(Value(1.5).type(), VT_R8);
  EXPECT_EQ(Value(1.5F).number(), 1.5);
  EXPECT_EQ(Value(true).type(), VT_BOOL);
  EXPECT_EQ(Value(true).variant().boolVal, VARIANT_TRUE);
  EXPECT_TRUE(Value(true).truth());
  EXPECT_FALSE(Value(false).truth());
}

TEST(LateBoundNumber, IsReadFromATextAndWrittenToOne) {
  EXPECT_EQ(Value("17").integer(), 17);
  EXPECT_EQ(Value("1.5").number(), 1.5);
  EXPECT_EQ(Value(17).text(), "17");
}

TEST(LateBoundValue, IsNothingWhenEmptyOrNull) {
  EXPECT_EQ(Value().type(), VT_EMPTY);
  EXPECT_EQ(Value(Null()).type(), VT_NULL);
  EXPECT_TRUE(Value().is_nothing());
  EXPECT_TRUE(Value(Null()).is_nothing());
  EXPECT_FALSE(Value(0).is_nothing());
  EXPECT_FALSE(Value("").is_nothing());
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

TEST(LateBoundText, IsUtf8OnThisSideAndUtf32OnTheOther) {
  const struct {
    const char* utf8;
    const wchar_t* utf32;
  } kRows[] = {{"", L""},
               {"plain", L"plain"},
               {"\xC3\xA9", L"\u00E9"},
               {"\xE2\x82\xAC", L"\u20AC"},
               {"\xF0\x9F\x98\x80!", L"\U0001F600!"}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.utf8);
    for (const Value& value : {Value(row.utf8), Value(std::string(row.utf8))}) {
      ASSERT_EQ(value.type(), VT_BSTR);
      EXPECT_STREQ(value.variant().bstrVal, row.utf32);
      EXPECT_EQ(value.text(), row.utf8);
    }
  }
}

TEST(LateBoundText, ThatIsNotUtf8OrHoldsAZeroThrows) {
  for (const std::string& text :
       {"\xFF"s, "a\xC3"s, "\x80"s, "a\0b"s, "\0"s, "ab\0"s}) {
    expect_code([&] { Value{text}; }, E_INVALIDARG);
  }
  expect_code([] { Value{"\xFF"}; }, E_INVALIDARG);
}

TEST(LateBoundText, OfAMemberThatIsNotUtf8Throws) {
  Noting noting;
  expect_code([&] { noting.object().call("\xFF"); }, E_INVALIDARG);
}

TEST(LateBoundText, OfWhatHasNoneThrows) {
  expect_code([] { static_cast<void>(Value(Object()).text()); }, E_INVALIDARG);
  EXPECT_EQ(Value().text(), "");
}

// ---------------------------------------------------------------------------
// Bytes and arrays
// ---------------------------------------------------------------------------

TEST(LateBoundBytes, GoThereAndBack) {
  for (const Bytes& bytes : {Bytes{}, Bytes{0}, Bytes{1, 0, 255}}) {
    const Value value(bytes);
    EXPECT_EQ(value.type(), VT_ARRAY | VT_UI1);
    EXPECT_EQ(value.bytes(), bytes);
  }
}

TEST(LateBoundArray, HoldsValuesOfAnyKind) {
  const Value value(std::vector<Value>{1, "two", Null(), Value(), Bytes{3}});
  EXPECT_EQ(value.type(), VT_ARRAY | VT_VARIANT);
  const std::vector<Value> elements = value.elements();
  ASSERT_EQ(elements.size(), 5U);
  EXPECT_EQ(elements[0].integer(), 1);
  EXPECT_EQ(elements[1].text(), "two");
  EXPECT_EQ(elements[2].type(), VT_NULL);
  EXPECT_EQ(elements[3].type(), VT_EMPTY);
  EXPECT_EQ(elements[4].bytes(), Bytes{3});
}

TEST(LateBoundArray, MayBeEmpty) {
  const Value value(std::vector<Value>{});
  EXPECT_EQ(value.type(), VT_ARRAY | VT_VARIANT);
  EXPECT_TRUE(value.elements().empty());
}

TEST(LateBoundArray, MayHoldArrays) {
  const Value inner(std::vector<Value>{"deep"});
  const Value value(std::vector<Value>{inner, 5});
  EXPECT_EQ(value.elements()[0].elements()[0].text(), "deep");
}

TEST(LateBoundArray, OfTwoDimensionsIsRefused) {
  for (const VARTYPE type : {VT_VARIANT, VT_UI1}) {
    SAFEARRAYBOUND bounds[] = {{2, 0}, {3, 0}};
    VARIANT matrix{};
    matrix.vt = static_cast<VARTYPE>(VT_ARRAY | type);
    matrix.parray = SafeArrayCreate(type, 2, bounds);
    _variant_t owner;
    owner.Attach(matrix);
    const Value value(std::move(owner));
    expect_code([&] { static_cast<void>(value.elements()); },
                DISP_E_TYPEMISMATCH);
    expect_code([&] { static_cast<void>(value.bytes()); }, DISP_E_TYPEMISMATCH);
  }
}

TEST(LateBoundArray, IsNotReadFromAnythingElse) {
  VARIANT missing{};
  missing.vt = VT_ARRAY | VT_VARIANT;
  const Value kValues[] = {Value(), Value(1), Value("text"), Value(Bytes{1}),
                           Value(_variant_t(missing))};
  for (const Value& value : kValues) {
    expect_code([&] { static_cast<void>(value.elements()); },
                DISP_E_TYPEMISMATCH);
  }
  expect_code([] { static_cast<void>(Value(std::vector<Value>{1}).bytes()); },
              DISP_E_TYPEMISMATCH);
}

TEST(LateBoundArray, IsReadFromItsLowerBoundOn) {
  VARIANT array{};
  array.vt = VT_ARRAY | VT_UI1;
  array.parray = SafeArrayCreateVector(VT_UI1, -3, 2);
  auto* const bytes = static_cast<unsigned char*>(array.parray->pvData);
  bytes[0] = 8;
  bytes[1] = 9;
  _variant_t owner;
  owner.Attach(array);
  EXPECT_EQ(Value(std::move(owner)).bytes(), (Bytes{8, 9}));
}

TEST(LateBoundValue, CopiesAreIndependent) {
  Value text("text");
  const Value text_copy = text;
  Value array(std::vector<Value>{1, "two"});
  const Value array_copy = array;
  text = 5;
  array = Value();
  EXPECT_EQ(text_copy.text(), "text");
  EXPECT_EQ(array_copy.elements()[1].text(), "two");
}

// ---------------------------------------------------------------------------
// References
// ---------------------------------------------------------------------------

TEST(LateBoundReference, TakesWhatAMemberStores) {
  Noting noting([](DISPPARAMS* parameters, VARIANT* /*result*/,
                   EXCEPINFO* /*exception*/) {
    VARIANT& last = parameters->rgvarg[0];
    EXPECT_EQ(last.vt, VT_BYREF | VT_VARIANT);
    VariantClear(last.pvarVal);
    *last.pvarVal = _variant_t(L"stored").Detach();
    return S_OK;
  });
  Value stored("before");
  noting.object().call("Known", 1, Value::reference_to(stored));
  EXPECT_EQ(stored.text(), "stored");
}

TEST(LateBoundReference, IsWhatCopiesOfItReferTo) {
  Value value("before");
  const std::vector<Value> copies(2, Value::reference_to(value));
  value = 5;
  EXPECT_EQ(copies[1].type(), VT_BYREF | VT_VARIANT);
  EXPECT_EQ(copies[1].variant().pvarVal, &value.variant());
}

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

TEST(LateBoundObject, IsCountedForEveryCopy) {
  Noting noting;
  {
    std::vector<Object> objects(3, noting.object());
    EXPECT_EQ(noting.references(), 4U);
    const Object moved(std::move(objects[0]));
    EXPECT_EQ(noting.references(), 4U);
    objects[1] = moved;
    EXPECT_EQ(noting.references(), 4U);
    const std::vector<Value> copies(2, Value(moved));
    EXPECT_EQ(noting.references(), 6U);
    const Value array(copies);
    EXPECT_EQ(noting.references(), 8U);
    EXPECT_EQ(array.elements().size(), 2U);
    EXPECT_EQ(noting.references(), 8U);
  }
  EXPECT_EQ(noting.references(), 1U);
}

TEST(LateBoundObject, GoesThroughAValue) {
  Noting noting;
  const Value value(noting.object());
  EXPECT_EQ(value.type(), VT_DISPATCH);
  EXPECT_EQ(value.object().dispatch(), &noting);
}

TEST(LateBoundObject, IsTheCallersWhenItIsAnArgumentAndAResult) {
  Noting noting(
      [&](DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* /*exception*/) {
        return VariantCopy(result, &parameters->rgvarg[0]);
      });
  {
    const Object same = noting.object().call("Known", noting.object()).object();
    EXPECT_EQ(same.dispatch(), &noting);
    noting.called.clear();
    EXPECT_EQ(noting.references(), 2U);
  }
  EXPECT_EQ(noting.references(), 1U);
}

TEST(LateBoundObject, IsNotReadFromAnythingElse) {
  VARIANT null_unknown{};
  null_unknown.vt = VT_UNKNOWN;
  const Value kValues[] = {Value(), Value(1), Value(Object()),
                           Value(_variant_t(null_unknown))};
  for (const Value& value : kValues) {
    expect_code([&] { static_cast<void>(value.object()); },
                DISP_E_TYPEMISMATCH);
  }
}

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

constexpr HRESULT kCode = zir_hresult(0x80041234);

TEST(LateBoundError, IsWhatTheObjectReports) {
  Noting noting(raising([](EXCEPINFO* exception) {
    exception->scode = kCode;
    exception->bstrSource = SysAllocString(L"source \u20AC");
    exception->bstrDescription = SysAllocString(L"description \u00E9");
    exception->bstrHelpFile = SysAllocString(L"help");
  }));
  expect_error(error_of([&] { noting.object().call("Known"); }), kCode,
               "source \xE2\x82\xAC", "description \xC3\xA9");
}

TEST(LateBoundError, WithoutADescriptionNamesTheMemberAndTheCode) {
  Noting noting(raising([](EXCEPINFO* exception) {
    exception->scode = kCode;
    exception->bstrSource = SysAllocString(L"source");
  }));
  const Object object = noting.object();
  expect_error(error_of([&] { object.call("Known"); }), kCode, "source",
               "Known: code 80041234");
  expect_error(error_of([&] { object.put("Known", 1); }), kCode, "source",
               "Known: code 80041234");
  expect_error(error_of([&] { object(); }), kCode, "source",
               "the default member: code 80041234");
}

TEST(LateBoundError, WithoutAnythingIsAFailureAllTheSame) {
  Noting noting(raising([](EXCEPINFO* /*exception*/) {}));
  expect_error(error_of([&] { noting.object().call("Known"); }), E_FAIL, "",
               "Known: code 80004005");
}

TEST(LateBoundError, OfAnOwnNumberIsAFailure) {
  for (const HRESULT success : {S_OK, S_FALSE, HRESULT{1001}}) {
    Noting noting(raising([=](EXCEPINFO* exception) {
      exception->wCode = 1001;
      exception->scode = success;
      exception->bstrDescription = SysAllocString(L"text");
    }));
    expect_error(error_of([&] { noting.object().call("Known"); }), E_FAIL, "",
                 "text");
  }
}

TEST(LateBoundError, IsFilledInLateWhenTheObjectSaysSo) {
  Noting noting(raising([](EXCEPINFO* exception) {
    exception->pfnDeferredFillIn = [](EXCEPINFO* late) {
      late->scode = kCode;
      late->bstrSource = SysAllocString(L"late source");
      late->bstrDescription = SysAllocString(L"late text");
      return S_OK;
    };
  }));
  expect_error(error_of([&] { noting.object().call("Known"); }), kCode,
               "late source", "late text");
}

TEST(LateBoundError, OfAnyOtherResultNamesTheMemberAndTheCode) {
  for (const HRESULT result : {DISP_E_BADPARAMCOUNT, E_NOTIMPL, kCode}) {
    Noting noting([=](DISPPARAMS* /*parameters*/, VARIANT* /*result*/,
                      EXCEPINFO* /*exception*/) { return result; });
    expect_code([&] { noting.object().call("Known"); }, result);
  }
  Noting noting([](DISPPARAMS* /*parameters*/, VARIANT* /*result*/,
                   EXCEPINFO* /*exception*/) { return S_FALSE; });
  EXPECT_NO_THROW(noting.object().call("Known"));
}

TEST(LateBoundError, LetsGoOfTheArguments) {
  Noting argument;
  Noting noting(raising([](EXCEPINFO* /*exception*/) {}));
  expect_code([&] { noting.object().call("Known", argument.object()); },
              E_FAIL);
  noting.called.clear();
  EXPECT_EQ(argument.references(), 1U);
}

// ---------------------------------------------------------------------------
// Creation
// ---------------------------------------------------------------------------

/// Lets classes be found in this folder.
class Registry {
 public:
  explicit Registry(const char* folder) { setenv("REGISTRY", folder, 1); }
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;
  ~Registry() { unsetenv("REGISTRY"); }
};

TEST(LateBoundCreation, MakesAnObjectByItsName) {
  const Registry registry(REGISTRY_FOLDER);
  const Object connection("ZIRDB.Connection");
  EXPECT_EQ(connection.get("State").variant().lVal, ZIRDB_STATE_CLOSED);
}

TEST(LateBoundCreation, OfAnUnknownClassThrowsWithAHint) {
  const Registry registry(REGISTRY_FOLDER);
  for (const std::string name : {"Nothing.AtAll", "ZIRDB.Nothing", ""}) {
    const auto error = error_of([&] { Object{name.c_str()}; });
    ASSERT_TRUE(error.has_value());
    EXPECT_LT(error->code(), 0);
    const std::string what = error->what();
    EXPECT_EQ(what.find("creating " + name), 0U) << what;
    EXPECT_NE(what.find("does REGISTRY name the registry folder?"),
              std::string::npos)
        << what;
  }
}

// ---------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------

/// A call as a host makes it that may get anything wrong.
struct RawCall {
  DISPID member = DISPID_VALUE;
  WORD flags = DISPATCH_METHOD;
  std::vector<VARIANT> arguments = {};
  bool with_parameters = true;
};
HRESULT invoke(const Object& object, const RawCall& call,
               EXCEPINFO* exception = nullptr) {
  std::vector<VARIANT> arguments = call.arguments;
  DISPPARAMS parameters{};
  parameters.rgvarg = arguments.empty() ? nullptr : arguments.data();
  parameters.cArgs = static_cast<UINT>(arguments.size());
  return object.dispatch()->Invoke(call.member, IID_NULL, 0, call.flags,
                                   call.with_parameters ? &parameters : nullptr,
                                   nullptr, exception, nullptr);
}

TEST(LateBoundCallback, ReceivesItsArgumentByValueAndByReference) {
  Noting argument;
  std::vector<IDispatch*> seen;
  const Object calls =
      callback([&](const Object& each) { seen.push_back(each.dispatch()); });
  Value value(argument.object());
  calls(value);
  calls(Value::reference_to(value));
  calls(argument.object());
  EXPECT_EQ(seen, std::vector<IDispatch*>(3, &argument));
}

TEST(LateBoundCallback, RefusesOtherArguments) {
  int runs = 0;
  const Object counts = callback([&](const Object& /*each*/) { ++runs; });
  Noting argument;
  const Value object(argument.object());
  const Value text("text");
  Value number(5);
  VARIANT nowhere{};
  nowhere.vt = VT_BYREF | VT_VARIANT;
  const struct {
    const char* description = nullptr;
    RawCall call;
    HRESULT result = S_OK;
  } kRows[] = {
      {"none", {}, DISP_E_BADPARAMCOUNT},
      {"no list", {0, DISPATCH_METHOD, {}, false}, DISP_E_BADPARAMCOUNT},
      {"two",
       {0, DISPATCH_METHOD, {object.variant(), object.variant()}},
       DISP_E_BADPARAMCOUNT},
      {"text", {0, DISPATCH_METHOD, {text.variant()}}, DISP_E_TYPEMISMATCH},
      {"nothing", {0, DISPATCH_METHOD, {VARIANT()}}, DISP_E_TYPEMISMATCH},
      {"number by reference",
       {0, DISPATCH_METHOD, {Value::reference_to(number).variant()}},
       DISP_E_TYPEMISMATCH},
      {"reference that leads nowhere",
       {0, DISPATCH_METHOD, {nowhere}},
       DISP_E_TYPEMISMATCH},
      {"property get",
       {0, DISPATCH_PROPERTYGET, {object.variant()}},
       DISP_E_MEMBERNOTFOUND},
      {"property put",
       {0, DISPATCH_PROPERTYPUT, {object.variant()}},
       DISP_E_MEMBERNOTFOUND},
      {"another member",
       {1, DISPATCH_METHOD, {object.variant()}},
       DISP_E_MEMBERNOTFOUND},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    EXPECT_EQ(invoke(counts, row.call), row.result);
  }
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(invoke(counts, {0, kCall, {object.variant()}}), S_OK);
  EXPECT_EQ(runs, 1);
}

TEST(LateBoundCallback, RefusesACountWithoutArguments) {
  const Object made =
      callback([](const Object& /*each*/) { ADD_FAILURE() << "it ran"; });
  DISPPARAMS parameters{};
  parameters.cArgs = 1;
  EXPECT_EQ(made.dispatch()->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_METHOD,
                                    &parameters, nullptr, nullptr, nullptr),
            DISP_E_BADPARAMCOUNT);
}

TEST(LateBoundCallback, HasNoNames) {
  const Object made = callback([](const Object& /*each*/) {});
  std::wstring name = L"Known";
  wchar_t* names[] = {name.data(), name.data()};
  DISPID ids[] = {5, 5};
  EXPECT_EQ(made.dispatch()->GetIDsOfNames(IID_NULL, names, 2, 0, ids),
            DISP_E_UNKNOWNNAME);
  EXPECT_EQ(ids[0], DISPID_UNKNOWN);
  EXPECT_EQ(ids[1], DISPID_UNKNOWN);
  EXPECT_EQ(made.dispatch()->GetIDsOfNames(IID_NULL, names, 1, 0, nullptr),
            E_INVALIDARG);
}

TEST(LateBoundCallback, IsAnAutomationObjectOnly) {
  const Object made = callback([](const Object& /*each*/) {});
  EXPECT_TRUE(component::query<IUnknown>(made.dispatch(), IID_IUnknown));
  EXPECT_TRUE(component::query<IDispatch>(made.dispatch(), IID_IDispatch));
  EXPECT_FALSE(
      component::query<IZIRDBRecordset>(made.dispatch(), IID_IZIRDBRecordset));
  EXPECT_EQ(made.dispatch()->QueryInterface(IID_IUnknown, nullptr),
            E_INVALIDARG);
  UINT count = 5;
  EXPECT_EQ(made.dispatch()->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 0U);
}

TEST(LateBoundCallback, GoesWithItsLastReferenceAndItsFunctionWithIt) {
  Noting held;
  {
    const Object kept =
        callback([object = held.object()](const Object& /*each*/) {});
    const Value value(kept);
    EXPECT_GT(held.references(), 1U);
  }
  EXPECT_EQ(held.references(), 1U);
}

/// What a function throws, and what its callers are told.
struct Thrown {
  const char* description;
  std::function<void()> act;
  HRESULT code;
  const char* source;
  const char* text;
};

const std::vector<Thrown>& all_thrown() {
  static const std::vector<Thrown> kAll = {
      {"an error", [] { throw Error(kCode, "source", "text \xC3\xA9"); }, kCode,
       "source", "text \xC3\xA9"},
      {"an error without a failure's code",
       [] { throw Error(S_OK, "source", "text"); }, E_FAIL, "source", "text"},
      {"an error with a success code",
       [] { throw Error(HRESULT{5}, "source", "text"); }, E_FAIL, "source",
       "text"},
      {"an exception", [] { throw std::runtime_error("text"); }, E_FAIL, "",
       "text"},
      {"anything", [] { throw 5; }, E_FAIL, "", "a callback failed"},
      {"a call that fails", [] { Object().call("Member"); }, E_INVALIDARG, "",
       "Member: no object"},
  };
  return kAll;
}

TEST(LateBoundCallback, ReportsWhatItsFunctionThrows) {
  for (const Thrown& thrown : all_thrown()) {
    SCOPED_TRACE(thrown.description);
    Noting argument;
    const Object fails =
        callback([&](const Object& /*each*/) { thrown.act(); });
    expect_error(error_of([&] { fails(argument.object()); }), thrown.code,
                 thrown.source, thrown.text);
    const Value value(argument.object());
    EXPECT_EQ(invoke(fails, {0, DISPATCH_METHOD, {value.variant()}}),
              thrown.code);
  }
}

TEST(LateBoundCallback, ReplacesWhatTheErrorHeld) {
  const Object fails = callback(
      [](const Object& /*each*/) { throw Error(kCode, "source", "text"); });
  Noting argument;
  const Value value(argument.object());
  component::Exception exception;
  exception->bstrSource = SysAllocString(L"old");
  exception->bstrHelpFile = SysAllocString(L"old");
  exception->wCode = 5;
  EXPECT_EQ(
      invoke(fails, {0, DISPATCH_METHOD, {value.variant()}}, exception.get()),
      DISP_E_EXCEPTION);
  EXPECT_STREQ(exception->bstrSource, L"source");
  EXPECT_EQ(exception->bstrHelpFile, nullptr);
  EXPECT_EQ(exception->wCode, 0);
  EXPECT_EQ(exception->scode, kCode);
}

TEST(LateBoundCallback, LosesTextsThatAreNotUtf8AndNotTheFailure) {
  Noting argument;
  for (const auto& [source, text] :
       std::vector<std::pair<const char*, const char*>>{{"source", "\xFF"},
                                                        {"\xFF", "text"}}) {
    const Object fails =
        callback([source_text = source, what = text](const Object& /*each*/) {
          throw Error(kCode, source_text, what);
        });
    const Value value(argument.object());
    component::Exception exception;
    EXPECT_EQ(
        invoke(fails, {0, DISPATCH_METHOD, {value.variant()}}, exception.get()),
        DISP_E_EXCEPTION);
    EXPECT_EQ(exception->scode, kCode);
    EXPECT_EQ(exception->bstrDescription, nullptr);
  }
}

/// Ends its thread in a callback.
void* end_inside_of_a_callback(void* /*argument*/) {
  Noting argument;
  const Object ends =
      callback([](const Object& /*each*/) { pthread_exit(nullptr); });
  ends(argument.object());
  ADD_FAILURE() << "the thread goes on";
  return nullptr;
}

TEST(LateBoundCallback, LetsItsThreadEnd) {
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, end_inside_of_a_callback, nullptr),
            0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
}

// ---------------------------------------------------------------------------
// Callbacks in forEach
// ---------------------------------------------------------------------------

class LateBoundSession : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script()
        .columns({{"number", SQL_BIGINT}, {"text", SQL_VARCHAR}})
        .row({cell(1), cell("one")})
        .row({cell(2), cell("two \xE2\x82\xAC")});
  }
  static Object opened() {
    Object connection(component::dispatch_of(component::connection().get()));
    connection.call("Open", connection_string());
    return connection;
  }
};

TEST_F(LateBoundSession, WalksThroughTheRows) {
  const Object connection = opened();
  const Object rows = connection.call("Execute", "select").object();
  std::vector<std::string> seen;
  rows.call("forEach", callback([&](const Object& fields) {
              seen.push_back(fields("number").object().get("Value").text() +
                             " " + fields("text").object().get("Value").text());
            }));
  EXPECT_EQ(seen, (std::vector<std::string>{"1 one", "2 two \xE2\x82\xAC"}));
  connection.call("Close");
}

TEST_F(LateBoundSession, TakesTheNumberOfRows) {
  script().result_for("update", {{}, {}, 3});
  Value affected;
  opened().call("Execute", "update", Value::reference_to(affected));
  EXPECT_EQ(affected.integer(), 3);
}

TEST_F(LateBoundSession, TakesTheValuesThatComeBackIntoAnArray) {
  const Object connection = opened();
  const Object command(component::dispatch_of(component::command().get()));
  command.put("ActiveConnection", connection);
  command.put("CommandText", "select ?");
  Value array(std::vector<Value>{5, Null()});
  command.call("Execute", Value(), array);
  EXPECT_EQ(array.elements()[0].integer(), 5) << "passed as a copy";
  script().output(1, cell(77));
  Value slots(std::vector<Value>{Value(), 5});
  command.call("Execute", Value(), Value::reference_to(slots));
  EXPECT_EQ(slots.elements()[0].integer(), 77);
  EXPECT_EQ(slots.elements()[1].integer(), 5);
}

TEST_F(LateBoundSession, ReportsTheErrorsOfTheLibrary) {
  const Object connection = opened();
  connection.call("Close");
  const auto error = error_of([&] { connection.call("Execute", "select"); });
  expect_error(error, component::kClosedCode, "ZIRDB.Connection",
               "Operation is not allowed when the object is closed.");
}

TEST_F(LateBoundSession, EndsForEachWithWhatACallbackThrows) {
  for (const Thrown& thrown : all_thrown()) {
    SCOPED_TRACE(thrown.description);
    const Object connection = opened();
    const Object rows = connection.call("Execute", "select").object();
    int runs = 0;
    const auto error = error_of([&] {
      rows.call("forEach", callback([&](const Object& /*fields*/) {
                  ++runs;
                  thrown.act();
                }));
    });
    expect_error(error, thrown.code, thrown.source, thrown.text);
    EXPECT_EQ(runs, 1);
  }
}

}  // namespace
