// SPDX-License-Identifier: MIT
//
// No memory, at every single place where the runtime asks for some: each call
// is repeated with its first, second, third, ... allocation failing until none
// fails any more, once with that allocation alone and once with all that
// follow. Every time the call has a result that is known, nothing it made stays
// behind, and what it worked on is whole. What the C library and the loader ask
// for inside of a call fails like the rest.
//
// Sections: attempts; strings and records; variants and arrays; coercion;
// operators; activation; object context.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "component_fixture/registry.h"
#include "runtime_allocator.h"
#include "support/objects.h"
#include "support/printed.h"
#include "zir.h"

namespace {

using namespace allocator;

// ---------------------------------------------------------------------------
// Attempts
// ---------------------------------------------------------------------------

/// The result of a call that ran out of memory by exception: no code at all.
constexpr HRESULT kThrown = 0x0BAD;

/// One run of a call with some allocation failing.
class Attempt {
 public:
  Attempt(Fail mode, long fail_at) : mode_(mode), fail_at_(fail_at) {}

  /// The result of the call; nothing but the call is watched.
  template <class Call>
  auto run(const Call& call) {
    const Noted noted(*this);
    const Watch watch(mode_, fail_at_);
    return call();
  }
  /// The same for a call that may throw.
  template <class Call>
  HRESULT run_throwing(const Call& call) {
    return run([&]() -> HRESULT {
      try {
        return call();
      } catch (const std::bad_alloc&) {
        return kThrown;
      }
    });
  }

  /// The same for a call that prints; what it prints is lost.
  template <class Call>
  HRESULT run_printing(const Call& call) {
    const printed::Capture capture;
    return run(call);
  }

  /// Whether an allocation was refused.
  bool failed() const { return failed_; }
  long fail_at() const { return fail_at_; }
  bool one() const { return mode_ == Fail::One; }

 private:
  /// Notes at the end of a call whether it got as far as the failure.
  class Noted {
   public:
    explicit Noted(Attempt& attempt) : attempt_(attempt) {}
    Noted(const Noted&) = delete;
    Noted& operator=(const Noted&) = delete;
    ~Noted() {
      if (g_watched.requests >= attempt_.fail_at_) attempt_.failed_ = true;
    }

   private:
    Attempt& attempt_;
  };

  Fail mode_;
  long fail_at_;
  bool failed_ = false;
};

enum class Leaks { Checked, Ignored };

/// Runs the body, which makes one attempt and clears up behind it, until no
/// allocation is left to fail. The number of failures with one at a time.
long everywhere(const std::function<void(Attempt&)>& body,
                Leaks leaks = Leaks::Checked) {
  long failures = 0;
  for (const Fail mode : {Fail::One, Fail::AllFromThere}) {
    for (long fail_at = 1;; ++fail_at) {
      SCOPED_TRACE("allocation " + std::to_string(fail_at) +
                   (mode == Fail::One ? "" : " and all behind"));
      const long live = g_watched.live;
      Attempt attempt(mode, fail_at);
      body(attempt);
      const bool failed = attempt.failed();
      if (leaks == Leaks::Checked) {
        EXPECT_EQ(g_watched.live, live);
      }
      if (!failed) break;
      if (mode == Fail::One) ++failures;
      if (testing::Test::HasFailure()) return failures;
    }
  }
  return failures;
}

/// The content as text; "-" for a text that had no memory. Arrays are walked.
std::wstring shown(const VARIANT& value);

std::wstring shown(BSTR string) {
  if (string == nullptr) return L"-";
  return std::wstring(string, SysStringLen(string));
}

std::wstring shown_array(SAFEARRAY* array) {
  if (array == nullptr) return L"no array";
  std::wstring all = L"[";
  const SafeArrayAccess access(array);
  for (std::size_t i = 0; i < array->rgsabound[0].cElements; ++i) {
    if ((array->fFeatures & FADF_VARIANT) != 0) {
      all += shown(access.elements<VARIANT>()[i]) + L";";
    } else if ((array->fFeatures & FADF_BSTR) != 0) {
      all += shown(access.elements<BSTR>()[i]) + L";";
    } else {
      all += std::to_wstring(access.elements<BYTE>()[i]) + L";";
    }
  }
  return all + L"]";
}

std::wstring shown(const VARIANT& value) {
  if ((value.vt & VT_ARRAY) != 0) return shown_array(value.parray);
  switch (value.vt) {
    case VT_BSTR:
      return shown(value.bstrVal);
    case VT_LPSTR:
      return value.pszVal == nullptr ? L"-" : L"lpstr";
    case VT_UNKNOWN:
      return value.punkVal == nullptr ? L"no object" : L"object";
    default:
      return std::to_wstring(value.vt) + L":" + std::to_wstring(value.llVal);
  }
}

// ---------------------------------------------------------------------------
// Strings and records
// ---------------------------------------------------------------------------

TEST(NoMemory, AStringIsNull) {
  const std::function<BSTR()> makers[] = {
      [] { return SysAllocString(L"text"); },
      [] { return SysAllocString(L""); },
      [] { return SysAllocStringLen(L"text", 2); },
      [] { return SysAllocStringLen(nullptr, 2); },
      [] { return SysAllocStringByteLen("text", 4); },
      [] { return SysAllocStringByteLen(nullptr, 4); },
  };
  for (const auto& make : makers) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                auto* const string = attempt.run(make);
                EXPECT_EQ(string == nullptr, attempt.failed());
                SysFreeString(string);
              }),
              1);
  }
}

