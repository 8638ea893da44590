// SPDX-License-Identifier: MIT
//
// Connections being set up, opened and closed: the strings that reach the
// driver, what ConnectionString and State show, and what is left of a failure.

#include <gtest/gtest.h>

#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/scripted_odbc_fixture.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;

using component::Connection;
using component::connection;
using component::expect_refused;
using component::kAlreadyOpenCode;
using component::kAlreadyOpenText;
using component::kNoStringText;
using component::kOpenFailedCode;
using connection_calls::bstr;
using connection_calls::call;
using connection_calls::close_by;
using connection_calls::dispatch_of;
using connection_calls::ended;
using connection_calls::Ended;
using connection_calls::expect_done;
using connection_calls::expect_failed;
using connection_calls::kClose;
using connection_calls::kOpen;
using connection_calls::kRoads;
using connection_calls::kSource;
using connection_calls::open_by;
using connection_calls::put_string;
using connection_calls::Road;
using connection_calls::state_of;
using connection_calls::string_of;
using scripted_odbc::nth;
using values::plain;
using values::reference_to;

class ConnectionOpen : public connection_calls::ConnectionTest {};
class ConnectionString : public connection_calls::ConnectionTest {};
class ConnectionClose : public connection_calls::ConnectionTest {};

// ---------------------------------------------------------------------------
// What is sent and what is shown
// ---------------------------------------------------------------------------

struct Opening {
  const char* description;
  std::wstring stored;
  std::wstring argument;
  std::wstring user;
  std::wstring password;
  std::string sent;    ///< UTF-8
  std::wstring shown;  ///< ConnectionString afterwards
};

std::ostream& operator<<(std::ostream& out, const Opening& row) {
  return out << row.description;
}

const std::vector<Opening>& openings() {
  static const std::vector<Opening> rows{
      {"the argument alone", L"", L"DSN=scripted", L"", L"", "DSN=scripted",
       L"DSN=scripted"},
      {"the stored string", L"DSN=scripted", L"", L"", L"", "DSN=scripted",
       L"DSN=scripted"},
      {"the argument wins", L"DSN=another", L"DSN=scripted", L"", L"",
       "DSN=scripted", L"DSN=scripted"},
      {"no separator without a pair", L"", L"DSN=scripted;", L"", L"",
       "DSN=scripted;", L"DSN=scripted;"},
      {"user and password", L"", L"DSN=scripted", L"u", L"p",
       "DSN=scripted;UID=u;PWD=p;", L"DSN=scripted;UID=u;PWD=p;"},
      {"user alone", L"", L"DSN=scripted", L"u", L"", "DSN=scripted;UID=u;",
       L"DSN=scripted;UID=u;"},
      {"password alone", L"", L"DSN=scripted", L"", L"p", "DSN=scripted;PWD=p;",
       L"DSN=scripted;PWD=p;"},
      {"one separator: user", L"", L"DSN=scripted;", L"u", L"",
       "DSN=scripted;UID=u;", L"DSN=scripted;UID=u;"},
      {"one separator: password", L"", L"DSN=scripted;", L"", L"p",
       "DSN=scripted;PWD=p;", L"DSN=scripted;PWD=p;"},
      {"one separator: both", L"", L"DSN=scripted;", L"u", L"p",
       "DSN=scripted;UID=u;PWD=p;", L"DSN=scripted;UID=u;PWD=p;"},
      {"two separators stay", L"", L"DSN=scripted;;", L"u", L"",
       "DSN=scripted;;UID=u;", L"DSN=scripted;;UID=u;"},
      {"only the last character counts", L"", L"DSN=scripted; ", L"u", L"",
       "DSN=scripted; ;UID=u;", L"DSN=scripted; ;UID=u;"},
      {"pairs of the string stay", L"", L"DSN=scripted;UID=a;PWD=b", L"u", L"p",
       "DSN=scripted;UID=a;PWD=b;UID=u;PWD=p;",
       L"DSN=scripted;UID=a;PWD=b;UID=u;PWD=p;"},
      {"nothing is quoted", L"", L"DSN=scripted", L"a;b=c", L"{d} 'e'",
       "DSN=scripted;UID=a;b=c;PWD={d} 'e';",
       L"DSN=scripted;UID=a;b=c;PWD={d} 'e';"},
      {"a value that ends in a separator", L"", L"DSN=scripted", L"u;", L"p;",
       "DSN=scripted;UID=u;;PWD=p;;", L"DSN=scripted;UID=u;;PWD=p;;"},
      {"blanks are a user", L"", L"DSN=scripted", L" ", L"",
       "DSN=scripted;UID= ;", L"DSN=scripted;UID= ;"},
      {"stored, with user and password", L"DSN=scripted", L"", L"u", L"p",
       "DSN=scripted;UID=u;PWD=p;", L"DSN=scripted;UID=u;PWD=p;"},
      {"beyond ASCII", L"", L"DSN=scripted;X=\u00e9", L"j\u00f6rg",
       L"\u20ac\U0001F600",
       "DSN=scripted;X=\xC3\xA9;UID=j\xC3\xB6rg;PWD=\xE2\x82\xAC"
       "\xF0\x9F\x98\x80;",
       L"DSN=scripted;X=\u00e9;UID=j\u00f6rg;PWD=\u20ac\U0001F600;"},
      {"texts end at a zero", L"", L"DSN=scripted\0;X=1"s, L"u\0v"s, L"p\0q"s,
       "DSN=scripted;UID=u;PWD=p;", L"DSN=scripted;UID=u;PWD=p;"},
      {"a user that is a zero is none", L"", L"DSN=scripted", L"\0u"s, L"p",
       "DSN=scripted;PWD=p;", L"DSN=scripted;PWD=p;"},
      {"the stored string ends at a zero too", L"DSN=scripted\0;X=1"s, L"",
       L"u", L"", "DSN=scripted;UID=u;", L"DSN=scripted;UID=u;"}};
  return rows;
}

