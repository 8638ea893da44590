// SPDX-License-Identifier: MIT
//
// zirdb.node: Automation objects for JavaScript, over plain Node-API. It makes
// objects by name, looks up member ids, invokes members and lets objects go; it
// knows no class and no member. What scripts see is made of this in lib/.
//
// Sections: failures; standard output; the host; values for JavaScript; values
// from JavaScript; callbacks; what is exported; the module.
//
// Ideas that carry the rest:
//  - JavaScript names an object by the number of its slot. A slot owns one
//    reference of the interface and a weak one of the proxy that stands for it;
//    when the proxy is gone, so is the slot. Slot 0 is a released object.
//  - Dead proxies are looked for as slots are taken, and after every garbage
//    collection. Deliberate: finalizers alone run between two turns of the
//    event loop, so a long loop would pile up the objects of all its rounds.
//  - An environment (the main thread, a worker) has a Host, and nothing of it
//    is touched by another thread but the list of what to let go.
//  - A C++ exception of type Thrown says that a JavaScript one is pending.

#include <dlfcn.h>
#include <malloc.h>
#include <node_api.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zir.h"

namespace {

// What lib/ adds to the flags of a call, above those of Invoke.
constexpr std::uint32_t kBigInts = 1U << 16;
constexpr std::uint32_t kCarriesData = 1U << 17;
constexpr std::uint32_t kMakesProxy = 1U << 18;

// Arguments that are no plain value arrive as [tag, payload].
enum class Tag : std::uint32_t { kObject, kDate, kArray, kOut, kCallback };

// The class of an object in the table that lib/ passes.
constexpr std::int32_t kUnknownClass = -1;
constexpr std::int32_t kEnumerator = -2;
constexpr std::int32_t kEnumeratorWithMembers = -3;

// What only a Callback answers.
constexpr IID kCallback = {0x6C1E7B52,
                           0x93D4,
                           0x4B0A,
                           {0x8E, 0x17, 0x2F, 0x5D, 0xA0, 0xC3, 0x64, 0x91}};

constexpr HRESULT kWrongThread = zir_hresult(0x8001010E);
constexpr HRESULT kDisconnected = zir_hresult(0x80010108);

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

struct Thrown {};

void check(napi_env env, napi_status status) {
  if (status == napi_ok) return;
  // Before anything else is asked, which would change it.
  const napi_extended_error_info* info = nullptr;
  napi_get_last_error_info(env, &info);
  const char* const message = info != nullptr ? info->error_message : nullptr;
  bool pending = false;
  napi_is_exception_pending(env, &pending);
  if (!pending) {
    napi_throw_error(env, nullptr,
                     message != nullptr ? message : "a call of Node failed");
  }
  throw Thrown();
}

[[noreturn]] void throw_type_error(napi_env env, const std::string& message) {
  napi_throw_type_error(env, nullptr, message.c_str());
  throw Thrown();
}

// ---------------------------------------------------------------------------
// Standard output
//
// The runtime says on C's standard output which conversion it does not have. A
// script's output is its own, so these lines go to standard error instead. Node
// itself writes to the descriptor.
// ---------------------------------------------------------------------------

std::FILE* const g_standard_output = stdout;

// A lock of a few instructions, because it is taken around every call.
class SpinLock {
 public:
  SpinLock() {
    while (taken().test_and_set(std::memory_order_acquire)) {
      std::this_thread::yield();
    }
  }
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;
  ~SpinLock() { taken().clear(std::memory_order_release); }

 private:
  static std::atomic_flag& taken() {
    static std::atomic_flag flag = ATOMIC_FLAG_INIT;
    return flag;
  }
};

int g_calls = 0;  // of all threads; guarded by SpinLock

void point_standard_output_at(std::FILE* stream) {
  // Others read it without the lock.
  __atomic_store_n(&stdout, stream, __ATOMIC_RELAXED);
}

void enter_library() {
  const SpinLock lock;
  if (g_calls++ == 0) point_standard_output_at(stderr);
}

void leave_library() {
  const SpinLock lock;
  if (--g_calls == 0) point_standard_output_at(g_standard_output);
}

// ---------------------------------------------------------------------------
// The host
// ---------------------------------------------------------------------------

class HandleScope {
 public:
  explicit HandleScope(napi_env env) : env_(env) {
    check(env, napi_open_handle_scope(env, &scope_));
  }
  HandleScope(const HandleScope&) = delete;
  HandleScope& operator=(const HandleScope&) = delete;
  ~HandleScope() { napi_close_handle_scope(env_, scope_); }

 private:
  napi_env env_;
  napi_handle_scope scope_ = nullptr;
};

// What a callback object needs of its environment, which it may outlive.
struct Life {
  const std::thread::id thread = std::this_thread::get_id();
  std::atomic<bool> alive{true};
  std::mutex mutex;
  std::vector<napi_ref> left;  // by other threads; guarded by mutex
};

struct Slot {
  InterfacePtr<IUnknown> object;          // empty: the slot is free
  IDispatch* dispatch = nullptr;          // the object, if it is one
  InterfacePtr<IEnumVARIANT> enumerator;  // of the object, if it has one
  napi_ref proxy = nullptr;               // weak
  std::int64_t bytes = 0;                 // reported to the collector
  std::int32_t class_index = kUnknownClass;
};

struct Exception {
  Exception() { ExcepinfoInit(&info); }
  Exception(const Exception&) = delete;
  Exception& operator=(const Exception&) = delete;
  ~Exception() { ExcepinfoClear(&info); }

  EXCEPINFO info = {};
};

class Host {
 public:
  explicit Host(napi_env env) : env_(env), slots_(1) {}
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host() {
    life_->alive = false;
    for (std::uint32_t slot = 1; slot < slots_.size(); ++slot) release(slot);
    for (napi_ref reference : {wrap_, fail_, fresh_reference_, pending_}) {
      if (reference != nullptr) napi_delete_reference(env_, reference);
    }
  }

  napi_env env() const { return env_; }
  const std::shared_ptr<Life>& life() const { return life_; }
  std::size_t live() const { return live_; }

  void set_up(napi_value wrap, napi_value fail, std::vector<IID> classes,
              napi_value fresh) {
    void* data = nullptr;
    check(env_, napi_get_typedarray_info(env_, fresh, nullptr, nullptr, &data,
                                         nullptr, nullptr));
    fresh_ = static_cast<std::int32_t*>(data);
    check(env_, napi_create_reference(env_, fresh, 1, &fresh_reference_));
    check(env_, napi_create_reference(env_, wrap, 1, &wrap_));
    check(env_, napi_create_reference(env_, fail, 1, &fail_));
    classes_ = std::move(classes);
    heap_growth();
    watch_collections();
  }

  // The proxy of an object; NULL has null.
  napi_value wrap(InterfacePtr<IUnknown> object, std::uint32_t flags,
                  std::int64_t bytes = 0);
  // The same for an interface that is one already. For a caller that makes
  // proxies itself, NULL for a new object: slot and class are in `fresh`.
  napi_value wrap_dispatch(InterfacePtr<IDispatch> dispatch,
                           std::uint32_t flags, std::int64_t bytes);

