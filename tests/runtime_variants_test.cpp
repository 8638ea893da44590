// SPDX-License-Identifier: MIT
//
// VariantInit, VariantClear and VariantCopy: who owns which payload, and how
// deep a copy goes.
//
// Sections: clearing; copying; values that own nothing.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "support/objects.h"
#include "zir.h"

namespace {

/// A value with `vt` and this payload, which it may own or not.
VARIANT raw(int vt, std::uint64_t payload) {
  VARIANT value = {};
  value.vt = static_cast<VARTYPE>(vt);
  value.ullVal = payload;
  return value;
}

VARIANT raw(int vt, const void* payload) {
  VARIANT value = {};
  value.vt = static_cast<VARTYPE>(vt);
  std::memcpy(&value.ullVal, &payload, sizeof payload);
  return value;
}

bool same_bytes(const VARIANT& left, const VARIANT& right) {
  const void* const first = &left;
  const void* const second = &right;
  return std::memcmp(first, second, sizeof left) == 0;
}

char* new_text(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  void* const copy = std::malloc(size);
  return static_cast<char*>(std::memcpy(copy, text, size));
}

/// Looks at an array's elements, locking it as long as the call takes.
template <class Element>
void look_at(SAFEARRAY* array, const std::function<void(Element*)>& look) {
  const SafeArrayAccess access(array);
  ASSERT_EQ(access.result(), S_OK);
  look(access.elements<Element>());
}

// ---------------------------------------------------------------------------
// Clearing
// ---------------------------------------------------------------------------

TEST(VariantInit, ZeroesAllSixteenBytesAndFreesNothing) {
  objects::Unknown object;
  VARIANT value = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
  value.wReserved1 = 1;
  value.wReserved2 = 2;
  value.wReserved3 = 3;
  VariantInit(&value);
  EXPECT_TRUE(same_bytes(value, VARIANT()));
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantClear, FreesAStringAndKeepsThePayloadBytes) {
  VARIANT value = raw(VT_BSTR, SysAllocString(L"text"));
  value.wReserved1 = 1;
  value.wReserved3 = 3;
  const VARIANT before = value;
  EXPECT_EQ(VariantClear(&value), S_OK);
  EXPECT_EQ(value.vt, VT_EMPTY);
  EXPECT_EQ(value.ullVal, before.ullVal);
  EXPECT_EQ(value.wReserved1, 1);
  EXPECT_EQ(value.wReserved3, 3);
}

TEST(VariantClear, FreesAnEightBitText) {
  VARIANT value = raw(VT_LPSTR, new_text("text"));
  EXPECT_EQ(VariantClear(&value), S_OK);
  EXPECT_EQ(value.vt, VT_EMPTY);
}

TEST(VariantClear, DropsOneReferenceOfAnObject) {
  objects::Unknown unknown;
  objects::Dispatch dispatch;
  unknown.AddRef();
  dispatch.AddRef();
  VARIANT first = raw(VT_UNKNOWN, static_cast<IUnknown*>(&unknown));
  VARIANT second = raw(VT_DISPATCH, static_cast<IDispatch*>(&dispatch));
  EXPECT_EQ(VariantClear(&first), S_OK);
  EXPECT_EQ(VariantClear(&second), S_OK);
  EXPECT_EQ(unknown.references(), 1U);
  EXPECT_EQ(dispatch.references(), 1U);
  EXPECT_EQ(first.vt, VT_EMPTY);
  EXPECT_EQ(second.vt, VT_EMPTY);
  EXPECT_EQ(first.punkVal, &unknown);
}

TEST(VariantClear, ASecondTimeDoesNothing) {
  objects::Unknown object;
  object.AddRef();
  VARIANT value = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
  VariantClear(&value);
  EXPECT_EQ(VariantClear(&value), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantClear, ANullPayloadIsAllowedForEveryOwningType) {
  for (const int vt :
       {int{VT_BSTR}, int{VT_LPSTR}, int{VT_DISPATCH}, int{VT_UNKNOWN},
        VT_ARRAY | VT_VARIANT, VT_ARRAY | VT_BYREF | VT_UI1, int{VT_ARRAY}}) {
    VARIANT value = raw(vt, nullptr);
    EXPECT_EQ(VariantClear(&value), S_OK) << vt;
    EXPECT_EQ(value.vt, VT_EMPTY) << vt;
  }
}

// An object that is let go of may look at the value that held it.
TEST(VariantClear, ReleaseMayClearTheSameValueAgain) {
  objects::Unknown object;
  object.AddRef();
  VARIANT value = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
  object.on_release = [&] {
    if (object.references() > 0) VariantClear(&value);
  };
  VariantClear(&value);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(value.vt, VT_EMPTY);
}

TEST(VariantClear, DestroysAnArrayWithItsElements) {
  objects::Unknown object;
  object.AddRef();
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 3);
  look_at<VARIANT>(array, [&](VARIANT* elements) {
    elements[1] = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
    elements[2] = raw(VT_BSTR, SysAllocString(L"text"));
  });
  VARIANT value = raw(VT_ARRAY | VT_VARIANT, array);
  EXPECT_EQ(VariantClear(&value), S_OK);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(value.vt, VT_EMPTY);
}

TEST(VariantClear, TheArrayBitDecidesAloneWhateverStandsBesideIt) {
  for (const int vt :
       {int{VT_ARRAY}, VT_ARRAY | VT_BSTR, VT_ARRAY | VT_UNKNOWN,
        VT_ARRAY | VT_LPSTR, VT_ARRAY | VT_BYREF | VT_VARIANT,
        VT_ARRAY | VT_BYREF, VT_ARRAY | 0x0FFF, 0xFFFF, 0xA000}) {
    objects::Unknown object;
    object.AddRef();
    SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 1);
    look_at<VARIANT>(array, [&](VARIANT* element) {
      *element = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
    });
    VARIANT value = raw(vt, array);
    EXPECT_EQ(VariantClear(&value), S_OK) << vt;
    EXPECT_EQ(value.vt, VT_EMPTY) << vt;
    EXPECT_EQ(object.references(), 1U) << vt;
  }
}

