// SPDX-License-Identifier: MIT
//
// A component library that does what no database object does: "Echo.Box". It
// gives values of every type, says what it is given, keeps callbacks and calls
// them from anywhere, fails in every way, and hands out objects of all sorts.

#include <array>
#include <atomic>
#include <cwchar>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "values.h"
#include "zir.h"

namespace echo {
namespace {

std::atomic<int> g_live{0};

// A callback that outlives the box it was given to.
std::mutex g_shelf_mutex;
InterfacePtr<IDispatch> g_shelf;

/// Counted, and destroyed by the last Release, on any thread.
template <class Interface>
class Object : public Interface {
 public:
  Object() { ++g_live; }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = riid == IID_IUnknown ? static_cast<Interface*>(this) : find(riid);
    if (*object == nullptr) return E_NOINTERFACE;
    this->AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
  }

 protected:
  virtual ~Object() { --g_live; }

  /// Another interface of the object, or NULL.
  virtual void* find(REFIID riid) = 0;

 private:
  std::atomic<std::uint32_t> references_{1};
};

/// Knows nothing but itself.
class Plain final : public Object<IUnknown> {
 private:
  void* find(REFIID) override { return nullptr; }
};

/// An IDispatch without members; others say what they have.
class Members : public Object<IDispatch> {
 public:
  HRESULT GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT count, LCID,
                        DISPID* ids) override {
    for (UINT i = 0; i < count; ++i) ids[i] = DISPID_UNKNOWN;
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                 UINT*) override {
    return DISP_E_MEMBERNOTFOUND;
  }

 protected:
  void* find(REFIID riid) override {
    return riid == IID_IDispatch ? static_cast<IDispatch*>(this) : nullptr;
  }
};

struct Exception {
  Exception() { ExcepinfoInit(&info); }
  Exception(const Exception&) = delete;
  Exception& operator=(const Exception&) = delete;
  ~Exception() { ExcepinfoClear(&info); }

  EXCEPINFO info = {};
};

/// Calls the default member. `arguments` in the order of the caller; they stay
/// the caller's.
HRESULT call(IDispatch* target, std::vector<VARIANT> arguments, VARIANT* result,
             EXCEPINFO* exception) {
  DISPPARAMS parameters = {arguments.data(), nullptr,
                           static_cast<UINT>(arguments.size()), 0};
  for (std::size_t i = 0; i < arguments.size() / 2; ++i) {
    std::swap(arguments[i], arguments[arguments.size() - 1 - i]);
  }
  return target->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                        result, exception, nullptr);
}

/// Calls a callback when its last reference goes.
class Bell final : public Members {
 public:
  explicit Bell(InterfacePtr<IDispatch> callback)
      : callback_(std::move(callback)) {}
  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;

 private:
  ~Bell() override {
    Exception exception;
    call(callback_.get(), {}, nullptr, &exception.info);
  }

  InterfacePtr<IDispatch> callback_;
};

/// Walks values; calls a callback, if it has one, before each, and fails as
/// that does.
class Enumerator final : public Object<IEnumVARIANT> {
 public:
  explicit Enumerator(std::vector<_variant_t> values,
                      InterfacePtr<IDispatch> callback = {})
      : values_(std::move(values)), callback_(std::move(callback)) {}

  HRESULT Next(zir_types::ULONG count, VARIANT* values,
               zir_types::ULONG* fetched) override {
    *fetched = 0;
    for (; *fetched < count && place_ < values_.size(); ++*fetched) {
      if (callback_) {
        const HRESULT code = call(callback_.get(), {}, nullptr, nullptr);
        if (FAILED(code)) return code;
      }
      VariantInit(&values[*fetched]);
      VariantCopy(&values[*fetched], &values_[place_++]);
    }
    return *fetched == count ? S_OK : S_FALSE;
  }
  HRESULT Skip(zir_types::ULONG) override { return E_NOTIMPL; }
  HRESULT Reset() override {
    place_ = 0;
    return S_OK;
  }
  HRESULT Clone(IEnumVARIANT** clone) override {
    *clone = nullptr;
    return E_NOTIMPL;
  }

  /// Makes it answer IDispatch as well.
  void have_members() { has_members_ = true; }