  void attach(std::uint32_t slot, napi_value proxy) {
    check(env_, napi_create_reference(env_, proxy, 0, &entry(slot).proxy));
  }

  // Keeps the object alive while it is called: a script may release it in the
  // middle.
  InterfacePtr<IDispatch> dispatch(std::uint32_t slot) {
    IDispatch* const dispatch = entry(slot).dispatch;
    if (dispatch == nullptr) {
      throw_type_error(env_, "the object has no members");
    }
    return InterfacePtr<IDispatch>::share(dispatch);
  }
  InterfacePtr<IUnknown> object(std::uint32_t slot) {
    return entry(slot).object;
  }
  bool is_dispatch(std::uint32_t slot) {
    return entry(slot).dispatch != nullptr;
  }
  InterfacePtr<IEnumVARIANT> enumerator(std::uint32_t slot) {
    InterfacePtr<IEnumVARIANT> enumerator = entry(slot).enumerator;
    if (!enumerator) throw_type_error(env_, "the object is no enumerator");
    return enumerator;
  }

  // By how many bytes the heap has grown since the last time.
  std::int64_t heap_growth() {
    const struct mallinfo2 heap = mallinfo2();
    const auto now = static_cast<std::int64_t>(heap.uordblks + heap.hblkhd);
    return now - std::exchange(heap_bytes_, now);
  }

  void release(std::uint32_t slot);
  // Releases the objects whose proxies are gone.
  void sweep();

  // Throws what lib/ makes of a failure; the strings may be NULL.
  [[noreturn]] void fail(HRESULT code, BSTR source, BSTR description,
                         std::uint32_t slot, napi_value member) {
    napi_throw(env_, failure(code, source, description, slot, member));
    throw Thrown();
  }
  napi_value failure(HRESULT code, BSTR source, BSTR description,
                     std::uint32_t slot, napi_value member);

  // What a callback threw in the middle of a call, as long as nobody has seen
  // it; may be NULL.
  void set_pending(napi_ref pending) {
    if (pending_ != nullptr) napi_delete_reference(env_, pending_);
    pending_ = pending;
  }
  napi_ref take_pending() { return std::exchange(pending_, nullptr); }

 private:
  Slot& entry(std::uint32_t slot) {
    // A released proxy never gets here, but for a script that races with its
    // own release.
    if (slot == 0 || slot >= slots_.size() || !slots_[slot].object) {
      throw_type_error(env_, "the object was released");
    }
    return slots_[slot];
  }
  std::uint32_t take(Slot slot);
  napi_value known_proxy(const void* interface);
  std::int32_t class_of(IDispatch* dispatch) const;
  napi_value proxy_for(std::uint32_t slot, std::uint32_t flags);
  napi_value referenced(napi_ref reference) const {
    napi_value value = nullptr;
    check(env_, napi_get_reference_value(env_, reference, &value));
    return value;
  }
  void report(std::int64_t bytes);
  void watch_collections();
  static void collected(napi_env env, void* host, void* hint);

  napi_env env_;
  std::shared_ptr<Life> life_ = std::make_shared<Life>();
  napi_ref wrap_ = nullptr;
  napi_ref fail_ = nullptr;
  napi_ref pending_ = nullptr;
  napi_ref fresh_reference_ = nullptr;
  std::int32_t* fresh_ = nullptr;  // two numbers that lib/ reads
  std::vector<IID> classes_;
  std::vector<Slot> slots_;
  std::vector<std::uint32_t> free_;
  // Objects come and go by the million: their entries do not go to the heap.
  std::pmr::unsynchronized_pool_resource entries_;
  std::pmr::unordered_map<const void*, std::uint32_t> by_pointer_{&entries_};
  std::size_t live_ = 0;
  std::size_t sweep_at_ = 1024;
  std::int64_t unreported_ = 0;
  std::int64_t grown_ = 0;  // bytes reported since the last sweep
  std::int64_t heap_bytes_ = 0;
  int depth_ = 0;

  friend class InLibrary;
  friend class InScript;
};

// Held around every call of an object, and the other way round while a callback
// runs: what scripts and other addons print there is theirs.
class InLibrary {
 public:
  explicit InLibrary(Host& host) : host_(host) {
    if (host_.depth_++ == 0) enter_library();
  }
  InLibrary(const InLibrary&) = delete;
  InLibrary& operator=(const InLibrary&) = delete;
  ~InLibrary() {
    if (--host_.depth_ == 0) leave_library();
  }

 private:
  Host& host_;
};

class InScript {
 public:
  explicit InScript(Host& host)
      : host_(host), depth_(std::exchange(host.depth_, 0)) {
    if (depth_ > 0) leave_library();
  }
  InScript(const InScript&) = delete;
  InScript& operator=(const InScript&) = delete;
  ~InScript() {
    if (depth_ > 0) enter_library();
    host_.depth_ = depth_;
  }

