// SPDX-License-Identifier: MIT
//
// Fuzz target: VariantChangeType, any value to any type, in place and not.
//
// Sections: the model; one call and its checks. What is left behind at the end
// of an input is found by the leak checker.

#include <cmath>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <optional>
#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/values.h"
#include "zir.h"

namespace {

using fuzz::Answering;
using fuzz::check;
using fuzz::counted;
using fuzz::fill;
using fuzz::Input;

// ---------------------------------------------------------------------------
// The model
// ---------------------------------------------------------------------------

/// What a conversion gives. At most one of the texts is set; without any the
/// payload counts.
struct Expected {
  HRESULT result = E_INVALIDARG;
  std::int64_t payload = 0;
  std::optional<std::wstring> wide{};
  std::optional<std::string> narrow{};
  bool any_text = false;   ///< some short text: the promise goes no further
  bool same_type = false;  ///< a copy of the source
};

Expected number(std::int64_t payload) {
  Expected expected;
  expected.result = S_OK;
  expected.payload = payload;
  return expected;
}

Expected real(double value) {
  Expected expected;
  expected.result = S_OK;
  std::memcpy(&expected.payload, &value, sizeof value);
  return expected;
}

Expected text(std::wstring characters) {
  Expected expected;
  expected.result = S_OK;
  expected.wide = std::move(characters);
  return expected;
}

template <class Value>
Expected printed(const char* format, Value value) {
  char digits[64];
  std::snprintf(digits, sizeof digits, format, value);
  const std::string narrow = digits;
  return text(std::wstring(narrow.begin(), narrow.end()));
}

bool equal_without_case(const wchar_t* left, const wchar_t* right) {
  return wcscasecmp(left, right) == 0;
}

/// A date's text, by the C library's calendar.
Expected date_text(double date) {
  // The years 1 to 9999; beyond them only that there is a text.
  if (!(date >= -693593 && date < 2958465)) {
    Expected expected;
    expected.result = S_OK;
    expected.any_text = true;
    return expected;
  }
  const double shifted = date + 693899.0;
  const double day = std::floor(shifted);
  const double seconds =
      std::fmin(std::floor((shifted - day) * 86400 + 0.5), 86399);
  constexpr double kDayOf1970 = 693899 + 25569;
  const auto moment =
      static_cast<std::time_t>((day - kDayOf1970) * 86400 + seconds);
  struct tm time {};
  gmtime_r(&moment, &time);
  char digits[64];
  const char* const format = date >= 0 && date < 1 ? "%H:%M:%S"
                             : seconds == 0        ? "/%m/%d"
                                                   : "/%m/%d %H:%M:%S";
  std::strftime(digits, sizeof digits, format, &time);
  char year[16];
  std::snprintf(year, sizeof year, "%04d", time.tm_year + 1900);
  const std::string narrow =
      digits[0] == '/' ? std::string(year) + digits : std::string(digits);
  return text(std::wstring(narrow.begin(), narrow.end()));
}

Expected to_string(const VARIANT& source);

Expected default_member(const VARIANT& source) {
  const auto* const object = static_cast<Answering*>(source.pdispVal);
  Expected expected;
  if (object == nullptr) return expected;
  if (FAILED(object->result)) {
    expected.result = object->result;
    return expected;
  }
  return to_string(object->answer);
}

Expected to_string(const VARIANT& source) {
  switch (source.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return text(L"");
    case VT_I2:
    case VT_BOOL:
      return printed("%d", source.iVal);
    case VT_I4:
    case VT_I8:
      return printed("%lld", static_cast<long long>(source.llVal));
    case VT_UI1:
      return printed("%u", source.bVal);
    case VT_UI8:
      return printed("%llu", static_cast<unsigned long long>(source.ullVal));
    case VT_R8:
      return printed("%.15g", source.dblVal);
    case VT_DATE:
      return date_text(source.date);
    case VT_BSTR:
      // A copy: up to the first zero.
      return text(fuzz::until_zero(counted(source.bstrVal)));
    case VT_DISPATCH:
      return default_member(source);
    case VT_LPSTR: {
      if (source.pszVal == nullptr) return text(L"");
      const auto decoded = fuzz::convert<wchar_t>(std::string(source.pszVal),
                                                  SIZE_MAX, fuzz::decode_utf8);
      if (decoded.result == 0) return text(L"");
      // Deliberate: the terminator counts.
      return text(std::wstring(decoded.written.begin(), decoded.written.end()) +
                  L'\0');
    }
    default:
      return {};
  }
}

/// A number read from the start of a text.
template <class Value>
std::optional<Value> read(BSTR string,
                          Value (*reader)(const wchar_t*, wchar_t**)) {
  const wchar_t* const begin = string == nullptr ? L"" : string;
  wchar_t* end = nullptr;
  const Value value = reader(begin, &end);
  return end == begin ? std::nullopt : std::optional<Value>(value);
}

long long read_integer(const wchar_t* begin, wchar_t** end) {
  return std::wcstoll(begin, end, 10);
}

/// The whole number in front of the point, where it has one.
std::int64_t truncated(double value) {
  constexpr double kLimit = 9223372036854775808.0;
  return value >= -kLimit && value < kLimit ? static_cast<std::int64_t>(value)
                                            : INT64_MIN;
}

Expected to_integer(const VARIANT& source, VARTYPE type) {
  const bool wide = type == VT_I4 || type == VT_I8;
  std::optional<std::int64_t> value;
  switch (source.vt) {
    case VT_EMPTY:
      value = 0;
      break;
    case VT_BSTR:
      if (type != VT_UI1) value = read(source.bstrVal, read_integer);
      break;
    case VT_I8:
      value = source.llVal;
      break;
    case VT_I4:
      if (type == VT_I2 || type == VT_I8) value = source.llVal;
      break;
    case VT_R8:
      if (type == VT_I8) value = truncated(source.dblVal);
      break;
    case VT_BOOL:
      if (type == VT_I8) value = source.boolVal;
      break;
    case VT_UI1:
      if (type == VT_I8) value = source.bVal;
      break;
    default:
      break;
  }
  if (!value) return {};
  const auto bits = static_cast<std::uint64_t>(*value);
  return number(wide            ? *value
                : type == VT_I2 ? static_cast<std::int64_t>(bits & 0xFFFF)
                                : static_cast<std::int64_t>(bits & 0xFF));
}

Expected to_real(const VARIANT& source, VARTYPE type) {
  if (source.vt == VT_EMPTY) return real(0);
  if (source.vt == VT_I8) return real(static_cast<double>(source.llVal));
  if (source.vt == VT_BOOL && type == VT_R8) {
    return real(static_cast<double>(source.boolVal));
  }
  if (source.vt != VT_BSTR) return {};
  if (type == VT_R8) {
    const auto value = read(source.bstrVal, std::wcstod);
    return value ? real(*value) : Expected();
  }
  // That function has a target of its own.
  double date = 0;
  const HRESULT result = VarDateFromStr(
      source.bstrVal == nullptr ? L"" : source.bstrVal, 0, 0, &date);
  return result == S_OK ? real(date) : Expected();
}

Expected to_bool(const VARIANT& source) {
  if (source.vt == VT_EMPTY) return number(0);
  if (source.vt == VT_I8) return number(source.llVal != 0 ? 0xFFFF : 0);
  if (source.vt == VT_BSTR && source.bstrVal != nullptr) {
    if (equal_without_case(source.bstrVal, L"true")) return number(0xFFFF);
    if (equal_without_case(source.bstrVal, L"false")) return number(0);
  }
  return {};
}

Expected to_lpstr(const VARIANT& source) {
  if (source.vt != VT_BSTR) return {};
  Expected expected;
  expected.result = S_OK;
  expected.narrow.emplace();
  for (const wchar_t unit : fuzz::until_zero(counted(source.bstrVal))) {
    *expected.narrow += fuzz::encode_utf8(unit);
  }
  return expected;
}

Expected model(const VARIANT& source, VARTYPE type) {
  if (source.vt == type && type != VT_BSTR) {
    Expected expected;
    expected.result = S_OK;
    expected.same_type = true;
    return expected;
  }
  switch (type) {
    case VT_I2:
    case VT_I4:
    case VT_I8:
    case VT_UI1:
      return to_integer(source, type);
    case VT_R8:
    case VT_DATE:
      return to_real(source, type);
    case VT_BOOL:
      return to_bool(source);
    case VT_BSTR:
      return to_string(source);
    case VT_LPSTR:
      return to_lpstr(source);
    default:
      return {};
  }
}

// ---------------------------------------------------------------------------
// One call and its checks
// ---------------------------------------------------------------------------

bool same_bytes(const VARIANT& left, const VARIANT& right) {
  return left.vt == right.vt && left.wReserved1 == right.wReserved1 &&
         left.wReserved2 == right.wReserved2 &&
         left.wReserved3 == right.wReserved3 && left.llVal == right.llVal;
}

void check_same(const VARIANT& copy, const VARIANT& source, int depth);

void check_same_array(SAFEARRAY* copy, SAFEARRAY* source, int depth) {
  check((copy == nullptr) == (source == nullptr), "whether there is an array");
  if (copy == nullptr) return;
  check(copy != source && copy->cDims == source->cDims &&
            copy->fFeatures == source->fFeatures && copy->cLocks == 0,
        "a copied descriptor");
  std::size_t count = 1;
  for (UINT dimension = 1; dimension <= source->cDims; ++dimension) {
    LONG bounds[4] = {};
    SafeArrayGetLBound(source, dimension, &bounds[0]);
    SafeArrayGetUBound(source, dimension, &bounds[1]);
    SafeArrayGetLBound(copy, dimension, &bounds[2]);
    SafeArrayGetUBound(copy, dimension, &bounds[3]);
    check(bounds[0] == bounds[2] && bounds[1] == bounds[3], "copied bounds");
    count *= static_cast<std::size_t>(bounds[1] - bounds[0] + 1);
  }
  const SafeArrayAccess from(source);
  const SafeArrayAccess to(copy);
  for (std::size_t i = 0; i < count; ++i) {
    if ((source->fFeatures & FADF_VARIANT) != 0) {
      check_same(to.elements<VARIANT>()[i], from.elements<VARIANT>()[i],
                 depth + 1);
    } else if ((source->fFeatures & FADF_BSTR) != 0) {
      wchar_t* const string = from.elements<BSTR>()[i];
      wchar_t* const other = to.elements<BSTR>()[i];
      check((string == nullptr) == (other == nullptr) &&
                counted(other) == fuzz::until_zero(counted(string)),
            "a copied element");
    } else {
      check(to.elements<BYTE>()[i] == from.elements<BYTE>()[i],
            "a copied byte");
    }
  }
}

/// `copy` is what VariantCopy makes of `source`.
void check_same(const VARIANT& copy, const VARIANT& source, int depth) {
  check(copy.vt == source.vt, "the type of a copy");
  if (source.vt == VT_BSTR) {
    check(
        (copy.bstrVal == nullptr) == (source.bstrVal == nullptr) &&
            counted(copy.bstrVal) == fuzz::until_zero(counted(source.bstrVal)),
        "a copied text");
  } else if (source.vt == VT_LPSTR) {
    check((copy.pszVal == nullptr) == (source.pszVal == nullptr) &&
              (copy.pszVal == nullptr ||
               std::strcmp(copy.pszVal, source.pszVal) == 0),
          "a copied 8-bit text");
  } else if ((source.vt & VT_ARRAY) != 0) {
    check_same_array(copy.parray, source.parray, depth);
  } else {
    check(copy.llVal == source.llVal, "a copied payload");
  }
}

void check_converted(const VARIANT& value, VARTYPE type,
                     const Expected& expected, const VARIANT& source) {
  check(value.vt == type, "the type of the result");
  if (expected.same_type) {
    check_same(value, source, 0);
  } else if (expected.any_text) {
    check(SysStringLen(value.bstrVal) < 20, "the length of a far date");
  } else if (expected.wide) {
    check(counted(value.bstrVal) == *expected.wide, "the text");
    check(value.bstrVal == nullptr ||
              value.bstrVal[SysStringLen(value.bstrVal)] == 0,
          "the terminator");
  } else if (expected.narrow) {
    check(value.pszVal == nullptr ? source.bstrVal == nullptr
                                  : *expected.narrow == value.pszVal,
          "the 8-bit text");
  } else {
    check(value.llVal == expected.payload, "the payload");
  }
}

/// In place: the result replaces the value, or nothing happens.
void change_in_place(VARIANT* value, VARTYPE type) {
  const VARIANT before = *value;
  VARIANT& subject =
      value->vt == (VT_BYREF | VT_VARIANT) && value->pvarVal != nullptr
          ? *value->pvarVal
          : *value;
  const VARIANT subject_before = subject;
  // What the source was is gone after success, so it is copied first; a copy
  // cuts texts at a zero, as every conversion from them does.
  const _variant_t kept(subject);
  const bool null_pointer =
      value->vt == (VT_BYREF | VT_VARIANT) && value->pvarVal == nullptr;
  const Expected expected = null_pointer ? Expected() : model(kept, type);
  const HRESULT result = VariantChangeType(value, value, 0, type);
  check(result == expected.result, "the result in place");
  if (FAILED(result)) {
    check(same_bytes(subject, subject_before), "a failure changed the value");
  } else {
    check_converted(subject, type, expected, kept);
  }
  if (&subject != value) {
    check(same_bytes(*value, before), "the reference has changed");
  }
}

/// Into a value of its own, which held something before.
void change_apart(Input& input, const VARIANT& source, VARTYPE type) {
  _variant_t destination;
  if (input.byte() % 2 == 0) destination = L"what was here before";
  const bool null_pointer =
      source.vt == (VT_BYREF | VT_VARIANT) && source.pvarVal == nullptr;
  const VARIANT before = source;
  const VARIANT& subject = source.vt == (VT_BYREF | VT_VARIANT) && !null_pointer
                               ? *source.pvarVal
                               : source;
  const Expected expected = null_pointer ? Expected() : model(subject, type);
  const HRESULT result = VariantChangeType(&destination, &source, 0, type);
  check(result == expected.result, "the result");
  check(same_bytes(source, before), "the source has changed");
  if (FAILED(result)) {
    // With nothing to convert it may not even have been looked at.
    check(destination.vt == VT_EMPTY || null_pointer,
          "a failure left something");
  } else {
    check_converted(destination, type, expected, subject);
  }
}

VARTYPE target_type(Input& input) {
  constexpr VARTYPE kTargets[] = {VT_I2,   VT_I4,   VT_I8,   VT_UI1,   VT_R8,
                                  VT_DATE, VT_BSTR, VT_BOOL, VT_LPSTR, VT_BSTR};
  const std::uint8_t choice = input.byte();
  return choice < 0xE0 ? kTargets[choice % std::size(kTargets)]
                       : input.integer<VARTYPE>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  const std::uint8_t mode = input.byte();
  const VARTYPE other_type = target_type(input);

  Answering object;
  object.result = (mode & 0x10) != 0 ? input.integer<HRESULT>() : S_OK;
  if ((mode & 0x20) != 0) {
    // Without an object: one that answers with itself would never end.
    fill(input, &object.answer, nullptr, 0);
  }

  _variant_t inner;
  fill(input, &inner, &object, 0);
  const VARTYPE type = (mode & 0xC0) == 0xC0 ? inner.vt : other_type;
  VARIANT reference{};
  reference.vt = VT_BYREF | VT_VARIANT;
  reference.pvarVal = &inner;
  // Through a reference of a reference, that reference is the source.
  VARIANT reference_of_reference = reference;
  reference_of_reference.pvarVal = &reference;
  VARIANT* const source = (mode & 4) == 0   ? &inner
                          : (mode & 8) == 0 ? &reference
                                            : &reference_of_reference;
  switch (mode & 3) {
    case 0:
    case 1:
      change_apart(input, *source, type);
      break;
    case 2:
      change_in_place(source, type);
      break;
    default:
      if (source != &reference) {
        change_in_place(source, type);
        break;
      }
      // What the source refers to is itself the destination.
      const HRESULT result = VariantChangeType(&inner, source, 0, type);
      check(SUCCEEDED(result) ? inner.vt == type : inner.vt == VT_EMPTY,
            "a destination that the source refers to");
      break;
  }
  return 0;
}
