// SPDX-License-Identifier: MIT
//
// Fuzz target: opening connections, with any connection string, user and
// password, through the object, late-bound and not, and through the ODBC layer.
// What reaches the driver is what a model composes, and so are state, string
// and error afterwards.
//
// Sections: replaying the calls; the object; the layer.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/component.h"
#include "fuzz/fuzz.h"
#include "fuzz/odbc_double.h"
#include "fuzz/values.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using fuzz::Answering;
using fuzz::check;
using fuzz::counted;
using fuzz::Input;
using fuzz::odbc::Call;
using fuzz::odbc::Function;

// ---------------------------------------------------------------------------
// Replaying the calls
// ---------------------------------------------------------------------------

class Replay {
 public:
  /// The text that opening with `sent` failed with; none if it did not.
  std::optional<std::string> opening(const std::string& sent, bool wants_text) {
    wants_text_ = wants_text;
    if (!succeeded(next(Function::alloc_handle, SQL_HANDLE_ENV))) {
      return "Unable to allocate ODBC environment";
    }
    if (!succeeded(next(Function::set_env_attr))) {
      std::string text = diagnostic(SQL_HANDLE_ENV);
      next(Function::free_handle, SQL_HANDLE_ENV);
      return text;
    }
    if (!succeeded(next(Function::alloc_handle, SQL_HANDLE_DBC))) {
      next(Function::free_handle, SQL_HANDLE_ENV);
      return "Unable to allocate ODBC connection";
    }
    const Call& connected = next(Function::driver_connect);
    check(connected.text == sent, "the string that reaches the driver");
    if (succeeded(connected)) return std::nullopt;
    std::string text = diagnostic(SQL_HANDLE_DBC);
    next(Function::free_handle, SQL_HANDLE_DBC);
    next(Function::free_handle, SQL_HANDLE_ENV);
    return text;
  }

  void closing() {
    next(Function::disconnect);
    next(Function::free_handle, SQL_HANDLE_DBC);
    next(Function::free_handle, SQL_HANDLE_ENV);
  }

  ~Replay() {
    check(position_ == fuzz::odbc::log().size(), "more calls than expected");
    fuzz::odbc::clear_log();
  }
  Replay() = default;
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

 private:
  static bool succeeded(const Call& call) {
    return call.code == SQL_SUCCESS || call.code == SQL_SUCCESS_WITH_INFO;
  }

  const Call& next(Function function, SQLSMALLINT type = 0) {
    check(position_ < fuzz::odbc::log().size(), "fewer calls than expected");
    const Call& call = fuzz::odbc::log()[position_++];
    check(call.function == function && call.number == type,
          "another call than expected");
    return call;
  }

  std::string diagnostic(SQLSMALLINT type) {
    // Nobody reads it.
    if (!wants_text_) return {};
    const Call& record = next(Function::get_diag_rec, type);
    if (!succeeded(record)) return "ODBC operation failed";
    const auto length =
        static_cast<std::size_t>(std::clamp<SQLLEN>(record.length, 0, 1023));
    return (record.state.empty() ? "" : record.state + ": ") +
           record.text.substr(0, length);
  }

  std::size_t position_ = 0;
  bool wants_text_ = true;
};

// ---------------------------------------------------------------------------
// The object
// ---------------------------------------------------------------------------

struct Error {
  HRESULT code = S_OK;
  std::wstring text{};
};

const Error kAlreadyOpen = {zir_hresult(0x80040711),
                            L"Connection is already open"};

std::string pair_of(const std::string& before, const char* key,
                    const std::wstring& value) {
  const std::string utf8 = fuzz::utf8_of(value);
  if (utf8.empty()) return {};
  const bool separated = before.empty() || before.back() == ';';
  return (separated ? "" : ";") + std::string(key) + "=" + utf8 + ";";
}

class Connection {
 public:
  explicit Connection(Input& input) : input_(input) {}

