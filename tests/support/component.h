// SPDX-License-Identifier: MIT
//
// For tests of the component: late-bound calls as a script engine makes them,
// errors, and a check after every test that no object is left alive. Works with
// the shared library and with the component's workbench alike.

#ifndef ZIRDB_TESTS_SUPPORT_COMPONENT_H
#define ZIRDB_TESTS_SUPPORT_COMPONENT_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zir.h"
#include "zirdb.h"

namespace component {

/// Fails every test that leaves an object or a server lock behind.
class NothingLeftAlive : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    EXPECT_EQ(DllCanUnloadNow(), S_OK) << "objects or locks are left";
  }
};
inline const bool kNothingLeftAlive = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new NothingLeftAlive);
  return true;
}();

/// The codes that the component alone uses.
constexpr HRESULT kClosedCode = zir_hresult(0x800A0E78);
constexpr HRESULT kNoCurrentRecordCode = zir_hresult(0x800A0BCD);
constexpr HRESULT kNotFoundCode = zir_hresult(0x800A0CC1);
constexpr HRESULT kNoFieldCode = zir_hresult(0x800A0D5C);
constexpr HRESULT kBadArgumentsCode = zir_hresult(0x800A0BB9);
constexpr HRESULT kNotInThisContextCode = zir_hresult(0x800A0C93);
constexpr HRESULT kNotBackwardCode = zir_hresult(0x80040E24);

constexpr const wchar_t* kClosedText =
    L"Operation is not allowed when the object is closed.";
constexpr const wchar_t* kNoCurrentRecordText =
    L"Either BOF or EOF is True, or the current record has been deleted. "
    L"Requested operation requires a current record.";
constexpr const wchar_t* kNotFoundText =
    L"Item cannot be found in the collection corresponding to the requested "
    L"name or ordinal.";
constexpr const wchar_t* kNoFieldText = L"Field object is not available.";
constexpr const wchar_t* kBadArgumentsText =
    L"Arguments are of the wrong type, are out of acceptable range, or are in "
    L"conflict with one another.";
constexpr const wchar_t* kNotInThisContextText =
    L"Operation is not allowed in this context.";
constexpr const wchar_t* kNotBackwardText =
    L"Rowset does not support fetching backward.";

/// Another interface of an object; empty when it has none.
template <class Other, class Interface>
InterfacePtr<Other> query(Interface* object, REFIID riid) {
  return InterfacePtr<Interface>::share(object).template query<Other>(riid);
}
template <class Interface>
InterfacePtr<IDispatch> dispatch_of(Interface* object) {
  return query<IDispatch>(object, IID_IDispatch);
}

/// Calls `call(Interface** out)` and keeps what it stores, whatever the result
/// is: an interface stored by a call that failed is worth a failed test too.
template <class Interface, class Call>
std::pair<HRESULT, InterfacePtr<Interface>> received(Call call) {
  Interface* object = nullptr;
  const HRESULT result = call(&object);
  return {result, InterfacePtr<Interface>::adopt(object)};
}

/// Owns the strings of an EXCEPINFO.
class Exception {
 public:
  Exception() { ExcepinfoInit(&info_); }
  Exception(const Exception&) = delete;
  Exception& operator=(const Exception&) = delete;
  ~Exception() { ExcepinfoClear(&info_); }
  EXCEPINFO* get() { return &info_; }
  EXCEPINFO* operator->() { return &info_; }

 private:
  EXCEPINFO info_{};
};

/// What a late-bound call answered.
struct Answer {
  HRESULT result = S_OK;
  _variant_t value;  ///< VT_EMPTY when nothing was stored
  // From the EXCEPINFO, which starts zeroed:
  HRESULT code = 0;
  std::wstring source;
  std::optional<std::wstring> description;  ///< none when NULL
};

/// One late-bound call. Everything can be set that a host can set; what is not
/// set is what a well-behaved host passes.
struct Call {
  DISPID member = 0;
  WORD flags = DISPATCH_METHOD;
  std::vector<_variant_t> arguments = {};  ///< as a script writes them
  bool put = false;            ///< names the last argument DISPID_PROPERTYPUT
  bool with_result = true;     ///< passes a result variant
  bool with_exception = true;  ///< passes an EXCEPINFO
  IID riid = IID_NULL;
};

inline Answer invoke(IDispatch* object, const Call& call) {
  // Copied as they are: by-reference arguments stay by-reference, and each
  // stays the caller's.
  std::vector<VARIANT> arguments(call.arguments.rbegin(),
                                 call.arguments.rend());
  DISPID named = DISPID_PROPERTYPUT;
  DISPPARAMS parameters{};
  parameters.rgvarg = arguments.empty() ? nullptr : arguments.data();
  parameters.cArgs = static_cast<UINT>(arguments.size());
  if (call.put) {
    parameters.rgdispidNamedArgs = &named;
    parameters.cNamedArgs = 1;
  }
  constexpr UINT kUntouched = 77;
  UINT bad_argument = kUntouched;
  Exception exception;
  Answer answer;
  answer.result = object->Invoke(
      call.member, call.riid, 0, call.flags, &parameters,
      call.with_result ? &answer.value : nullptr,
      call.with_exception ? exception.get() : nullptr, &bad_argument);
  EXPECT_EQ(bad_argument, kUntouched) << "no member says which argument";
  answer.code = exception->scode;
  if (exception->bstrSource != nullptr) answer.source = exception->bstrSource;
  if (exception->bstrDescription != nullptr) {
    answer.description = exception->bstrDescription;
  }
  EXPECT_EQ(exception->wCode, 0);
  EXPECT_EQ(exception->bstrHelpFile, nullptr);
  EXPECT_EQ(exception->dwHelpContext, 0U);
  EXPECT_EQ(exception->pfnDeferredFillIn, nullptr);
  return answer;
}

inline Answer get(IDispatch* object, DISPID member) {
  Call call;
  call.member = member;
  call.flags = DISPATCH_PROPERTYGET;
  return invoke(object, call);
}
inline Answer method(IDispatch* object, DISPID member,
                     std::vector<_variant_t> arguments = {}) {
  Call call;
  call.member = member;
  call.arguments = std::move(arguments);
  return invoke(object, call);
}
inline Answer put(IDispatch* object, DISPID member, const _variant_t& value) {
  Call call;
  call.member = member;
  call.flags = DISPATCH_PROPERTYPUT;
  call.arguments = {value};
  call.put = true;
  return invoke(object, call);
}

/// The call was refused or failed plainly: `result`, and nothing else touched.
inline void expect_refused(const Answer& answer, HRESULT result) {
  EXPECT_EQ(answer.result, result) << std::hex << answer.result;
  EXPECT_EQ(answer.value.vt, VT_EMPTY);
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.source, L"");
  EXPECT_FALSE(answer.description.has_value());
}

/// The operation behind the member failed: DISP_E_EXCEPTION with these. A NULL
/// `description` means that there must be none.
inline void expect_exception(const Answer& answer, HRESULT code,
                             const wchar_t* source,
                             const wchar_t* description) {
  EXPECT_EQ(answer.result, DISP_E_EXCEPTION) << std::hex << answer.result;
  EXPECT_EQ(answer.value.vt, VT_EMPTY);
  EXPECT_EQ(answer.code, code) << std::hex << answer.code;
  EXPECT_EQ(answer.source, source);
  EXPECT_EQ(answer.description.has_value(), description != nullptr);
  if (description != nullptr && answer.description) {
    EXPECT_EQ(*answer.description, description);
  }
}

}  // namespace component

#endif  // ZIRDB_TESTS_SUPPORT_COMPONENT_H