TEST(NoMemory, ACountThatWrapsAroundIsNull) {
  const wchar_t one = L'x';
  BSTR string = nullptr;
  EXPECT_TRUE(requests_of([&] {
                string = SysAllocStringLen(&one, 0xFFFFFFFF);
              }).size() <= 1);
  EXPECT_EQ(string, nullptr);
}

TEST(NoMemory, AnExceptionRecordLosesThatText) {
  _bstr_t source(L"source");
  _bstr_t description(L"description");
  _bstr_t help_file(L"help");
  EXCEPINFO info{};
  info.wCode = 1;
  info.bstrSource = source.m_s;
  info.bstrDescription = description.m_s;
  info.bstrHelpFile = help_file.m_s;
  info.dwHelpContext = 2;
  info.scode = E_FAIL;

  EXPECT_EQ(
      everywhere([&](Attempt& attempt) {
        EXCEPINFO copy{};

        EXPECT_EQ(attempt.run([&] { return ExcepinfoCopy(&copy, &info); }),
                  S_OK);

        const BSTR copies[] = {copy.bstrSource, copy.bstrDescription,
                               copy.bstrHelpFile};
        for (long i = 1; i <= 3; ++i) {
          const bool there =
              attempt.one() ? i != attempt.fail_at() : i < attempt.fail_at();
          EXPECT_EQ(copies[i - 1] != nullptr, there) << i;
        }
        EXPECT_EQ(copy.wCode, 1);
        EXPECT_EQ(copy.dwHelpContext, 2U);
        EXPECT_EQ(copy.scode, E_FAIL);
        ExcepinfoClear(&copy);
      }),
      3);
}

TEST(NoMemory, OwnersThrowAndKeepWhatTheyHad) {
  const _bstr_t source(L"source");
  const _str_t narrow("narrow");
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              _bstr_t target(L"before");
              const HRESULT result = attempt.run_throwing([&] {
                target = source;
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? kThrown : S_OK);
              EXPECT_STREQ(target, attempt.failed() ? L"before" : L"source");
            }),
            1);
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              _str_t target("before");
              const HRESULT result = attempt.run_throwing([&] {
                target = narrow;
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? kThrown : S_OK);
              EXPECT_STREQ(target, attempt.failed() ? "before" : "narrow");
            }),
            1);
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              _variant_t target(L"before");
              const HRESULT result = attempt.run_throwing([&] {
                target = L"source";
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? kThrown : S_OK);
              EXPECT_EQ(shown(target),
                        attempt.failed() ? L"before" : L"source");
            }),
            1);
}

// ---------------------------------------------------------------------------
// Variants and arrays
// ---------------------------------------------------------------------------

TEST(NoMemory, ACopiedTextIsNullAndTheCopySucceeds) {
  for (const _variant_t& source : {text(L"text"), text(L""), lpstr("text")}) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t copy(L"before");

                EXPECT_EQ(
                    attempt.run([&] { return VariantCopy(&copy, &source); }),
                    S_OK);

                EXPECT_EQ(copy.vt, source.vt);
                EXPECT_EQ(copy.bstrVal == nullptr, attempt.failed());
              }),
              1);
  }
}