 private:
  // A part of the enumerator: it lives and is counted with it.
  class Part final : public IDispatch {
   public:
    explicit Part(Enumerator& whole) : whole_(whole) {}
    HRESULT QueryInterface(REFIID riid, void** object) override {
      return whole_.QueryInterface(riid, object);
    }
    std::uint32_t AddRef() override { return whole_.AddRef(); }
    std::uint32_t Release() override { return whole_.Release(); }
    HRESULT GetTypeInfoCount(UINT* count) override {
      *count = 0;
      return S_OK;
    }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
      *info = nullptr;
      return E_NOTIMPL;
    }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
      return DISP_E_UNKNOWNNAME;
    }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*,
                   EXCEPINFO*, UINT*) override {
      return DISP_E_MEMBERNOTFOUND;
    }

   private:
    Enumerator& whole_;
  };

  void* find(REFIID riid) override {
    if (riid == IID_IEnumVARIANT) return static_cast<IEnumVARIANT*>(this);
    if (riid == IID_IDispatch && has_members_) {
      return static_cast<IDispatch*>(&part_);
    }
    return nullptr;
  }

  std::vector<_variant_t> values_;
  InterfacePtr<IDispatch> callback_;
  std::size_t place_ = 0;
  bool has_members_ = false;
  Part part_{*this};
};

/// What Invoke was called with.
struct Call {
  WORD flags;
  const DISPPARAMS& parameters;
  VARIANT* result;
  EXCEPINFO* exception;

  UINT count() const { return parameters.cArgs; }
  /// In the order of the caller; references to variants are followed.
  VARIANT& raw(UINT index) const {
    if (index >= count()) throw _com_error(DISP_E_BADPARAMCOUNT);
    return parameters.rgvarg[count() - 1 - index];
  }
  VARIANT& at(UINT index) const {
    VARIANT& value = raw(index);
    return value.vt == (VT_BYREF | VT_VARIANT) ? *value.pvarVal : value;
  }
  IDispatch* object(UINT index) const {
    const VARIANT& value = at(index);
    if (value.vt != VT_DISPATCH || value.pdispVal == nullptr) {
      throw _com_error(DISP_E_TYPEMISMATCH);
    }
    return value.pdispVal;
  }
  const wchar_t* text(UINT index) const {
    const VARIANT& value = at(index);
    if (value.vt != VT_BSTR) throw _com_error(DISP_E_TYPEMISMATCH);
    return value.bstrVal == nullptr ? L"" : value.bstrVal;
  }
  int kind(UINT index) const {
    const int kind = kind_of(text(index));
    if (kind < 0) throw _com_error(E_INVALIDARG);
    return kind;
  }

  HRESULT give(VARIANT value) const {
    if (result == nullptr) {
      VariantClear(&value);
    } else {
      *result = value;
    }
    return S_OK;
  }
  HRESULT give_text(const std::wstring& text) const {
    return give(_variant_t(text.c_str()).Detach());
  }
  /// Takes over the reference of a new object.
  HRESULT give_new(IDispatch* object) const {
    VARIANT value = {};
    value.vt = VT_DISPATCH;
    value.pdispVal = object;
    return give(value);
  }
  HRESULT give_new(IUnknown* object) const {
    VARIANT value = {};
    value.vt = VT_UNKNOWN;
    value.punkVal = object;
    return give(value);
  }
};

std::wstring exception_text(HRESULT code, const EXCEPINFO& info) {
  std::wstring words = code_text(code);
  if (code != DISP_E_EXCEPTION) return words;
  words += L" " + code_text(info.scode);
  if (info.bstrSource != nullptr) {
    words += L" from " + std::wstring(info.bstrSource);
  }
  if (info.bstrDescription != nullptr) {
    words += L": " + std::wstring(info.bstrDescription);
  }
  return words;
}

HRESULT fill_in(EXCEPINFO* info) {
  info->scode = zir_hresult(0x800A000B);
  info->bstrSource = SysAllocString(L"Echo.Later");
  info->bstrDescription = SysAllocString(L"said when asked");
  return S_OK;
}

