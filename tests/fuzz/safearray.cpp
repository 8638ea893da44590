// SPDX-License-Identifier: MIT
//
// Fuzz target: the SAFEARRAY functions, in any order over a few arrays, which
// may lie in each other. A model knows bounds, locks and elements.
//
// Sections: objects; the model; comparing; making values; the operations.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz.h"
#include "zir.h"

// Arrays that are too big for any memory are NULL, not the end of the process.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using fuzz::check;
using fuzz::Input;

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

// The array that is being destroyed.
SAFEARRAY* g_dying = nullptr;

/// Stands in arrays and reaches for the array that is destroyed around it.
class Object final : public IUnknown {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  ~Object() { check(references_ == 1, "the references of an object"); }

  std::uint32_t references() const { return references_; }

  HRESULT QueryInterface(REFIID, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override {
    if (g_dying != nullptr) {
      void* data = nullptr;
      check(SafeArrayDestroy(g_dying) == DISP_E_ARRAYISLOCKED &&
                SafeArrayAccessData(g_dying, &data) == E_UNEXPECTED,
            "an array that is being destroyed");
    }
    return --references_;
  }

 private:
  std::uint32_t references_ = 1;
};

// ---------------------------------------------------------------------------
// The model
// ---------------------------------------------------------------------------

struct Array;

/// A VARIANT, or an element of another type.
struct Value {
  VARTYPE vt = VT_EMPTY;
  std::int64_t payload = 0;
  std::optional<std::wstring> wide{};   ///< none for a NULL
  std::optional<std::string> narrow{};  ///< none for a NULL
  std::shared_ptr<const Array> array{};
};

struct Array {
  VARTYPE type = VT_VARIANT;
  std::vector<SAFEARRAYBOUND> bounds{};
  bool locked = false;
  bool automatic = true;
  std::vector<Value> elements{};
};

std::size_t size_of(const Array& array) {
  std::size_t size = 1;
  for (const Value& each : array.elements) {
    size += each.array ? size_of(*each.array) : 1;
  }
  return size;
}

std::size_t depth_of(const Array& array) {
  std::size_t depth = 0;
  for (const Value& each : array.elements) {
    if (each.array) depth = std::max(depth, depth_of(*each.array));
  }
  return depth + 1;
}

std::size_t references_to(const IUnknown* object, const Array& array) {
  std::size_t count = 0;
  for (const Value& each : array.elements) {
    if (each.array) {
      count += references_to(object, *each.array);
    } else if (each.vt == VT_UNKNOWN || each.vt == VT_DISPATCH) {
      std::int64_t address = 0;
      std::memcpy(&address, &object, sizeof address);
      count += each.payload == address ? 1 : 0;
    }
  }
  return count;
}

Array copy_of(const Array& array);

/// Texts end at their first zero.
Value copy_of(const Value& value) {
  Value copy = value;
  if (copy.wide) copy.wide = fuzz::until_zero(*copy.wide);
  if (copy.array) {
    copy.array = std::make_shared<const Array>(copy_of(*copy.array));
  }
  return copy;
}

Array copy_of(const Array& array) {
  Array copy = array;
  copy.locked = false;
  for (Value& each : copy.elements) each = copy_of(each);
  return copy;
}

constexpr USHORT features_of(const Array& array) {
  const USHORT kind = array.type == VT_VARIANT ? FADF_VARIANT
                      : array.type == VT_BSTR  ? FADF_BSTR
                                               : USHORT{0};
  return static_cast<USHORT>(kind | (array.automatic ? FADF_AUTO : 0));
}

// ---------------------------------------------------------------------------
// Comparing
// ---------------------------------------------------------------------------

void check_same(SAFEARRAY* array, const Array& model);

void check_same_text(BSTR text, const std::optional<std::wstring>& expected) {
  check((text != nullptr) == expected.has_value(), "whether there is a text");
  if (text == nullptr) return;
  check(std::wstring(text, SysStringLen(text)) == *expected &&
            text[expected->size()] == L'\0',
        "a text");
}

void check_same(const VARIANT& value, const Value& model) {
  check(value.vt == model.vt, "the type of an element");
  if (model.vt == VT_BSTR) {
    check_same_text(value.bstrVal, model.wide);
  } else if (model.vt == VT_LPSTR) {
    check((value.pszVal != nullptr) == model.narrow.has_value() &&
              (!model.narrow || *model.narrow == value.pszVal),
          "an 8-bit text");
  } else if ((model.vt & VT_ARRAY) != 0) {
    check((value.parray != nullptr) == (model.array != nullptr),
          "whether there is an array");
    if (model.array) check_same(value.parray, *model.array);
  } else if (model.vt != VT_EMPTY) {
    check(value.llVal == model.payload, "the payload of an element");
  }
}

void check_bounds(SAFEARRAY* array, const Array& model) {
  const auto* bound = reinterpret_cast<const SAFEARRAYBOUND*>(
      reinterpret_cast<const char*>(array) + offsetof(SAFEARRAY, rgsabound));
  UINT dimension = 0;
  for (const SAFEARRAYBOUND& each : model.bounds) {
    check(bound->cElements == each.cElements && bound->lLbound == each.lLbound,
          "a stored bound");
    ++bound;
    LONG lower = 0;
    LONG upper = 0;
    ++dimension;
    check(SafeArrayGetLBound(array, dimension, &lower) == S_OK &&
              SafeArrayGetUBound(array, dimension, &upper) == S_OK,
          "the bounds of a dimension");
    const auto last = static_cast<std::uint64_t>(each.lLbound) +
                      std::uint64_t{each.cElements} - 1;
    check(lower == each.lLbound && static_cast<std::uint64_t>(upper) == last,
          "a bound");
  }
  check(bound->cElements == 0 && bound->lLbound == 0, "the bound behind them");
}

void check_same(SAFEARRAY* array, const Array& model) {
  check(array->cDims == model.bounds.size() &&
            array->fFeatures == features_of(model) &&
            array->cbElements == (model.type == VT_VARIANT ? 16U
                                  : model.type == VT_BSTR  ? 8U
                                                           : 1U) &&
            array->cLocks == (model.locked ? 1U : 0U),
        "a descriptor");
  check_bounds(array, model);
  const void* const data = array->pvData;
  for (std::size_t i = 0; i < model.elements.size(); ++i) {
    const Value& expected = model.elements[i];
    if (model.type == VT_VARIANT) {
      check_same(static_cast<const VARIANT*>(data)[i], expected);
    } else if (model.type == VT_BSTR) {
      check_same_text(static_cast<const BSTR*>(data)[i], expected.wide);
    } else {
      check(static_cast<const BYTE*>(data)[i] == expected.payload, "a byte");
    }
  }
}

// ---------------------------------------------------------------------------
// The operations
// ---------------------------------------------------------------------------

// The elements of a dimension of which two are more than any memory.
constexpr UINT kHuge = 0xFFFFFFFF;
// How big what lies in each other may become: arrays that hold copies of each
// other double, and the model goes as deep as they do.
constexpr std::size_t kMostNested = 600;
constexpr std::size_t kMostDepth = 400;

struct Slot {
  SAFEARRAY* array = nullptr;
  Array model{};
};

class Arrays {
 public:
  explicit Arrays(Input& input) : input_(input) {}
  Arrays(const Arrays&) = delete;
  Arrays& operator=(const Arrays&) = delete;
  ~Arrays() {
    for (Slot& each : slots_) clear(each);
  }