TEST_F(ConnectionOpen, SendsTheStringWithThePairsAndShowsWhatWasUsed) {
  for (const Opening& row : openings()) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row << ", " << road);
      script().clear_log();
      const Connection made = connection();
      if (!row.stored.empty()) expect_done(put_string(road, made, row.stored));
      EXPECT_EQ(state_of(road, made), 0);

      expect_done(open_by(road, made, row.argument, row.user, row.password));

      EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
      EXPECT_EQ(string_sent(), row.sent);
      EXPECT_EQ(string_of(road, made), row.shown);
      EXPECT_EQ(state_of(road, made), 1);
    }
  }
}

TEST_F(ConnectionOpen, NullStringsAreEmptyOnes) {
  const Connection made = connection();
  ASSERT_EQ(made->put_ConnectionString(bstr(kSource).m_s), S_OK);
  EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
  EXPECT_EQ(string_sent(), "DSN=scripted");
}

TEST_F(ConnectionOpen, OmittedArgumentsAreEmptyStrings) {
  const _variant_t source(kSource);
  const _variant_t user(L"u");
  const std::vector<std::vector<VARIANT>> calls{{}, {source}, {source, user}};
  const std::string sent[] = {"DSN=scripted", "DSN=scripted",
                              "DSN=scripted;UID=u;"};
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const Connection made = connection();
    expect_done(put_string(Road::Vtable, made, kSource));
    expect_done(ended(call(made, kOpen, calls[i])));
    EXPECT_EQ(string_sent(static_cast<int>(i) + 1), sent[i]);
  }
}

TEST_F(ConnectionOpen, OptionsMeanNothing) {
  for (const long options : {0L, -1L, 1L, values::kLargest}) {
    const Connection made = connection();
    EXPECT_EQ(made->Open(bstr(kSource).m_s, nullptr, nullptr, options), S_OK);
  }
  const _variant_t source(kSource);
  const _variant_t empty;
  const _variant_t texts[] = {_variant_t(L"12 and more"), _variant_t(-3),
                              _variant_t(2.5), _variant_t(true), empty};
  for (const VARIANT& options : texts) {
    const Connection made = connection();
    expect_done(ended(call(made, kOpen, {source, empty, empty, options})));
  }
}

TEST_F(ConnectionOpen, TurnsLateBoundArgumentsIntoTexts) {
  const VARIANT null = plain(VT_NULL, 0);
  _variant_t user(7);
  VARIANT link = reference_to(&user);
  const _variant_t password(true);
  objects::Dispatch source([](const objects::Dispatch::Call& asked) {
    *asked.result = _variant_t(kSource).Detach();
    return S_OK;
  });
  const _variant_t object(static_cast<IDispatch*>(&source));
  const Connection made = connection();

  expect_done(
      ended(call(made, kOpen, {object, reference_to(&link), password})));
  EXPECT_EQ(string_sent(), "DSN=scripted;UID=7;PWD=-1;");

  ASSERT_EQ(made->Close(), S_OK);
  expect_done(ended(call(made, kOpen, {object, null, null})));
  EXPECT_EQ(string_sent(2), "DSN=scripted");
}