 private:
  Host& host_;
  int depth_;
};

std::int32_t Host::class_of(IDispatch* dispatch) const {
  // Backwards: those that come up by the million are at the end.
  for (std::size_t i = classes_.size(); i-- > 0;) {
    InterfacePtr<IUnknown> own;
    if (SUCCEEDED(own.receive([&](void** out) {
          return dispatch->QueryInterface(classes_[i], out);
        }))) {
      return static_cast<std::int32_t>(i);
    }
  }
  return kUnknownClass;
}

// The proxy that an interface has, or NULL.
napi_value Host::known_proxy(const void* interface) {
  const auto known = by_pointer_.find(interface);
  if (known == by_pointer_.end()) return nullptr;
  napi_value proxy = referenced(slots_[known->second].proxy);
  // Its proxy may be gone while nobody has swept yet.
  if (proxy == nullptr) release(known->second);
  return proxy;
}

napi_value Host::wrap(InterfacePtr<IUnknown> object, std::uint32_t flags,
                      std::int64_t bytes) {
  if (!object) {
    napi_value null = nullptr;
    check(env_, napi_get_null(env_, &null));
    return null;
  }
  if (auto dispatch = object.query<IDispatch>(IID_IDispatch)) {
    return wrap_dispatch(std::move(dispatch), flags, bytes);
  }
  if (napi_value proxy = known_proxy(object.get())) return proxy;
  Slot slot;
  slot.enumerator = object.query<IEnumVARIANT>(IID_IEnumVARIANT);
  if (slot.enumerator) slot.class_index = kEnumerator;
  slot.object = std::move(object);
  slot.bytes = bytes;
  return proxy_for(take(std::move(slot)), flags);
}

napi_value Host::wrap_dispatch(InterfacePtr<IDispatch> dispatch,
                               std::uint32_t flags, std::int64_t bytes) {
  if (napi_value proxy = known_proxy(dispatch.get())) return proxy;
  Slot slot;
  slot.class_index = class_of(dispatch.get());
  if (slot.class_index == kUnknownClass) {
    slot.enumerator = dispatch.query<IEnumVARIANT>(IID_IEnumVARIANT);
    if (slot.enumerator) slot.class_index = kEnumeratorWithMembers;
  }
  slot.dispatch = dispatch.get();
  slot.object = InterfacePtr<IUnknown>::adopt(dispatch.detach());
  slot.bytes = bytes;
  const std::int32_t class_index = slot.class_index;
  const std::uint32_t number = take(std::move(slot));
  if ((flags & kMakesProxy) == 0) return proxy_for(number, flags);
  report(bytes);
  fresh_[0] = static_cast<std::int32_t>(number);
  fresh_[1] = class_index;
  return nullptr;
}

std::uint32_t Host::take(Slot slot) {
  // Often enough that what is dead is no more than what lives, or little.
  constexpr std::int64_t much = std::int64_t{32} << 20;
  if (live_ >= sweep_at_ || grown_ >= much) sweep();
  if (free_.empty()) {
    slots_.emplace_back();
    free_.reserve(slots_.size());  // so that a release needs no memory
    free_.push_back(static_cast<std::uint32_t>(slots_.size() - 1));
  }
  const std::uint32_t number = free_.back();
  by_pointer_.emplace(slot.object.get(), number);
  free_.pop_back();
  slots_[number] = std::move(slot);
  ++live_;
  return number;
}

napi_value Host::proxy_for(std::uint32_t slot, std::uint32_t flags) {
  report(slots_[slot].bytes);
  try {
    std::array<napi_value, 4> arguments = {};
    check(env_, napi_create_uint32(env_, slot, &arguments[0]));
    check(env_,
          napi_create_int32(env_, slots_[slot].class_index, &arguments[1]));
    check(env_, napi_create_uint32(env_, flags & kBigInts, &arguments[2]));
    napi_value proxy = nullptr;
    napi_value function = referenced(wrap_);
    check(env_, napi_call_function(env_, function, function, 3,
                                   arguments.data(), &proxy));
    check(env_, napi_create_reference(env_, proxy, 0, &slots_[slot].proxy));
    return proxy;
  } catch (const Thrown&) {
    release(slot);
    throw;
  }
}

void Host::release(std::uint32_t number) {
  if (number == 0 || number >= slots_.size()) return;
  Slot& slot = slots_[number];
  if (!slot.object) return;
  // The last reference may run code that comes back here: it goes last.
  InterfacePtr<IEnumVARIANT> enumerator = std::move(slot.enumerator);
  InterfacePtr<IUnknown> object = std::move(slot.object);
  by_pointer_.erase(object.get());
  if (slot.proxy != nullptr) napi_delete_reference(env_, slot.proxy);
  report(-slot.bytes);
  slot = Slot();
  free_.push_back(number);
  --live_;
  const InLibrary quiet(*this);
  // What a callback throws now is not of the call that is under way.
  napi_ref outer = take_pending();
  enumerator = {};
  object = {};
  set_pending(outer);
}

void Host::sweep() {
  const InLibrary quiet(*this);         // once, instead of for each object
  constexpr std::size_t portion = 256;  // of handles in one scope
  for (std::size_t begin = 1; begin < slots_.size(); begin += portion) {
    const HandleScope scope(env_);
    // Releasing may add slots.
    for (std::size_t number = begin;
         number < std::min(slots_.size(), begin + portion); ++number) {
      if (slots_[number].proxy == nullptr) continue;
      if (referenced(slots_[number].proxy) == nullptr) {
        release(static_cast<std::uint32_t>(number));
      }
    }
  }
  sweep_at_ = std::max<std::size_t>(1024, 2 * live_);
  grown_ = 0;
  std::vector<napi_ref> left;
  {
    const std::lock_guard<std::mutex> lock(life_->mutex);
    left.swap(life_->left);
  }
  for (napi_ref reference : left) napi_delete_reference(env_, reference);
}

// In portions: each report costs as much as a call.
void Host::report(std::int64_t bytes) {
  constexpr std::int64_t portion = std::int64_t{64} << 10;
  unreported_ += bytes;
  if (bytes > 0) grown_ += bytes;
  if (unreported_ < portion && unreported_ > -portion) return;
  std::int64_t total = 0;
  napi_adjust_external_memory(env_, std::exchange(unreported_, 0), &total);
}

// An object that nobody holds is collected by the next garbage collection,
// which makes its finalizer a signal.
void Host::watch_collections() {
  napi_value sentinel = nullptr;
  // Without one, sweeps go on as slots are taken.
  napi_create_external(env_, this, &Host::collected, nullptr, &sentinel);
}

void Host::collected(napi_env env, void* data, void* /*hint*/) {
  void* host = nullptr;
  // At the end of an environment its finalizers run behind its clean-up.
  if (napi_get_instance_data(env, &host) != napi_ok || host != data) return;
  if (host == nullptr) return;
  try {
    const HandleScope scope(env);
    static_cast<Host*>(host)->watch_collections();
    static_cast<Host*>(host)->sweep();
  } catch (const Thrown&) {
    napi_value exception = nullptr;
    napi_get_and_clear_last_exception(env, &exception);
  } catch (const std::exception&) {
    return;  // no memory: the next collection tries again
  }
}

// ---------------------------------------------------------------------------
// Values for JavaScript
// ---------------------------------------------------------------------------

napi_value undefined(napi_env env) {
  napi_value value = nullptr;
  check(env, napi_get_undefined(env, &value));
  return value;
}

napi_value js_number(napi_env env, double number) {
  napi_value value = nullptr;
  check(env, napi_create_double(env, number, &value));
  return value;
}

constexpr std::int64_t kLargestSafe = (std::int64_t{1} << 53) - 1;

napi_value js_integer(napi_env env, std::int64_t number, std::uint32_t flags) {
  napi_value value = nullptr;
  if ((flags & kBigInts) != 0 || number > kLargestSafe ||
      number < -kLargestSafe) {
    check(env, napi_create_bigint_int64(env, number, &value));
  } else {
    check(env, napi_create_int64(env, number, &value));
  }
  return value;
}

napi_value js_unsigned(napi_env env, std::uint64_t number,
                       std::uint32_t flags) {
  if (number <= static_cast<std::uint64_t>(kLargestSafe)) {
    return js_integer(env, static_cast<std::int64_t>(number), flags);
  }
  napi_value value = nullptr;
  check(env, napi_create_bigint_uint64(env, number, &value));
  return value;
}

// Room for `count` units, on the stack for what is usual.
template <class Unit>
class Buffer {
 public:
  explicit Buffer(std::size_t count) {
    if (count > small_.size()) large_.resize(count);
  }
  Unit* data() { return large_.empty() ? small_.data() : large_.data(); }

 private:
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): written first
  std::array<Unit, 256> small_;
  std::vector<Unit> large_;
};