  void step() {
    const std::uint8_t operation = input_.byte();
    Slot& slot = slots_[operation / 16 % slots_.size()];
    switch (operation % 16) {
      case 0:
        create(slot);
        break;
      case 1:
        create_vector(slot);
        break;
      case 2:
        destroy(slot);
        break;
      case 3:
        copy(slot);
        break;
      case 4:
        ask_bound(slot);
        break;
      case 5:
        access(slot);
        break;
      case 6:
        unaccess(slot);
        break;
      case 7:
        copy_variant(slot);
        break;
      case 8:
        clear_variant(slot);
        break;
      case 9:
        change_ownership(slot);
        break;
      case 10:
        compare();
        break;
      default:
        write(slot);
    }
  }

  void compare() {
    std::size_t references = 1;
    for (const Slot& each : slots_) {
      if (each.array == nullptr) continue;
      check_same(each.array, each.model);
      references += references_to(&object_, each.model);
    }
    check(object_.references() == references, "the references of an object");
  }

 private:
  Slot& other() { return slots_[input_.byte() % slots_.size()]; }

  /// Destroys what is there, whatever keeps it.
  void clear(Slot& slot) {
    if (slot.array == nullptr) return;
    slot.array->cLocks = 0;
    slot.array->fFeatures |= FADF_AUTO;
    destroy_array(slot.array);
    slot = {};
  }