constexpr VARTYPE kArrayTypes[] = {VT_VARIANT, VT_BSTR, VT_UI1};

TEST(NoMemory, AnArrayIsNull) {
  for (const VARTYPE type : kArrayTypes) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                SAFEARRAY* const array = attempt.run(
                    [&] { return SafeArrayCreateVector(type, 0, 5); });
                EXPECT_EQ(array == nullptr, attempt.failed());
                if (array != nullptr) SafeArrayDestroy(array);
              }),
              2)
        << type;
  }
}

TEST(NoMemory, AnArrayOfNothingIsNull) {
  for (const VARTYPE type : kArrayTypes) {
    everywhere([&](Attempt& attempt) {
      SAFEARRAY* const array =
          attempt.run([&] { return SafeArrayCreate(type, 0, nullptr); });
      if (array != nullptr) SafeArrayDestroy(array);
    });
  }
}

TEST(NoMemory, ACopiedArrayOfBytesIsNull) {
  const _variant_t source =
      array_of(SafeArrayCreateVector(VT_UI1, 0, 3), VT_UI1);
  std::memcpy(source.parray->pvData, "\1\2\3", 3);
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              // Whatever it points to must be gone.
              SAFEARRAY* copy = source.parray;
              const HRESULT result = attempt.run(
                  [&] { return SafeArrayCopy(source.parray, &copy); });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(shown_array(copy),
                        attempt.failed() ? L"no array" : L"[1;2;3;]");
              if (copy != nullptr) SafeArrayDestroy(copy);
            }),
            2);
}

// Copies of elements do not fail: an element whose text found no memory is
// there without it, like the copy of such a value on its own.
TEST(NoMemory, ACopiedArrayOfTextsIsNullOrLacksATextOrAll) {
  const _variant_t source =
      array_of(SafeArrayCreateVector(VT_BSTR, 0, 2), VT_BSTR);
  {
    const SafeArrayAccess access(source.parray);
    access.elements<BSTR>()[0] = SysAllocString(L"one");
    access.elements<BSTR>()[1] = SysAllocString(L"two");
  }
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              SAFEARRAY* copy = source.parray;
              const HRESULT result = attempt.run(
                  [&] { return SafeArrayCopy(source.parray, &copy); });
              if (!attempt.failed()) {
                EXPECT_EQ(result, S_OK);
                EXPECT_EQ(shown_array(copy), L"[one;two;]");
              } else if (result == S_OK) {
                EXPECT_NE(shown_array(copy).find(L"-;"), std::wstring::npos);
              } else {
                EXPECT_EQ(result, E_OUTOFMEMORY);
                EXPECT_EQ(copy, nullptr);
              }
              if (copy != nullptr) SafeArrayDestroy(copy);
            }),
            4);
}

TEST(NoMemory, ACopiedNestedArrayIsWholeOrLacksWhatHadNoMemory) {
  objects::Unknown object;
  {
    const _variant_t source = nested_array(&object);
    const std::wstring whole = shown(source);
    const std::uint32_t references = object.references();
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                {
                  _variant_t copy(L"before");
                  EXPECT_EQ(
                      attempt.run([&] { return VariantCopy(&copy, &source); }),
                      S_OK);
                  EXPECT_EQ(copy.vt, source.vt);
                  EXPECT_EQ(shown(copy) == whole, !attempt.failed());
                }
                EXPECT_EQ(object.references(), references);
                EXPECT_EQ(shown(source), whole);
              }),
              7);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(NoMemory, ACopiedNestedArrayNeverSucceedsWithHalfOfItsBlocks) {
  objects::Unknown object;
  {
    const _variant_t source = nested_array(&object);
    everywhere([&](Attempt& attempt) {
      SAFEARRAY* copy = source.parray;
      const HRESULT result =
          attempt.run([&] { return SafeArrayCopy(source.parray, &copy); });
      EXPECT_TRUE(result == S_OK || result == E_OUTOFMEMORY);
      EXPECT_EQ(copy == nullptr, result != S_OK);
      if (copy == nullptr) return;
      EXPECT_EQ(copy->rgsabound[0].cElements, 4U);
      EXPECT_EQ(copy->rgsabound[0].lLbound, 7);
      EXPECT_EQ(SafeArrayDestroy(copy), S_OK);
    });
  }
  EXPECT_EQ(object.references(), 1U);
}