napi_value js_text(napi_env env, const wchar_t* text, std::size_t count) {
  napi_value value = nullptr;
  if (text == nullptr) count = 0;
  std::uint32_t all = 0;
  std::size_t pairs = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t unit = static_cast<char32_t>(text[i]);
    all |= unit;
    if (unit > 0xFFFF) ++pairs;
  }
  if (all <= 0xFF) {
    Buffer<char> latin1(count);
    std::transform(text, text + count, latin1.data(),
                   [](wchar_t unit) { return static_cast<char>(unit); });
    check(env, napi_create_string_latin1(env, latin1.data(), count, &value));
    return value;
  }
  Buffer<char16_t> utf16(count + pairs);
  char16_t* out = utf16.data();
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t unit = static_cast<char32_t>(text[i]);
    if (unit <= 0xFFFF) {
      *out++ = static_cast<char16_t>(unit);
      continue;
    }
    if (unit > 0x10FFFF) {  // no character: two that say so
      *out++ = 0xFFFD;
      *out++ = 0xFFFD;
      continue;
    }
    unit -= 0x10000;
    *out++ = static_cast<char16_t>(0xD800 + (unit >> 10));
    *out++ = static_cast<char16_t>(0xDC00 + (unit & 0x3FF));
  }
  check(env,
        napi_create_string_utf16(env, utf16.data(), count + pairs, &value));
  return value;
}

napi_value js_text(napi_env env, BSTR text) {
  return js_text(env, text, SysStringLen(text));
}

// Days since 1899-12-30 to milliseconds since 1970, both without a time zone.
constexpr double kEpoch = 25569;
constexpr double kMillisecondsPerDay = 86400000;

napi_value js_date(napi_env env, DATE date) {
  napi_value value = nullptr;
  check(env,
        napi_create_date(env, std::round((date - kEpoch) * kMillisecondsPerDay),
                         &value));
  return value;
}

napi_value js_value(Host& host, VARIANT& value, std::uint32_t flags, bool owned,
                    std::int64_t bytes = 0);

// The value of `type` that lies at `data`; it owns nothing.
VARIANT value_at(VARTYPE type, const void* data) {
  if (type == VT_VARIANT) return *static_cast<const VARIANT*>(data);
  std::size_t size = 8;
  switch (type) {
    case VT_I1:
    case VT_UI1:
      size = 1;
      break;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      size = 2;
      break;
    case VT_UI4:
    case VT_R4:
    case VT_ERROR:
      size = 4;
      break;
    default:
      break;
  }
  VARIANT value = {};
  value.vt = type;
  std::memcpy(&value.llVal, data, size);
  return value;
}

napi_value js_array(Host& host, VARTYPE type, SAFEARRAY* array,
                    std::uint32_t flags) {
  napi_env env = host.env();
  if (array == nullptr) {
    napi_value null = nullptr;
    check(env, napi_get_null(env, &null));
    return null;
  }
  if (array->cDims != 1) {
    throw_type_error(env, "an array of " + std::to_string(array->cDims) +
                              " dimensions has no JavaScript form");
  }
  const std::size_t count = array->rgsabound[0].cElements;
  const SafeArrayAccess access(array);
  if (FAILED(access.result())) {
    host.fail(access.result(), nullptr, nullptr, 0, undefined(env));
  }
  const auto* const first = access.elements<char>();
  napi_value result = nullptr;
  if (type == VT_UI1) {
    void* bytes = nullptr;
    napi_value buffer = nullptr;
    check(env, napi_create_arraybuffer(env, count, &bytes, &buffer));
    if (count > 0) std::memcpy(bytes, first, count);
    check(env, napi_create_typedarray(env, napi_uint8_array, count, buffer, 0,
                                      &result));
    return result;
  }
  check(env, napi_create_array_with_length(env, count, &result));
  for (std::size_t i = 0; i < count; ++i) {
    const HandleScope scope(env);
    VARIANT element = value_at(type, first + i * array->cbElements);
    // Only what a call returns by itself can be without a proxy.
    check(env, napi_set_element(
                   env, result, static_cast<std::uint32_t>(i),
                   js_value(host, element, flags & ~kMakesProxy, false)));
  }
  return result;
}

[[noreturn]] void no_javascript_form(Host& host, VARTYPE type) {
  throw_type_error(host.env(), "a value of type " + std::to_string(type) +
                                   " has no JavaScript form");
}

// What a reference leads to; it owns nothing.
VARIANT followed(Host& host, const VARIANT& reference) {
  // A chain that never ends is a mistake of its maker.
  const VARIANT* value = &reference;
  for (int links = 0; value->vt == (VT_BYREF | VT_VARIANT); ++links) {
    value = value->pvarVal;
    if (value == nullptr || links == 64) no_javascript_form(host, reference.vt);
  }
  if ((value->vt & VT_BYREF) == 0) return *value;
  if (value->byref == nullptr) no_javascript_form(host, reference.vt);
  return value_at(static_cast<VARTYPE>(value->vt & ~VT_BYREF), value->byref);
}

// `owned`: the value may be emptied, because its owner is done with it.
napi_value js_value(Host& host, VARIANT& value, std::uint32_t flags, bool owned,
                    std::int64_t bytes) {
  napi_env env = host.env();
  napi_value result = nullptr;
  switch (value.vt) {
    case VT_EMPTY:
      return undefined(env);
    case VT_NULL:
      check(env, napi_get_null(env, &result));
      return result;
    case VT_I1:
      return js_integer(env, value.cVal, flags);
    case VT_I2:
      return js_integer(env, value.iVal, flags);
    case VT_I4:
      return js_integer(env, value.lVal, flags);
    case VT_I8:
      return js_integer(env, value.llVal, flags);
    case VT_UI1:
      return js_integer(env, value.bVal, flags);
    case VT_UI2:
      return js_integer(env, value.uiVal, flags);
    case VT_UI4:
      return js_integer(env, value.ulVal, flags);
    case VT_UI8:
      return js_unsigned(env, value.ullVal, flags);
    case VT_R4:
      return js_number(env, static_cast<double>(value.fltVal));
    case VT_R8:
      return js_number(env, value.dblVal);
    case VT_CY:  // ten-thousandths
      return js_number(env, static_cast<double>(value.llVal) / 10000);
    case VT_BOOL:
      check(env,
            napi_get_boolean(env, value.boolVal != VARIANT_FALSE, &result));
      return result;
    case VT_BSTR:
      return js_text(env, value.bstrVal);
    case VT_LPSTR:
      check(env, napi_create_string_utf8(
                     env, value.pszVal == nullptr ? "" : value.pszVal,
                     NAPI_AUTO_LENGTH, &result));
      return result;
    case VT_DATE:
      return js_date(env, value.date);
    case VT_ERROR:
      return host.failure(value.scode, nullptr, nullptr, 0, undefined(env));
    case VT_DISPATCH: {
      if (value.pdispVal == nullptr) return host.wrap({}, flags);
      auto object = InterfacePtr<IDispatch>::adopt(value.pdispVal);
      if (owned) {
        VariantInit(&value);
      } else {
        object->AddRef();
      }
      return host.wrap_dispatch(std::move(object), flags, bytes);
    }
    case VT_UNKNOWN:
      return host.wrap(InterfacePtr<IUnknown>::share(value.punkVal), flags,
                       bytes);
    default:
      break;
  }
  if ((value.vt & VT_BYREF) != 0) {
    VARIANT target = followed(host, value);
    return js_value(host, target, flags, false);
  }
  if ((value.vt & VT_ARRAY) != 0) {
    return js_array(host, static_cast<VARTYPE>(value.vt & VT_TYPEMASK),
                    value.parray, flags);
  }
  no_javascript_form(host, value.vt);
}