TEST(VariantClear, ALockedArrayIsLeftToWhoeverAccessesIt) {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_BSTR, 0, 1);
  VARIANT value = raw(VT_ARRAY | VT_BSTR, array);
  {
    const SafeArrayAccess access(array);
    access.elements<BSTR>()[0] = SysAllocString(L"kept");
    EXPECT_EQ(VariantClear(&value), S_OK);
    EXPECT_EQ(value.vt, VT_EMPTY);
    EXPECT_EQ(std::wstring(access.elements<BSTR>()[0]), L"kept");
  }
  EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

TEST(VariantClear, WhatIsReferredToIsNotFreed) {
  objects::Unknown object;
  VARIANT target = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
  BSTR string = SysAllocString(L"kept");
  char* text = new_text("kept");
  VARIANT values[] = {
      raw(VT_BYREF | VT_VARIANT, &target), raw(VT_BYREF | VT_BSTR, string),
      raw(VT_BYREF | VT_BSTR, &string),    raw(VT_BYREF | VT_LPSTR, text),
      raw(VT_BYREF | VT_UNKNOWN, &object), raw(VT_BYREF | VT_DISPATCH, &object),
      raw(0x8000 | VT_BSTR, string),       raw(0x1000 | VT_UNKNOWN, &object)};
  for (VARIANT& value : values) {
    const VARIANT before = value;
    EXPECT_EQ(VariantClear(&value), S_OK) << before.vt;
    EXPECT_EQ(value.vt, VT_EMPTY) << before.vt;
    EXPECT_EQ(value.ullVal, before.ullVal) << before.vt;
  }
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(target.vt, VT_UNKNOWN);
  EXPECT_EQ(std::wstring(string), L"kept");
  EXPECT_EQ(std::string(text), "kept");
  SysFreeString(string);
  std::free(text);
}

// ---------------------------------------------------------------------------
// Copying
// ---------------------------------------------------------------------------

TEST(VariantCopy, FreesWhatTheDestinationHeld) {
  objects::Unknown object;
  object.AddRef();
  VARIANT destination = raw(VT_UNKNOWN, static_cast<IUnknown*>(&object));
  const VARIANT source = raw(VT_I4, 7);
  EXPECT_EQ(VariantCopy(&destination, &source), S_OK);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_TRUE(same_bytes(destination, source));
}

TEST(VariantCopy, ReservedWordsAreCopied) {
  VARIANT source = raw(VT_I8, 0x0123456789ABCDEF);
  source.wReserved1 = 1;
  source.wReserved2 = 2;
  source.wReserved3 = 3;
  VARIANT destination = {};
  VariantCopy(&destination, &source);
  EXPECT_TRUE(same_bytes(destination, source));
}

