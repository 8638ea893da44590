// SPDX-License-Identifier: MIT
//
// Values for the fuzz targets: an object to be called, and any VARIANT that an
// input describes.

#ifndef ZIRDB_TESTS_FUZZ_VALUES_H
#define ZIRDB_TESTS_FUZZ_VALUES_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

#include "fuzz/fuzz.h"
#include "zir.h"

namespace fuzz {

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

constexpr std::size_t kMostUnits = 300;

inline BSTR new_string(Input& input) {
  const std::uint8_t mode = input.byte();
  if (mode == 0xFF) return nullptr;
  // Mostly short, so that there is something left for what follows.
  const std::wstring text = input.units<wchar_t>(
      mode < 0xF0 ? static_cast<std::size_t>(mode % 32) : kMostUnits);
  BSTR string = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  check(string != nullptr, "no memory");
  return string;
}

inline SAFEARRAY* new_array(Input& input, VARTYPE type, int depth);

/// Makes `value`, which is empty, any value; `object` stands for every object
/// and may be NULL.
inline void fill(Input& input, VARIANT* value, IDispatch* object, int depth) {
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
inline SAFEARRAY* new_array(Input& input, VARTYPE type, int depth) {
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

/// All units of a string.
inline std::wstring counted(BSTR string) {
  return string == nullptr ? std::wstring()
                           : std::wstring(string, SysStringLen(string));
}

}  // namespace fuzz

#endif  // ZIRDB_TESTS_FUZZ_VALUES_H
