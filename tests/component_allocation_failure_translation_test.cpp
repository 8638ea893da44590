// SPDX-License-Identifier: MIT
//
// No memory on the way of a parameter's value to the database and back, and on
// that of a script's array.
//
// Sections: translation; arrays of scripts.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using namespace without_memory;

// ---------------------------------------------------------------------------
// Translation
// ---------------------------------------------------------------------------

/// A parameter that is sent as something that needs memory.
struct Sent {
  const char* name;
  long type;
  _variant_t value;
  std::string bytes;
};

std::vector<Sent> sent_parameters() {
  const _variant_t text(L"a text that is sent \u00E9");
  const std::string utf8 = "a text that is sent \xC3\xA9";
  _variant_t date(45292.75);
  date.vt = VT_DATE;
  return {
      {"VarcharOfAText", ZIRDB_AD_VARCHAR, text, utf8},
      {"VarwcharOfAText", ZIRDB_AD_VARWCHAR, text, utf8},
      {"GuidOfAText", ZIRDB_AD_GUID, text, utf8},
      {"AText", ZIRDB_AD_EMPTY, text, utf8},
      {"VarcharOfANumber", ZIRDB_AD_VARCHAR, _variant_t(1234567890123456789),
       "1234567890123456789"},
      {"ADate", ZIRDB_AD_EMPTY, date, "2024/01/01 18:00:00"},
      {"Varbinary", ZIRDB_AD_VARBINARY, bytes_value(Blob(40, 'b')),
       std::string(40, 'b')},
      {"Bytes", ZIRDB_AD_EMPTY, bytes_value(Blob(40, 'b')),
       std::string(40, 'b')},
  };
}

std::ostream& operator<<(std::ostream& stream, const Sent& sent) {
  return stream << sent.name;
}

class NoMemoryToSend : public testing::TestWithParam<Sent> {};

// What has no memory is never sent as an empty text.
TEST_P(NoMemoryToSend, AParameterIsTranslatedOrFails) {
  const Sent& sent = GetParam();
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              const auto parameter = workbench::parameter(
                  L"a parameter", sent.type, 1, 0, sent.value);
              const std::wstring before = shown(parameter.get());
              ZirdbOdbcParameter odbc;

              HRESULT result = attempt.run(
                  [&] { return workbench::to_odbc(parameter.get(), &odbc); });

              EXPECT_EQ(shown(parameter.get()), before);
              if (attempt.failed()) {
                // The second one is the runtime's, of conversions.
                EXPECT_TRUE(result == E_OUTOFMEMORY || result == E_INVALIDARG)
                    << std::hex << result;
                result = workbench::to_odbc(parameter.get(), &odbc);
              }
              EXPECT_EQ(result, S_OK);
              const auto& binary = odbc.value.binary_value;
              EXPECT_EQ(odbc.value.kind == ZirdbOdbcValueKind::Binary
                            ? std::string(binary.begin(), binary.end())
                            : odbc.value.text_value,
                        sent.bytes);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryToSend,
                         testing::ValuesIn(sent_parameters()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// An array that had no memory for its bytes must be usable again.
TEST(NoMemory, BytesAreReadOrFailAndTheirArrayIsUnlocked) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const _variant_t array = bytes_value(Blob(40, 'b'));
              Blob bytes;
              const HRESULT result = attempt.run_inner([&] {
                return workbench::variant_to_byte_array(&array, &bytes);
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(array.parray->cLocks, 0U);
              if (!attempt.failed()) {
                EXPECT_EQ(bytes, Blob(40, 'b'));
              }
            }),
            1);
}

TEST(NoMemory, BytesBecomeAnArrayOrNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const Blob bytes(40, 'b');
              _variant_t array;
              const HRESULT result = attempt.run([&] {
                return workbench::make_byte_array_variant(bytes, &array);
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(shown(array),
                        attempt.failed() ? L"empty" : std::wstring(40, L'b'));
            }),
            2);
}

ZirdbOdbcParameter result_of(ZirdbOdbcValueKind kind, long type = 0) {
  ZirdbOdbcParameter odbc;
  odbc.type = type;
  odbc.value.kind = kind;
  odbc.value.text_value = "a text that came back";
  odbc.value.binary_value = Blob(40, 'c');
  odbc.value.int64_value = 42;
  return odbc;
}