TEST(VariantCopy, AStringIsDuplicated) {
  _variant_t source(L"h\u00E9llo");
  _variant_t destination;
  EXPECT_EQ(VariantCopy(&destination, &source), S_OK);
  EXPECT_EQ(destination.vt, VT_BSTR);
  EXPECT_NE(destination.bstrVal, source.bstrVal);
  EXPECT_EQ(std::wstring(destination.bstrVal), L"h\u00E9llo");
  EXPECT_EQ(SysStringLen(destination.bstrVal), 5U);
}

TEST(VariantCopy, AStringEndsAtItsFirstZero) {
  _variant_t source;
  source.vt = VT_BSTR;
  source.bstrVal = SysAllocStringLen(L"ab\0c", 4);
  _variant_t destination;
  VariantCopy(&destination, &source);
  EXPECT_EQ(SysStringLen(destination.bstrVal), 2U);
  EXPECT_EQ(SysStringLen(source.bstrVal), 4U);
}

TEST(VariantCopy, StringsOfEveryLengthEndAtTheirFirstZeroWhereverItStands) {
  for (std::size_t length = 0; length <= 40; ++length) {
    std::wstring units;
    for (std::size_t i = 0; i < length; ++i) {
      // The low bytes of some are zero, which a whole unit is not.
      units += static_cast<wchar_t>((i % 3 == 0 ? 0x10000 : 0x101) * (i + 1));
    }
    for (std::size_t at = 0; at <= length; ++at) {
      std::wstring text = units;
      if (at < length) text[at] = L'\0';
      if (at + 3 < length) text[at + 3] = L'\0';
      _variant_t source;
      source.vt = VT_BSTR;
      source.bstrVal =
          SysAllocStringLen(text.data(), static_cast<UINT>(length));
      const _variant_t copy(source);
      ASSERT_EQ(SysStringLen(copy.bstrVal), at) << length;
      ASSERT_EQ(std::wstring(copy.bstrVal, at + 1),
                units.substr(0, at) + L'\0');
    }
  }
}

TEST(VariantCopy, NoStringStaysNoneAndAnEmptyOneIsOne) {
  const VARIANT none = raw(VT_BSTR, nullptr);
  _variant_t empty(L"");
  _variant_t destination;
  VariantCopy(&destination, &none);
  EXPECT_EQ(destination.vt, VT_BSTR);
  EXPECT_EQ(destination.bstrVal, nullptr);
  VariantCopy(&destination, &empty);
  ASSERT_NE(destination.bstrVal, nullptr);
  EXPECT_NE(destination.bstrVal, empty.bstrVal);
  EXPECT_EQ(SysStringLen(destination.bstrVal), 0U);
}

TEST(VariantCopy, AnEightBitTextIsDuplicatedWithMalloc) {
  for (const char* const text : {"", "a", "text", "h\xC3\xA9"}) {
    VARIANT source = raw(VT_LPSTR, new_text(text));
    VARIANT destination = {};
    EXPECT_EQ(VariantCopy(&destination, &source), S_OK);
    EXPECT_EQ(destination.vt, VT_LPSTR);
    EXPECT_NE(destination.pszVal, source.pszVal);
    EXPECT_STREQ(destination.pszVal, text);
    std::free(destination.pszVal);
    VariantClear(&source);
  }
}

TEST(VariantCopy, NoEightBitTextStaysNone) {
  const VARIANT source = raw(VT_LPSTR, nullptr);
  VARIANT destination = {};
  EXPECT_EQ(VariantCopy(&destination, &source), S_OK);
  EXPECT_TRUE(same_bytes(destination, source));
}

TEST(VariantCopy, AnObjectGainsAReference) {
  objects::Unknown unknown;
  objects::Dispatch dispatch;
  const VARIANT sources[] = {
      raw(VT_UNKNOWN, static_cast<IUnknown*>(&unknown)),
      raw(VT_DISPATCH, static_cast<IDispatch*>(&dispatch))};
  {
    _variant_t first;
    _variant_t second;
    EXPECT_EQ(VariantCopy(&first, &sources[0]), S_OK);
    EXPECT_EQ(VariantCopy(&second, &sources[1]), S_OK);
    EXPECT_TRUE(same_bytes(first, sources[0]));
    EXPECT_TRUE(same_bytes(second, sources[1]));
    EXPECT_EQ(unknown.references(), 2U);
    EXPECT_EQ(dispatch.references(), 2U);
  }
  EXPECT_EQ(unknown.references(), 1U);
  EXPECT_EQ(dispatch.references(), 1U);
}