  static HRESULT destroy_array(SAFEARRAY* array) {
    g_dying = array;
    const HRESULT result = SafeArrayDestroy(array);
    g_dying = nullptr;
    return result;
  }

  SAFEARRAYBOUND bound() {
    const UINT size = input_.byte() % 8U;
    const std::uint8_t lower = input_.byte();
    return {size, lower == 0xFF ? input_.integer<LONG>() : lower - LONG{100}};
  }

  VARTYPE type() {
    constexpr VARTYPE kTypes[] = {VT_VARIANT, VT_BSTR, VT_UI1, VT_VARIANT};
    const std::uint8_t choice = input_.byte();
    return choice < 0xF0 ? kTypes[choice % std::size(kTypes)]
                         : input_.integer<VARTYPE>();
  }

  /// Takes over an array that was created; NULL where there must be none.
  void take(Slot& slot, SAFEARRAY* array, VARTYPE type,
            std::vector<SAFEARRAYBOUND> bounds) {
    const bool known = type == VT_VARIANT || type == VT_BSTR || type == VT_UI1;
    bool any_empty = bounds.empty();
    bool any_huge = false;
    std::size_t count = 1;
    for (const SAFEARRAYBOUND& each : bounds) {
      any_empty = any_empty || each.cElements == 0;
      any_huge = any_huge || each.cElements == kHuge;
      count *= each.cElements;
    }
    if (!known || (any_huge && !any_empty)) {
      check(array == nullptr, "an array that cannot be");
      return;
    }
    check(array != nullptr, "no array");
    if (any_empty) count = bounds.empty() ? 1 : 0;
    Array model;
    model.type = type;
    model.bounds = std::move(bounds);
    model.elements.resize(count);
    for (Value& each : model.elements) {
      each.vt = type == VT_VARIANT ? VARTYPE{VT_EMPTY} : type;
    }
    if (type == VT_UI1) std::memset(array->pvData, 0, count);
    slot = {array, std::move(model)};
    check_same(array, slot.model);
  }

  void create(Slot& slot) {
    clear(slot);
    const VARTYPE wanted = type();
    const std::uint8_t mode = input_.byte();
    const UINT small = mode / 8 % 4;
    if (mode == 0xFF) {
      static std::vector<SAFEARRAYBOUND> many(0x10000, {1, 1});
      check(SafeArrayCreate(wanted, 0x10000, many.data()) == nullptr,
            "an array of too many dimensions");
      return;
    }
    std::vector<SAFEARRAYBOUND> bounds;
    switch (mode % 8) {
      case 0:
        // No bounds are bounds of nothing.
        take(slot, SafeArrayCreate(wanted, small, nullptr), wanted,
             std::vector<SAFEARRAYBOUND>(small));
        return;
      case 1:
        // More than memory, or none at all if there is an empty one as well.
        bounds.assign(2 + mode / 32U % 4, {kHuge, 1});
        break;
      default:
        break;
    }
    for (UINT i = 0; i < small; ++i) bounds.push_back(bound());
    SAFEARRAY* const array = SafeArrayCreate(
        wanted, static_cast<UINT>(bounds.size()), bounds.data());
    take(slot, array, wanted, std::move(bounds));
  }

  void create_vector(Slot& slot) {
    clear(slot);
    const VARTYPE wanted = type();
    const std::uint8_t count = input_.byte();
    const LONG lower = input_.integer<LONG>();
    take(slot, SafeArrayCreateVector(wanted, lower, count), wanted,
         {{count, lower}});
  }