  void step() {
    const std::uint8_t operation = input_.byte();
    switch (operation % 8) {
      case 0:
        put_string();
        break;
      case 1:
        put_any();
        break;
      case 2:
      case 3:
        open();
        break;
      case 4:
      case 5:
        open_with_any(operation < 0xF0 ? DISPATCH_METHOD
                                       : input_.integer<WORD>());
        break;
      default:
        close(operation % 8 == 6);
    }
    check_state();
  }

  void release() {
    connection_ = {};
    dispatch_ = {};
    Replay replay;
    if (open_) replay.closing();
  }

 private:
  void check_state() {
    long state = 77;
    check(connection_->get_State(&state) == S_OK && state == (open_ ? 1 : 0),
          "the state");
    _bstr_t text;
    check(connection_->get_ConnectionString(&text.m_s) == S_OK &&
              counted(text.m_s) == string_,
          "the connection string");
    check(fuzz::odbc::log().empty(), "calls for nothing");
  }

  void check_outcome(const fuzz::Outcome& outcome, const Error& error) {
    if (error.code == S_OK) {
      check(outcome.result == S_OK, "a late-bound success");
      return;
    }
    check(outcome.result == DISP_E_EXCEPTION &&
              outcome.exception.scode == error.code &&
              counted(outcome.exception.bstrSource) == L"ZIRDB.Connection" &&
              counted(outcome.exception.bstrDescription) == error.text,
          "a late-bound failure");
  }

  void put_string() {
    const _bstr_t text(fuzz::new_string(input_), false);
    check(connection_->put_ConnectionString(text.m_s) ==
              (open_ ? kAlreadyOpen.code : S_OK),
          "setting the string");
    if (!open_) string_ = counted(text.m_s);
  }

  void put_any() {
    const Any given(*this);
    fuzz::Outcome outcome;
    fuzz::invoke(dispatch_.get(), DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING,
                 DISPATCH_PROPERTYPUT, {given.passed()}, outcome);
    const VARIANT* const value = given.meant();
    if (value == nullptr || value->vt != VT_BSTR) {
      check(outcome.result == DISP_E_TYPEMISMATCH, "a string that is none");
      return;
    }
    check_outcome(outcome, open_ ? kAlreadyOpen : Error());
    if (!open_) string_ = counted(value->bstrVal);
  }

  void open() {
    const _bstr_t given(fuzz::new_string(input_), false);
    const _bstr_t user(fuzz::new_string(input_), false);
    const _bstr_t password(fuzz::new_string(input_), false);
    const long options = input_.integer<std::int8_t>();
    const HRESULT result =
        connection_->Open(given.m_s, user.m_s, password.m_s, options);
    check(result == opened(counted(given.m_s), counted(user.m_s),
                           counted(password.m_s))
                        .code,
          "opening");
  }

  /// What opening means for the model.
  Error opened(std::wstring given, const std::wstring& user,
               const std::wstring& password) {
    if (open_) return kAlreadyOpen;
    if (given.empty()) given = string_;
    if (given.empty()) return {E_INVALIDARG, L"ConnectionString is required"};
    std::string sent = fuzz::utf8_of(given);
    sent += pair_of(sent, "UID", user);
    sent += pair_of(sent, "PWD", password);
    const auto error = Replay().opening(sent, true);
    if (error) {
      // As a text that ends with its first zero, an overlong one too.
      return {zir_hresult(0x80040710), fuzz::until_zero(fuzz::text_of(*error))};
    }
    string_ = fuzz::text_of(sent);
    open_ = true;
    return {};
  }

  void open_with_any(WORD flags) {
    std::vector<Any> given;
    const std::size_t count = input_.byte() % 6;
    given.reserve(count);
    std::vector<VARIANT> arguments;
    for (std::size_t i = 0; i < count; ++i) {
      given.emplace_back(*this);
      arguments.push_back(given.back().passed());
    }
    fuzz::Outcome outcome;
    fuzz::invoke(dispatch_.get(), DISPID_ZIRDB_CONNECTION_OPEN, flags,
                 arguments, outcome);
    if (count > 4) {
      check(outcome.result == DISP_E_BADPARAMCOUNT, "too many arguments");
      return;
    }
    if ((flags & DISPATCH_METHOD) == 0) {
      check(outcome.result == DISP_E_MEMBERNOTFOUND, "another call");
      return;
    }
    std::wstring texts[3];
    for (std::size_t i = 0; i < count; ++i) {
      _variant_t converted;
      const VARIANT* const value = given[i].meant();
      if (value == nullptr ||
          FAILED(VariantChangeType(&converted, value, 0,
                                   i < 3 ? VT_BSTR : VT_I8))) {
        check(outcome.result == DISP_E_TYPEMISMATCH, "an argument");
        return;
      }
      if (i < 3) texts[i] = counted(converted.bstrVal);
    }
    check_outcome(outcome, opened(texts[0], texts[1], texts[2]));
  }