class Box final : public Members {
 public:
  HRESULT GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                        DISPID* ids) override;
  HRESULT Invoke(DISPID member, REFIID, LCID, WORD flags,
                 DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* exception,
                 UINT*) override;

 private:
  struct Member {
    const wchar_t* name;
    HRESULT (Box::*act)(const Call&);
  };
  static const std::array<Member, 37> kMembers;
  // Kinds of values are properties too.
  static constexpr DISPID kFirstKind = 1000;

  // Values.
  HRESULT give_kind(const Call& c) { return c.give(make_value(c.kind(0))); }
  HRESULT describe(const Call& c) {
    std::wstring words;
    for (UINT i = 0; i < c.count(); ++i) {
      words += (i == 0 ? L"" : L", ") + described(c.raw(i));
    }
    return c.give_text(words);
  }
  HRESULT store(const Call& c) {
    VARIANT& place = c.raw(0);
    if (place.vt != (VT_BYREF | VT_VARIANT)) return DISP_E_TYPEMISMATCH;
    VariantClear(place.pvarVal);
    *place.pvarVal = make_value(c.kind(1));
    return S_OK;
  }
  HRESULT store_and_fail(const Call& c) {
    store(c);
    return E_FAIL;
  }
  HRESULT value(const Call& c) {
    if (c.flags == DISPATCH_PROPERTYPUT) {
      if (c.parameters.cNamedArgs != 1 ||
          *c.parameters.rgdispidNamedArgs != DISPID_PROPERTYPUT) {
        return DISP_E_BADPARAMCOUNT;
      }
      value_ = c.at(0);
      return S_OK;
    }
    if (c.count() != 0) return DISP_E_BADPARAMCOUNT;
    return c.give(_variant_t(value_).Detach());
  }
  HRESULT described_value(const Call& c) {
    return c.give_text(described(value_));
  }
  HRESULT replace(const Call& c) {
    const VARIANT& array = c.at(0);
    if (array.vt != (VT_ARRAY | VT_VARIANT)) return DISP_E_TYPEMISMATCH;
    const SafeArrayAccess access(array.parray);
    VARIANT& element = access.elements<VARIANT>()[c.at(1).llVal];
    return VariantCopy(&element, &c.at(2));
  }
  HRESULT leave(const Call&) { return S_OK; }

  // Callbacks.
  HRESULT call_it(const Call& c) {
    std::vector<VARIANT> arguments;
    for (UINT i = 1; i < c.count(); ++i) arguments.push_back(c.at(i));
    return call(c.object(0), std::move(arguments), c.result, c.exception);
  }
  HRESULT call_with_kind(const Call& c) {
    VARIANT value = make_value(c.kind(1));
    const HRESULT code = call(c.object(0), {value}, c.result, c.exception);
    VariantClear(&value);
    return code;
  }
  // What a reference to a local array leads to.
  HRESULT call_with_array(const Call& c) {
    _variant_t array;
    array.Attach(make_value(kind_of(L"Variants")));
    VARIANT reference = {};
    reference.vt = VT_BYREF | VT_ARRAY | VT_VARIANT;
    reference.byref = &array.parray;
    return call(c.object(0), {reference}, c.result, c.exception);
  }
  HRESULT describe_answer(const Call& c) {
    _variant_t answer;
    const HRESULT code = call(c.object(0), {}, &answer, c.exception);
    return FAILED(code) ? code : c.give_text(described(answer));
  }
  HRESULT keep(const Call& c) {
    kept_ = InterfacePtr<IDispatch>::share(c.object(0));
    return S_OK;
  }
  HRESULT kept(const Call& c) {
    return c.give(_variant_t(kept_.get()).Detach());
  }
  HRESULT drop(const Call&) {
    kept_ = {};
    return S_OK;
  }
  HRESULT call_kept(const Call& c) {
    return call(kept_.get(), {}, c.result, c.exception);
  }
  HRESULT swallow(const Call& c) {
    Exception exception;
    const HRESULT code = call(c.object(0), {}, nullptr, &exception.info);
    return c.give_text(exception_text(code, exception.info));
  }
  HRESULT call_both(const Call& c) {
    const HRESULT code = call(c.object(0), {}, nullptr, c.exception);
    Exception exception;
    call(c.object(1), {}, nullptr, &exception.info);
    return code;
  }
  HRESULT call_on_thread(const Call& c) {
    IDispatch* const target = c.object(0);
    HRESULT code = S_OK;
    std::thread([&] { code = call(target, {}, nullptr, nullptr); }).join();
    return c.give_text(code_text(code));
  }
  HRESULT release_on_thread(const Call&) {
    std::thread([this] { kept_ = {}; }).join();
    return S_OK;
  }
  HRESULT probe(const Call& c) {
    DISPPARAMS none = {nullptr, nullptr, 0, 0};
    const HRESULT code = c.object(0)->Invoke(
        static_cast<DISPID>(c.at(1).llVal), IID_NULL, 0,
        static_cast<WORD>(c.at(2).llVal), &none, nullptr, nullptr, nullptr);
    return c.give_text(code_text(code));
  }
  HRESULT shelve(const Call& c) {
    const std::lock_guard<std::mutex> lock(g_shelf_mutex);
    g_shelf = InterfacePtr<IDispatch>::share(c.object(0));
    return S_OK;
  }
  HRESULT shelved(const Call& c) {
    const std::lock_guard<std::mutex> lock(g_shelf_mutex);
    return c.give(_variant_t(g_shelf.get()).Detach());
  }
  HRESULT clear_shelf(const Call&) {
    const std::lock_guard<std::mutex> lock(g_shelf_mutex);
    g_shelf = {};
    return S_OK;
  }

  // Failures.
  HRESULT fail(const Call& c);
  HRESULT call_and_fail(const Call& c) {
    Exception exception;
    call(c.object(0), {}, nullptr, &exception.info);
    ExcepinfoClear(c.exception);
    c.exception->scode = zir_hresult(0x800A0001);
    c.exception->bstrDescription = SysAllocString(L"the box itself");
    return DISP_E_EXCEPTION;
  }

  // Objects.
  HRESULT self(const Call& c) {
    return c.give(_variant_t(static_cast<IDispatch*>(this)).Detach());
  }
  HRESULT self_unknown(const Call& c) {
    return c.give(_variant_t(static_cast<IUnknown*>(this)).Detach());
  }
  HRESULT child(const Call& c) {
    if (!child_) child_ = InterfacePtr<IDispatch>::adopt(new Box);
    return c.give(_variant_t(child_.get()).Detach());
  }
  HRESULT other(const Call& c) {
    return c.give_new(static_cast<IDispatch*>(new Box));
  }
  HRESULT plain(const Call& c) {
    if (!plain_) plain_ = InterfacePtr<IUnknown>::adopt(new Plain);
    return c.give(_variant_t(plain_.get()).Detach());
  }
  HRESULT bell(const Call& c) {
    return c.give_new(static_cast<IDispatch*>(
        new Bell(InterfacePtr<IDispatch>::share(c.object(0)))));
  }
  HRESULT enumerate(const Call& c) {
    return c.give_new(static_cast<IUnknown*>(new Enumerator(values_of(c, 0))));
  }
  HRESULT enumerate_with_members(const Call& c) {
    auto* const made = new Enumerator(values_of(c, 0));
    made->have_members();
    return c.give_new(static_cast<IUnknown*>(made));
  }
  HRESULT enumerate_calling(const Call& c) {
    auto callback = InterfacePtr<IDispatch>::share(c.object(0));
    return c.give_new(static_cast<IUnknown*>(
        new Enumerator(values_of(c, 1), std::move(callback))));
  }
  HRESULT make(const Call& c) {
    void* object = nullptr;
    const HRESULT code = CoCreateInstanceByName(
        c.text(0), nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, &object);
    return FAILED(code) ? code : c.give_new(static_cast<IDispatch*>(object));
  }
  HRESULT live(const Call& c) {
    VARIANT value = {};
    value.vt = VT_I2;
    value.iVal = static_cast<std::int16_t>(g_live.load());
    return c.give(value);
  }

  static std::vector<_variant_t> values_of(const Call& c, UINT first) {
    std::vector<_variant_t> values;
    for (UINT i = first; i < c.count(); ++i) values.emplace_back(c.at(i));
    return values;
  }

  _variant_t value_;
  InterfacePtr<IDispatch> kept_;
  InterfacePtr<IDispatch> child_;
  InterfacePtr<IUnknown> plain_;
};