_variant_t nested_in(int depth, IUnknown* object) {
  _variant_t value(object);
  for (int i = 0; i < depth; ++i) {
    SAFEARRAY* const around = SafeArrayCreateVector(VT_VARIANT, 0, 1);
    *static_cast<VARIANT*>(around->pvData) = value.Detach();
    value = array_of(around, VT_VARIANT);
  }
  return value;
}

TEST(NoMemory, NestedArraysAreDestroyedHoweverDeepTheyAre) {
  objects::Unknown object;
  _variant_t deep = nested_in(200'000, &object);
  {
    const Watch watch(Fail::AllFromThere, 1);
    VariantClear(&deep);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(NoMemory, NestedArraysAreCopiedAsFarAsThereIsMemory) {
  objects::Unknown object;
  const _variant_t deep = nested_in(100, &object);
  everywhere([&](Attempt& attempt) {
    _variant_t copy;
    EXPECT_EQ(attempt.run([&] { return VariantCopy(&copy, &deep); }), S_OK);
    EXPECT_EQ(object.references(), attempt.failed() ? 2U : 3U);
  });
  EXPECT_EQ(object.references(), 2U);
}

// ---------------------------------------------------------------------------
// Coercion
// ---------------------------------------------------------------------------

/// Everything that is converted into something that needs memory.
struct Conversion {
  _variant_t source;
  VARTYPE type;
  std::wstring result;
};

std::vector<Conversion> conversions(IDispatch* number) {
  return {{_variant_t(), VT_BSTR, L""},
          {scalar(VT_NULL, 0), VT_BSTR, L""},
          {scalar(VT_I2, 12), VT_BSTR, L"12"},
          {scalar(VT_I4, 12), VT_BSTR, L"12"},
          {scalar(VT_UI1, 12), VT_BSTR, L"12"},
          {scalar(VT_I8, -12), VT_BSTR, L"-12"},
          {scalar(VT_UI8, 12), VT_BSTR, L"12"},
          {_variant_t(true), VT_BSTR, L"-1"},
          {_variant_t(0.5), VT_BSTR, L"0.5"},
          {date(0.5), VT_BSTR, L"12:00:00"},
          {date(45292.0), VT_BSTR, L"2024/01/01"},
          {date(45292.75), VT_BSTR, L"2024/01/01 18:00:00"},
          {lpstr("abc"), VT_BSTR, std::wstring(L"abc\0", 4)},
          {lpstr("\xFF"), VT_BSTR, L""},
          {_variant_t(number), VT_BSTR, L"12"},
          {text(L"text"), VT_LPSTR, L"lpstr"}};
}

/// An object whose default member is the number 12.
objects::Dispatch number_object() {
  return objects::Dispatch([](const objects::Dispatch::Call& call) {
    call.result->vt = VT_I8;
    call.result->llVal = 12;
    return S_OK;
  });
}

TEST(NoMemory, AConversionFailsAndItsTargetIsEmpty) {
  objects::Dispatch number = number_object();
  for (const Conversion& conversion : conversions(&number)) {
    SCOPED_TRACE(conversion.source.vt);
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t target(L"before");
                const HRESULT result = attempt.run([&] {
                  return VariantChangeType(&target, &conversion.source, 0,
                                           conversion.type);
                });
                if (attempt.failed()) {
                  EXPECT_EQ(result, E_INVALIDARG);
                  EXPECT_EQ(target.vt, VT_EMPTY);
                } else {
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(shown(target), conversion.result);
                }
              }),
              1);
  }
  EXPECT_EQ(number.references(), 1U);
}

TEST(NoMemory, AConversionInPlaceLeavesTheValueAsItWas) {
  objects::Dispatch number = number_object();
  for (const Conversion& conversion : conversions(&number)) {
    SCOPED_TRACE(conversion.source.vt);
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t value = conversion.source;
                const VARIANT before = value;
                const HRESULT result = attempt.run([&] {
                  return VariantChangeType(&value, &value, 0, conversion.type);
                });
                if (attempt.failed()) {
                  EXPECT_EQ(result, E_INVALIDARG);
                  EXPECT_EQ(value.vt, before.vt);
                  EXPECT_EQ(value.llVal, before.llVal);
                } else {
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(shown(value), conversion.result);
                }
              }),
              1);
  }
  EXPECT_EQ(number.references(), 1U);
}