TEST_F(ConnectionOpen, AZeroInFrontOfALateBoundStringMakesItEmpty) {
  const Connection made = connection();
  expect_done(put_string(Road::LateBound, made, kSource));
  expect_done(open_by(Road::LateBound, made, L"\0DSN=another"s));
  EXPECT_EQ(string_sent(), "DSN=scripted");
}

// ---------------------------------------------------------------------------
// Arguments that are refused
// ---------------------------------------------------------------------------

TEST_F(ConnectionOpen, RefusesWhatIsNoTextAndNoNumber) {
  const _variant_t source(kSource);
  const _variant_t text(L"x");
  const _variant_t number(1);
  const VARIANT no_text = plain(VT_CY, 5);
  const VARIANT null = plain(VT_NULL, 0);
  const VARIANT omitted = plain(VT_ERROR, 0x80020004);
  const VARIANT null_link = reference_to(nullptr);
  _variant_t inner(kSource);
  VARIANT by_reference = plain(VT_BYREF | VT_BSTR, 0);
  by_reference.byref = &inner.bstrVal;
  const std::vector<std::vector<VARIANT>> calls{
      {no_text},
      {null_link},
      {omitted},
      {by_reference},
      {source, no_text},
      {source, null_link},
      {source, text, no_text},
      {source, text, omitted},
      {source, text, text, text},  // no number can be read
      {source, text, text, null},
      {source, text, text, omitted},
      {source, text, text, null_link},
      {source, text, text, plain(VT_I2, 1)},
      {null, null, null, no_text}};  // beats the missing string
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(i);
    const Connection made = connection();
    expect_refused(call(made, kOpen, calls[i]), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(state_of(Road::Vtable, made), 0);
  }
  const Connection already = component::opened("DSN=scripted");
  expect_refused(call(already, kOpen, {no_text}), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
}

TEST_F(ConnectionOpen, ConvertsInOrderAndStopsAtTheFirstThatFails) {
  std::vector<int> asked;
  const auto object = [&asked](int number, HRESULT result) {
    return objects::Dispatch(
        [&asked, number, result](const objects::Dispatch::Call& seen) {
          asked.push_back(number);
          EXPECT_EQ(seen.member, DISPID_VALUE);
          if (result == S_OK) *seen.result = _variant_t(L"1").Detach();
          return result;
        });
  };
  objects::Dispatch first = object(1, S_OK);
  objects::Dispatch second = object(2, E_FAIL);
  objects::Dispatch third = object(3, S_OK);
  const auto argument = [](objects::Dispatch& each) {
    return _variant_t(static_cast<IDispatch*>(&each));
  };
  const _variant_t arguments[] = {argument(first), argument(second),
                                  argument(third)};
  const Connection made = connection();

  expect_refused(
      call(made, kOpen, {std::begin(arguments), std::end(arguments)}),
      DISP_E_TYPEMISMATCH);

  EXPECT_EQ(asked, std::vector<int>({1, 2}));
  EXPECT_EQ(script().count("SQLDriverConnect"), 0U);
}

TEST_F(ConnectionOpen, ADefaultMemberMayOpenTheConnectionFirst) {
  const Connection made = connection();
  objects::Dispatch user([&made](const objects::Dispatch::Call& asked) {
    expect_done(open_by(Road::Vtable, made, L"DSN=scripted;FIRST=1"));
    *asked.result = _variant_t(L"u").Detach();
    return S_OK;
  });
  const _variant_t source(kSource);
  const _variant_t argument(static_cast<IDispatch*>(&user));

  expect_failed(ended(call(made, kOpen, {source, argument})), kAlreadyOpenCode,
                kAlreadyOpenText);

  EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
  EXPECT_EQ(string_of(Road::Vtable, made), L"DSN=scripted;FIRST=1");
}

TEST_F(ConnectionOpen, SurvivesADefaultMemberThatReleasesTheConnection) {
  Connection made = connection();
  objects::Dispatch user([&made](const objects::Dispatch::Call& asked) {
    made = {};
    *asked.result = _variant_t(L"u").Detach();
    return S_OK;
  });
  _variant_t arguments[] = {_variant_t(static_cast<IDispatch*>(&user)),
                            _variant_t(kSource)};
  DISPPARAMS parameters{arguments, nullptr, 2, 0};
  // Without a reference of its own, unlike other calls of these tests.
  IDispatch* const bare = dispatch_of(made).get();

  EXPECT_EQ(bare->Invoke(kOpen, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         nullptr, nullptr, nullptr),
            S_OK);

  EXPECT_EQ(string_sent(), "DSN=scripted;UID=u;");
  EXPECT_EQ(script().count("SQLDisconnect"), 1U);
}

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

TEST_F(ConnectionOpen, WithoutAnyStringIsRefused) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = connection();
    expect_failed(open_by(road, made, L""), E_INVALIDARG, kNoStringText);
    expect_failed(open_by(road, made, L"", L"u", L"p"), E_INVALIDARG,
                  kNoStringText);
    EXPECT_EQ(state_of(road, made), 0);
    EXPECT_EQ(string_of(road, made), L"");
  }
  EXPECT_EQ(script().calls().size(), 0U);
}