  void destroy(Slot& slot) {
    const HRESULT result = destroy_array(slot.array);
    if (slot.array == nullptr) {
      check(result == E_INVALIDARG, "no array to destroy");
    } else if (slot.model.locked) {
      check(result == DISP_E_ARRAYISLOCKED, "destroying a locked array");
      check_same(slot.array, slot.model);
    } else {
      check(result == S_OK, "destroying an array");
      if (slot.model.automatic) {
        slot = {};
        return;
      }
      // What is not the runtime's stays, without what its elements owned.
      for (Value& each : slot.model.elements) {
        if (slot.model.type == VT_VARIANT) each = {};
        each.wide.reset();
      }
    }
  }

  void copy(Slot& slot) {
    Slot& to = other();
    SAFEARRAY* made = slot.array;
    check(SafeArrayCopy(slot.array, nullptr) == E_INVALIDARG,
          "no place for a copy");
    const HRESULT result = SafeArrayCopy(slot.array, &made);
    if (slot.array == nullptr) {
      check(result == E_INVALIDARG, "no array to copy");
      return;
    }
    check(result == S_OK && made != slot.array, "a copy");
    Array model = copy_of(slot.model);
    check_same(slot.array, slot.model);
    clear(to);
    to = {made, std::move(model)};
    check_same(to.array, to.model);
  }

  void ask_bound(Slot& slot) {
    const std::uint8_t mode = input_.byte();
    const UINT dimension =
        mode % 16 < 8 ? mode % 16U : input_.integer<std::uint32_t>();
    const bool upper = (mode & 0x10) != 0;
    const auto ask = upper ? SafeArrayGetUBound : SafeArrayGetLBound;
    LONG bound = 77;
    LONG* const out = (mode & 0x20) != 0 ? nullptr : &bound;
    const HRESULT result = ask(slot.array, dimension, out);
    if (slot.array == nullptr || out == nullptr) {
      check(result == E_INVALIDARG, "nowhere to ask");
    } else if (dimension == 0 || dimension > slot.model.bounds.size()) {
      check(result == DISP_E_BADINDEX, "a dimension that is not there");
    } else {
      check(result == S_OK, "a dimension");  // its bounds: check_bounds
      return;
    }
    check(bound == 77, "a bound that was not to be written");
  }

  void access(Slot& slot) {
    void* data = this;
    void** const out = input_.byte() % 8 == 7 ? nullptr : &data;
    const HRESULT result = SafeArrayAccessData(slot.array, out);
    if (slot.array == nullptr || out == nullptr) {
      check(result == E_INVALIDARG, "nothing to access");
    } else if (slot.model.locked) {
      check(result == E_UNEXPECTED, "accessing twice");
    } else {
      check(result == S_OK && data == slot.array->pvData, "accessing");
      slot.model.locked = true;
      return;
    }
    check(data == this, "an address that was not to be written");
  }

  void unaccess(Slot& slot) {
    const HRESULT result = SafeArrayUnaccessData(slot.array);
    check(result == (slot.array == nullptr ? E_INVALIDARG
                     : slot.model.locked   ? S_OK
                                           : E_UNEXPECTED),
          "unaccessing");
    slot.model.locked = false;
  }

  /// The same array as a VARIANT's.
  void copy_variant(Slot& slot) {
    Slot& to = other();
    VARIANT source = {};
    source.vt = static_cast<VARTYPE>(VT_ARRAY | slot.model.type);
    source.parray = slot.array;
    VARIANT destination = {};
    check(VariantCopy(&destination, &source) == S_OK &&
              destination.vt == source.vt &&
              (destination.parray == nullptr) == (slot.array == nullptr),
          "a copied value");
    if (slot.array == nullptr) return;
    Array model = copy_of(slot.model);
    clear(to);
    to = {destination.parray, std::move(model)};
    check_same(to.array, to.model);
  }