/// Four parameters and what came back for each.
struct Results {
  Results() {
    for (int i = 0; i < 4; ++i) {
      parameters->Append(workbench::parameter(L"a parameter", 0, 1, 0,
                                              _variant_t(L"the old value"))
                             .get());
    }
  }

  std::wstring value(int i) const {
    _variant_t value;
    const auto parameter =
        component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
          return parameters->Item(_variant_t(i), out);
        }).second;
    EXPECT_EQ(parameter->get_Value(&value), S_OK);
    return shown(value);
  }

  InterfacePtr<IZIRDBParameters> parameters = workbench::parameters();
  std::vector<ZirdbOdbcParameter> odbc = {
      result_of(ZirdbOdbcValueKind::Text),
      result_of(ZirdbOdbcValueKind::Binary),
      result_of(ZirdbOdbcValueKind::Int64, ZIRDB_AD_INTEGER),
      result_of(ZirdbOdbcValueKind::Text)};
};

const std::wstring kWrittenBack[] = {L"a text that came back",
                                     std::wstring(40, L'c'), L"42",
                                     L"a text that came back"};

// Those before the one that had none are refreshed, those behind it are not.
TEST(NoMemory, WriteBackStopsWhereItLackedMemory) {
  EXPECT_GE(
      everywhere([](Attempt& attempt) {
        const Results results;
        const HRESULT result = attempt.run([&] {
          return workbench::write_back(results.parameters.get(), results.odbc);
        });
        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
        int refreshed = 0;
        while (refreshed < 4 &&
               results.value(refreshed) == kWrittenBack[refreshed]) {
          ++refreshed;
        }
        EXPECT_EQ(refreshed < 4, attempt.failed());
        for (int i = refreshed; i < 4; ++i) {
          EXPECT_EQ(results.value(i), L"the old value") << i;
        }
        EXPECT_EQ(workbench::write_back(results.parameters.get(), results.odbc),
                  S_OK);
        for (int i = 0; i < 4; ++i) {
          EXPECT_EQ(results.value(i), kWrittenBack[i]) << i;
        }
      }),
      3);
}

TEST(NoMemory, ClearingOutputsNeedsNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              const World w;
              attempt.run([&] {
                workbench::clear_outputs(w.parameters.get());
                return S_OK;
              });
            }),
            0);
}

TEST(NoMemory, TextsAreConvertedOrThrowAndLeaveNothing) {
  const std::function<bool()> conversions[] = {
      [] {
        return workbench::utf8_from_bstr(L"a text that is sent \u00E9") ==
               "a text that is sent \xC3\xA9";
      },
      [] {
        return workbench::utf32_from_utf8("a text that is sent \xC3\xA9") ==
               L"a text that is sent \u00E9";
      },
      [text = _bstr_t(L"a text that is sent \u00E9")] {
        return workbench::wstring_from_bstr(text.m_s) == text.m_s;
      },
  };
  for (const auto& conversion : conversions) {
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                bool right = false;
                const HRESULT result = attempt.run([&] {
                  right = conversion();
                  return S_OK;
                });
                EXPECT_EQ(result, attempt.failed() ? kThrown : S_OK);
                EXPECT_EQ(right, !attempt.failed());
              }),
              1);
  }
}

TEST(NoMemory, ATextIsReadOrFailsAndIsNeverAnEmptyOne) {
  for (const _variant_t& value :
       {_variant_t(L"a text of a variant"), _variant_t(1234567890123)}) {
    const std::wstring expected =
        value.vt == VT_BSTR ? L"a text of a variant" : L"1234567890123";
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                _bstr_t text;
                const HRESULT result = attempt.run_inner([&] {
                  return workbench::variant_to_bstr_value(&value, &text);
                });
                EXPECT_EQ(SUCCEEDED(result), !attempt.failed());
                if (SUCCEEDED(result)) {
                  EXPECT_EQ(shown(text.m_s), expected);
                }
              }),
              1);
  }
}