TEST(NoMemory, AConversionThroughAReferenceLeavesTheValueAsItWas) {
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              _variant_t value(12);
              _variant_t reference = scalar(VT_BYREF | VT_VARIANT, 0);
              reference.pvarVal = &value;
              const HRESULT result = attempt.run([&] {
                return VariantChangeType(&reference, &reference, 0, VT_BSTR);
              });
              EXPECT_EQ(reference.vt, VT_BYREF | VT_VARIANT);
              if (attempt.failed()) {
                EXPECT_EQ(result, E_INVALIDARG);
                EXPECT_EQ(value.vt, VT_I8);
                EXPECT_EQ(value.llVal, 12);
              } else {
                EXPECT_EQ(shown(value), L"12");
              }
            }),
            1);
}

// A conversion to the same type is a copy, and copies do not fail.
TEST(NoMemory, AConversionToTheSameTypeIsACopy) {
  for (const _variant_t& source : {text(L"text"), lpstr("text")}) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t target;
                EXPECT_EQ(attempt.run([&] {
                  return VariantChangeType(&target, &source, 0, source.vt);
                }),
                          S_OK);
                EXPECT_EQ(target.vt, source.vt);
                EXPECT_EQ(target.bstrVal == nullptr, attempt.failed());
              }),
              1);
  }
}

// The line itself may be lost, the result not.
TEST(NoMemory, WhatIsNotImplementedStaysSo) {
  const _variant_t source = scalar(VT_I4, 1);
  everywhere([&](Attempt& attempt) {
    _variant_t target(L"before");
    EXPECT_EQ(attempt.run_printing([&] {
      return VariantChangeType(&target, &source, 0, VT_R8);
    }),
              E_INVALIDARG);
    EXPECT_EQ(target.vt, VT_EMPTY);
    CLSID clsid{};
    EXPECT_EQ(attempt.run_printing(
                  [&] { return CLSIDFromString(L"a text", &clsid); }),
              E_NOTIMPL);
  });
}

TEST(NoMemory, DatesAreReadAndWrittenAllTheSame) {
  SYSTEMTIME first{};
  // The C library keeps what it has read of the time zone.
  GetLocalTime(&first);
  everywhere([&](Attempt& attempt) {
    DATE day = 0;
    SYSTEMTIME now{};
    EXPECT_EQ(attempt.run([&] {
      GetLocalTime(&now);
      return VarDateFromStr(L"2024-01-31 18:00:00", 0, 0, &day);
    }),
              S_OK);
    EXPECT_EQ(day, 45322.75);
    EXPECT_NE(now.wYear, 0);
  });
}

// ---------------------------------------------------------------------------
// Operators
// ---------------------------------------------------------------------------

/// A joining of two operands, of which so many are made texts first.
TEST(NoMemory, AJoiningFailsAndItsResultIsUntouched) {
  const struct {
    const char* what;
    _variant_t left;
    _variant_t right;
    long converted;
    std::wstring result;
  } table[] = {
      {"texts", text(L"a"), text(L"b"), 0, L"ab"},
      {"empty texts", text(L""), text(L""), 0, L""},
      {"a number and a text", _variant_t(1), text(L"b"), 1, L"1b"},
      {"a text and a number", text(L"a"), _variant_t(2), 1, L"a2"},
      {"numbers", _variant_t(1), _variant_t(2), 2, L"12"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t left = row.left;
                _variant_t right = row.right;
                _variant_t joined(7);
                const HRESULT result = attempt.run_printing(
                    [&] { return VarCat(&left, &right, &joined); });
                if (attempt.failed()) {
                  // An operand that could not be made a text is none.
                  EXPECT_EQ(result, attempt.fail_at() <= row.converted
                                        ? E_INVALIDARG
                                        : E_OUTOFMEMORY);
                  EXPECT_EQ(joined.vt, VT_I8);
                  EXPECT_EQ(joined.llVal, 7);
                } else {
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(shown(joined), row.result);
                }
              }),
              row.converted + 1);
  }
}