// The first is the default member.
const std::array<Box::Member, 37> Box::kMembers = {{
    {L"Describe", &Box::describe},
    {L"Return", &Box::give_kind},
    {L"Store", &Box::store},
    {L"StoreAndFail", &Box::store_and_fail},
    {L"Value", &Box::value},
    {L"DescribedValue", &Box::described_value},
    {L"Replace", &Box::replace},
    {L"Leave", &Box::leave},
    {L"Call", &Box::call_it},
    {L"CallWithKind", &Box::call_with_kind},
    {L"CallWithArray", &Box::call_with_array},
    {L"DescribeAnswer", &Box::describe_answer},
    {L"Keep", &Box::keep},
    {L"Kept", &Box::kept},
    {L"Drop", &Box::drop},
    {L"CallKept", &Box::call_kept},
    {L"Swallow", &Box::swallow},
    {L"CallBoth", &Box::call_both},
    {L"CallOnThread", &Box::call_on_thread},
    {L"ReleaseOnThread", &Box::release_on_thread},
    {L"Probe", &Box::probe},
    {L"Shelve", &Box::shelve},
    {L"Shelved", &Box::shelved},
    {L"ClearShelf", &Box::clear_shelf},
    {L"Fail", &Box::fail},
    {L"CallAndFail", &Box::call_and_fail},
    {L"Self", &Box::self},
    {L"SelfUnknown", &Box::self_unknown},
    {L"Child", &Box::child},
    {L"Other", &Box::other},
    {L"Plain", &Box::plain},
    {L"Bell", &Box::bell},
    {L"Enumerate", &Box::enumerate},
    {L"EnumerateWithMembers", &Box::enumerate_with_members},
    {L"EnumerateCalling", &Box::enumerate_calling},
    {L"Make", &Box::make},
    {L"Live", &Box::live},
}};