// ---------------------------------------------------------------------------
// Arrays of scripts
// ---------------------------------------------------------------------------

/// Array("a text of a script", 5, bytes, Empty, "another text of a script").
_variant_t script_array() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 5);
  {
    const SafeArrayAccess access(array);
    auto* const elements = access.elements<VARIANT>();
    elements[0] = _variant_t(L"a text of a script").Detach();
    elements[1] = _variant_t(5).Detach();
    elements[2] = bytes_value(Blob(20, 'd')).Detach();
    elements[4] = _variant_t(L"another text of a script").Detach();
  }
  return allocator::array_of(array, VT_VARIANT);
}

const std::wstring kFromArray[] = {
    L"p1 = a text of a script (202, 1, 18); ",       L"p2 = 5 (20, 1, 0); ",
    L"p3 = dddddddddddddddddddd (204, 1, 0); ",      L"p4 = empty (20, 3, 0); ",
    L"p5 = another text of a script (202, 1, 24); ",
};

// Those that were built stay, each of them whole.
TEST(NoMemory, AnArrayBecomesParametersUpToTheOneThatLackedMemory) {
  EXPECT_GE(
      everywhere([](Attempt& attempt) {
        const _variant_t array = script_array();
        InterfacePtr<IZIRDBParameters> parameters;
        HRESULT result = attempt.run(
            [&] { return workbench::from_array(&array, &parameters); });
        // The list that is to be filled is not the component's.
        const HRESULT lack = parameters ? E_OUTOFMEMORY : kThrown;
        EXPECT_EQ(result, attempt.failed() ? lack : S_OK) << std::hex << result;
        EXPECT_EQ(array.parray->cLocks, 0U);
        const std::wstring built = parameters ? shown(parameters.get()) : L"";
        std::wstring whole;
        for (const std::wstring& one : kFromArray) {
          if (built.size() <= whole.size()) break;
          whole += one;
        }
        EXPECT_EQ(built, whole);

        parameters = {};
        result = workbench::from_array(&array, &parameters);
        EXPECT_EQ(result, S_OK);
        whole.clear();
        for (const std::wstring& one : kFromArray) whole += one;
        ASSERT_TRUE(parameters);
        EXPECT_EQ(shown(parameters.get()), whole);
      }),
      6);
}

// Elements before the one that had none are refreshed; those behind it are as
// they were.
TEST(NoMemory, AnArrayIsRefreshedUpToTheElementThatLackedMemory) {
  EXPECT_GE(
      everywhere([](Attempt& attempt) {
        const World w;
        w.parameters->Append(w.third.get());
        w.third->put_Value(_variant_t(L"the third value"));
        const _variant_t array = script_array();
        const HRESULT result = attempt.run([&] {
          return workbench::write_back_array(w.parameters.get(), array.parray);
        });
        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK)
            << std::hex << result;
        ASSERT_EQ(array.parray->cLocks, 0U);
        const auto elements = [&] {
          std::vector<std::wstring> all;
          const SafeArrayAccess access(array.parray);
          for (int i = 0; i < 5; ++i) {
            all.push_back(shown(access.elements<VARIANT>()[i]));
          }
          return all;
        };
        const std::vector<std::wstring> old_ones = {
            L"a text of a script", L"5", std::wstring(20, L'd'), L"empty",
            L"another text of a script"};
        const std::vector<std::wstring> new_ones = {
            L"the first value", L"2", L"the third value", L"empty",
            L"another text of a script"};
        std::size_t at = 0;
        while (at < 5 && elements()[at] == new_ones[at]) ++at;
        EXPECT_EQ(at < 5, attempt.failed());
        // The one itself has been cleared already, or not yet.
        if (at < 5) {
          EXPECT_TRUE(elements()[at] == L"empty" ||
                      elements()[at] == old_ones[at])
              << at;
        }
        for (std::size_t i = at + 1; i < 5; ++i) {
          EXPECT_EQ(elements()[i], old_ones[i]) << i;
        }
        EXPECT_EQ(workbench::write_back_array(w.parameters.get(), array.parray),
                  S_OK);
        EXPECT_EQ(elements(), new_ones);
      }),
      2);
}

}  // namespace
