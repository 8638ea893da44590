// SPDX-License-Identifier: MIT
//
// Fuzz target: a live graph of objects, and calls of any shape on it,
// late-bound and not, over a driver that answers anything. Objects of the host
// stand in the graph as values, callbacks, connections and parameters; they
// come back into it, let go of it, fail and throw. There is no model of what
// the calls do: they must keep to the rules that all calls share, and in the
// end nothing is left.
//
// Sections: memory; the host's objects; arguments; late-bound calls; the
// interfaces; what else a host does; one input.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/component.h"
#include "fuzz/fuzz.h"
#include "fuzz/odbc_double.h"
#include "fuzz/values.h"
#include "zirdb.h"

// ---------------------------------------------------------------------------
// Memory
//
// Whoever declares a parameter of a size beyond memory is told so, where the
// sanitizer would end the process.
// ---------------------------------------------------------------------------

void* operator new(std::size_t size) {
  constexpr std::size_t kMost = std::size_t{64} << 20;
  void* const block =
      size <= kMost ? ::operator new(size, std::nothrow) : nullptr;
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

namespace {

using fuzz::check;
using fuzz::Input;

constexpr VARTYPE kReference = VT_BYREF | VT_VARIANT;

// Calls that come back from calls; each takes some of the stack.
constexpr int kMostDepth = 8;
// Callbacks that come back in front of the first row would never end.
constexpr int kMostSteps = 3000;

class Graph;
Graph* g_graph = nullptr;
void step_again();

// ---------------------------------------------------------------------------
// The host's objects
// ---------------------------------------------------------------------------

// Counts what the host was asked; a call that asked it nothing owes its failure
// to nobody else.
std::size_t g_asked = 0;

/// An answer, from the input: mostly success.
HRESULT any_result();
Input* any_input();
void fill_any(VARIANT* value);

/// A script's object: anything that can be called back, and, to who asks for
/// these, a connection and a parameter. The graph owns it.
class Host final : public IDispatch,
                   public IZIRDBConnection,
                   public IZIRDBParameter {
 public:
  Host() = default;
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host() { check(references_ == 1, "the references of a host's object"); }

  void forget() { kept_ = _variant_t(); }
  IDispatch* dispatch() { return this; }
  IZIRDBParameter* parameter() { return this; }

  HRESULT QueryInterface(REFIID riid, void** object) override {
    ++g_asked;
    *object = nullptr;
    step_again();
    if (riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(this);
    } else if (riid == IID_IUnknown) {
      // Another pointer, which is no IDispatch.
      *object = static_cast<IUnknown*>(static_cast<IZIRDBConnection*>(this));
    } else if (riid == IID_IZIRDBConnection && any_result() == S_OK) {
      *object = static_cast<IZIRDBConnection*>(this);
    } else if (riid == IID_IZIRDBParameter && any_result() == S_OK) {
      *object = static_cast<IZIRDBParameter*>(this);
    } else {
      return E_NOINTERFACE;
    }
    ++references_;
    return S_OK;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override { return --references_; }
  HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }

  HRESULT Invoke(DISPID member, REFIID riid, LCID, WORD flags,
                 DISPPARAMS* parameters, VARIANT* value, EXCEPINFO* exception,
                 UINT*) override {
    ++g_asked;
    check(member == DISPID_VALUE && riid == IID_NULL && parameters != nullptr &&
              value != nullptr,
          "how a host's object is called");
    if (flags == DISPATCH_METHOD) {
      check(parameters->cArgs == 1 && parameters->cNamedArgs == 0 &&
                parameters->rgvarg[0].vt == VT_DISPATCH,
            "what a callback is given");
      // Perhaps into a circle, and perhaps longer than the recordset lives.
      if (any_result() != S_OK) kept_ = parameters->rgvarg[0];
    }
    step_again();
    const HRESULT result = any_result();
    if (FAILED(result)) {
      if (exception != nullptr && result == DISP_E_EXCEPTION) {
        ExcepinfoClear(exception);
        exception->scode = E_FAIL;
        exception->bstrDescription = SysAllocString(L"the host's own");
      }
      return result;
    }
    VariantInit(value);
    fill_any(value);
    return result;
  }

  // As a parameter.
  HRESULT get_Name(BSTR* name) override {
    *name = nullptr;
    const HRESULT result = answer();
    if (SUCCEEDED(result)) *name = SysAllocString(L"foreign");
    return result;
  }
  HRESULT get_Value(VARIANT* value) override {
    const HRESULT result = answer();
    if (SUCCEEDED(result)) fill_any(value);
    return result;
  }
  HRESULT get_Type(long* type) override { return answer(type); }
  HRESULT get_Direction(long* direction) override { return answer(direction); }
  HRESULT get_Size(long* size) override { return answer(size); }
  HRESULT put_Name(BSTR) override { return E_NOTIMPL; }
  HRESULT put_Value(VARIANT) override { return E_NOTIMPL; }
  HRESULT put_Type(long) override { return E_NOTIMPL; }
  HRESULT put_Direction(long) override { return E_NOTIMPL; }
  HRESULT put_Size(long) override { return E_NOTIMPL; }

  // As a connection.
  HRESULT get_ConnectionString(BSTR*) override { return E_NOTIMPL; }
  HRESULT put_ConnectionString(BSTR) override { return E_NOTIMPL; }
  HRESULT get_State(long*) override { return E_NOTIMPL; }
  HRESULT Open(BSTR, BSTR, BSTR, long) override { return E_NOTIMPL; }
  HRESULT Close() override { return E_NOTIMPL; }
  HRESULT Execute(BSTR text, VARIANT*, long,
                  IZIRDBRecordset** recordset) override {
    check(SysStringLen(text) > 0 && recordset != nullptr,
          "how a foreign connection is called");
    *recordset = nullptr;
    const HRESULT result = answer();
    if (result != S_OK) return result;
    *recordset =
        fuzz::create<IZIRDBRecordset>(CLSID_ZIRDBRecordset, IID_IZIRDBRecordset)
            .detach();
    return S_OK;
  }

 private:
  static HRESULT answer() {
    ++g_asked;
    step_again();
    return any_result();
  }
  static HRESULT answer(long* number) {
    *number = any_input()->byte();
    return answer();
  }

  std::uint32_t references_ = 1;
  _variant_t kept_{};
};

/// An object that only the graph's values hold. When the last one lets go, it
/// comes back into the graph.
class Witness final : public IDispatch {
 public:
  Witness() = default;
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;
  ~Witness() = default;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    ++g_asked;
    const bool known = riid == IID_IUnknown || riid == IID_IDispatch;
    *object = known ? this : nullptr;
    if (known) ++references_;
    return known ? S_OK : E_NOINTERFACE;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override {
    if (--references_ != 0) return references_;
    // Whoever takes and drops it meanwhile does not end it once more.
    references_ = 1;
    ++g_asked;
    try {
      step_again();
    } catch (...) {
      // Nothing may leave a Release.
      ++g_asked;
    }
    check(references_ == 1, "the references of an object that is gone");
    delete this;
    return 0;
  }
  HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT* value,
                 EXCEPINFO*, UINT*) override {
    ++g_asked;
    step_again();
    check(references_ > 0, "an object that was let go while it was called");
    VariantInit(value);
    value->vt = VT_BSTR;
    value->bstrVal = SysAllocString(L"1");
    return S_OK;
  }

 private:
  std::uint32_t references_ = 1;
};

// ---------------------------------------------------------------------------
// Arguments
// ---------------------------------------------------------------------------

/// The values that one call passes. What refers to something owns nothing.
class Arguments {
 public:
  Arguments() = default;
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;
  ~Arguments() {
    for (VARIANT& each : values_) VariantClear(&each);
  }

  VARIANT& add() { return values_.emplace_back(); }
  std::vector<VARIANT>& values() { return values_; }

 private:
  std::vector<VARIANT> values_{};
};

class Graph {
 public:
  explicit Graph(Input& input) : input_(input) { g_graph = this; }
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;
  ~Graph() {
    ending_ = true;
    for (const auto& each : in_circles_) take_apart(each);
    for (auto& each : enumerators_) each = {};
    for (_variant_t& each : variables_) set_variable(each, _variant_t());
    for (auto& each : objects_) each = {};
    for (Host& each : hosts_) each.forget();
    g_graph = nullptr;
  }

  /// What most inputs begin with, so that they need not find it: an open
  /// connection, a command on it, a recordset, and a parameter.
  void prepare(std::uint8_t how) {
    if (how % 8 == 0) return;
    const auto connection = fuzz::create<IZIRDBConnection>(
        CLSID_ZIRDBConnection, IID_IZIRDBConnection);
    objects_[0] = connection.query<IDispatch>(IID_IDispatch);
    const _bstr_t text(L"DSN=fuzz");
    connection->Open(text.m_s, nullptr, nullptr, 0);
    if (how % 8 == 1) return;
    const auto command =
        fuzz::create<IZIRDBCommand>(CLSID_ZIRDBCommand, IID_IZIRDBCommand);
    objects_[1] = command.query<IDispatch>(IID_IDispatch);
    command->putref_ActiveConnection(objects_[0].get());
    command->put_CommandText(text.m_s);
    if (how % 8 == 2) return;
    IZIRDBRecordset* recordset = nullptr;
    connection->Execute(text.m_s, nullptr, 0, &recordset);
    if (recordset != nullptr) {
      objects_[2] =
          InterfacePtr<IZIRDBRecordset>::adopt(recordset).query<IDispatch>(
              IID_IDispatch);
    }
    if (how % 8 == 3) return;
    IZIRDBParameter* parameter = nullptr;
    command->CreateParameter(text.m_s, how, how / 8 % 5, how / 4, VARIANT{},
                             &parameter);
    const auto made = InterfacePtr<IZIRDBParameter>::adopt(parameter);
    objects_[3] = made.query<IDispatch>(IID_IDispatch);
    IZIRDBParameters* parameters = nullptr;
    command->get_Parameters(&parameters);
    const auto list = InterfacePtr<IZIRDBParameters>::adopt(parameters);
    objects_[4] = list.query<IDispatch>(IID_IDispatch);
    list->Append(parameter);
  }

  bool may_step() const {
    return !ending_ && input_.left() > 0 && depth_ < kMostDepth &&
           steps_ < kMostSteps;
  }

  void step() {
    ++steps_;
    const std::uint8_t operation = input_.byte();
    switch (operation % 16) {
      case 0:
        create();
        break;
      case 1:
        move_object();
        break;
      case 2:
        set_variable();
        break;
      case 3:
        enumerate();
        break;
      case 4:
        ask_for_names();
        break;
      case 5:
      case 6:
      case 7:
      case 8:
        call_interface();
        break;
      default:
        call_late_bound();
    }
  }

  void step_again() {
    if (!may_step()) return;
    const std::uint8_t how = input_.byte();
    ++depth_;
    try {
      for (int i = 0; i < how % 4 && may_step(); ++i) step();
    } catch (...) {
      --depth_;
      throw;
    }
    --depth_;
    if (how == 0xFF) throw std::string("a host's own");
  }

  Input& input() { return input_; }

  HRESULT any_result() {
    const std::uint8_t choice = ending_ ? 0 : input_.byte();
    constexpr HRESULT kResults[] = {S_FALSE,       E_FAIL, DISP_E_EXCEPTION,
                                    E_OUTOFMEMORY, 7,      E_INVALIDARG};
    return choice < 0xD0 ? S_OK : kResults[choice % std::size(kResults)];
  }

  /// Any value into one that is empty. What it refers to lives as long as the
  /// graph.
  void fill_any(VARIANT* value, int depth) {
    const std::uint8_t choice = input_.byte();
    switch (choice % 16) {
      case 0:
        value->vt = VT_I8;
        value->llVal = static_cast<std::int8_t>(input_.byte());
        break;
      case 1:
      case 2:
        value->vt = VT_BSTR;
        value->bstrVal = any_text();
        break;
      case 3:
      case 4:
        fill_object(value);
        break;
      case 5:
        value->vt = choice < 0x80 ? VT_NULL : VT_ERROR;
        break;
      case 6:
      case 7:
      case 8:
        // Through a variable, which may itself be a reference: in a circle.
        value->vt = kReference;
        value->pvarVal = choice < 0xF0
                             ? &variables_[choice / 16 % variables_.size()]
                             : nullptr;
        break;
      case 9:
      case 10:
        fill_count(value);
        break;
      case 11:
      case 12:
        if (depth < 3) fill_array(value, depth);
        break;
      default:
        fuzz::fill(input_, value, hosts_[choice / 16 % 2].dispatch(), 0);
        tame(value);
    }
  }

 private:
  // --- Arguments ---

  BSTR any_text() {
    static constexpr const wchar_t* kTexts[] = {L"SELECT",
                                                L"a",
                                                L"p",
                                                L"{CALL p(?)}",
                                                L"EXEC p",
                                                L"sp_who",
                                                L"{CALL sp_executesql(?)}",
                                                L"{? = CALL f}",
                                                L"42",
                                                L"true",
                                                L"",
                                                L"DSN=x",
                                                L"2024/01/31",
                                                L"p1"};
    const std::uint8_t choice = input_.byte();
    if (choice >= 0xE0) return fuzz::new_string(input_);
    return SysAllocString(kTexts[choice % std::size(kTexts)]);
  }

  void fill_object(VARIANT* value) {
    const std::uint8_t choice = input_.byte();
    IDispatch* object = nullptr;
    if (choice < 0x60) {
      const InterfacePtr<IDispatch>& slot = objects_[choice % objects_.size()];
      if (may_close_a_circle(slot)) in_circles_.push_back(slot);
      object = InterfacePtr<IDispatch>(slot).detach();
    } else if (choice < 0xC0) {
      object = hosts_[choice % hosts_.size()].dispatch();
      object->AddRef();
    } else if (choice < 0xF0) {
      object = new Witness;
    }
    value->vt = choice % 16 < 12 ? VT_DISPATCH : VT_UNKNOWN;
    value->pdispVal = object;
  }

  /// Whether something else can be a parameter's value below it.
  static bool may_close_a_circle(const InterfacePtr<IDispatch>& object) {
    return object.query<IZIRDBParameter>(IID_IZIRDBParameter) ||
           object.query<IZIRDBParameters>(IID_IZIRDBParameters) ||
           object.query<IZIRDBCommand>(IID_IZIRDBCommand);
  }

  /// What holds itself is never let go, unless its host undoes that.
  static void take_apart(const InterfacePtr<IDispatch>& object) {
    auto list = object.query<IZIRDBParameters>(IID_IZIRDBParameters);
    if (const auto command = object.query<IZIRDBCommand>(IID_IZIRDBCommand)) {
      IZIRDBParameters* parameters = nullptr;
      command->get_Parameters(&parameters);
      list = InterfacePtr<IZIRDBParameters>::adopt(parameters);
    }
    if (const auto parameter =
            object.query<IZIRDBParameter>(IID_IZIRDBParameter)) {
      parameter->put_Value(VARIANT{});
    }
    long count = 0;
    if (list) list->get_Count(&count);
    for (long i = 0; i < count; ++i) {
      IZIRDBParameter* parameter = nullptr;
      const _variant_t index(i);
      list->Item(index, &parameter);
      const auto held = InterfacePtr<IZIRDBParameter>::adopt(parameter);
      held->put_Value(VARIANT{});
    }
  }

  /// A place for a number, aligned or not.
  void fill_count(VARIANT* value) {
    constexpr VARTYPE kTypes[] = {VT_I2,  VT_I4,  VT_I8,  VT_UI2,
                                  VT_UI4, VT_UI8, VT_BSTR};
    const std::uint8_t choice = input_.byte();
    value->vt =
        static_cast<VARTYPE>(VT_BYREF | kTypes[choice % std::size(kTypes)]);
    value->byref = choice < 0xF0 ? numbers_.data() + choice / 8 % 16 : nullptr;
  }

  void fill_array(VARIANT* value, int depth) {
    const std::uint8_t mode = input_.byte();
    const UINT count = mode % 4;
    SAFEARRAYBOUND bounds[2] = {{count, mode / 4 % 4 - 1}, {1, 0}};
    value->vt = VT_ARRAY | VT_VARIANT;
    value->parray =
        SafeArrayCreate(VT_VARIANT, (mode & 0xC0) == 0xC0 ? 2 : 1, bounds);
    auto* const elements = static_cast<VARIANT*>(value->parray->pvData);
    for (UINT i = 0; i < count; ++i) fill_any(&elements[i], depth + 1);
  }

  /// A reference leads to something, or nowhere.
  void tame(VARIANT* value) {
    if ((value->vt & VT_BYREF) == 0) return;
    if ((value->vt & VT_ARRAY) != 0) {
      const VARTYPE type = value->vt;
      VariantClear(value);
      value->vt = type;
    }
    value->llVal = 0;
  }

  /// A variable whose array is locked is not changed, nor is it by scripts.
  static bool is_locked(const VARIANT& value) {
    return (value.vt & VT_ARRAY) != 0 && value.parray != nullptr &&
           value.parray->cLocks != 0;
  }

  static void set_variable(_variant_t& variable, _variant_t value) {
    if (is_locked(variable)) return;
    std::swap(static_cast<VARIANT&>(variable), static_cast<VARIANT&>(value));
  }

  // --- Late-bound calls ---

  void call_late_bound() {
    const std::uint8_t which = input_.byte();
    const InterfacePtr<IDispatch>& slot = objects_[which % objects_.size()];
    if (!slot) return;
    // A host that does not hold what it calls relies on its variable.
    const InterfacePtr<IDispatch> held =
        which < 0xC0 ? slot : InterfacePtr<IDispatch>();
    IDispatch* const object = slot.get();

    constexpr WORD kFlags[] = {DISPATCH_METHOD,
                               DISPATCH_PROPERTYGET,
                               DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                               DISPATCH_PROPERTYPUT,
                               DISPATCH_METHOD,
                               DISPATCH_PROPERTYGET,
                               DISPATCH_PROPERTYPUTREF,
                               0};
    const std::uint8_t member = input_.byte();
    const DISPID id =
        member < 0xF0 ? member % 16 - 4 : input_.integer<DISPID>();
    const std::uint8_t shape = input_.byte();
    const WORD flags = kFlags[shape % std::size(kFlags)];
    const std::size_t count = shape / 8 % 8;
    Arguments arguments;
    for (std::size_t i = 0; i < (count < 6 ? count : 0); ++i) {
      fill_any(&arguments.add(), 0);
    }
    const std::uint8_t extra = (shape & 0xC0) == 0xC0 ? input_.byte() : 0;
    DISPID put = extra % 4 == 3 ? DISPID_VALUE : DISPID_PROPERTYPUT;
    const bool is_put = (flags & DISPATCH_PROPERTYPUT) != 0;
    DISPPARAMS parameters = {
        extra % 8 == 4 ? nullptr : arguments.values().data(),
        is_put && extra % 8 != 5 ? &put : nullptr,
        static_cast<UINT>(arguments.values().size()), is_put ? 1U : 0U};
    VARIANT result = {};
    result.vt = VT_ERROR;
    result.llVal = 4711;
    EXCEPINFO exception = {};
    const std::size_t asked = g_asked;
    const HRESULT returned =
        object->Invoke(id, extra % 32 == 31 ? IID_IUnknown : IID_NULL, 1031,
                       flags, extra % 16 == 12 ? nullptr : &parameters,
                       extra % 16 == 8 ? nullptr : &result,
                       extra % 16 == 9 ? nullptr : &exception, nullptr);
    check_exception(returned, exception, extra % 16 != 9 && asked == g_asked);
    ExcepinfoClear(&exception);
    if (FAILED(returned)) {
      check(result.vt == VT_ERROR && result.llVal == 4711,
            "a failure wrote a result");
      return;
    }
    keep_result(which, result, id == DISPID_NEWENUM);
  }

  static void check_exception(HRESULT returned, const EXCEPINFO& exception,
                              bool known) {
    if (!known) return;
    if (returned == DISP_E_EXCEPTION) {
      check(FAILED(exception.scode) && exception.wCode == 0 &&
                SysStringLen(exception.bstrSource) > 0 &&
                std::wcsncmp(exception.bstrSource, L"ZIRDB.", 6) == 0,
            "what is said about a failure");
    } else {
      check(exception.scode == 0 && exception.bstrSource == nullptr &&
                exception.bstrDescription == nullptr,
            "a refusal that says something");
      constexpr HRESULT kResults[] = {S_OK, E_INVALIDARG, DISP_E_MEMBERNOTFOUND,
                                      DISP_E_BADPARAMCOUNT,
                                      DISP_E_TYPEMISMATCH};
      check(std::find(std::begin(kResults), std::end(kResults), returned) !=
                std::end(kResults),
            "a result that no call gives");
    }
  }

  /// Whether an object is the library's; what the host put in comes back too.
  static bool is_ours(IDispatch* object) {
    return object != nullptr &&
           object->GetTypeInfoCount(nullptr) == E_INVALIDARG;
  }

  void keep_result(std::uint8_t which, VARIANT result, bool is_enumerator) {
    _variant_t held;
    held.Attach(result);
    if (held.vt == VT_ERROR) return;  // a member without one
    if (held.vt == VT_DISPATCH && is_ours(held.pdispVal)) {
      InterfacePtr<IDispatch>& to = objects_[input_.byte() % objects_.size()];
      to = InterfacePtr<IDispatch>::share(held.pdispVal);
    } else if (held.vt == VT_UNKNOWN && is_enumerator) {
      auto enumerator = InterfacePtr<IUnknown>::share(held.punkVal)
                            .query<IEnumVARIANT>(IID_IEnumVARIANT);
      check(static_cast<bool>(enumerator), "an enumerator");
      enumerators_[which % enumerators_.size()] = std::move(enumerator);
    } else if (which % 2 == 1) {
      set_variable(variables_[which / 2 % variables_.size()], held);
    }
  }

  // --- The interfaces ---

  /// A place for a result, or none: then the call fails for want of it.
  template <class Out>
  struct Place {
    explicit Place(std::uint8_t how) : missing(how >= 0xE0) {}
    Out* get() { return missing ? nullptr : &out; }
    void check_result(HRESULT result) const {
      if (missing) check(result == E_INVALIDARG, "no place for a result");
    }
    Out out{};
    bool missing;
  };

  template <class Interface, class Out>
  void get(Interface* object, HRESULT (Interface::*getter)(Out*),
           std::uint8_t how) {
    Place<Out> place(how);
    place.check_result((object->*getter)(place.get()));
    if constexpr (std::is_same_v<Out, BSTR>) SysFreeString(place.out);
    if constexpr (std::is_same_v<Out, VARIANT>) VariantClear(&place.out);
  }

  template <class Made>
  void keep(Place<Made*>& place, HRESULT result) {
    place.check_result(result);
    check(SUCCEEDED(result) || place.missing || place.out == nullptr,
          "an object of a failure");
    const auto made = InterfacePtr<Made>::adopt(place.out);
    if (!made) return;
    objects_[input_.byte() % objects_.size()] =
        made.template query<IDispatch>(IID_IDispatch);
  }

  void call_interface() {
    const std::uint8_t which = input_.byte();
    const std::uint8_t member = input_.byte();
    const std::uint8_t how = input_.byte();
    static_cast<void>(
        call_as<IZIRDBConnection>(IID_IZIRDBConnection, which, member, how) ||
        call_as<IZIRDBCommand>(IID_IZIRDBCommand, which, member, how) ||
        call_as<IZIRDBRecordset>(IID_IZIRDBRecordset, which, member, how) ||
        call_as<IZIRDBFields>(IID_IZIRDBFields, which, member, how) ||
        call_as<IZIRDBField>(IID_IZIRDBField, which, member, how) ||
        call_as<IZIRDBParameters>(IID_IZIRDBParameters, which, member, how) ||
        call_as<IZIRDBParameter>(IID_IZIRDBParameter, which, member, how));
  }

  /// Calls an object that has this interface; whether it has.
  template <class Interface>
  bool call_as(REFIID riid, std::uint8_t which, std::uint8_t member,
               std::uint8_t how) {
    auto object = objects_[which % objects_.size()].query<Interface>(riid);
    if (!object) return false;
    Interface* const called = object.get();
    // Here, too, its variable may be all that holds it.
    if (which >= 0xC0) object = {};
    call(called, member, how);
    return true;
  }

  void call(IZIRDBConnection* object, std::uint8_t member, std::uint8_t how) {
    switch (member % 8) {
      case 0:
        get(object, &IZIRDBConnection::get_ConnectionString, how);
        break;
      case 1:
        object->put_ConnectionString(_bstr_t(any_text(), false).m_s);
        break;
      case 2:
        get(object, &IZIRDBConnection::get_State, how);
        break;
      case 3: {
        const _bstr_t text(any_text(), false);
        const _bstr_t user(any_text(), false);
        object->Open(text.m_s, user.m_s, nullptr, how);
        break;
      }
      case 4:
        check(object->Close() == S_OK, "closing");
        break;
      default: {
        Arguments arguments;
        fill_any(&arguments.add(), 0);
        const _bstr_t text(any_text(), false);
        Place<IZIRDBRecordset*> place(how);
        keep(place,
             object->Execute(text.m_s,
                             how % 2 == 1 ? &arguments.values()[0] : nullptr,
                             how, place.get()));
      }
    }
  }

  void call(IZIRDBCommand* object, std::uint8_t member, std::uint8_t how) {
    switch (member % 11) {
      case 0: {
        Place<IDispatch*> place(how);
        place.check_result(object->get_ActiveConnection(place.get()));
        if (place.out != nullptr) place.out->Release();
        break;
      }
      case 1: {
        Arguments arguments;
        fill_object(&arguments.add());
        const VARIANT& value = arguments.values()[0];
        object->putref_ActiveConnection(value.vt == VT_DISPATCH ? value.pdispVal
                                                                : nullptr);
        break;
      }
      case 2:
        get(object, &IZIRDBCommand::get_CommandText, how);
        break;
      case 3:
        object->put_CommandText(_bstr_t(any_text(), false).m_s);
        break;
      case 4:
        get(object, &IZIRDBCommand::get_CommandType, how);
        break;
      case 5:
        object->put_CommandType(static_cast<std::int8_t>(how));
        break;
      case 6: {
        Arguments arguments;
        fill_any(&arguments.add(), 0);
        const _bstr_t text(any_text(), false);
        constexpr long kTypes[] = {0, 3, 11, 20, 72, 200, 202, 204};
        Place<IZIRDBParameter*> place(how);
        keep(place, object->CreateParameter(
                        text.m_s, kTypes[member / 11U % std::size(kTypes)],
                        how % 5, how / 5, arguments.values()[0], place.get()));
        break;
      }
      case 7: {
        Place<IZIRDBParameters*> place(how);
        keep(place, object->get_Parameters(place.get()));
        break;
      }
      default: {
        Arguments arguments;
        fill_any(&arguments.add(), 0);
        Place<IZIRDBRecordset*> place(how);
        keep(place,
             object->Execute(how % 2 == 1 ? &arguments.values()[0] : nullptr,
                             how, place.get()));
      }
    }
  }

  void call(IZIRDBRecordset* object, std::uint8_t member, std::uint8_t how) {
    switch (member % 10) {
      case 0: {
        Place<IZIRDBFields*> place(how);
        keep(place, object->get_Fields(place.get()));
        break;
      }
      case 1:
        get(object, &IZIRDBRecordset::get_State, how);
        break;
      case 2:
        get(object, &IZIRDBRecordset::get_EOF, how);
        break;
      case 3:
        get(object, &IZIRDBRecordset::get_BOF, how);
        break;
      case 4:
        get(object, &IZIRDBRecordset::get_RecordCount, how);
        break;
      case 5:
        object->MoveFirst();
        break;
      case 6:
        check(FAILED(object->MoveLast()), "the last row");
        break;
      case 7:
        check(FAILED(object->MovePrevious()), "the previous row");
        break;
      case 8:
        object->MoveNext();
        break;
      default:
        object->Close();
    }
  }

  void call(IZIRDBFields* object, std::uint8_t member, std::uint8_t how) {
    if (member % 4 == 0) {
      get(object, &IZIRDBFields::get_Count, how);
      return;
    }
    Arguments arguments;
    fill_any(&arguments.add(), 0);
    Place<IZIRDBField*> place(how);
    keep(place, object->Item(arguments.values()[0], place.get()));
  }

  void call(IZIRDBField* object, std::uint8_t member, std::uint8_t how) {
    if (member % 2 == 0) {
      get(object, &IZIRDBField::get_Name, how);
    } else {
      get(object, &IZIRDBField::get_Value, how);
    }
  }

  void call(IZIRDBParameters* object, std::uint8_t member, std::uint8_t how) {
    if (member % 4 == 0) {
      get(object, &IZIRDBParameters::get_Count, how);
    } else if (member % 4 == 1) {
      Arguments arguments;
      fill_any(&arguments.add(), 0);
      Place<IZIRDBParameter*> place(how);
      keep(place, object->Item(arguments.values()[0], place.get()));
    } else if (how < 0x80) {
      const auto parameter =
          objects_[how % objects_.size()].query<IZIRDBParameter>(
              IID_IZIRDBParameter);
      const HRESULT result = object->Append(parameter.get());
      check(parameter || result == E_INVALIDARG, "no parameter to append");
    } else {
      object->Append(hosts_[how % hosts_.size()].parameter());
    }
  }

  void call(IZIRDBParameter* object, std::uint8_t member, std::uint8_t how) {
    switch (member % 10) {
      case 0:
        get(object, &IZIRDBParameter::get_Name, how);
        break;
      case 1:
        object->put_Name(_bstr_t(any_text(), false).m_s);
        break;
      case 2:
        get(object, &IZIRDBParameter::get_Value, how);
        break;
      case 3: {
        Arguments arguments;
        fill_any(&arguments.add(), 0);
        object->put_Value(arguments.values()[0]);
        break;
      }
      case 4:
        get(object, &IZIRDBParameter::get_Type, how);
        break;
      case 5:
        object->put_Type(how);
        break;
      case 6:
        get(object, &IZIRDBParameter::get_Direction, how);
        break;
      case 7:
        object->put_Direction(how % 8 - 1);
        break;
      case 8:
        get(object, &IZIRDBParameter::get_Size, how);
        break;
      default:
        object->put_Size(how < 0xF0 ? how : input_.integer<std::int64_t>());
    }
  }

  // --- What else a host does ---

  void create() {
    const std::uint8_t choice = input_.byte();
    const CLSID* const kClasses[] = {
        &CLSID_ZIRDBConnection, &CLSID_ZIRDBCommand, &CLSID_ZIRDBRecordset};
    objects_[choice / 4 % objects_.size()] = fuzz::create<IDispatch>(
        *kClasses[choice % std::size(kClasses)], IID_IDispatch);
  }

  /// Lets go of an object, or takes another reference.
  void move_object() {
    const std::uint8_t choice = input_.byte();
    InterfacePtr<IDispatch>& to = objects_[choice % objects_.size()];
    if (choice < 0x80) {
      to = {};
    } else {
      to = objects_[choice / 8 % objects_.size()];
    }
  }

  void set_variable() {
    _variant_t value;
    fill_any(&value, 0);
    set_variable(variables_[input_.byte() % variables_.size()],
                 std::move(value));
  }

  void enumerate() {
    const std::uint8_t choice = input_.byte();
    const InterfacePtr<IEnumVARIANT> enumerator =
        enumerators_[choice % enumerators_.size()];
    if (!enumerator) return;
    const UINT count = choice / 8 % 4;
    switch (choice / 32) {
      case 0:
        check(enumerator->Reset() == S_OK, "beginning again");
        break;
      case 1:
        enumerator->Skip(count);
        break;
      case 2: {
        IEnumVARIANT* clone = nullptr;
        check(enumerator->Clone(&clone) == S_OK && clone != nullptr, "a clone");
        enumerators_[count % enumerators_.size()] =
            InterfacePtr<IEnumVARIANT>::adopt(clone);
        break;
      }
      case 3:
        check(enumerator->Clone(nullptr) == E_INVALIDARG &&
                  enumerator->Next(1, nullptr, nullptr) == E_INVALIDARG &&
                  (count == 1 || enumerator->Next(count, &variables_[0],
                                                  nullptr) == E_INVALIDARG),
              "no place for an item");
        break;
      case 4:
        enumerators_[choice % enumerators_.size()] = {};
        break;
      default:
        next(enumerator.get(), count);
    }
  }

  void next(IEnumVARIANT* enumerator, UINT count) {
    VARIANT values[4] = {};
    UINT fetched = 77;
    const HRESULT result = enumerator->Next(count, values, &fetched);
    check(fetched <= count && result == (fetched == count ? S_OK : S_FALSE),
          "the number of items");
    for (UINT i = 0; i < count; ++i) {
      check((values[i].vt == VT_DISPATCH) == (i < fetched), "an item");
      if (i < fetched) {
        objects_[(i + 5) % objects_.size()] =
            InterfacePtr<IDispatch>::share(values[i].pdispVal);
        VariantClear(&values[i]);
      }
    }
  }

  void ask_for_names() {
    static constexpr const wchar_t* kNames[] = {
        L"state", L"FOREACH", L"_newenum", L"Value",
        L"",      L"Execute", L"item",     L"Stat"};
    const std::uint8_t choice = input_.byte();
    IDispatch* const object = objects_[choice % objects_.size()].get();
    if (object == nullptr) return;
    wchar_t* names[4] = {};
    DISPID ids[4] = {-77, -77, -77, -77};
    const UINT count = choice / 8 % 5;
    for (UINT i = 0; i < count; ++i) {
      const std::uint8_t name = input_.byte();
      names[i] = name < 0xF0
                     ? const_cast<wchar_t*>(kNames[name % std::size(kNames)])
                     : nullptr;
    }
    const HRESULT result =
        object->GetIDsOfNames(IID_NULL, names, count, 0, ids);
    UINT known = 0;
    while (known < count && ids[known] != DISPID_UNKNOWN) ++known;
    check(result == (known == count ? S_OK : DISP_E_UNKNOWNNAME),
          "the result for names");
    for (UINT i = known + 1; i < std::size(ids); ++i) {
      check(ids[i] == -77, "an id behind an unknown name");
    }
    check(object->GetIDsOfNames(IID_NULL, nullptr, 1, 0, ids) == E_INVALIDARG &&
              object->GetTypeInfoCount(nullptr) == E_INVALIDARG &&
              object->GetTypeInfo(0, 0, nullptr) == E_NOTIMPL,
          "no place for an id");
  }

  Input& input_;
  bool ending_ = false;
  int depth_ = 0;
  int steps_ = 0;
  std::array<Host, 3> hosts_{};
  std::array<char, 32> numbers_{};
  std::array<_variant_t, 4> variables_{};
  std::array<InterfacePtr<IDispatch>, 10> objects_{};
  std::array<InterfacePtr<IEnumVARIANT>, 2> enumerators_{};
  // What has been a value and may hold values.
  std::vector<InterfacePtr<IDispatch>> in_circles_{};
};

HRESULT any_result() { return g_graph->any_result(); }
Input* any_input() { return &g_graph->input(); }
void fill_any(VARIANT* value) { g_graph->fill_any(value, 0); }
void step_again() {
  if (g_graph != nullptr) g_graph->step_again();
}

}  // namespace

// ---------------------------------------------------------------------------
// One input
// ---------------------------------------------------------------------------

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  const std::uint8_t how = input.byte();
  fuzz::odbc::begin(how < 0x80 ? nullptr : &input, false);
  {
    Graph graph(input);
    graph.prepare(how);
    fuzz::odbc::begin(&input, false);
    while (graph.may_step()) graph.step();
  }
  check(DllCanUnloadNow() == S_OK, "an object is left");
  fuzz::odbc::end();
  return 0;
}