TEST_F(ConnectionOpen, AFailureOfTheDriverLeavesTheConnectionAsItWas) {
  script().fail("SQLDriverConnect", SQL_ERROR, {"08001", 7, "no server"});
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = connection();
    expect_done(put_string(road, made, L"DSN=scripted;before"));
    for (const wchar_t* argument : {L"", L"DSN=scripted;after"}) {
      expect_failed(open_by(road, made, argument, L"u", L"p"), kOpenFailedCode,
                    error_text("08001", "no server"));
      EXPECT_EQ(string_of(road, made), L"DSN=scripted;before");
      EXPECT_EQ(state_of(road, made), 0);
    }
    expect_failed(connection_calls::execute_by(road, made, L"select"),
                  component::kClosedCode, component::kClosedText);
    expect_done(put_string(road, made, L"DSN=scripted"));
  }
  EXPECT_EQ(script().live("DBC"), 0U);
}

TEST_F(ConnectionOpen, CanBeTriedAgainAfterAFailure) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    script().reset();
    script().fail("SQLDriverConnect", nth(1), SQL_ERROR, {"08001", 7, "no"});
    const Connection made = connection();
    expect_failed(open_by(road, made, kSource, L"u"), kOpenFailedCode,
                  error_text("08001", "no"));
    expect_done(open_by(road, made, kSource, L"u"));
    EXPECT_EQ(string_of(road, made), L"DSN=scripted;UID=u;");
    EXPECT_EQ(state_of(road, made), 1);
  }
}

TEST_F(ConnectionOpen, TheDriversTextIsReadAsUtf8) {
  script().fail("SQLDriverConnect", nth(1), SQL_ERROR,
                {"08001", 1, "Verbindung gest\xC3\xB6rt \xF0\x9F\x98\x80"});
  script().fail("SQLDriverConnect", nth(2), SQL_ERROR,
                {"08001", 1, "gest\xF6rt"});
  const Connection made = connection();
  expect_failed(open_by(Road::LateBound, made, kSource), kOpenFailedCode,
                L"08001: Verbindung gest\u00f6rt \U0001F600");
  expect_failed(open_by(Road::LateBound, made, kSource), kOpenFailedCode,
                static_cast<const wchar_t*>(nullptr));
}

TEST_F(ConnectionOpen, AWarningOfTheDriverIsASuccess) {
  script().returns("SQLDriverConnect", SQL_SUCCESS_WITH_INFO,
                   {"01000", 1, "note"});
  expect_done(open_by(Road::LateBound, connection(), kSource));
}

TEST_F(ConnectionOpen, AFailureInFrontOfTheDriverIsReportedLikewise) {
  script().fail("SQLAllocHandle(ENV)", SQL_ERROR);
  const Connection made = connection();
  const Ended failed = open_by(Road::LateBound, made, kSource);
  // The real manager asks the driver later, and has a text of its own.
  const std::wstring text = is_driver()
                                ? failed.text.value_or(L"")
                                : L"Unable to allocate ODBC environment";
  EXPECT_NE(text, L"");
  expect_failed(failed, kOpenFailedCode, text.c_str());
  EXPECT_EQ(state_of(Road::Vtable, made), 0);
  EXPECT_EQ(script().live("ENV"), 0U);
}