HRESULT Box::fail(const Call& c) {
  const std::wstring way = c.text(0);
  EXCEPINFO& info = *c.exception;
  if (way == L"plainly") return zir_hresult(0x800A0005);
  ExcepinfoClear(&info);
  if (way == L"filled") {
    info.wReserved = 3;
    info.bstrSource = SysAllocString(L"Echo.Box \u00E9");
    info.bstrDescription = SysAllocString(L"went wrong \U0001F600");
    info.bstrHelpFile = SysAllocString(L"echo.hlp");
    info.dwHelpContext = 12;
    info.pvReserved = this;
    info.scode = zir_hresult(0x800A000A);
  } else if (way == L"positive") {
    info.bstrDescription = SysAllocString(L"number of its own");
    info.scode = 1004;
  } else if (way == L"deferred") {
    info.pfnDeferredFillIn = fill_in;
  } else if (way == L"silently") {
    info.scode = zir_hresult(0x800A000C);
  } else if (way == L"without a reason") {
    // The record stays empty.
  } else if (way == L"words for nothing") {
    // Only DISP_E_EXCEPTION says that there is a record.
    info.bstrDescription = SysAllocString(L"never read");
    return DISP_E_TYPEMISMATCH;
  } else {
    return E_INVALIDARG;
  }
  return DISP_E_EXCEPTION;
}

HRESULT Box::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                           DISPID* ids) {
  HRESULT code = S_OK;
  for (UINT i = 0; i < count; ++i) {
    ids[i] = DISPID_UNKNOWN;
    for (std::size_t place = 0; place < kMembers.size(); ++place) {
      if (std::wcscmp(kMembers[place].name, names[i]) == 0) {
        ids[i] = static_cast<DISPID>(place);
      }
    }
    if (std::wcscmp(names[i], L"_NewEnum") == 0) ids[i] = DISPID_NEWENUM;
    const int kind = kind_of(names[i]);
    if (kind >= 0) ids[i] = kFirstKind + kind;
    if (ids[i] == DISPID_UNKNOWN) code = DISP_E_UNKNOWNNAME;
  }
  return code;
}

HRESULT Box::Invoke(DISPID member, REFIID, LCID, WORD flags,
                    DISPPARAMS* parameters, VARIANT* result,
                    EXCEPINFO* exception, UINT*) {
  if (result != nullptr) VariantInit(result);
  const Call c = {flags, *parameters, result, exception};
  try {
    if (member == DISPID_NEWENUM) {
      return c.give_new(static_cast<IUnknown*>(
          new Enumerator({_variant_t(1), _variant_t(L"b"), _variant_t(2.5)})));
    }
    if (member >= kFirstKind) {
      return c.count() > 0 ? DISP_E_BADPARAMCOUNT
                           : c.give(make_value(member - kFirstKind));
    }
    const Member& called = kMembers[static_cast<std::size_t>(member)];
    if (flags == DISPATCH_PROPERTYPUT && called.act != &Box::value) {
      return DISP_E_MEMBERNOTFOUND;
    }
    return (this->*called.act)(c);
  } catch (const _com_error& error) {
    return error.Error();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

/// There is one, which lives for good.
class Factory final : public IClassFactory {
 public:
  HRESULT QueryInterface(REFIID, void** object) override {
    *object = this;
    return S_OK;
  }
  std::uint32_t AddRef() override { return 2; }
  std::uint32_t Release() override { return 1; }
  HRESULT CreateInstance(IUnknown*, REFIID riid, void** object) override {
    const auto box = InterfacePtr<IDispatch>::adopt(new Box);
    return box->QueryInterface(riid, object);
  }
  HRESULT LockServer(BOOL) override { return E_NOTIMPL; }
};

Factory g_factory;

}  // namespace
}  // namespace echo

extern "C" {

__attribute__((visibility("default"))) HRESULT DllGetClassObject(
    REFCLSID clsid, REFIID, void** object) {
  const auto* const name = static_cast<const wchar_t*>(*object);
  if (clsid != CLSID_NULL || name == nullptr ||
      std::wcscmp(name, L"Box") != 0) {
    return CLASS_E_CLASSNOTAVAILABLE;
  }
  *object = static_cast<IClassFactory*>(&echo::g_factory);
  return S_OK;
}

__attribute__((visibility("default"))) HRESULT DllCanUnloadNow() {
  return echo::g_live == 0 ? S_OK : S_FALSE;
}

}  // extern "C"