napi_value Host::failure(HRESULT code, BSTR source, BSTR description,
                         std::uint32_t slot, napi_value member) {
  std::array<napi_value, 5> arguments = {};
  check(env_, napi_create_int32(env_, code, &arguments[0]));
  arguments[1] = js_text(env_, source);
  arguments[2] = js_text(env_, description);
  const bool known = slot != 0 && slot < slots_.size();
  check(env_, napi_create_int32(
                  env_, known ? slots_[slot].class_index : kUnknownClass,
                  &arguments[3]));
  arguments[4] = member;
  napi_value error = nullptr;
  napi_value function = referenced(fail_);
  check(env_, napi_call_function(env_, function, function, arguments.size(),
                                 arguments.data(), &error));
  return error;
}

// ---------------------------------------------------------------------------
// Values from JavaScript
// ---------------------------------------------------------------------------

std::uint32_t cpp_unsigned(napi_env env, napi_value value) {
  std::uint32_t number = 0;
  check(env, napi_get_value_uint32(env, value, &number));
  return number;
}

// A text without zeros: what reads it ends there.
_bstr_t cpp_text(napi_env env, napi_value value) {
  std::size_t count = 0;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): written first
  std::array<char16_t, 256> small;
  std::vector<char16_t> large;
  char16_t* units = small.data();
  check(env,
        napi_get_value_string_utf16(env, value, units, small.size(), &count));
  if (count + 1 >= small.size()) {  // it may have been cut
    check(env, napi_get_value_string_utf16(env, value, nullptr, 0, &count));
    large.resize(count + 1);
    units = large.data();
    check(env,
          napi_get_value_string_utf16(env, value, units, large.size(), &count));
  }
  if (count > std::numeric_limits<UINT>::max() - 1) {
    throw_type_error(env, "a text is too long");
  }
  _bstr_t text(SysAllocStringLen(nullptr, static_cast<UINT>(count)), false);
  if (text.m_s == nullptr) throw std::bad_alloc();
  wchar_t* out = text.m_s;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t unit = units[i];
    if (unit == 0) {
      throw_type_error(env, "a text holds U+0000, where it would end");
    }
    const bool pair = (unit & 0xFC00) == 0xD800 && i + 1 < count &&
                      (units[i + 1] & 0xFC00) == 0xDC00;
    *out++ = pair ? static_cast<wchar_t>(0x10000 + ((unit & 0x3FF) << 10) +
                                         (units[++i] & 0x3FF))
                  : static_cast<wchar_t>(unit);
  }
  *out = L'\0';
  const auto length = static_cast<std::uint64_t>(out - text.m_s);
  if (length != count) {  // pairs: what was allocated stays, what counts less
    std::memcpy(reinterpret_cast<char*>(text.m_s) - sizeof length, &length,
                sizeof length);
  }
  return text;
}

_variant_t cpp_value(Host& host, napi_value value);

napi_value element(napi_env env, napi_value array, std::uint32_t index) {
  napi_value value = nullptr;
  check(env, napi_get_element(env, array, index, &value));
  return value;
}

_variant_t cpp_bytes(napi_env env, napi_value value) {
  napi_typedarray_type type = napi_int8_array;
  std::size_t count = 0;
  void* data = nullptr;
  check(env, napi_get_typedarray_info(env, value, &type, &count, &data, nullptr,
                                      nullptr));
  if (type != napi_uint8_array) {
    throw_type_error(env, "bytes are passed as a Uint8Array");
  }
  if (count > std::numeric_limits<zir_types::ULONG>::max()) {
    throw_type_error(env, "too many bytes for one value");
  }
  _variant_t bytes;
  bytes.parray =
      SafeArrayCreateVector(VT_UI1, 0, static_cast<zir_types::ULONG>(count));
  if (bytes.parray == nullptr) throw std::bad_alloc();
  bytes.vt = VT_ARRAY | VT_UI1;
  const SafeArrayAccess access(bytes.parray);
  if (count > 0) std::memcpy(access.elements<char>(), data, count);
  return bytes;
}

_variant_t cpp_array(Host& host, napi_value elements) {
  napi_env env = host.env();
  std::uint32_t count = 0;
  check(env, napi_get_array_length(env, elements, &count));
  _variant_t array;
  array.parray = SafeArrayCreateVector(VT_VARIANT, 0, count);
  if (array.parray == nullptr) throw std::bad_alloc();
  array.vt = VT_ARRAY | VT_VARIANT;
  const SafeArrayAccess access(array.parray);
  auto* const first = access.elements<VARIANT>();
  for (std::uint32_t i = 0; i < count; ++i) {
    const HandleScope scope(env);
    first[i] = cpp_value(host, element(env, elements, i)).Detach();
  }
  return array;
}

IDispatch* new_callback(Host& host, napi_value function, std::uint32_t flags);

_variant_t cpp_tagged(Host& host, napi_value value) {
  napi_env env = host.env();
  napi_value payload = element(env, value, 1);
  switch (static_cast<Tag>(cpp_unsigned(env, element(env, value, 0)))) {
    case Tag::kObject: {
      const std::uint32_t slot = cpp_unsigned(env, payload);
      if (host.is_dispatch(slot)) return host.dispatch(slot).get();
      return host.object(slot).get();
    }
    case Tag::kDate: {
      _variant_t date;
      double days = 0;
      check(env, napi_get_value_double(env, payload, &days));
      date = days;
      date.vt = VT_DATE;
      return date;
    }
    case Tag::kArray:
      return cpp_array(host, payload);
    case Tag::kOut:
      return cpp_value(host, payload);
    case Tag::kCallback: {
      _variant_t callback;
      callback.pdispVal = new_callback(
          host, payload, cpp_unsigned(env, element(env, value, 2)));
      callback.vt = VT_DISPATCH;
      return callback;
    }
  }
  throw_type_error(env, "an argument with an unknown tag");
}

_variant_t cpp_number(napi_env env, napi_value value) {
  double number = 0;
  check(env, napi_get_value_double(env, value, &number));
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (number >= -limit && number < limit && number == std::trunc(number)) {
    return static_cast<std::int64_t>(number);
  }
  return number;
}

_variant_t cpp_value(Host& host, napi_value value) {
  napi_env env = host.env();
  napi_valuetype type = napi_undefined;
  check(env, napi_typeof(env, value, &type));
  _variant_t result;
  switch (type) {
    case napi_undefined:
      return result;
    case napi_null:
      result.vt = VT_NULL;
      return result;
    case napi_boolean: {
      bool truth = false;
      check(env, napi_get_value_bool(env, value, &truth));
      return truth;
    }
    case napi_number:
      return cpp_number(env, value);
    case napi_bigint: {
      std::int64_t number = 0;
      bool lossless = false;
      check(env, napi_get_value_bigint_int64(env, value, &number, &lossless));
      if (!lossless) {
        napi_throw_range_error(env, nullptr,
                               "a BigInt does not fit into 64 bits");
        throw Thrown();
      }
      return number;
    }
    case napi_string:
      result.bstrVal = cpp_text(env, value).Detach();
      result.vt = VT_BSTR;
      return result;
    case napi_object: {
      bool is_array = false;
      check(env, napi_is_array(env, value, &is_array));
      return is_array ? cpp_tagged(host, value) : cpp_bytes(env, value);
    }
    default:
      throw_type_error(env, "a value that cannot be passed");
  }
}