/// Clears `destination` whenever it is counted, or throws.
class Interfering final : public IUnknown {
 public:
  HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  std::uint32_t AddRef() override {
    if (throws) throw 5;
    ++references;
    if (destination != nullptr) VariantClear(destination);
    return references;
  }
  std::uint32_t Release() override { return --references; }

  std::uint32_t references = 1;
  VARIANT* destination = nullptr;
  bool throws = false;
};

TEST(VariantCopy, AnObjectMayClearTheDestinationWhileItIsCounted) {
  Interfering object;
  VARIANT source = {};
  source.vt = VT_UNKNOWN;
  source.punkVal = &object;
  {
    _variant_t copy;
    object.destination = &copy;
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK);
    object.destination = nullptr;
    EXPECT_EQ(copy.vt, VT_UNKNOWN);
    EXPECT_EQ(object.references, 2U);
  }
  EXPECT_EQ(object.references, 1U);
}

TEST(VariantCopy, AnObjectThatIsNotCountedIsNotOwned) {
  Interfering object;
  VARIANT source = {};
  source.vt = VT_UNKNOWN;
  source.punkVal = &object;
  object.throws = true;
  {
    _variant_t copy(5LL);
    EXPECT_THROW(VariantCopy(&copy, &source), int);
    EXPECT_EQ(copy.vt, VT_EMPTY);
  }
  {
    SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    auto* const elements = static_cast<VARIANT*>(array->pvData);
    elements[0].vt = VT_BSTR;
    elements[0].bstrVal = SysAllocString(L"text");
    elements[1] = source;
    SAFEARRAY* copy = nullptr;
    EXPECT_THROW(SafeArrayCopy(array, &copy), int);
    EXPECT_EQ(copy, nullptr);
    elements[1].vt = VT_EMPTY;
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
  }
  EXPECT_EQ(object.references, 1U);
}

TEST(VariantCopy, NoObjectStaysNone) {
  for (const VARENUM vt : {VT_UNKNOWN, VT_DISPATCH}) {
    const VARIANT source = raw(vt, nullptr);
    VARIANT destination = {};
    EXPECT_EQ(VariantCopy(&destination, &source), S_OK);
    EXPECT_TRUE(same_bytes(destination, source));
  }
}

TEST(VariantCopy, ACopyOntoTheSameObjectKeepsTheBalance) {
  objects::Unknown object;
  {
    const _variant_t source(&object);
    _variant_t destination(&object);
    VariantCopy(&destination, &source);
    EXPECT_EQ(object.references(), 3U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantCopy, AnArrayIsDuplicatedWithWhatIsNestedInIt) {
  objects::Dispatch object;
  {
    _variant_t source;
    source.vt = VT_ARRAY | VT_VARIANT;
    source.parray = SafeArrayCreateVector(VT_VARIANT, -3, 3);
    look_at<VARIANT>(source.parray, [&](VARIANT* elements) {
      elements[0] = _variant_t(L"text").Detach();
      elements[1] = _variant_t(&object).Detach();
      elements[2] =
          raw(VT_ARRAY | VT_BSTR, SafeArrayCreateVector(VT_BSTR, 0, 1));
      look_at<BSTR>(elements[2].parray,
                    [](BSTR* inner) { inner[0] = SysAllocString(L"inner"); });
    });
    _variant_t copy;
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK);
    EXPECT_EQ(object.references(), 3U);
    EXPECT_EQ(copy.vt, VT_ARRAY | VT_VARIANT);
    EXPECT_NE(copy.parray, source.parray);
    VariantClear(&source);
    EXPECT_EQ(object.references(), 2U);
    look_at<VARIANT>(copy.parray, [&](VARIANT* elements) {
      EXPECT_EQ(std::wstring(elements[0].bstrVal), L"text");
      EXPECT_EQ(elements[1].pdispVal, &object);
      look_at<BSTR>(elements[2].parray, [](BSTR* inner) {
        EXPECT_EQ(std::wstring(inner[0]), L"inner");
      });
    });
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantCopy, TheArrayBitDecidesAloneWhateverStandsBesideIt) {
  for (const int vt : {int{VT_ARRAY}, VT_ARRAY | VT_BSTR, VT_ARRAY | VT_UNKNOWN,
                       VT_ARRAY | VT_BYREF | VT_UI1, 0xFFFF}) {
    _variant_t source;
    source.parray = SafeArrayCreateVector(VT_UI1, 0, 2);
    source.vt = static_cast<VARTYPE>(vt);
    look_at<BYTE>(source.parray, [](BYTE* bytes) {
      bytes[0] = 1;
      bytes[1] = 2;
    });
    _variant_t copy;
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK) << vt;
    EXPECT_EQ(copy.vt, vt);
    ASSERT_NE(copy.parray, source.parray) << vt;
    look_at<BYTE>(copy.parray, [&](BYTE* bytes) {
      EXPECT_EQ(bytes[0], 1) << vt;
      EXPECT_EQ(bytes[1], 2) << vt;
    });
  }
}

TEST(VariantCopy, NoArrayStaysNone) {
  for (const int vt : {VT_ARRAY | VT_VARIANT, VT_ARRAY | VT_BYREF | VT_BSTR}) {
    const VARIANT source = raw(vt, nullptr);
    VARIANT destination = {};
    EXPECT_EQ(VariantCopy(&destination, &source), S_OK) << vt;
    EXPECT_TRUE(same_bytes(destination, source)) << vt;
  }
}

TEST(VariantCopy, ACopyOfALockedArrayIsUnlocked) {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_UI1, 0, 1);
  const VARIANT source = raw(VT_ARRAY | VT_UI1, array);
  {
    const SafeArrayAccess access(array);
    access.elements<BYTE>()[0] = 9;
    _variant_t copy;
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK);
    EXPECT_EQ(copy.parray->cLocks, 0U);
  }
  SafeArrayDestroy(array);
}