  void clear_variant(Slot& slot) {
    VARIANT value = {};
    value.vt = static_cast<VARTYPE>(VT_ARRAY | slot.model.type);
    if (input_.byte() % 2 == 1) value.vt |= VT_BYREF;
    value.parray = slot.array;
    const bool destroyed =
        slot.array != nullptr && !slot.model.locked && slot.model.automatic;
    if (slot.model.automatic || slot.model.locked) {
      g_dying = slot.array;
      check(VariantClear(&value) == S_OK && value.vt == VT_EMPTY,
            "clearing an array");
      g_dying = nullptr;
    }
    if (destroyed) slot = {};
    if (slot.array != nullptr) check_same(slot.array, slot.model);
  }

  void change_ownership(Slot& slot) {
    if (slot.array == nullptr) return;
    slot.model.automatic = !slot.model.automatic;
    slot.array->fFeatures ^= FADF_AUTO;
  }

  void write(Slot& slot) {
    const std::size_t index = input_.byte();
    // Without dimensions there is room for one element all the same.
    if (slot.array == nullptr || slot.model.elements.empty()) return;
    const std::size_t i = index % slot.model.elements.size();
    Value& model = slot.model.elements[i];
    if (slot.model.type == VT_UI1) {
      model.payload = input_.byte();
      static_cast<BYTE*>(slot.array->pvData)[i] =
          static_cast<BYTE>(model.payload);
    } else if (slot.model.type == VT_BSTR) {
      BSTR& element = static_cast<BSTR*>(slot.array->pvData)[i];
      SysFreeString(element);
      element = make_text(model.wide);
    } else {
      VARIANT& element = static_cast<VARIANT*>(slot.array->pvData)[i];
      // What is made may be a copy of this very array, as it was.
      Value made;
      const VARIANT value = make_value(slot, made);
      VariantClear(&element);
      element = value;
      model = std::move(made);
    }
  }

  BSTR make_text(std::optional<std::wstring>& model) {
    const std::uint8_t mode = input_.byte();
    model.reset();
    if (mode == 0xFF) return nullptr;
    model = input_.units<wchar_t>(mode % 40U);
    return SysAllocStringLen(model->data(), static_cast<UINT>(model->size()));
  }

  /// A value that goes into `slot`.
  VARIANT make_value(const Slot& slot, Value& model) {
    constexpr VARTYPE kTypes[] = {VT_BSTR,     VT_LPSTR,          VT_UNKNOWN,
                                  VT_DISPATCH, VT_ARRAY,          VT_I8,
                                  VT_NULL,     VT_BYREF | VT_BSTR};
    VARIANT value = {};
    const std::uint8_t choice = input_.byte();
    model.vt = value.vt = kTypes[choice % std::size(kTypes)];
    if (value.vt == VT_BSTR) {
      value.bstrVal = make_text(model.wide);
    } else if (value.vt == VT_LPSTR) {
      const std::uint8_t mode = input_.byte();
      if (mode != 0xFF) {
        model.narrow = fuzz::until_zero(input_.bytes(mode % 32U));
        value.pszVal = _str_t(model.narrow->c_str()).Detach();
      }
    } else if (value.vt == VT_UNKNOWN || value.vt == VT_DISPATCH) {
      if (choice < 0xC0) {
        object_.AddRef();
        value.punkVal = &object_;
      }
      model.payload = value.llVal;
    } else if (value.vt == VT_ARRAY) {
      const Slot& inner = other();
      model.vt = value.vt = static_cast<VARTYPE>(
          VT_ARRAY | inner.model.type | (choice < 0x80 ? 0 : int{VT_BYREF}));
      if (inner.array != nullptr && inner.model.automatic &&
          size_of(inner.model) + size_of(slot.model) < kMostNested &&
          depth_of(inner.model) < kMostDepth) {
        check(SafeArrayCopy(inner.array, &value.parray) == S_OK, "a copy");
        model.array = std::make_shared<const Array>(copy_of(inner.model));
      }
    } else {
      value.llVal = model.payload = input_.integer<std::int64_t>();
    }
    return value;
  }

  Input& input_;
  Object object_;
  std::array<Slot, 4> slots_{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  Arrays arrays(input);
  while (input.left() > 0) arrays.step();
  arrays.compare();
  return 0;
}