TEST(NoMemory, JoiningANullWithANumberIsAConversion) {
  for (const bool null_first : {true, false}) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t null = scalar(VT_NULL, 0);
                _variant_t number(12);
                _variant_t joined(7);
                const HRESULT result = attempt.run([&] {
                  return null_first ? VarCat(&null, &number, &joined)
                                    : VarCat(&number, &null, &joined);
                });
                EXPECT_EQ(result, attempt.failed() ? E_INVALIDARG : S_OK);
                EXPECT_EQ(shown(joined), attempt.failed() ? L"20:7" : L"12");
              }),
              1);
  }
}

TEST(NoMemory, AddingTextsIsJoiningThem) {
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              _variant_t left = text(L"a");
              _variant_t right = text(L"b");
              _variant_t sum(7);
              const HRESULT result =
                  attempt.run([&] { return VarAdd(&left, &right, &sum); });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(shown(sum), attempt.failed() ? L"20:7" : L"ab");
            }),
            1);
}

TEST(NoMemory, AComparisonWithATextIsNotSupported) {
  for (const bool text_first : {true, false}) {
    EXPECT_EQ(everywhere([&](Attempt& attempt) {
                _variant_t left = text(L"12");
                _variant_t right(12);
                const HRESULT result = attempt.run_printing([&] {
                  return text_first ? VarCmp(&left, &right, 0, 0)
                                    : VarCmp(&right, &left, 0, 0);
                });
                EXPECT_EQ(result, attempt.failed() ? E_INVALIDARG : VARCMP_EQ);
              }),
              1);
  }
}

TEST(NoMemory, ArithmeticWithTextsNeedsNone) {
  everywhere([&](Attempt& attempt) {
    _variant_t left = text(L"5");
    _variant_t right(2.5);
    _variant_t result;
    EXPECT_EQ(attempt.run([&] { return VarDiv(&left, &right, &result); }),
              S_OK);
    EXPECT_EQ(result.dblVal, 2.0);
    EXPECT_FALSE(attempt.failed());
  });
}

// ---------------------------------------------------------------------------
// Activation
// ---------------------------------------------------------------------------

constexpr CLSID kClass = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr char kClassFile[] = "{00000001-0002-0003-0405-060708090A0B}.so";

using Activate = std::function<HRESULT(void** object)>;

/// A way to make an object, and what it answers when there is none.
struct Way {
  const char* what;
  Activate activate;
  HRESULT failure;
};

const Way kWays[] = {
    {"by class id",
     [](void** object) {
       return CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, object);
     },
     E_FAIL},
    {"by program id",
     [](void** object) {
       return CoCreateInstanceByName(L"zirmemory.Object", nullptr, 1,
                                     IID_IUnknown, object);
     },
     CO_E_CLASSSTRING},
    {"by moniker",
     [](void** object) {
       return CoGetObject(L"new:zirmemory.Object", nullptr, IID_IUnknown,
                          object);
     },
     E_FAIL},
};

// What the loader keeps of its last error is not a leak.
void forget_loader_error() {
  dlerror();
  dlerror();
}

/// A registry folder with a library for both names.
class NoMemoryForActivation : public testing::Test {
 protected:
  NoMemoryForActivation() {
    folder_.link("ZIRMEMORY.so", "complete");
    folder_.link(kClassFile, "complete");
    log_ = {};
    // Whatever the loader keeps for good, such as the names of a library, it
    // has now.
    for (const char* const name : {"ZIRMEMORY.so", kClassFile}) {
      dlopen(folder_.in(name).c_str(), RTLD_NOW);
    }
    dlopen("zirmemory-none.so", RTLD_NOW);
    forget_loader_error();
  }

  const registry::Folder& folder() const { return folder_; }
  component::Log& log() const { return log_; }

 private:
  registry::Folder folder_;
  registry::Environment variable_{"REGISTRY", folder_.path()};
  component::Log& log_ = registry::log_of("complete");
};

// The library is loaded already: what fails is on the way to its factory.
TEST_F(NoMemoryForActivation, AnObjectIsMadeOrFailsInTheKnownWay) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.what);
    EXPECT_GE(everywhere([&](Attempt& attempt) {
                log() = {};
                {
                  registry::Created object;
                  const HRESULT result =
                      attempt.run([&] { return way.activate(object.out()); });
                  if (result == S_OK) {
                    EXPECT_TRUE(object.made());
                  } else if (log().created == 1 && way.what != kWays[2].what) {
                    // The component's own answer.
                    EXPECT_EQ(result, E_OUTOFMEMORY);
                  } else {
                    EXPECT_EQ(result, way.failure);
                  }
                  EXPECT_EQ(object.untouched(), result != S_OK);
                }
                EXPECT_EQ(log().factory_releases, log().created);
                EXPECT_EQ(log().live_objects, 0);
                forget_loader_error();
              }),
              1);
  }
}