// ---------------------------------------------------------------------------
// Open while open
// ---------------------------------------------------------------------------

TEST_F(ConnectionOpen, WhileOpenIsRefusedBeforeAnythingElse) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    script().reset();
    const Connection made = connection();
    expect_done(open_by(road, made, kSource, L"u"));
    for (const wchar_t* argument : {L"", L"DSN=another"}) {
      expect_failed(open_by(road, made, argument, L"v", L"w"), kAlreadyOpenCode,
                    kAlreadyOpenText);
    }
    EXPECT_EQ(string_of(road, made), L"DSN=scripted;UID=u;");
    EXPECT_EQ(state_of(road, made), 1);
    EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
    EXPECT_EQ(script().count("SQLDisconnect"), 0U);
    expect_done(connection_calls::execute_by(road, made, L"update"));
  }
}

// What is shown of a string can be empty: UTF-8 ends at four bytes.
TEST_F(ConnectionOpen, WhileOpenIsRefusedAlsoWithoutAnyString) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = connection();
    expect_done(open_by(
        road, made, L"DSN=scripted;X=" + std::wstring(1, wchar_t{0x200000})));
    EXPECT_EQ(string_of(road, made), L"");
    expect_failed(open_by(road, made, L""), kAlreadyOpenCode, kAlreadyOpenText);
  }
}

TEST_F(ConnectionOpen, AgainWithTheStoredStringAppendsThePairsAgain) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    script().reset();
    const Connection made = connection();
    expect_done(open_by(road, made, kSource, L"u", L"p"));
    expect_done(close_by(road, made));
    EXPECT_EQ(string_of(road, made), L"DSN=scripted;UID=u;PWD=p;");
    EXPECT_EQ(state_of(road, made), 0);

    expect_done(open_by(road, made, L"", L"u", L"p"));

    EXPECT_EQ(string_sent(2), "DSN=scripted;UID=u;PWD=p;UID=u;PWD=p;");
    EXPECT_EQ(string_of(road, made), L"DSN=scripted;UID=u;PWD=p;UID=u;PWD=p;");
    expect_done(close_by(road, made));
    expect_done(open_by(road, made, L""));
    EXPECT_EQ(string_sent(3), "DSN=scripted;UID=u;PWD=p;UID=u;PWD=p;");
  }
}

TEST_F(ConnectionOpen, TwoConnectionsAreIndependent) {
  const Connection one = opened();
  const Connection two = opened();
  ASSERT_EQ(one->Close(), S_OK);
  EXPECT_EQ(state_of(Road::Vtable, one), 0);
  EXPECT_EQ(state_of(Road::Vtable, two), 1);
  expect_done(connection_calls::execute_by(Road::Vtable, two, L"update"));
}

// ---------------------------------------------------------------------------
// ConnectionString
// ---------------------------------------------------------------------------

TEST_F(ConnectionString, IsKeptAsItIsPut) {
  const std::wstring strings[] = {L"",
                                  L"x",
                                  L"no=connection string at all",
                                  L"\u00e9\u20ac\U0001F600",
                                  L"with\0zeros\0"s,
                                  std::wstring(5000, L'x')};
  for (const std::wstring& string : strings) {
    const Connection made = connection();
    EXPECT_EQ(made->put_ConnectionString(bstr(L"before").m_s), S_OK);
    EXPECT_EQ(made->put_ConnectionString(bstr(string).m_s), S_OK);
    for (const Road road : kRoads) EXPECT_EQ(string_of(road, made), string);

    expect_done(put_string(Road::LateBound, made, L"before"));
    expect_done(put_string(Road::LateBound, made, string));
    EXPECT_EQ(string_of(Road::Vtable, made).substr(0, string.find(L'\0')),
              string.substr(0, string.find(L'\0')));
  }
  EXPECT_EQ(script().calls().size(), 0U);
}