// The arguments of a call, last one first, and what goes back to them.
class Arguments {
 public:
  Arguments(Host& host, const napi_value* values, std::size_t count)
      : host_(host), values_(values), count_(count) {
    if (count > kFew) {
      many_.resize(count);
    } else if (count > 0) {
      few_.emplace();
    }
    for (std::size_t i = 0; i < count; ++i) {
      variant(i) = cpp_value(host, values[i]);
      const auto tag = tag_of(values[i]);
      if (tag == Tag::kOut) {
        outs_.push_back(std::make_unique<_variant_t>(std::move(variant(i))));
        variant(i).vt = VT_BYREF | VT_VARIANT;
        variant(i).pvarVal = outs_.back().get();
      }
      writes_back_ = writes_back_ || tag == Tag::kOut || tag == Tag::kArray;
    }
  }

  VARIANT* variants() {
    if (few_) return few_->data();
    return many_.empty() ? nullptr : many_.data();
  }
  UINT count() const { return static_cast<UINT>(count_); }

  // Replaces the payloads of outs and arrays by what they hold now.
  void write_back(std::uint32_t flags) {
    if (!writes_back_) return;
    for (std::size_t i = 0; i < count_; ++i) {
      const auto tag = tag_of(values_[i]);
      if (tag != Tag::kOut && tag != Tag::kArray) continue;
      check(host_.env(),
            napi_set_element(host_.env(), values_[i], 1,
                             js_value(host_, variant(i), flags, false)));
    }
  }

 private:
  _variant_t& variant(std::size_t index) {
    const std::size_t place = count_ - 1 - index;
    return few_ ? (*few_)[place] : many_[place];
  }
  // Nothing for plain values.
  std::optional<Tag> tag_of(napi_value value) {
    napi_env env = host_.env();
    napi_valuetype type = napi_undefined;
    check(env, napi_typeof(env, value, &type));
    bool is_array = false;
    if (type == napi_object) check(env, napi_is_array(env, value, &is_array));
    if (!is_array) return std::nullopt;
    return static_cast<Tag>(cpp_unsigned(env, element(env, value, 0)));
  }

  Host& host_;
  const napi_value* values_;
  std::size_t count_;
  static constexpr std::size_t kFew = 4;
  std::optional<std::array<_variant_t, kFew>> few_;
  std::vector<_variant_t> many_;
  // References lead to them: they stay where they are.
  std::vector<std::unique_ptr<_variant_t>> outs_;
  bool writes_back_ = false;
};

// ---------------------------------------------------------------------------
// Callbacks
// ---------------------------------------------------------------------------

// A JavaScript function as an object: its default member calls it.
class Callback final : public IDispatch {
 public:
  // The function behind an object; NULL if it is none of this environment.
  static napi_value function_of(Host& host, IDispatch* object) {
    InterfacePtr<Callback> callback;
    callback.receive(
        [&](void** out) { return object->QueryInterface(kCallback, out); });
    if (!callback || callback->life_ != host.life()) return nullptr;
    napi_value function = nullptr;
    check(host.env(),
          napi_get_reference_value(host.env(), callback->function_, &function));
    return function;
  }

