// SPDX-License-Identifier: MIT
//
// No memory where something goes wrong anyway: the record of an error is copied
// into the record of the thread, and from there into the host's.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <string>
#include <thread>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace without_memory;

/// An operation that fails anyway.
struct Failing {
  const char* name;
  void (*arrange)(World&);
  HRESULT (*call)(World&);  ///< NULL when there is only the late-bound one
  HRESULT (*late_call)(World&);
  HRESULT code;
  const wchar_t* source;
  const wchar_t* text;
  /// The class that the late-bound call belongs to.
  const wchar_t* own_source;
  /// What it changes all the same.
  std::wstring (*changes)(const std::wstring& state) = nullptr;
};

std::wstring behind_the_end(const std::wstring& state) {
  return replaced(state, L"row 0", L"BOF EOF");
}

constexpr const wchar_t* kCommand = L"ZIRDB.Command";

const Failing kFailing[] = {
    {"MoveNextAtTheEnd", to_the_end,
     [](World& w) { return w.recordset->MoveNext(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVENEXT, kMethod);
     },
     component::kNoCurrentRecordCode, kRecordset,
     component::kNoCurrentRecordText, kRecordset},
    {"MoveLast", nothing, [](World& w) { return w.recordset->MoveLast(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVELAST, kMethod);
     },
     component::kNotBackwardCode, kRecordset, component::kNotBackwardText,
     kRecordset, behind_the_end},
    {"MovePrevious", nothing,
     [](World& w) { return w.recordset->MovePrevious(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, kMethod);
     },
     component::kNotInThisContextCode, kRecordset,
     component::kNotInThisContextText, kRecordset},
    {"ASecondClose", [](World& w) { w.recordset->Close(); },
     [](World& w) { return w.recordset->Close(); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_CLOSE, kMethod);
     },
     component::kClosedCode, kRecordset, component::kClosedText, kRecordset},
    {"FieldsItemOfAnUnknownName",
     [](World& w) { w.argument = _variant_t(L"no such column anywhere"); },
     fields_item, late_fields_item, component::kNotFoundCode, kRecordset,
     component::kNotFoundText, kFields},
    {"NewEnumOfAClosedRecordset", [](World& w) { w.recordset->Close(); },
     nullptr,
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kGet);
     },
     component::kClosedCode, kRecordset, component::kClosedText, kFields},
    {"FieldNameOfAClosedRecordset", [](World& w) { w.recordset->Close(); },
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_NAME,
                     kGet);
     },
     component::kNoFieldCode, kRecordset, component::kNoFieldText, kField},
    {"FieldValueAtTheEnd",
     [](World& w) {
       to_the_end(w);
       const auto fields =
           component::received<IZIRDBFields>([&](IZIRDBFields** out) {
             return w.recordset->get_Fields(out);
           }).second;
       w.text_field = item(fields.get(), 1);
     },
     [](World& w) { return w.text_field->get_Value(&w.value); },
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     component::kNoCurrentRecordCode, kRecordset,
     component::kNoCurrentRecordText, kField},
    {"ParametersItemOfAnUnknownName",
     [](World& w) { w.argument = _variant_t(L"no such parameter anywhere"); },
     parameters_item, late_parameters_item, component::kNotFoundCode, kCommand,
     component::kNotFoundText, kParameters},
    {"ParameterPutTypeOfAnUnknownOne",
     [](World& w) { w.argument = _variant_t(201); },
     [](World& w) { return w.first->put_Type(201); },
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_TYPE,
                     kPut, &w.argument);
     },
     component::kBadArgumentsCode, kCommand, component::kBadArgumentsText,
     kParameter},
    {"ParameterPutDirectionOfAnUnknownOne",
     [](World& w) { w.argument = _variant_t(5); },
     [](World& w) { return w.first->put_Direction(5); },
     [](World& w) {
       return w.late(dispatch_of(w.first.get()),
                     DISPID_ZIRDB_PARAMETER_DIRECTION, kPut, &w.argument);
     },
     component::kBadArgumentsCode, kCommand, component::kBadArgumentsText,
     kParameter},
};

/// The operation itself: with its own code and the whole record or, when there
/// was none for the record, with the code that says so and no record.
void attempt_failing(const Failing& failing, Attempt& attempt) {
  World w;
  failing.arrange(w);
  const std::wstring before = w.state();

  HRESULT result = attempt.run([&] { return failing.call(w); });

  if (result == E_OUTOFMEMORY && attempt.failed()) {
    EXPECT_EQ(workbench::last_error().description, L"");
    EXPECT_EQ(w.got(), L"nothing");
    EXPECT_EQ(w.state(),
              failing.changes != nullptr ? failing.changes(before) : before);
    result = failing.call(w);
  }
  EXPECT_EQ(result, failing.code) << std::hex << result;
  EXPECT_EQ(workbench::last_error().code, failing.code);
  EXPECT_EQ(workbench::last_error().source, failing.source);
  EXPECT_EQ(workbench::last_error().description, failing.text);
  EXPECT_EQ(w.got(), L"nothing");
}

std::ostream& operator<<(std::ostream& stream, const Failing& failing) {
  return stream << failing.name;
}

class NoMemoryForAnError : public testing::TestWithParam<Failing> {};

TEST_P(NoMemoryForAnError, ItsRecordIsWholeOrThereIsNone) {
  if (GetParam().call == nullptr) return;
  everywhere([](Attempt& attempt) { attempt_failing(GetParam(), attempt); });
}