TEST_F(ConnectionString, ANullOneIsTheEmptyOne) {
  const Connection made = connection();
  ASSERT_EQ(made->put_ConnectionString(bstr(L"before").m_s), S_OK);
  EXPECT_EQ(made->put_ConnectionString(nullptr), S_OK);
  EXPECT_EQ(string_of(Road::Vtable, made), L"");
  ASSERT_EQ(made->put_ConnectionString(bstr(L"before").m_s), S_OK);
  EXPECT_EQ(component::put(dispatch_of(made).get(), 1,
                           values::owned(plain(VT_BSTR, 0)))
                .result,
            S_OK);
  EXPECT_EQ(string_of(Road::LateBound, made), L"");
}

TEST_F(ConnectionString, IsANewCopyEveryTime) {
  const Connection made = connection();
  ASSERT_EQ(made->put_ConnectionString(bstr(L"abc").m_s), S_OK);
  _bstr_t one;
  _bstr_t two;
  ASSERT_EQ(made->get_ConnectionString(&one.m_s), S_OK);
  ASSERT_EQ(made->get_ConnectionString(&two.m_s), S_OK);
  EXPECT_NE(one.m_s, two.m_s);
  one.m_s[0] = L'x';
  EXPECT_EQ(string_of(Road::Vtable, made), L"abc");
}

TEST_F(ConnectionString, CannotBePutWhileOpen) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    expect_failed(put_string(road, made, L"DSN=another"), kAlreadyOpenCode,
                  kAlreadyOpenText);
    expect_failed(put_string(road, made, L""), kAlreadyOpenCode,
                  kAlreadyOpenText);
    EXPECT_EQ(string_of(road, made), kSource);
    expect_done(close_by(road, made));
    expect_done(put_string(road, made, L"DSN=another"));
    EXPECT_EQ(string_of(road, made), L"DSN=another");
  }
}

TEST_F(ConnectionString, NoPlaceForItOrForTheStateIsRefused) {
  for (const bool is_open : {false, true}) {
    const Connection made = is_open ? opened() : connection();
    EXPECT_EQ(made->get_ConnectionString(nullptr), E_INVALIDARG);
    EXPECT_EQ(made->get_State(nullptr), E_INVALIDARG);
  }
}

// ---------------------------------------------------------------------------
// Close and the last reference
// ---------------------------------------------------------------------------

TEST_F(ConnectionClose, AlwaysSucceeds) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    script().reset();
    const Connection made = connection();
    expect_done(close_by(road, made));
    EXPECT_EQ(script().calls().size(), 0U);

    expect_done(open_by(road, made, kSource));
    for (int i = 0; i < 3; ++i) {
      expect_done(close_by(road, made));
      EXPECT_EQ(state_of(road, made), 0);
      EXPECT_EQ(script().count("SQLDisconnect"), 1U);
      EXPECT_EQ(script().live("DBC"), 0U);
      EXPECT_EQ(script().live("ENV"), 0U);
    }
    EXPECT_EQ(string_of(road, made), kSource);
  }
}

TEST_F(ConnectionClose, TheLastReferenceDisconnects) {
  Connection made = opened();
  Connection second = made;
  made = {};
  EXPECT_EQ(script().count("SQLDisconnect"), 0U);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  second = {};
  EXPECT_EQ(script().count("SQLDisconnect"), 1U);
  EXPECT_EQ(script().live("ENV"), 0U);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(ConnectionClose, TheLastReferenceOfAClosedOneDisconnectsNothing) {
  Connection made = opened();
  ASSERT_EQ(made->Close(), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  made = {};
  EXPECT_EQ(script().count("SQLDisconnect"), 1U);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(ConnectionClose, LeavesTheCallersResultAlone) {
  const Connection made = opened();
  VARIANT result = plain(VT_I4, 77);
  DISPPARAMS none{};
  EXPECT_EQ(dispatch_of(made)->Invoke(kClose, IID_NULL, 0, DISPATCH_METHOD,
                                      &none, &result, nullptr, nullptr),
            S_OK);
  EXPECT_TRUE(values::same_bytes(result, plain(VT_I4, 77)));
}

TEST_F(ConnectionClose, ManyConnectionsOpenAndCloseOneAfterTheOther) {
  const Connection made = connection();
  for (int i = 0; i < 50; ++i) {
    expect_done(open_by(Road::Vtable, made, kSource));
    expect_done(close_by(Road::Vtable, made));
  }
  EXPECT_EQ(script().count("SQLDriverConnect"), 50U);
  EXPECT_EQ(script().count("SQLDisconnect"), 50U);
}

}  // namespace