TEST(VariantCopy, AValueCopiedOntoItselfEndsEmpty) {
  objects::Unknown object;
  object.AddRef();
  VARIANT values[] = {
      raw(VT_I8, 7), raw(VT_BSTR, SysAllocString(L"text")),
      raw(VT_LPSTR, new_text("text")),
      raw(VT_UNKNOWN, static_cast<IUnknown*>(&object)),
      raw(VT_ARRAY | VT_VARIANT, SafeArrayCreateVector(VT_VARIANT, 0, 2))};
  for (VARIANT& value : values) {
    const VARIANT before = value;
    EXPECT_EQ(VariantCopy(&value, &value), S_OK) << before.vt;
    EXPECT_EQ(value.vt, VT_EMPTY) << before.vt;
    EXPECT_EQ(value.ullVal, before.ullVal) << before.vt;
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantCopy, ReferencesAreCopiedAsTheyAre) {
  objects::Unknown object;
  _variant_t target(L"kept");
  _bstr_t string(L"kept");
  const VARIANT sources[] = {
      raw(VT_BYREF | VT_VARIANT, &target), raw(VT_BYREF | VT_BSTR, &string.m_s),
      raw(VT_BYREF | VT_UNKNOWN, &object), raw(VT_BYREF | VT_DISPATCH, &object),
      raw(VT_BYREF | VT_LPSTR, &object)};
  for (const VARIANT& source : sources) {
    VARIANT copy = {};
    EXPECT_EQ(VariantCopy(&copy, &source), S_OK) << source.vt;
    EXPECT_TRUE(same_bytes(copy, source)) << source.vt;
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(VariantCopy, TheSourceIsLeftAsItIs) {
  const _variant_t source(L"text");
  const VARIANT before = source;
  _variant_t copy;
  VariantCopy(&copy, &source);
  EXPECT_TRUE(same_bytes(source, before));
  EXPECT_EQ(std::wstring(source.bstrVal), L"text");
}

// ---------------------------------------------------------------------------
// Values that own nothing
// ---------------------------------------------------------------------------

bool owns(int vt) {
  return vt == VT_BSTR || vt == VT_LPSTR || vt == VT_DISPATCH ||
         vt == VT_UNKNOWN || (vt & VT_ARRAY) != 0;
}

// Were such a payload taken for a pointer, reading through it would crash.
TEST(VariantTypes, EveryOtherTypeIsCopiedAndClearedWithoutALookAtItsPayload) {
  for (int vt = 0; vt <= 0xFFFF; ++vt) {
    if (owns(vt)) continue;
    VARIANT source = raw(vt, 0xDEADBEEFDEADBEEF);
    source.wReserved2 = 0x2222;
    VARIANT copy = {};
    ASSERT_EQ(VariantCopy(&copy, &source), S_OK) << vt;
    ASSERT_TRUE(same_bytes(copy, source)) << vt;
    ASSERT_EQ(VariantClear(&copy), S_OK) << vt;
    ASSERT_EQ(copy.vt, VT_EMPTY) << vt;
    ASSERT_EQ(copy.ullVal, 0xDEADBEEFDEADBEEF) << vt;
    ASSERT_EQ(copy.wReserved2, 0x2222) << vt;
  }
}

}  // namespace