  Callback(Host& host, napi_value function, std::uint32_t flags)
      : host_(host), life_(host.life()), flags_(flags) {
    check(host.env(),
          napi_create_reference(host.env(), function, 1, &function_));
  }
  Callback(const Callback&) = delete;
  Callback& operator=(const Callback&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (riid == kCallback) {
      *object = this;
    } else if (riid == IID_IUnknown || riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override {
    const zir_types::ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_INVALIDARG;
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT count, LCID,
                        DISPID* ids) override {
    if (ids == nullptr) return E_INVALIDARG;
    std::fill_n(ids, count, DISPID_UNKNOWN);
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(DISPID member, REFIID riid, LCID, WORD flags,
                 DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* exception,
                 UINT*) override;

 private:
  // Objects are destroyed by their last Release.
  ~Callback() {
    if (!life_->alive) return;  // its environment took the reference along
    if (std::this_thread::get_id() == life_->thread) {
      napi_delete_reference(host_.env(), function_);
      return;
    }
    const std::lock_guard<std::mutex> lock(life_->mutex);
    life_->left.push_back(function_);
  }

  HRESULT call(const DISPPARAMS* parameters, VARIANT* result);
  HRESULT failed(EXCEPINFO* exception);

  std::atomic<zir_types::ULONG> references_{1};
  Host& host_;
  std::shared_ptr<Life> life_;
  napi_ref function_ = nullptr;
  std::uint32_t flags_;
};

IDispatch* new_callback(Host& host, napi_value function, std::uint32_t flags) {
  return new Callback(host, function, flags);
}

HRESULT Callback::Invoke(DISPID member, REFIID riid, LCID, WORD flags,
                         DISPPARAMS* parameters, VARIANT* result,
                         EXCEPINFO* exception, UINT*) {
  if (riid != IID_NULL) return E_INVALIDARG;
  if (member != DISPID_VALUE ||
      (flags & (DISPATCH_METHOD | DISPATCH_PROPERTYGET)) == 0) {
    return DISP_E_MEMBERNOTFOUND;
  }
  if (!life_->alive) return kDisconnected;
  if (std::this_thread::get_id() != life_->thread) return kWrongThread;
  const InScript running(host_);
  // The script may let go of everything that keeps this.
  const auto held = InterfacePtr<IDispatch>::share(this);
  try {
    const HandleScope scope(host_.env());
    try {
      return call(parameters, result);
    } catch (const Thrown&) {
      return failed(exception);
    }
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT Callback::call(const DISPPARAMS* parameters, VARIANT* result) {
  napi_env env = host_.env();
  const UINT count = parameters == nullptr ? 0 : parameters->cArgs;
  std::vector<napi_value> arguments(count);
  for (UINT i = 0; i < count; ++i) {
    arguments[i] =
        js_value(host_, parameters->rgvarg[count - 1 - i], flags_, false);
  }
  napi_value function = nullptr;
  check(env, napi_get_reference_value(env, function_, &function));
  napi_value returned = nullptr;
  check(env, napi_call_function(env, undefined(env), function, count,
                                arguments.data(), &returned));
  if (result == nullptr) return S_OK;
  VariantInit(result);
  try {
    *result = cpp_value(host_, returned).Detach();
  } catch (const Thrown&) {  // what has no form there is nothing there
    napi_get_and_clear_last_exception(env, &returned);
  }
  return S_OK;
}

// Keeps what was thrown for the script that made the call, and tells whoever is
// in between that there was something.
HRESULT Callback::failed(EXCEPINFO* exception) {
  napi_env env = host_.env();
  napi_value thrown = nullptr;
  if (napi_get_and_clear_last_exception(env, &thrown) != napi_ok) return E_FAIL;
  // References are to objects: what was thrown may be anything.
  napi_value box = nullptr;
  napi_ref reference = nullptr;
  if (napi_create_array_with_length(env, 1, &box) == napi_ok &&
      napi_set_element(env, box, 0, thrown) == napi_ok &&
      napi_create_reference(env, box, 1, &reference) == napi_ok) {
    host_.set_pending(reference);
  }
  if (exception == nullptr) return E_FAIL;
  ExcepinfoClear(exception);
  exception->scode = E_FAIL;
  napi_value text = nullptr;
  if (napi_coerce_to_string(env, thrown, &text) == napi_ok) {
    try {
      exception->bstrDescription = cpp_text(env, text).Detach();
    } catch (const Thrown&) {
      napi_get_and_clear_last_exception(env, &thrown);
    }
  } else {
    napi_get_and_clear_last_exception(env, &thrown);
  }
  return DISP_E_EXCEPTION;
}

// ---------------------------------------------------------------------------
// What is exported
// ---------------------------------------------------------------------------

struct Call {
  Host& host;
  const napi_value* arguments;
  std::size_t count;

  napi_value at(std::size_t index) const {
    if (index >= count) throw_type_error(host.env(), "too few arguments");
    return arguments[index];
  }
  std::uint32_t number(std::size_t index) const {
    return cpp_unsigned(host.env(), at(index));
  }
  std::int32_t integer(std::size_t index) const {
    std::int32_t number = 0;
    check(host.env(), napi_get_value_int32(host.env(), at(index), &number));
    return number;
  }
};

// How much memory the result of a call took, for the garbage collector, which
// does not see it. Asking the heap costs as much as a small statement: short
// calls are taken to give little, and growth is that since a longer one. So it
// may be that of others, and counts for no more than a call can fetch in its
// time: a byte a nanosecond.
class Growth {
 public:
  explicit Growth(bool wanted) : wanted_(wanted) {
    if (wanted) begin_ = Clock::now();
  }

  std::int64_t bytes(Host& host) const {
    if (!wanted_) return 0;
    const std::chrono::nanoseconds taken = Clock::now() - begin_;
    if (taken < std::chrono::microseconds(100)) return 0;
    return std::clamp<std::int64_t>(host.heap_growth(), 0, taken.count());
  }

 private:
  using Clock = std::chrono::steady_clock;

  bool wanted_;
  Clock::time_point begin_;
};

// Behind a call that failed: throws what a callback threw in it. `outer` is
// what was pending before.
void rethrow(Host& host, HRESULT code, napi_ref outer) {
  napi_env env = host.env();
  napi_ref thrown = host.take_pending();
  host.set_pending(outer);
  if (thrown != nullptr) {
    napi_value box = nullptr;
    napi_value value = nullptr;
    const bool known = napi_get_reference_value(env, thrown, &box) == napi_ok &&
                       napi_get_element(env, box, 0, &value) == napi_ok;
    napi_delete_reference(env, thrown);
    if (FAILED(code) && known) {
      napi_throw(env, value);
      throw Thrown();
    }
  }
}

napi_value invoked(Host& host, std::uint32_t slot, napi_value member, DISPID id,
                   std::uint32_t flags, Arguments& arguments) {
  const InterfacePtr<IDispatch> object = host.dispatch(slot);
  const auto kind = static_cast<WORD>(flags & 0xF);
  const bool puts = kind == DISPATCH_PROPERTYPUT;
  DISPID named = DISPID_PROPERTYPUT;
  DISPPARAMS parameters = {arguments.variants(), puts ? &named : nullptr,
                           arguments.count(), puts ? 1U : 0U};
  _variant_t result;
  Exception exception;
  const Growth growth((flags & kCarriesData) != 0);
  // A call inside a callback leaves alone what was thrown outside.
  napi_ref outer = host.take_pending();
  HRESULT code = S_OK;
  {
    const InLibrary quiet(host);
    code = object->Invoke(id, IID_NULL, 0, kind, &parameters,
                          puts ? nullptr : &result, &exception.info, nullptr);
  }
  rethrow(host, code, outer);
  if (code == DISP_E_EXCEPTION) {
    EXCEPINFO& info = exception.info;
    if (info.pfnDeferredFillIn != nullptr) {
      const InLibrary quiet(host);
      info.pfnDeferredFillIn(&info);
    }
    // Some objects report a number of their own instead of a code.
    host.fail(FAILED(info.scode) ? info.scode : E_FAIL, info.bstrSource,
              info.bstrDescription, slot, member);
  }
  if (FAILED(code)) host.fail(code, nullptr, nullptr, slot, member);
  arguments.write_back(flags & ~kMakesProxy);
  return js_value(host, result, flags, true, growth.bytes(host));
}

// invoke(slot, id, flags, ...arguments)
napi_value invoke(const Call& call) {
  const std::size_t fixed = 3;
  Arguments arguments(call.host, call.arguments + fixed,
                      call.count > fixed ? call.count - fixed : 0);
  return invoked(call.host, call.number(0), call.at(1), call.integer(1),
                 call.number(2), arguments);
}

// create(program id, flags)
napi_value create(const Call& call) {
  const _bstr_t name = cpp_text(call.host.env(), call.at(0));
  InterfacePtr<IDispatch> object;
  HRESULT code = S_OK;
  {
    const InLibrary quiet(call.host);
    code = object.receive([&](void** out) {
      return CoCreateInstanceByName(name, nullptr, CLSCTX_INPROC_SERVER,
                                    IID_IDispatch, out);
    });
  }
  if (FAILED(code) || !object) {
    call.host.fail(FAILED(code) ? code : E_FAIL, nullptr, nullptr, 0,
                   call.at(0));
  }
  return call.host.wrap_dispatch(std::move(object), call.number(1), 0);
}

// idOf(slot, name): undefined for a name that the object does not know.
napi_value id_of(const Call& call) {
  napi_env env = call.host.env();
  const InterfacePtr<IDispatch> object = call.host.dispatch(call.number(0));
  const _bstr_t name = cpp_text(call.host.env(), call.at(1));
  wchar_t* text = name.m_s;
  DISPID id = DISPID_UNKNOWN;
  const InLibrary quiet(call.host);
  if (FAILED(object->GetIDsOfNames(IID_NULL, &text, 1, 0, &id))) {
    return undefined(env);
  }
  napi_value result = nullptr;
  check(env, napi_create_int32(env, id, &result));
  return result;
}

// next(slot, count, flags): an array of as many values, fewer at the end.
napi_value next(const Call& call) {
  napi_env env = call.host.env();
  const InterfacePtr<IEnumVARIANT> object =
      call.host.enumerator(call.number(0));
  std::vector<_variant_t> fetched(call.number(1));
  zir_types::ULONG count = 0;
  napi_ref outer = call.host.take_pending();
  HRESULT code = S_OK;
  {
    const InLibrary quiet(call.host);
    code = object->Next(static_cast<zir_types::ULONG>(fetched.size()),
                        fetched.data(), &count);
  }
  rethrow(call.host, code, outer);
  if (FAILED(code)) {
    call.host.fail(code, nullptr, nullptr, call.number(0), undefined(env));
  }
  napi_value result = nullptr;
  check(env, napi_create_array_with_length(env, count, &result));
  for (std::uint32_t i = 0; i < count && i < fetched.size(); ++i) {
    check(env, napi_set_element(
                   env, result, i,
                   js_value(call.host, fetched[i], call.number(2), true)));
  }
  return result;
}

// release(slot)
napi_value release(const Call& call) {
  call.host.release(call.number(0));
  return undefined(call.host.env());
}

// attach(slot, proxy): makes it the proxy of the object that a call left
// without.
napi_value attach(const Call& call) {
  call.host.attach(call.number(0), call.at(1));
  return undefined(call.host.env());
}

// functionOf(slot): what a callback that came back calls; undefined for others.
napi_value function_of(const Call& call) {
  const std::uint32_t slot = call.number(0);
  napi_value function = nullptr;
  if (call.host.is_dispatch(slot)) {
    function = Callback::function_of(call.host, call.host.dispatch(slot).get());
  }
  return function != nullptr ? function : undefined(call.host.env());
}

// live(): the number of objects of this environment.
napi_value live(const Call& call) {
  call.host.sweep();
  return js_number(call.host.env(), static_cast<double>(call.host.live()));
}

// idle(library): whether it says that none of its objects is alive.
napi_value idle(const Call& call) {
  napi_env env = call.host.env();
  call.host.sweep();
  // Where it is not found any more, what this thread has is all one can know.
  bool result = call.host.live() == 0;
  const _bstr_t name = cpp_text(call.host.env(), call.at(0));
  if (HMODULE library = LoadLibraryW(name)) {
    using CanUnload = HRESULT (*)();
    const auto can_unload =
        reinterpret_cast<CanUnload>(GetProcAddress(library, "DllCanUnloadNow"));
    result = can_unload != nullptr && can_unload() == S_OK;
  }
  napi_value value = nullptr;
  check(env, napi_get_boolean(env, result, &value));
  return value;
}

IID cpp_iid(napi_env env, napi_value value) {
  std::array<char, 64> text = {};
  std::size_t count = 0;
  check(env, napi_get_value_string_utf8(env, value, text.data(), text.size(),
                                        &count));
  IID iid = {};
  std::uint8_t* const tail = iid.Data4;
  // cppcheck-suppress invalidScanfArgType_int  // Data4 is of bytes
  // NOLINTNEXTLINE(cert-err34-c): eleven fields or nothing
  if (std::sscanf(text.data(),
                  "{%8x-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx}",
                  &iid.Data1, &iid.Data2, &iid.Data3, tail, tail + 1, tail + 2,
                  tail + 3, tail + 4, tail + 5, tail + 6, tail + 7) != 11) {
    throw_type_error(env, "an interface id is malformed");
  }
  return iid;
}

// registry(): where objects are looked for by name.
napi_value registry(const Call& call) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as the runtime itself reads it
  const char* const folder = std::getenv("REGISTRY");
  napi_value value = nullptr;
  check(call.host.env(), napi_create_string_utf8(
                             call.host.env(), folder == nullptr ? "" : folder,
                             NAPI_AUTO_LENGTH, &value));
  return value;
}

// setUp(wrap, fail, interface ids, fresh): what the Host calls, and where it
// leaves new objects.
napi_value set_up(const Call& call) {
  napi_env env = call.host.env();
  std::uint32_t count = 0;
  check(env, napi_get_array_length(env, call.at(2), &count));
  std::vector<IID> classes(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    classes[i] = cpp_iid(env, element(env, call.at(2), i));
  }
  call.host.set_up(call.at(0), call.at(1), std::move(classes), call.at(3));
  return undefined(env);
}

template <napi_value (*function)(const Call&)>
napi_value entry(napi_env env, napi_callback_info info) {
  std::array<napi_value, 8> few = {};
  std::vector<napi_value> many;
  std::size_t count = few.size();
  const napi_value* arguments = few.data();
  void* data = nullptr;
  if (napi_get_cb_info(env, info, &count, few.data(), nullptr, &data) !=
      napi_ok) {
    return nullptr;
  }
  auto* const host = static_cast<Host*>(data);
  try {
    if (count > few.size()) {
      many.resize(count);
      check(env,
            napi_get_cb_info(env, info, &count, many.data(), nullptr, nullptr));
      arguments = many.data();
    }
    return function({*host, arguments, count});
  } catch (const Thrown&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    napi_throw_error(env, "ERR_MEMORY_ALLOCATION_FAILED", "out of memory");
  } catch (const std::exception& error) {
    napi_throw_error(env, nullptr, error.what());
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// The module
// ---------------------------------------------------------------------------

bool is_folder(const std::string& path) {
  return access((path + "/.").c_str(), X_OK) == 0;
}

// Objects are found by name through a folder beside the library, unless the
// user says where. The process's own environment, because the runtime reads it
// there and a worker's process.env is a copy.
void set_registry() {
  Dl_info info = {};
  if (dladdr(reinterpret_cast<void*>(&CoCreateInstanceByName), &info) == 0 ||
      info.dli_fname == nullptr) {
    return;
  }
  struct Freed {
    void operator()(char* path) const { std::free(path); }
  };
  const std::unique_ptr<char, Freed> library(realpath(info.dli_fname, nullptr));
  if (!library) return;
  std::string folder(library.get());
  folder.erase(folder.rfind('/'));
  for (const char* const place : {"/zirdb/registry", "/registry"}) {
    if (is_folder(folder + place)) {
      // NOLINTNEXTLINE(concurrency-mt-unsafe): once, as the module is loaded
      setenv("REGISTRY", (folder + place).c_str(), 0);
      return;
    }
  }
}

void add(napi_env env, napi_value exports, const char* name,
         napi_callback function, Host* host) {
  napi_value value = nullptr;
  check(env, napi_create_function(env, name, NAPI_AUTO_LENGTH, function, host,
                                  &value));
  check(env, napi_set_named_property(env, exports, name, value));
}

void clean_up(void* data) {
  auto* const host = static_cast<Host*>(data);
  napi_set_instance_data(host->env(), nullptr, nullptr, nullptr);
  delete host;
}

}  // namespace

NAPI_MODULE_INIT() {
  static std::once_flag once;
  try {
    std::call_once(once, set_registry);
    auto host = std::make_unique<Host>(env);
    check(env, napi_set_instance_data(env, host.get(), nullptr, nullptr));
    add(env, exports, "setUp", entry<set_up>, host.get());
    add(env, exports, "create", entry<create>, host.get());
    add(env, exports, "idOf", entry<id_of>, host.get());
    add(env, exports, "invoke", entry<invoke>, host.get());
    add(env, exports, "next", entry<next>, host.get());
    add(env, exports, "release", entry<release>, host.get());
    add(env, exports, "attach", entry<attach>, host.get());
    add(env, exports, "functionOf", entry<function_of>, host.get());
    add(env, exports, "live", entry<live>, host.get());
    add(env, exports, "registry", entry<registry>, host.get());
    add(env, exports, "idle", entry<idle>, host.get());
    // Objects go before what Node itself keeps of the environment.
    check(env, napi_add_env_cleanup_hook(env, clean_up, host.get()));
    static_cast<void>(host.release());
    return exports;
  } catch (const Thrown&) {
    return nullptr;
  } catch (const std::exception& error) {
    napi_throw_error(env, nullptr, error.what());
    return nullptr;
  }
}