  void close(bool late_bound) {
    if (late_bound) {
      fuzz::Outcome outcome;
      fuzz::invoke(dispatch_.get(), DISPID_ZIRDB_CONNECTION_CLOSE,
                   DISPATCH_METHOD, {}, outcome);
      check_outcome(outcome, {});
    } else {
      check(connection_->Close() == S_OK, "closing");
    }
    Replay replay;
    if (open_) replay.closing();
    open_ = false;
  }

  /// An argument, as it is or through references.
  class Any {
   public:
    explicit Any(Connection& connection) {
      Input& input = connection.input_;
      references_ = input.byte() % 8;
      fuzz::fill(input, &value_, &connection.object_, 0);
    }
    Any(Any&&) = default;
    Any& operator=(Any&&) = delete;
    Any(const Any&) = delete;
    Any& operator=(const Any&) = delete;
    ~Any() = default;

    VARIANT passed() const {
      const std::size_t count = references_ < 5 ? 0 : references_ - 4;
      const VARIANT* target = &value_;
      for (std::size_t i = 0; i < count; ++i) {
        chain_[i] = {};
        chain_[i].vt = VT_BYREF | VT_VARIANT;
        chain_[i].pvarVal = const_cast<VARIANT*>(target);
        target = &chain_[i];
      }
      return *target;
    }
    /// What it stands for; NULL for a reference to nothing.
    const VARIANT* meant() const {
      return value_.vt == (VT_BYREF | VT_VARIANT) ? value_.pvarVal : &value_;
    }

   private:
    std::size_t references_ = 0;
    _variant_t value_{};
    mutable VARIANT chain_[3] = {};
  };

  Input& input_;
  Answering object_;
  InterfacePtr<IZIRDBConnection> connection_ = fuzz::create<IZIRDBConnection>(
      CLSID_ZIRDBConnection, IID_IZIRDBConnection);
  InterfacePtr<IDispatch> dispatch_ =
      connection_.query<IDispatch>(IID_IDispatch);
  std::wstring string_{};
  bool open_ = false;
};

// ---------------------------------------------------------------------------
// The layer
// ---------------------------------------------------------------------------

void open_layer(Input& input) {
  const std::uint8_t mode = input.byte();
  const std::string given = input.bytes(mode % 64U);
  std::string error = "as it was";
  std::string* const error_out = mode < 0xC0 ? &error : nullptr;
  void* handle = &error;
  if (mode % 64 == 63) {
    check(!zirdb_odbc_open(given, nullptr, error_out) &&
              (error_out == nullptr || error == "handle_out is required"),
          "no place for a handle");
    return;
  }
  const bool opened = zirdb_odbc_open(given, &handle, error_out);
  const auto expected =
      Replay().opening(fuzz::until_zero(given), error_out != nullptr);
  check(opened == !expected, "whether it opens");
  check((handle != nullptr) == opened, "a handle");
  check(error_out == nullptr || error == expected.value_or("as it was"),
        "the text of an error");
  zirdb_odbc_close(handle);
  Replay replay;
  if (opened) replay.closing();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  fuzz::odbc::begin(&input, true);
  if (input.byte() % 4 == 3) {
    while (input.left() > 0) open_layer(input);
  } else {
    Connection connection(input);
    while (input.left() > 0) connection.step();
    connection.release();
  }
  check(DllCanUnloadNow() == S_OK, "an object is left");
  fuzz::odbc::end();
  return 0;
}