/// memory for.
void attempt_failing_late(const Failing& failing, Attempt& attempt) {
  World w;
  failing.arrange(w);
  const std::wstring before = w.state();

  HRESULT result = attempt.run([&] { return failing.late_call(w); });

  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  const std::wstring texts = shown(w.exception->bstrSource) + L": " +
                             shown(w.exception->bstrDescription);
  const std::wstring source(failing.source);
  if (!attempt.failed()) {
    EXPECT_EQ(w.exception->scode, failing.code);
    EXPECT_EQ(texts, source + L": " + failing.text);
  } else if (w.exception->scode == E_OUTOFMEMORY) {
    // The record itself had none.
    EXPECT_EQ(texts, attempt.one() ? std::wstring(failing.own_source) + L": -"
                                   : L"-: -");
  } else {
    EXPECT_EQ(w.exception->scode, failing.code);
    if (attempt.one()) {
      EXPECT_TRUE(texts == source + L": -" ||
                  texts == std::wstring(L"-: ") + failing.text);
    } else {
      EXPECT_TRUE(texts == source + L": -" || texts == L"-: -");
    }
  }
  EXPECT_EQ(w.got(), L"nothing");
  EXPECT_EQ(w.state(),
            failing.changes != nullptr ? failing.changes(before) : before);

  w.forget();
  result = failing.late_call(w);
  EXPECT_EQ(result, DISP_E_EXCEPTION);
  EXPECT_EQ(w.exception->scode, failing.code);
  EXPECT_EQ(shown(w.exception->bstrSource), source);
  EXPECT_EQ(shown(w.exception->bstrDescription), failing.text);
}

TEST_P(NoMemoryForAnError, ItsLateBoundCallLosesTextsButNotItsCode) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_failing_late(GetParam(), attempt);
            }),
            2);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForAnError, testing::ValuesIn(kFailing),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

TEST(NoMemory, ALateBoundCallWithoutAnExceptionRecordFailsTheSame) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              const auto fields = dispatch_of(w.fields.get());
              w.argument = _variant_t(1);
              DISPPARAMS arguments{&w.argument, nullptr, 1, 0};
              const HRESULT result = attempt.run([&] {
                return fields->Invoke(DISPID_ZIRDB_FIELDS_ITEM, IID_NULL, 0,
                                      kMethod, &arguments, &w.value, nullptr,
                                      nullptr);
              });
              EXPECT_EQ(result, attempt.failed() ? DISP_E_EXCEPTION : S_OK);
              EXPECT_EQ(w.got(), attempt.failed() ? L"nothing" : kTextField);
            }),
            1);
}

// The record of a thread comes to be with the thread's first error. The C
// library ends the program when it cannot note what is to be destroyed with a
// thread: the record must not depend on that.
TEST(NoMemory, AThreadsFirstErrorDoesNotEndTheProgram) {
  const auto fail_for_the_first_time = [] {
    bool known = true;
    for (const Fail mode : {Fail::One, Fail::AllFromThere}) {
      for (long fail_at = 1; fail_at <= 8; ++fail_at) {
        std::thread([&] {
          const auto recordset = workbench::recordset({"a"}, {});
          const allocator::Watch watch(mode, fail_at);
          const HRESULT result = recordset->MovePrevious();
          known = known && (result == E_OUTOFMEMORY ||
                            result == component::kNotInThisContextCode);
        }).join();
      }
    }
    std::_Exit(known ? 0 : 1);
  };
  EXPECT_EXIT(fail_for_the_first_time(), testing::ExitedWithCode(0), "");
}

// The texts of one failure do not become those of the next one.
TEST(NoMemory, ALackOfMemoryDoesNotShowTheTextOfAnEarlierError) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              w.argument = _variant_t(1);
              workbench::set_error(E_FAIL, L"the source of before",
                                   L"the text of before");
              const HRESULT result =
                  attempt.run([&] { return late_fields_item(w); });
              if (!attempt.failed()) return;
              EXPECT_EQ(result, DISP_E_EXCEPTION);
              EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY);
              EXPECT_EQ(shown(w.exception->bstrSource),
                        attempt.one() ? kFields : L"-");
              EXPECT_EQ(w.exception->bstrDescription, nullptr);
            }),
            1);
}

TEST(NoMemory, AnExceptionRecordIsFilledWithTheTextsThatThereIsMemoryFor) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              workbench::set_error(E_FAIL, L"the stored source",
                                   L"the stored description");
              component::Exception exception;
              exception->bstrSource = SysAllocString(L"of before");
              exception->bstrDescription = SysAllocString(L"of before");
              exception->bstrHelpFile = SysAllocString(L"of before");
              EXPECT_EQ(attempt.run([&] {
                workbench::fill_exception(exception.get(), E_FAIL, L"unused");
                return S_OK;
              }),
                        S_OK);
              EXPECT_EQ(exception->scode, E_FAIL);
              EXPECT_EQ(exception->bstrHelpFile, nullptr);
              const std::wstring source = shown(exception->bstrSource);
              const std::wstring text = shown(exception->bstrDescription);
              EXPECT_TRUE(source == L"the stored source" || source == L"-");
              EXPECT_TRUE(text == L"the stored description" || text == L"-");
              EXPECT_EQ(source == L"-" || text == L"-", attempt.failed());
              if (attempt.one()) {
                EXPECT_FALSE(source == L"-" && text == L"-");
              }
            }),
            2);
}

}  // namespace