TEST_F(NoMemoryForActivation, FailuresStayFailures) {
  const registry::Environment elsewhere("REGISTRY", folder().in("nowhere"));
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.what);
    everywhere([&](Attempt& attempt) {
      registry::Created object;
      EXPECT_EQ(attempt.run([&] { return way.activate(object.out()); }),
                way.failure);
      EXPECT_TRUE(object.untouched());
      forget_loader_error();
    });
  }
}

// A library that is new every time: the loader itself runs out of memory.
TEST_F(NoMemoryForActivation, ALibraryIsLoadedOrNot) {
  int number = 0;
  EXPECT_GE(everywhere(
                [&](Attempt& attempt) {
                  const std::string stem = "ZIRNEW" + std::to_string(++number);
                  folder().copy(stem + ".so", "complete");
                  const std::wstring name(stem.begin(), stem.end());

                  auto* const library =
                      attempt.run([&] { return LoadLibraryW(name.c_str()); });

                  EXPECT_TRUE(attempt.failed() || library != nullptr);
                  if (library != nullptr) {
                    EXPECT_NE(GetProcAddress(library, "DllGetClassObject"),
                              nullptr);
                  }
                  forget_loader_error();
                  // Nothing stands in the way of the next attempt.
                  EXPECT_NE(LoadLibraryW(name.c_str()), nullptr);
                },
                Leaks::Ignored),
            5);
}

TEST_F(NoMemoryForActivation, AClassFileIsReadOrNot) {
  folder().write("ZIRMEMORY.OBJECT.clsid",
                 "{00000001-0002-0003-0405-060708090A0B}\n");
  EXPECT_GE(
      everywhere([&](Attempt& attempt) {
        CLSID clsid = CLSID_NULL;
        const HRESULT result = attempt.run(
            [&] { return CLSIDFromProgID(L"zirmemory.Object", &clsid); });
        if (attempt.failed() && result != S_OK) {
          // The path, or the file, had none.
          EXPECT_TRUE(result == E_OUTOFMEMORY || result == CO_E_CLASSSTRING)
              << result;
          EXPECT_EQ(clsid, CLSID_NULL);
        } else {
          EXPECT_EQ(result, S_OK);
          EXPECT_EQ(clsid, kClass);
        }
      }),
      1);
}

TEST_F(NoMemoryForActivation, SymbolsAndModulesAreFoundOrNot) {
  auto* const library =
      dlopen(registry::component_file("complete").c_str(), RTLD_LAZY);
  everywhere([&](Attempt& attempt) {
    void* const symbol = attempt.run(
        [&] { return GetProcAddress(library, "DllGetClassObject"); });
    EXPECT_TRUE(attempt.failed() || symbol != nullptr);
    forget_loader_error();
  });
  everywhere([&](Attempt& attempt) {
    EXPECT_EQ(attempt.run([&] { return GetProcAddress(library, "nothing"); }),
              nullptr);
    forget_loader_error();
  });
  everywhere([&](Attempt& attempt) {
    auto* const program =
        attempt.run([&] { return GetModuleHandleW(nullptr); });
    EXPECT_TRUE(attempt.failed() || program != nullptr);
    forget_loader_error();
  });
}

TEST(NoMemory, IdentifiersAreMadeAndWrittenAllTheSame) {
  everywhere([&](Attempt& attempt) {
    GUID guid = IID_NULL;
    wchar_t buffer[39];
    EXPECT_EQ(attempt.run([&] { return CoCreateGuid(&guid); }), S_OK);
    EXPECT_NE(guid, IID_NULL);
    EXPECT_EQ(attempt.run([&] { return StringFromGUID2(guid, buffer, 39); }),
              39);
  });
}

// ---------------------------------------------------------------------------
// Object context
// ---------------------------------------------------------------------------

