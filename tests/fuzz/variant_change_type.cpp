// SPDX-License-Identifier: MIT
//
// Fuzz target: VariantChangeType, any value to any type, in place and not.
//
// Sections: objects; building a value; the model; one call and its checks. What
// is left behind at the end of an input is found by the leak checker.

#include <cmath>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <optional>
#include <string>

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

using fuzz::check;
using fuzz::Input;

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

/// An object whose default member answers as told. It is not counted into
/// existence: it stands on the stack, and whoever holds it too long is found by
/// the count.
class Answering final : public IDispatch {
 public:
  Answering() = default;
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;
  ~Answering() { check(references_ == 1, "the references of an object"); }

  HRESULT result = S_OK;
  _variant_t answer;

  HRESULT QueryInterface(REFIID, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override { return --references_; }
  HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID member, REFIID riid, LCID lcid, WORD flags,
                 DISPPARAMS* parameters, VARIANT* value, EXCEPINFO* exception,
                 UINT*) override {
    check(member == 0 && riid == IID_NULL && lcid == 0 &&
              flags == DISPATCH_PROPERTYGET && parameters != nullptr &&
              parameters->cArgs == 0 && parameters->cNamedArgs == 0 &&
              value != nullptr && exception == nullptr,
          "the call of a default member");
    if (SUCCEEDED(result)) {
      VariantInit(value);
      VariantCopy(value, &answer);
    }
    return result;
  }

 private:
  zir_types::ULONG references_ = 1;
};

// ---------------------------------------------------------------------------
// Building a value
// ---------------------------------------------------------------------------

constexpr std::size_t kMostUnits = 300;

BSTR new_string(Input& input) {
  const std::uint8_t mode = input.byte();
  if (mode == 0xFF) return nullptr;
  // Mostly short, so that there is something left for what follows.
  const std::wstring text = input.units<wchar_t>(
      mode < 0xF0 ? static_cast<std::size_t>(mode % 32) : kMostUnits);
  BSTR string = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  check(string != nullptr, "no memory");
  return string;
}

SAFEARRAY* new_array(Input& input, VARTYPE type, int depth);

/// Makes `value`, which is empty, any value; `object` stands for every object
/// and may be NULL.
void fill(Input& input, VARIANT* value, IDispatch* object, int depth) {
  constexpr VARTYPE kTypes[] = {VT_EMPTY,    VT_NULL,    VT_I2,
                                VT_I4,       VT_R4,      VT_R8,
                                VT_CY,       VT_DATE,    VT_BSTR,
                                VT_DISPATCH, VT_ERROR,   VT_BOOL,
                                VT_VARIANT,  VT_UNKNOWN, VT_DECIMAL,
                                VT_I1,       VT_UI1,     VT_UI2,
                                VT_UI4,      VT_I8,      VT_UI8,
                                VT_PTR,      VT_LPSTR,   VT_BYREF | VT_I4,
                                VT_BSTR,     VT_LPSTR,   VT_BYREF | VT_BSTR,
                                VT_DATE,     VT_R8,      VT_ARRAY | VT_UI1,
                                VT_BSTR,     VT_BSTR,    VT_ARRAY | VT_BSTR,
                                VT_I8,       VT_BSTR,    VT_ARRAY | VT_VARIANT};
  const std::uint8_t choice = input.byte();
  const VARTYPE type = choice < std::size(kTypes) ? kTypes[choice]
                       : choice < 0xF0 ? kTypes[choice % std::size(kTypes)]
                                       : input.integer<VARTYPE>();
  value->vt = type;
  if (type == VT_BSTR) {
    value->bstrVal = new_string(input);
  } else if (type == VT_LPSTR) {
    const std::uint8_t mode = input.byte();
    _str_t text(mode == 0xFF ? nullptr : input.bytes(mode % 32).c_str());
    value->pszVal = text.Detach();
  } else if (type == VT_DISPATCH) {
    value->pdispVal = input.byte() == 0xFF ? nullptr : object;
    if (value->pdispVal != nullptr) value->pdispVal->AddRef();
  } else if (type == VT_UNKNOWN) {
    value->punkVal = input.byte() == 0xFF ? nullptr : object;
    if (value->punkVal != nullptr) value->punkVal->AddRef();
  } else if ((type & VT_ARRAY) != 0) {
    value->parray = new_array(input, type & VT_TYPEMASK, depth);
  } else if (type == (VT_BYREF | VT_VARIANT)) {
    value->pvarVal = nullptr;
  } else if (type == VT_R8 || type == VT_DATE) {
    // Every pattern of bits, and the amounts and days that people write.
    value->dblVal = input.byte() % 2 == 0
                        ? input.number()
                        : static_cast<double>(input.integer<std::int32_t>()) /
                              static_cast<double>(input.byte() + 1);
  } else {
    value->llVal = input.integer<std::int64_t>();
  }
}

/// An array of up to seven elements in one or two dimensions. NULL for a type
/// that arrays do not have, which a VARIANT may hold as well.
SAFEARRAY* new_array(Input& input, VARTYPE type, int depth) {
  const std::uint8_t mode = input.byte();
  SAFEARRAYBOUND bounds[2] = {{static_cast<UINT>(mode & 7U), mode}, {1, -3}};
  SAFEARRAY* const array =
      SafeArrayCreate(type, (mode & 0x80) != 0 ? 2 : 1, bounds);
  if (array == nullptr) return nullptr;
  {
    const SafeArrayAccess access(array);
    for (std::size_t i = 0; i < (mode & 7U); ++i) {
      if (type == VT_UI1) {
        access.elements<BYTE>()[i] = input.byte();
      } else if (type == VT_BSTR) {
        access.elements<BSTR>()[i] = new_string(input);
      } else if (depth < 3) {
        // Objects of an array would need to outlive it; texts do not.
        VARIANT& element = access.elements<VARIANT>()[i];
        if (input.byte() % 2 == 0) {
          element.vt = VT_ARRAY | VT_VARIANT;
          element.parray = new_array(input, VT_VARIANT, depth + 1);
        } else {
          element.vt = VT_BSTR;
          element.bstrVal = new_string(input);
        }
      }
    }
  }
  return array;
}

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

std::wstring counted(BSTR string) {
  return string == nullptr ? std::wstring()
                           : std::wstring(string, SysStringLen(string));
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