TEST(NoMemory, AThreadStaysWithoutAContext) {
  EXPECT_EQ(everywhere([&](Attempt& attempt) {
              const HRESULT result =
                  attempt.run([] { return CoInitializeEx(nullptr, 0); });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              if (attempt.failed()) {
                void* object = nullptr;
                EXPECT_EQ(CoGetObjectContext(IID_IContextProperties, &object),
                          E_FAIL);
                EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
              }
              CoUninitialize();
            }),
            1);
}

constexpr wchar_t kLongName[] = L"a name that no short string has room for";

/// A thread with a context of its own for every attempt.
class Context {
 public:
  Context() {
    CoInitializeEx(nullptr, 0);
    properties_.receive([](void** out) {
      return CoGetObjectContext(IID_IContextProperties, out);
    });
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  ~Context() { CoUninitialize(); }

  IContextProperties* operator->() const { return properties_.get(); }

 private:
  InterfacePtr<IContextProperties> properties_;
};

TEST(NoMemory, APropertyIsSetOrThrowsAndIsNotThere) {
  const _variant_t given = text(L"text");
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              const Context context;
              const HRESULT result = attempt.run_throwing(
                  [&] { return context->SetProperty(kLongName, given); });
              const bool failed = attempt.failed();
              _variant_t value(7);
              const HRESULT found = context->GetProperty(kLongName, &value);
              if (result == kThrown) {
                EXPECT_EQ(found, E_FAIL);
                EXPECT_EQ(shown(value), L"20:7");
              } else {
                // The copy of a value does not fail: its text does.
                EXPECT_EQ(result, S_OK);
                EXPECT_EQ(found, S_OK);
                EXPECT_EQ(shown(value), failed ? L"-" : L"text");
              }
            }),
            2);
}

TEST(NoMemory, AReplacedPropertyKeepsItsValueWhenItThrows) {
  objects::Unknown object;
  const _variant_t given = text(L"text");
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              {
                const Context context;
                context->SetProperty(kLongName, _variant_t(&object));
                const HRESULT result = attempt.run_throwing(
                    [&] { return context->SetProperty(kLongName, given); });
                const bool failed = attempt.failed();
                _variant_t value;
                EXPECT_EQ(context->GetProperty(kLongName, &value), S_OK);
                if (result == kThrown) {
                  EXPECT_EQ(shown(value), L"object");
                } else {
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(shown(value), failed ? L"-" : L"text");
                }
              }
              EXPECT_EQ(object.references(), 1U);
            }),
            1);
}

TEST(NoMemory, APropertyIsReadOrThrowsAndTheValueIsUntouched) {
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              const Context context;
              context->SetProperty(kLongName, text(L"text"));
              _variant_t value(7);
              const HRESULT result = attempt.run_throwing(
                  [&] { return context->GetProperty(kLongName, &value); });
              if (result == kThrown) {
                EXPECT_EQ(shown(value), L"20:7");
              } else {
                EXPECT_EQ(result, S_OK);
                EXPECT_EQ(shown(value), attempt.failed() ? L"-" : L"text");
              }
            }),
            1);
}

TEST(NoMemory, AnUnknownPropertyFailsOrThrows) {
  const Context context;
  context->SetProperty(L"a", _variant_t(1));
  everywhere([&](Attempt& attempt) {
    _variant_t value(7);
    const HRESULT result = attempt.run_throwing(
        [&] { return context->GetProperty(kLongName, &value); });
    EXPECT_TRUE(result == E_FAIL || (attempt.failed() && result == kThrown));
    EXPECT_EQ(shown(value), L"20:7");
  });
}

TEST(NoMemory, WhatAContextDoesNotImplementStaysSo) {
  const Context context;
  everywhere([&](Attempt& attempt) {
    LONG count = 0;
    EXPECT_EQ(attempt.run_printing([&] { return context->Count(&count); }),
              E_NOTIMPL);
    EXPECT_EQ(attempt.run_printing(
                  [&] { return context->RemoveProperty(kLongName); }),
              E_NOTIMPL);
  });
}

TEST(NoMemory, ErrorObjectsNeedNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              EXPECT_EQ(attempt.run([] { return SetErrorInfo(0, nullptr); }),
                        S_OK);
              attempt.run([] {
                CoUninitialize();
                return S_OK;
              });
            }),
            0);
}

}  // namespace
