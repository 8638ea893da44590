// SPDX-License-Identifier: MIT
//
// zirdb: the database automation component.
//
// Sections: identifiers; errors; text and values; rows; the dispatch frame; the
// classes; marshalling; parameters; fields; recordset; statements; connection;
// command; the class factory; entry points.
//
// What a reader needs to know:
//  - What an interface offers runs inside `guarded` (a late-bound call inside
//    `contained`): the thread's error record is cleared first, and no exception
//    gets out. An error with a text is recorded by `set_db_error` alone.
//  - A class is one table of members and the functions they name. `admit` and
//    `answer` decide whether a call has the shape that a member takes.
//  - A result's rows are one immutable, counted store, which Fields, Field and
//    enumerators point into instead of copying. Text stays UTF-8 there and is
//    decoded when it is read.
//  - Foreign code runs inside many calls: callbacks, default members, the last
//    Release of a value. What is replaced is therefore moved out first and
//    freed last.

#include "zirdb.h"

#include <cxxabi.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "zirdb_odbc.h"

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

const CLSID CLSID_ZIRDBConnection = {
    0xA3B9D97A,
    0x3DE2,
    0x4287,
    {0x9A, 0x7B, 0x5E, 0xF2, 0x1F, 0x44, 0x9C, 0x1E}};
const CLSID CLSID_ZIRDBCommand = {
    0xB250EB07,
    0x2332,
    0x4C6D,
    {0xB5, 0x0D, 0x35, 0x76, 0x41, 0xDE, 0xAA, 0x0D}};
const CLSID CLSID_ZIRDBRecordset = {
    0x8EEDA5E6,
    0x0575,
    0x4F26,
    {0xB4, 0x3A, 0xED, 0x25, 0xF9, 0x5E, 0x99, 0x3B}};
const IID IID_IZIRDBConnection = {
    0x42A6B313,
    0x5986,
    0x4037,
    {0xAE, 0x9D, 0xE9, 0x0A, 0xD9, 0xB7, 0xBB, 0xA4}};
const IID IID_IZIRDBCommand = {
    0x8E32A13D,
    0xFF0A,
    0x410C,
    {0x80, 0xB8, 0xFB, 0x51, 0x7D, 0x85, 0x02, 0x22}};
const IID IID_IZIRDBRecordset = {
    0xE844F0B5,
    0xB612,
    0x48B1,
    {0xBA, 0x57, 0xAB, 0x0B, 0xC2, 0xF0, 0x8D, 0xF9}};
const IID IID_IZIRDBFields = {0x051FBC3E,
                              0xD6EE,
                              0x4C23,
                              {0xA4, 0xBD, 0xFC, 0xB6, 0x1C, 0xC0, 0xE0, 0x93}};
const IID IID_IZIRDBField = {0xCFC4200C,
                             0x426C,
                             0x40D5,
                             {0x8A, 0x39, 0x7B, 0x96, 0xB8, 0xD6, 0x32, 0x3F}};
const IID IID_IZIRDBParameters = {
    0x9D1D978C,
    0x2A6F,
    0x459E,
    {0x8A, 0x8F, 0x1B, 0xC0, 0xD8, 0x27, 0x6B, 0x54}};
const IID IID_IZIRDBParameter = {
    0x1C1C4279,
    0x4D78,
    0x47E8,
    {0xBA, 0x57, 0x4E, 0x8B, 0x8A, 0x3C, 0x4A, 0x11}};

namespace {

// Objects alive, enumerators included and factories not; and server locks.
std::atomic<std::uint32_t> g_object_count{0};
std::atomic<std::uint32_t> g_lock_count{0};

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

// The classes' names as error sources.
constexpr const wchar_t* kConnectionSource = L"ZIRDB.Connection";
constexpr const wchar_t* kCommandSource = L"ZIRDB.Command";
constexpr const wchar_t* kRecordsetSource = L"ZIRDB.Recordset";
constexpr const wchar_t* kFieldsSource = L"ZIRDB.Fields";
constexpr const wchar_t* kFieldSource = L"ZIRDB.Field";
constexpr const wchar_t* kParametersSource = L"ZIRDB.Parameters";
constexpr const wchar_t* kParameterSource = L"ZIRDB.Parameter";

// A code and its text, both of which scripts compare.
struct Failure {
  HRESULT code;
  const wchar_t* text;
};

constexpr Failure kClosed = {
    zir_hresult(0x800A0E78),
    L"Operation is not allowed when the object is closed."};
constexpr Failure kRecordsetClosed = {zir_hresult(0x80040711),
                                      L"Recordset is closed"};
constexpr Failure kNoCurrentRecord = {
    zir_hresult(0x800A0BCD),
    L"Either BOF or EOF is True, or the current record has been deleted. "
    L"Requested operation requires a current record."};
constexpr Failure kNotInThisContext = {
    zir_hresult(0x800A0C93), L"Operation is not allowed in this context."};
constexpr Failure kNotBackward = {
    zir_hresult(0x80040E24), L"Rowset does not support fetching backward."};
constexpr Failure kItemNotFound = {
    zir_hresult(0x800A0CC1),
    L"Item cannot be found in the collection corresponding to the requested "
    L"name or ordinal."};
constexpr Failure kFieldNotAvailable = {zir_hresult(0x800A0D5C),
                                        L"Field object is not available."};
constexpr Failure kItemNotAvailable = {E_FAIL, kFieldNotAvailable.text};
constexpr Failure kFieldOutOfRange = {zir_hresult(0x80040713),
                                      L"Field index is out of range"};
constexpr Failure kBadArguments = {
    zir_hresult(0x800A0BB9),
    L"Arguments are of the wrong type, are out of acceptable range, or are in "
    L"conflict with one another."};

constexpr Failure kAlreadyOpen = {zir_hresult(0x80040711),
                                  L"Connection is already open"};
constexpr Failure kConnectionStringRequired = {E_INVALIDARG,
                                               L"ConnectionString is required"};
constexpr Failure kNoCommandText = {
    zir_hresult(0x80040E0C),
    L"Command text was not set for the command object."};
constexpr Failure kErrorsOccurred = {
    zir_hresult(0x80040E21),
    L"Multiple-step OLE DB operation generated errors. Check each OLE DB "
    L"status value, if available. No work was done."};
constexpr Failure kNoConnection = {
    zir_hresult(0x800A0E7D),
    L"The connection cannot be used to perform this operation. It is either "
    L"closed or invalid in this context."};
constexpr Failure kTooManyArguments = {
    zir_hresult(0x80040E14),
    L"Too many arguments were specified for the stored procedure."};
constexpr Failure kOutputInText = {zir_hresult(0x80040E14),
                                   L"Incorrect syntax near 'OUTPUT'."};
constexpr Failure kParameterDefinition = {
    zir_hresult(0x800A0E7C),
    L"Parameter object is improperly defined. Inconsistent or incomplete "
    L"information was provided."};
constexpr Failure kParameterLayout = {
    E_NOTIMPL,
    L"Stored procedure execution is not supported for this parameter layout."};
constexpr Failure kForeignConnection = {
    E_NOTIMPL, L"Parameterized execute requires ZIRDB.Connection."};

// The codes of what the ODBC layer reports in its own words.
constexpr HRESULT kOpenFailed = zir_hresult(0x80040710);
constexpr HRESULT kExecuteFailed = zir_hresult(0x80040712);

// Texts for the codes that a translation of values fails with.
constexpr const wchar_t* kValueText =
    L"Parameter value is not compatible with parameter type.";
constexpr const wchar_t* kResultText =
    L"Parameter result is not compatible with ZIRDB.Parameter.Value.";
constexpr const wchar_t* kArrayText =
    L"Parameter array is not compatible with command execution.";
constexpr const wchar_t* kArrayResultText =
    L"Parameter array cannot receive post-execute values.";

// The last error of a thread.
struct DbErrorState {
  HRESULT hr = S_OK;
  std::wstring source;
  std::wstring description;
};
static_assert(sizeof(DbErrorState) == 72);

// The calling thread's; NULL until something fails there for the first time. In
// static thread-local storage: looking takes no call and, on a thread without
// memory, none of that. The price is a pointer's worth of the room that a
// process keeps for libraries it loads later.
[[gnu::tls_model("initial-exec")]] thread_local DbErrorState* g_db_error =
    nullptr;

// Destroys the record when its thread ends. Not by a thread_local's destructor:
// the C library ends the process when there is no memory to register one.
void destroy_db_error(void* state) {
  delete static_cast<DbErrorState*>(state);
  g_db_error = nullptr;
}
pthread_key_t g_db_error_key;
const bool g_has_db_error_key =
    pthread_key_create(&g_db_error_key, destroy_db_error) == 0;

// A thread that ends after the library was unloaded must not look for it; the
// records of such threads stay.
[[gnu::destructor]] void delete_db_error_key() {
  if (!g_has_db_error_key) return;
  pthread_key_delete(g_db_error_key);
  destroy_db_error(g_db_error);
}

bool has_db_error() { return g_db_error != nullptr && g_db_error->hr != S_OK; }

void clear_db_error() noexcept {
  if (!has_db_error()) return;
  g_db_error->hr = S_OK;
  g_db_error->source.clear();
  g_db_error->description.clear();
}

// Returns `hr`, a failure. Throws std::bad_alloc. In a process that has no
// thread key to spare, or is exiting, the code has to do without a text.
HRESULT set_db_error(HRESULT hr, const wchar_t* source,
                     const wchar_t* description) {
  if (g_db_error == nullptr) {
    if (!g_has_db_error_key) return hr;
    auto made = std::make_unique<DbErrorState>();
    const int kept = pthread_setspecific(g_db_error_key, made.get());
    if (kept == ENOMEM) throw std::bad_alloc();
    if (kept != 0) return hr;
    g_db_error = made.release();
  }
  g_db_error->hr = hr;
  g_db_error->source = source;
  g_db_error->description = description != nullptr ? description : L"";
  return hr;
}

HRESULT fail(const Failure& failure, const wchar_t* source) {
  return set_db_error(failure.code, source, failure.text);
}

// A string for which there is no memory stays NULL.
void populate_excepinfo_from_db_error(EXCEPINFO* info, HRESULT hr,
                                      const wchar_t* source) noexcept {
  if (info == nullptr) return;
  ExcepinfoClear(info);
  info->scode = hr;
  const bool recorded = has_db_error();
  if (recorded && !g_db_error->source.empty()) {
    source = g_db_error->source.c_str();
  }
  info->bstrSource = SysAllocString(source);
  if (recorded && !g_db_error->description.empty()) {
    info->bstrDescription = SysAllocString(g_db_error->description.c_str());
  }
}

// Deliberate: whatever breaks a call off is a failure, also with a code that
// says otherwise.
HRESULT failure_of(const _com_error& error) {
  return FAILED(error.Error()) ? error.Error() : E_FAIL;
}

// The code for the exception being handled. What an operation had recorded
// before it no longer applies. What a cancelled thread throws is no object:
// nothing may look at it.
__attribute__((no_sanitize("null"))) HRESULT code_of_exception() {
  clear_db_error();
  try {
    // cppcheck-suppress rethrowNoCurrentException  // a handler calls this
    throw;
  } catch (const _com_error& error) {
    return failure_of(error);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::length_error&) {
    return E_OUTOFMEMORY;
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is being cancelled
  } catch (...) {
    return E_FAIL;  // out of a host's code
  }
}

// Lack of memory as a code, for inner functions whose callers record every
// failure in the same way.
template <class Operation>
HRESULT without_bad_alloc(Operation operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::length_error&) {
    return E_OUTOFMEMORY;
  }
}

// The boundary of an interface. What foreign code leaves in the record of an
// operation that succeeds is not that operation's error.
template <class Operation>
HRESULT guarded(Operation operation) {
  clear_db_error();
  try {
    const HRESULT result = operation();
    if (SUCCEEDED(result)) clear_db_error();
    return result;
  } catch (...) {
    return code_of_exception();
  }
}

// ---------------------------------------------------------------------------
// Text and values
// ---------------------------------------------------------------------------

constexpr VARTYPE kReference = VT_BYREF | VT_VARIANT;
constexpr VARTYPE kByteArray = VT_ARRAY | VT_UI1;
constexpr VARTYPE kVariantArray = VT_ARRAY | VT_VARIANT;

// UTF-8 of a zero-terminated text.
std::string utf8_from_bstr(const wchar_t* text) {
  // Most are short and need not be measured first.
  char buffer[256];
  const std::size_t size = utf32_utf8(buffer, sizeof buffer, text);
  if (size <= sizeof buffer) return {buffer, size - 1};
  std::string utf8(size - 1, '\0');
  utf32_utf8(utf8.data(), size, text);
  return utf8;
}

// Empty for what is not UTF-8.
std::wstring utf32_from_utf8(const char* utf8) {
  const std::size_t size = utf8_utf32(nullptr, 0, utf8);
  if (size == 0) return {};
  std::wstring text(size - 1, L'\0');
  utf8_utf32(text.data(), size, utf8);
  return text;
}

// All of a string's characters, zeros included.
std::wstring wstring_from_bstr(wchar_t* text) {
  if (text == nullptr) return {};
  return {text, SysStringLen(text)};
}

// A string of `size` characters to be filled in. Throws std::bad_alloc.
BSTR allocate_bstr(std::size_t size) {
  if (size >= std::numeric_limits<UINT>::max()) throw std::bad_alloc();
  wchar_t* const text = SysAllocStringLen(nullptr, static_cast<UINT>(size));
  if (text == nullptr) throw std::bad_alloc();
  return text;
}

// All of a text. Throws std::bad_alloc, except for the empty text, which is
// NULL then.
BSTR bstr_from_wstring(const std::wstring& text) {
  if (text.empty()) return SysAllocString(L"");
  wchar_t* const copy = allocate_bstr(text.size());
  text.copy(copy, text.size());
  return copy;
}

// What getters store: a copy of all of a text, and a number. E_INVALIDARG
// without a place for it.
HRESULT store(const std::wstring& text, BSTR* out) {
  if (out == nullptr) return E_INVALIDARG;
  *out = nullptr;
  *out = bstr_from_wstring(text);
  return S_OK;
}
HRESULT store(long number, long* out) {
  if (out == nullptr) return E_INVALIDARG;
  *out = number;
  return S_OK;
}

// utf32_from_utf8 as a string of its own. Throws std::bad_alloc, except for the
// empty text, which is NULL then.
BSTR bstr_from_utf8(const char* utf8) {
  const std::size_t size = utf8_utf32(nullptr, 0, utf8);
  if (size <= 1) return SysAllocString(L"");
  wchar_t* const text = allocate_bstr(size - 1);
  utf8_utf32(text, size, utf8);
  return text;
}

HRESULT make_byte_array_variant(const unsigned char* bytes, std::size_t size,
                                VARIANT* out) {
  if (size > std::numeric_limits<std::uint32_t>::max()) return E_OUTOFMEMORY;
  SAFEARRAY* const array =
      SafeArrayCreateVector(VT_UI1, 0, static_cast<std::uint32_t>(size));
  if (array == nullptr) return E_OUTOFMEMORY;
  if (size != 0) std::memcpy(array->pvData, bytes, size);
  out->vt = kByteArray;
  out->parray = array;
  return S_OK;
}

// A byte array that holds `bytes`, into an `out` that owns nothing.
// E_OUTOFMEMORY.
HRESULT make_byte_array_variant(const std::vector<unsigned char>& bytes,
                                VARIANT* out) {
  return make_byte_array_variant(bytes.data(), bytes.size(), out);
}

// What a value stands for: references to variants are followed to their end;
// NULL when that is missing, as it is for references that lead in a circle.
template <class Variant>
Variant* unwrapped(Variant* value) {
  const Variant* passed = value;
  std::size_t steps = 0;
  std::size_t next_mark = 8;
  while (value != nullptr && value->vt == kReference) {
    value = value->pvarVal;
    if (value == passed) return nullptr;
    if (++steps == next_mark) {
      passed = value;
      next_mark *= 2;
    }
  }
  return value;
}

HRESULT variant_to_long_long(const VARIANT* value, long long* number) {
  value = unwrapped(value);
  if (value == nullptr) return E_INVALIDARG;
  _variant_t converted;
  const HRESULT result = VariantChangeType(&converted, value, 0, VT_I8);
  if (SUCCEEDED(result)) *number = converted.llVal;
  return result;
}

// A value while it is converted. An object's default member may let go of the
// value, and of the object with it.
class HeldValue {
 public:
  explicit HeldValue(const VARIANT& value)
      : value_(value),
        object_(InterfacePtr<IDispatch>::share(
            value.vt == VT_DISPATCH ? value.pdispVal : nullptr)) {}
  const VARIANT& get() const { return value_; }

 private:
  VARIANT value_;
  InterfacePtr<IDispatch> object_;
};

HRESULT variant_to_bstr_value(const VARIANT* value, _bstr_t* text) {
  value = unwrapped(value);
  if (value == nullptr) return E_INVALIDARG;
  const HeldValue held(*value);
  VARIANT converted = {};
  const HRESULT result = VariantChangeType(&converted, &held.get(), 0, VT_BSTR);
  if (FAILED(result)) return result;
  if (converted.bstrVal == nullptr) {
    // A copy's lack of memory shows in nothing else.
    if (held.get().vt == VT_BSTR && held.get().bstrVal != nullptr) {
      return E_OUTOFMEMORY;
    }
    converted.bstrVal = allocate_bstr(0);
  }
  *text = _bstr_t(converted.bstrVal, false);
  return S_OK;
}

// The elements of an array's first dimension, locked while this lives.
template <class Element>
class FirstDimension {
 public:
  explicit FirstDimension(SAFEARRAY* array)
      : result_(count(array)), access_(FAILED(result_) ? nullptr : array) {
    if (SUCCEEDED(result_)) result_ = access_.result();
    // A descriptor made by hand may lack them.
    if (begin() == nullptr) size_ = 0;
  }

  HRESULT result() const { return result_; }
  std::size_t size() const { return size_; }
  Element* begin() const { return access_.template elements<Element>(); }
  Element& operator[](std::size_t index) const { return begin()[index]; }

 private:
  HRESULT count(SAFEARRAY* array) {
    LONG lower = 0;
    LONG upper = 0;
    HRESULT result = SafeArrayGetLBound(array, 1, &lower);
    if (SUCCEEDED(result)) result = SafeArrayGetUBound(array, 1, &upper);
    if (SUCCEEDED(result) && upper >= lower) {
      size_ =
          static_cast<std::size_t>(upper) - static_cast<std::size_t>(lower) + 1;
    }
    return result;
  }

  std::size_t size_ = 0;
  HRESULT result_;
  SafeArrayAccess access_;
};

HRESULT variant_to_byte_array(const VARIANT* value,
                              std::vector<unsigned char>* bytes) {
  value = unwrapped(value);
  if (value == nullptr || value->vt != kByteArray || value->parray == nullptr) {
    return DISP_E_TYPEMISMATCH;
  }
  const FirstDimension<unsigned char> elements(value->parray);
  if (FAILED(elements.result())) return elements.result();
  bytes->assign(elements.begin(), elements.begin() + elements.size());
  return S_OK;
}

// VariantCopy into an `out` that owns nothing, and E_OUTOFMEMORY where that
// leaves a payload out.
HRESULT copy_variant(const VARIANT& value, VARIANT* out) {
  constexpr VARTYPE kArrayReference = VT_BYREF | VT_ARRAY;
  if ((value.vt & kArrayReference) == kArrayReference) {
    // Deliberate: not the array. VariantCopy would look for it in the payload,
    // where most hosts have the address of their pointer to it.
    out->vt = value.vt;
    out->parray = nullptr;
    return S_OK;
  }
  VariantCopy(out, &value);
  const bool owns_block =
      value.vt == VT_BSTR || value.vt == VT_LPSTR || (value.vt & VT_ARRAY) != 0;
  return owns_block && value.ullVal != 0 && out->ullVal == 0 ? E_OUTOFMEMORY
                                                             : S_OK;
}

// Replaces a value. The old one is freed last: that may run foreign code, which
// finds the new value in place.
void replace(VARIANT& value, _variant_t& replacement) noexcept {
  std::swap(value, static_cast<VARIANT&>(replacement));
}

// ---------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------

struct DbColumn {
  std::wstring name;
  std::int16_t sql_type = 0;
};
static_assert(sizeof(DbColumn) == 40);

// As towlower folds it, in the locales in which an index of names is used:
// there the ASCII letters have nothing unusual about them.
wchar_t folded(wchar_t unit) {
  if (unit >= 0 && unit < 0x80) {
    return unit >= L'A' && unit <= L'Z' ? unit + (L'a' - L'A') : unit;
  }
  return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(unit)));
}

bool equal_folded(const wchar_t* left, const wchar_t* right) {
  for (; folded(*left) == folded(*right); ++left, ++right) {
    if (*left == L'\0') return true;
  }
  return false;
}

// The columns of a result: once complete, immutable and shared by all that read
// it, one thread at a time. Names stay UTF-8 until one is searched for: many
// results are read by position only.
class ColumnTable {
 public:
  // While the table is made.
  void reserve(std::size_t count) {
    constexpr std::size_t kUsualName = 16;
    entries_.reserve(count);
    names_.reserve(count * kUsualName);
  }
  void add(std::string_view utf8_name, std::int16_t sql_type) {
    entries_.push_back({names_.size(), sql_type});
    names_.append(utf8_name).push_back('\0');
  }

  std::size_t size() const { return entries_.size(); }

  // UTF-8, or whatever the driver takes for it.
  const char* name(std::size_t index) const {
    return &names_[entries_[index].name];
  }

  // The first column whose name wcscasecmp calls equal. The same effort
  // whatever its position.
  std::optional<std::size_t> find(const wchar_t* name) const {
    const Columns& columns = decoded();
    const NameIndex* const index = usable_index(columns);
    return index != nullptr ? find_indexed(*index, columns, name)
                            : search(columns, name);
  }

 private:
  using Columns = std::vector<DbColumn>;

  struct Entry {
    std::size_t name;  // where it begins among the names
    std::int16_t sql_type;
  };

  // Open addressing over the folded names: positions + 1, 0 for a free slot.
  struct NameIndex {
    std::vector<std::uint32_t> slots;
    std::wint_t witness = 0;
  };

  // How the locale in force folds a letter outside ASCII.
  static std::wint_t witness() { return std::towlower(0xC9); }

  const Columns& decoded() const {
    if (columns_.empty()) {
      Columns columns;
      columns.reserve(size());
      for (std::size_t i = 0; i < size(); ++i) {
        columns.push_back({utf32_from_utf8(name(i)), entries_[i].sql_type});
      }
      columns_ = std::move(columns);
    }
    return columns_;
  }

  // The index is made at the first search, and only for the locale in force
  // then. A host that changes the locale, or one in whose locale "I" is not a
  // capital "i", is served by the search itself.
  const NameIndex* usable_index(const Columns& columns) const {
    if (std::towlower(L'I') != L'i') return nullptr;
    if (index_.slots.empty()) index_ = make_index(columns);
    return index_.witness == witness() ? &index_ : nullptr;
  }

  static NameIndex make_index(const Columns& columns) {
    std::size_t size = 4;
    while (size < 2 * columns.size()) size *= 2;
    NameIndex index = {std::vector<std::uint32_t>(size), witness()};
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const wchar_t* const name = columns[i].name.c_str();
      std::uint32_t& slot = index.slots[slot_of(index, columns, name)];
      if (slot == 0) slot = static_cast<std::uint32_t>(i + 1);
    }
    return index;
  }

  // The slot that holds the name, or the free one where it belongs.
  static std::size_t slot_of(const NameIndex& index, const Columns& columns,
                             const wchar_t* name) {
    std::uint64_t hash = 0xCBF29CE484222325;
    for (const wchar_t* at = name; *at != L'\0'; ++at) {
      hash = (hash ^ static_cast<std::uint32_t>(folded(*at))) * 0x100000001B3;
    }
    const std::size_t mask = index.slots.size() - 1;
    std::size_t slot = (hash ^ (hash >> 32)) & mask;
    while (index.slots[slot] != 0 &&
           !equal_folded(columns[index.slots[slot] - 1].name.c_str(), name)) {
      slot = (slot + 1) & mask;
    }
    return slot;
  }

  static std::optional<std::size_t> find_indexed(const NameIndex& index,
                                                 const Columns& columns,
                                                 const wchar_t* name) {
    const std::uint32_t found = index.slots[slot_of(index, columns, name)];
    if (found == 0) return std::nullopt;
    return found - 1;
  }

  static std::optional<std::size_t> search(const Columns& columns,
                                           const wchar_t* name) {
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (wcscasecmp(columns[i].name.c_str(), name) == 0) return i;
    }
    return std::nullopt;
  }

  std::string names_;  // each with a zero behind it
  std::vector<Entry> entries_;
  mutable Columns columns_;
  mutable NameIndex index_;
};

// One value of a row. Texts and blobs lie in the store.
struct Cell {
  std::uint64_t kind : 8;   // a ZirdbOdbcValueKind
  std::uint64_t size : 56;  // bytes of a blob
  union {
    bool bool_value;
    std::int64_t int64_value;
    double double_value;
    const char* text;  // UTF-8 and a zero
    const unsigned char* bytes;
  };
};
static_assert(sizeof(Cell) == 16 && std::is_trivial_v<Cell>);

// What was made of `utf8`, up to a zero that it holds: a zero may be written in
// two bytes or more, and a text ends at it all the same.
BSTR until_zero(BSTR text, const char* utf8) {
  const std::size_t size = SysStringLen(text);
  // Nothing, or without longer sequences, as most texts are.
  if (size == 0 || utf8[size] == '\0') return text;
  const auto* const zero = std::wmemchr(text, L'\0', size);
  if (zero == nullptr) return text;
  const _bstr_t whole(text, false);
  wchar_t* const cut = allocate_bstr(static_cast<std::size_t>(zero - text));
  std::wmemcpy(cut, text, static_cast<std::size_t>(zero - text));
  return cut;
}

// Makes a value of a cell, into an `out` that owns nothing. E_OUTOFMEMORY or
// std::bad_alloc.
HRESULT copy_cell(const Cell& cell, VARIANT* out) {
  switch (static_cast<ZirdbOdbcValueKind>(cell.kind)) {
    case ZirdbOdbcValueKind::Bool:
      out->vt = VT_BOOL;
      out->boolVal = cell.bool_value ? VARIANT_TRUE : VARIANT_FALSE;
      return S_OK;
    case ZirdbOdbcValueKind::Int64:
      out->vt = VT_I8;
      out->llVal = cell.int64_value;
      return S_OK;
    case ZirdbOdbcValueKind::Double:
      out->vt = VT_R8;
      out->dblVal = cell.double_value;
      return S_OK;
    case ZirdbOdbcValueKind::Text:
      out->bstrVal = until_zero(bstr_from_utf8(cell.text), cell.text);
      out->vt = VT_BSTR;
      return S_OK;
    case ZirdbOdbcValueKind::Binary:
      return make_byte_array_variant(cell.bytes, cell.size, out);
    case ZirdbOdbcValueKind::Null:
      break;
  }
  out->vt = VT_NULL;
  return S_OK;
}

// Blocks of a store grow with it, so that a small result stays small, a big one
// has few blocks, and little is left unused in the last one.
constexpr std::size_t kLeastBlock = 1024;
constexpr std::size_t kMostBlock = std::size_t{8} << 20;

std::size_t next_block_size(std::size_t stored) {
  return std::clamp(stored / 16, kLeastBlock, kMostBlock);
}

// Bytes that stay where they are until all go together.
class Arena {
 public:
  // A copy, followed by a zero if `terminated`.
  const unsigned char* keep(const void* bytes, std::size_t size,
                            bool terminated) {
    unsigned char* const copy = allocate(size + (terminated ? 1 : 0));
    if (size != 0) std::memcpy(copy, bytes, size);
    if (terminated) copy[size] = 0;
    return copy;
  }

 private:
  unsigned char* allocate(std::size_t size) {
    if (size > left_) {
      const std::size_t block_size = next_block_size(stored_);
      // What would take most of a block gets one of its own.
      if (size > block_size / 2) return add_block(size);
      next_ = add_block(block_size);
      left_ = block_size;
    }
    left_ -= size;
    return std::exchange(next_, next_ + size);
  }

  unsigned char* add_block(std::size_t size) {
    // Not make_unique, which would write every byte of it.
    std::unique_ptr<unsigned char[]> block(new unsigned char[size]);
    blocks_.push_back(std::move(block));
    stored_ += size;
    return blocks_.back().get();
  }

  std::vector<std::unique_ptr<unsigned char[]>> blocks_;
  unsigned char* next_ = nullptr;
  std::size_t left_ = 0;
  std::size_t stored_ = 0;
};

// The rows of a result, with its columns: built once, then immutable and shared
// by all that read it.
class RowStore {
 public:
  // Where a row is; the first one to begin with.
  struct Position {
    std::size_t block = 0;
    std::size_t row = 0;
  };

  explicit RowStore(std::shared_ptr<const ColumnTable> columns)
      : columns_(std::move(columns)) {}

  const std::shared_ptr<const ColumnTable>& columns() const { return columns_; }
  std::size_t size() const { return size_; }

  // The cells of a row, one per column.
  const Cell* cells(Position position) const {
    return blocks_[position.block].cells.get() +
           position.row * columns_->size();
  }

  // The row behind one that is not the last.
  Position next(Position position) const {
    if (++position.row == blocks_[position.block].rows) {
      return {position.block + 1, 0};
    }
    return position;
  }

  // Cells to be filled in for one more row, which counts from end_row on.
  Cell* begin_row() {
    if (blocks_.empty() || blocks_.back().rows == blocks_.back().capacity) {
      const std::size_t row_size = columns_->size() * sizeof(Cell);
      const std::size_t rows = std::max<std::size_t>(
          1, next_block_size(size_ * row_size) / row_size);
      // Not make_unique, which would write every cell of it.
      std::unique_ptr<Cell[]> cells(new Cell[rows * columns_->size()]);
      blocks_.push_back({std::move(cells), 0, rows});
    }
    return blocks_.back().cells.get() + blocks_.back().rows * columns_->size();
  }
  void end_row() {
    ++blocks_.back().rows;
    ++size_;
  }

  Arena& arena() { return arena_; }

 private:
  struct Block {
    std::unique_ptr<Cell[]> cells;
    std::size_t rows;
    std::size_t capacity;
  };

  std::shared_ptr<const ColumnTable> columns_;
  std::vector<Block> blocks_;
  std::size_t size_ = 0;
  Arena arena_;
};

// Builds the rows of a result while they are fetched.
class RowStoreBuilder final : public ZirdbOdbcSink {
 public:
  // NULL when the statement had no columns.
  std::shared_ptr<const RowStore> take() { return std::move(store_); }

  void begin_columns(std::size_t count) override {
    expected_ = count;
    columns_ = std::make_shared<ColumnTable>();
    columns_->reserve(count);
  }
  void column(std::string_view name, std::int16_t sql_type) override {
    columns_->add(name, sql_type);
    if (columns_->size() < expected_) return;
    store_ = std::make_shared<RowStore>(std::move(columns_));
  }

  void begin_row() override { next_ = store_->begin_row(); }
  void null_cell() override { cell(ZirdbOdbcValueKind::Null).int64_value = 0; }
  void bool_cell(bool value) override {
    cell(ZirdbOdbcValueKind::Bool).bool_value = value;
  }
  void int64_cell(std::int64_t value) override {
    cell(ZirdbOdbcValueKind::Int64).int64_value = value;
  }
  void double_cell(double value) override {
    cell(ZirdbOdbcValueKind::Double).double_value = value;
  }
  void text_cell(std::string_view utf8) override {
    const auto* const kept =
        store_->arena().keep(utf8.data(), utf8.size(), true);
    cell(ZirdbOdbcValueKind::Text).text = reinterpret_cast<const char*>(kept);
  }
  void binary_cell(const unsigned char* bytes, std::size_t count) override {
    const auto* const kept = store_->arena().keep(bytes, count, false);
    Cell& made = cell(ZirdbOdbcValueKind::Binary);
    made.size = count & ((std::uint64_t{1} << 56) - 1);
    made.bytes = kept;
  }
  void end_row() override { store_->end_row(); }

 private:
  Cell& cell(ZirdbOdbcValueKind kind) {
    Cell& made = *next_++;
    made.kind = static_cast<std::uint8_t>(kind);
    made.size = 0;
    return made;
  }

  std::size_t expected_ = 0;
  std::shared_ptr<ColumnTable> columns_;
  std::shared_ptr<RowStore> store_;
  Cell* next_ = nullptr;
};

// ---------------------------------------------------------------------------
// The dispatch frame
// ---------------------------------------------------------------------------

// Reads the arguments of a late-bound call. `arguments(i)` fetches one, counted
// as the caller wrote them; converting the reader then reads it and throws
// DISP_E_TYPEMISMATCH for an argument of another type.
class _dispparams_wrapper_t {
 public:
  explicit _dispparams_wrapper_t(DISPPARAMS* target) : m_target(target) {}

  // Deliberate: arguments that a host counts but does not pass are none.
  UINT count() const {
    return m_target != nullptr && m_target->rgvarg != nullptr ? m_target->cArgs
                                                              : 0;
  }

  // Whether the call has one argument and names it as a put's value.
  bool is_put() const {
    return count() == 1 && m_target->cNamedArgs == 1 &&
           m_target->rgdispidNamedArgs != nullptr &&
           m_target->rgdispidNamedArgs[0] == DISPID_PROPERTYPUT;
  }

  // An argument as it was passed.
  VARIANT* raw(int i) const {
    if (i < 0 || static_cast<UINT>(i) >= count()) {
      throw _com_error(E_INVALIDARG);
    }
    return &m_target->rgvarg[count() - 1 - static_cast<UINT>(i)];
  }

  const _dispparams_wrapper_t& operator()(int i) {
    m_pv = unwrapped(raw(i));
    return *this;
  }

  // For an argument whose value means nothing.
  void require_number(int i) {
    static_cast<void>(static_cast<long long>((*this)(i)));
  }

  explicit operator long long() const {
    long long number = 0;
    check(SUCCEEDED(variant_to_long_long(m_pv, &number)));
    return number;
  }
  // Deliberate: nothing is converted to a text here. The string stays the
  // caller's.
  explicit operator BSTR() const {
    check(m_pv != nullptr && m_pv->vt == VT_BSTR);
    return m_pv->bstrVal;
  }
  // Never NULL; the reference stays the caller's.
  explicit operator IDispatch*() const {
    if (m_pv == nullptr || m_pv->vt != VT_DISPATCH ||
        m_pv->pdispVal == nullptr) {
      throw _com_error(DISP_E_TYPEMISMATCH);
    }
    return m_pv->pdispVal;
  }
  // NULL for a reference that leads nowhere.
  explicit operator VARIANT*() const { return m_pv; }
  // Whatever can be made a text of. Throws std::bad_alloc too.
  explicit operator _bstr_t() const {
    _bstr_t text;
    const HRESULT result = variant_to_bstr_value(m_pv, &text);
    if (result == E_OUTOFMEMORY) throw std::bad_alloc();
    check(SUCCEEDED(result));
    return text;
  }

 private:
  static void check(bool readable) {
    if (!readable) throw _com_error(DISP_E_TYPEMISMATCH);
  }

  DISPPARAMS* m_target;
  VARIANT* m_pv = nullptr;
};

// One late-bound call on its way to a member.
struct Call {
  _dispparams_wrapper_t arguments;
  WORD flags = 0;
  VARIANT* result = nullptr;
  EXCEPINFO* exception = nullptr;
  const wchar_t* source = nullptr;  // of errors that were not recorded

  bool has(WORD flag) const { return (flags & flag) != 0; }

  // The operation behind the member failed. Called before anything that the
  // call holds is let go, because that may run foreign code.
  HRESULT raise(HRESULT hr) const {
    populate_excepinfo_from_db_error(exception, hr, source);
    return DISP_E_EXCEPTION;
  }
  HRESULT finish(HRESULT hr) const { return FAILED(hr) ? raise(hr) : hr; }

  // Store the result; strings, values and references become the caller's.
  HRESULT give(long number) const {
    VariantInit(result);
    result->vt = VT_I4;
    result->lVal = number;
    return S_OK;
  }
  HRESULT give(VARIANT_BOOL truth) const {
    VariantInit(result);
    result->vt = VT_BOOL;
    result->boolVal = truth;
    return S_OK;
  }
  HRESULT give(BSTR text) const {
    VariantInit(result);
    result->vt = VT_BSTR;
    result->bstrVal = text;
    return S_OK;
  }
  HRESULT give(const VARIANT& value) const {
    *result = value;
    return S_OK;
  }
  HRESULT give(IDispatch* object) const {
    VariantInit(result);
    result->vt = VT_DISPATCH;
    result->pdispVal = object;
    return S_OK;
  }
  template <class Object>
  HRESULT give(InterfacePtr<Object> object) const {
    return give(static_cast<IDispatch*>(object.detach()));
  }
};

// What a call of a member must look like.
struct Shape {
  UINT least;         // arguments
  UINT most;          // arguments
  WORD flags;         // one of these; 0 for any
  bool needs_result;  // and a place for the result
  HRESULT refusal;    // what lacks one of the last two
};

constexpr Shape kGet = {0, 0, DISPATCH_PROPERTYGET, true, E_INVALIDARG};
constexpr Shape kMethod = {0, 0, DISPATCH_METHOD, false, DISP_E_MEMBERNOTFOUND};
constexpr Shape kMethodWithOne = {1, 1, DISPATCH_METHOD, false,
                                  DISP_E_MEMBERNOTFOUND};
// Script engines ask for items and enumerators either way.
constexpr Shape kItem = {1, 1, DISPATCH_METHOD | DISPATCH_PROPERTYGET, true,
                         E_INVALIDARG};
constexpr Shape kEnumerator = {0, 0, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                               true, E_INVALIDARG};
// The member looks for itself.
constexpr Shape kAnyShape = {0, std::numeric_limits<UINT>::max(), 0, false,
                             S_OK};

// What a script may write, how it may be called and who answers. A member with
// a `put` is a property that can be got and put.
template <class Object>
struct Member {
  const wchar_t* name = nullptr;  // NULL: only its id leads here
  DISPID id = DISPID_UNKNOWN;
  Shape shape = {};
  HRESULT (*answer)(Object& object, Call& call) = nullptr;
  HRESULT (*put)(Object& object, Call& call) = nullptr;
};

template <class Object>
struct Members {
  const Member<Object>* first;
  const Member<Object>* last;
  const Member<Object>* begin() const { return first; }
  const Member<Object>* end() const { return last; }
};

template <class Object, std::size_t kCount>
constexpr Members<Object> members_of(const Member<Object> (&members)[kCount]) {
  return {std::begin(members), std::end(members)};
}

// The one rule of admission: too few or too many arguments first, then a flag
// or a result that is missing.
HRESULT admit(const Shape& shape, const Call& call) {
  const UINT count = call.arguments.count();
  if (count < shape.least || count > shape.most) return DISP_E_BADPARAMCOUNT;
  if ((shape.flags != 0 && !call.has(shape.flags)) ||
      (shape.needs_result && call.result == nullptr)) {
    return shape.refusal;
  }
  return S_OK;
}

// Calls the member that `call` means, if it may be called so.
template <class Object>
HRESULT answer(const Member<Object>& member, Object& object, Call& call) {
  if (member.put != nullptr && !call.has(DISPATCH_PROPERTYGET)) {
    if (!call.has(DISPATCH_PROPERTYPUT)) return DISP_E_MEMBERNOTFOUND;
    if (!call.arguments.is_put()) return DISP_E_BADPARAMCOUNT;
    return member.put(object, call);
  }
  const HRESULT admitted = admit(member.shape, call);
  return FAILED(admitted) ? admitted : member.answer(object, call);
}

// Answers for operations that need nothing but their arguments and a place for
// the result: a method without either, a property that is got, one that is put,
// and an item.
template <auto kOperation>
struct Do;
template <class Object, HRESULT (Object::*kOperation)()>
struct Do<kOperation> {
  static HRESULT answer(Object& object, Call& call) {
    return call.finish((object.*kOperation)());
  }
};

template <auto kOperation>
struct Get;
template <class Object, class Out, HRESULT (Object::*kOperation)(Out*)>
struct Get<kOperation> {
  static HRESULT answer(Object& object, Call& call) {
    Out out{};
    const HRESULT hr = (object.*kOperation)(&out);
    return FAILED(hr) ? call.raise(hr) : call.give(out);
  }
};

// The value that an argument stands for. A reference that leads nowhere is a
// value like any other; what it leads through on the way is the caller's.
VARIANT stored_value(_dispparams_wrapper_t& arguments, int i) {
  const auto* const value = static_cast<VARIANT*>(arguments(i));
  if (value != nullptr) return *value;
  VARIANT nowhere = {};
  nowhere.vt = kReference;
  return nowhere;
}

template <auto kOperation>
struct Put;
template <class Object, class Value, HRESULT (Object::*kOperation)(Value)>
struct Put<kOperation> {
  static HRESULT answer(Object& object, Call& call) {
    return call.finish((object.*kOperation)(value_of(call.arguments)));
  }

 private:
  static Value value_of(_dispparams_wrapper_t& arguments) {
    if constexpr (std::is_same_v<Value, VARIANT>) {
      return stored_value(arguments, 0);
    } else if constexpr (std::is_same_v<Value, long>) {
      return static_cast<long>(static_cast<long long>(arguments(0)));
    } else {
      return static_cast<Value>(arguments(0));
    }
  }
};

// The index goes to the collection as it was passed; that unwraps it.
template <auto kOperation>
struct GetItem;
template <class Object, class Item,
          HRESULT (Object::*kOperation)(const VARIANT&, InterfacePtr<Item>*)
              const>
struct GetItem<kOperation> {
  static HRESULT answer(Object& object, Call& call) {
    InterfacePtr<Item> item;
    const HRESULT hr = (object.*kOperation)(*call.arguments.raw(0), &item);
    return FAILED(hr) ? call.raise(hr) : call.give(std::move(item));
  }
};

// Looks every name up as a member's; stops at the first that is none.
HRESULT ids_of_names(DISPID (*id_of)(const wchar_t* name), REFIID riid,
                     wchar_t** names, UINT count, DISPID* ids) {
  if (riid != IID_NULL || names == nullptr || ids == nullptr) {
    return E_INVALIDARG;
  }
  for (UINT i = 0; i < count; ++i) {
    ids[i] = names[i] != nullptr ? id_of(names[i]) : DISPID_UNKNOWN;
    if (ids[i] == DISPID_UNKNOWN) return DISP_E_UNKNOWNNAME;
  }
  return S_OK;
}

// What all classes have in common: identity, references, late binding. Object
// derives from this, names its error source and gives its table of members.
//
// The order of the virtual functions is part of the contract: those of the
// interface, the destructor, those of IDispatch.
template <class Object, class Interface, const IID& kInterfaceId>
class AutomationObject : public Interface, public IDispatch {
 public:
  AutomationObject(const AutomationObject&) = delete;
  AutomationObject& operator=(const AutomationObject&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (riid == kInterfaceId || riid == IID_IUnknown) {
      *object = static_cast<Interface*>(this);
    } else if (riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }

  std::uint32_t AddRef() override { return ++ref_count_; }

  std::uint32_t Release() override {
    const std::uint32_t left = --ref_count_;
    if (left == 0) {
      --g_object_count;
      delete this;
    }
    return left;
  }

  virtual ~AutomationObject() = default;

  HRESULT GetTypeInfoCount(UINT* count) override {
    clear_db_error();
    if (count == nullptr) return E_INVALIDARG;
    *count = 0;
    return S_OK;
  }

  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** info) override {
    clear_db_error();
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }

  HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID /*lcid*/,
                        DISPID* ids) override {
    clear_db_error();
    return ids_of_names(id_of, riid, names, count, ids);
  }

  HRESULT Invoke(DISPID member, REFIID riid, LCID /*lcid*/, WORD flags,
                 DISPPARAMS* parameters, VARIANT* result, EXCEPINFO* exception,
                 UINT* /*bad_argument*/) override {
    clear_db_error();
    if (riid != IID_NULL) return E_INVALIDARG;
    for (const Member<Object>& each : Object::members()) {
      if (each.id != member) continue;
      Call call = {_dispparams_wrapper_t(parameters), flags, result, exception,
                   Object::kSource};
      return contained(each, call);
    }
    return DISP_E_MEMBERNOTFOUND;
  }

 protected:
  // With one reference, for whoever makes it.
  AutomationObject() noexcept { ++g_object_count; }

 private:
  static DISPID id_of(const wchar_t* name) {
    for (const Member<Object>& each : Object::members()) {
      if (each.name != nullptr && wcscasecmp(each.name, name) == 0) {
        return each.id;
      }
    }
    return DISPID_UNKNOWN;
  }

  // What an argument throws refuses the call; everything else is a failure of
  // the operation.
  HRESULT contained(const Member<Object>& member, Call& call) {
    try {
      const HRESULT result = answer(member, static_cast<Object&>(*this), call);
      if (SUCCEEDED(result)) clear_db_error();
      return result;
    } catch (const _com_error& error) {
      clear_db_error();
      return error.Error() == E_INVALIDARG ? DISP_E_BADPARAMCOUNT
                                           : failure_of(error);
    } catch (...) {
      return call.raise(code_of_exception());
    }
  }

  std::atomic<std::uint32_t> ref_count_{1};
};

// The virtual table with which objects of a class begin; NULL before the first.
template <class Object>
std::atomic<const void*> g_table_of{nullptr};

const void* table_of(const void* object) {
  const void* table = nullptr;
  std::memcpy(&table, object, sizeof table);
  return table;
}

// Makes an object. Nothing but a lack of memory can go wrong, and that before
// it is counted.
template <class Object, class... Arguments>
InterfacePtr<Object> make(Arguments&&... arguments) {
  static_assert(std::is_nothrow_constructible_v<Object, Arguments...>);
  auto* const object = new Object(std::forward<Arguments>(arguments)...);
  const void* const table = table_of(object);
  if (g_table_of<Object>.load(std::memory_order_relaxed) != table) {
    g_table_of<Object>.store(table, std::memory_order_relaxed);
  }
  return InterfacePtr<Object>::adopt(object);
}

// The object behind an interface, if it is one of this class; NULL for any
// other implementation. Not by dynamic_cast: an object that was made by hand or
// in another language has a table without type information.
template <class Object, class Interface>
Object* own(Interface* object) {
  static_assert(std::is_final_v<Object>);
  return table_of(object) == g_table_of<Object>.load(std::memory_order_relaxed)
             ? static_cast<Object*>(object)
             : nullptr;
}

// ---------------------------------------------------------------------------
// The classes
// ---------------------------------------------------------------------------

// Values that hold objects, cleared one after the other. The last reference to
// a parameter may be what another one holds as its value, and so on for as long
// as a script cares to go on, which must not become calls as deep. While one
// value is cleared, and so many within it, others wait.
class ValuesToClear {
 public:
  // Clears a value, or leaves it to the outermost call that is clearing one.
  static void clear(VARIANT* value) noexcept {
    if (g_current == nullptr) {
      ValuesToClear values;
      g_current = &values;
      VariantClear(value);
      values.clear_waiting();
      g_current = nullptr;
      return;
    }
    ValuesToClear& values = *g_current;
    // Without memory for many, the calls become deep after all.
    if (values.depth_ >= kDeepest && values.let_wait(*value)) {
      value->vt = VT_EMPTY;
      return;
    }
    ++values.depth_;
    VariantClear(value);
    --values.depth_;
  }

 private:
  ValuesToClear() = default;

  static constexpr int kDeepest = 64;
  // For a chain, however long, where one value waits at a time.
  static constexpr std::size_t kInPlace = 16;

  // False without memory.
  bool let_wait(const VARIANT& value) noexcept {
    if (count_ < kInPlace) {
      in_place_[count_++] = value;
      return true;
    }
    try {
      further_.push_back(value);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  void clear_waiting() noexcept {
    for (;;) {
      VARIANT next = {};
      if (!further_.empty()) {
        next = further_.back();
        further_.pop_back();
      } else if (count_ != 0) {
        next = in_place_[--count_];
      } else {
        return;
      }
      VariantClear(&next);
    }
  }

  [[gnu::tls_model(
      "initial-exec")]] static thread_local ValuesToClear* g_current;

  int depth_ = 0;
  std::size_t count_ = 0;
  VARIANT in_place_[kInPlace] = {};
  std::vector<VARIANT> further_;
};
thread_local ValuesToClear* ValuesToClear::g_current = nullptr;

// A parameter's values, shared by all objects over it and by its command.
struct DbParameter {
  std::wstring name;
  std::int64_t type = 0;
  std::int64_t direction = 0;
  std::int64_t size = 0;
  _variant_t value;

  DbParameter() = default;
  DbParameter(const DbParameter&) = delete;
  DbParameter& operator=(const DbParameter&) = delete;
  ~DbParameter() {
    const bool may_hold_objects = value.vt == VT_DISPATCH ||
                                  value.vt == VT_UNKNOWN ||
                                  (value.vt & VT_ARRAY) != 0;
    if (may_hold_objects) ValuesToClear::clear(&value);
  }
};
static_assert(sizeof(DbParameter) == 72);

// A slot may be empty.
using DbParameterList = std::vector<std::shared_ptr<DbParameter>>;

class ParameterObject final
    : public AutomationObject<ParameterObject, IZIRDBParameter,
                              IID_IZIRDBParameter> {
 public:
  static constexpr const wchar_t* kSource = kParameterSource;
  static Members<ParameterObject> members();

  explicit ParameterObject(std::shared_ptr<DbParameter> parameter) noexcept
      : parameter_(std::move(parameter)) {}

  HRESULT get_Name(BSTR* name) override;
  HRESULT put_Name(BSTR name) override;
  HRESULT get_Value(VARIANT* value) override;
  HRESULT put_Value(VARIANT value) override;
  HRESULT get_Type(long* type) override;
  HRESULT put_Type(long type) override;
  HRESULT get_Direction(long* direction) override;
  HRESULT put_Direction(long direction) override;
  HRESULT get_Size(long* size) override;
  HRESULT put_Size(long size) override;

  const std::shared_ptr<DbParameter>& parameter() const { return parameter_; }

 private:
  std::shared_ptr<DbParameter> parameter_;
};

class ParametersObject final
    : public AutomationObject<ParametersObject, IZIRDBParameters,
                              IID_IZIRDBParameters> {
 public:
  static constexpr const wchar_t* kSource = kParametersSource;
  static Members<ParametersObject> members();

  explicit ParametersObject(
      std::shared_ptr<DbParameterList> parameters) noexcept
      : parameters_(std::move(parameters)) {}

  HRESULT get_Count(long* count) override;
  HRESULT Item(VARIANT index, IZIRDBParameter** parameter) override;
  HRESULT Append(IZIRDBParameter* parameter) override;

 private:
  static HRESULT invoke_append(ParametersObject& self, Call& call);

  HRESULT item(const VARIANT& index,
               InterfacePtr<ParameterObject>* parameter) const;
  HRESULT resolve_parameter_index(const VARIANT& index,
                                  std::size_t* position) const;
  HRESULT append(IZIRDBParameter* parameter) const;

  std::shared_ptr<DbParameterList> parameters_;
};

class ConnectionObject;
class FieldObject;
class FieldsEnumerator;
class FieldsObject;

// All rows of one result and a cursor.
class RecordsetObject final
    : public AutomationObject<RecordsetObject, IZIRDBRecordset,
                              IID_IZIRDBRecordset> {
 public:
  static constexpr const wchar_t* kSource = kRecordsetSource;
  static Members<RecordsetObject> members();

  // Open, on the first of the rows. Without rows: standalone, without columns.
  explicit RecordsetObject(std::shared_ptr<const RowStore> rows = {}) noexcept;

  // What stands for the result of a statement without columns: closed from the
  // beginning, and nothing that it reports is set.
  struct WithoutColumns {};
  explicit RecordsetObject(WithoutColumns tag) noexcept;
  RecordsetObject(const RecordsetObject&) = delete;
  RecordsetObject& operator=(const RecordsetObject&) = delete;
  ~RecordsetObject() override;

  HRESULT get_Fields(IZIRDBFields** fields) override;
  HRESULT get_State(long* state) override;
  HRESULT get_EOF(VARIANT_BOOL* at_end) override;
  HRESULT get_BOF(VARIANT_BOOL* at_start) override;
  HRESULT get_RecordCount(long* count) override;
  HRESULT MoveFirst() override;
  HRESULT MoveLast() override;
  HRESULT MovePrevious() override;
  HRESULT MoveNext() override;
  HRESULT Close() override;

  bool is_open() const { return open_; }
  bool is_closed_by_connection() const { return closed_by_connection_; }
  const ColumnTable* columns() const { return columns_.get(); }
  std::size_t get_column_count() const {
    return columns_ != nullptr ? columns_->size() : 0;
  }
  const std::shared_ptr<const RowStore>& rows() const { return rows_; }
  // The cells of the current row; NULL without one.
  const Cell* current_row() const {
    return has_current_row_ ? current_cells_ : nullptr;
  }
  // A copy of a value of the current row, into an `out` that owns nothing.
  HRESULT copy_current_value(std::size_t index, VARIANT* out) const;

  // The rows and columns stay, but nothing more is read.
  void on_connection_closed();

 private:
  friend class ConnectionObject;  // for the list of its recordsets

  static HRESULT invoke_fields(RecordsetObject& self, Call& call);
  static HRESULT invoke_for_each(RecordsetObject& self, Call& call);

  HRESULT closed_state_error() const;
  // Whom its fields read: itself, unless it has none to give any more.
  HRESULT fields_owner(RecordsetObject** owner);
  HRESULT make_fields(InterfacePtr<FieldsObject>* fields);
  void enter_row(RowStore::Position position);
  HRESULT move_next();
  HRESULT close();

  std::shared_ptr<const ColumnTable> columns_;
  std::shared_ptr<const RowStore> rows_;
  bool open_ = true;
  std::size_t current_row_ = 0;
  bool has_current_row_ = false;
  bool bof_ = true;
  bool eof_ = true;
  // Whether EOF is true on the last row already. No recordset is made so.
  bool eof_on_last_row_ = false;
  bool closed_by_connection_ = false;
  bool allow_fields_on_closed_ = false;
  RowStore::Position position_;          // of current_row_
  const Cell* current_cells_ = nullptr;  // of current_row_
  // The connection that lists this, and the neighbours in its list. A recordset
  // that was closed stays listed while it is alive.
  ConnectionObject* connection_owner_ = nullptr;
  RecordsetObject* previous_ = nullptr;
  RecordsetObject* next_ = nullptr;
};

// The columns of a recordset, whose current row is read while there is one.
// Made on a row, the object falls back on that row at the end.
class FieldsObject final
    : public AutomationObject<FieldsObject, IZIRDBFields, IID_IZIRDBFields> {
 public:
  static constexpr const wchar_t* kSource = kFieldsSource;
  static Members<FieldsObject> members();

  // Without an owner: of no columns.
  explicit FieldsObject(InterfacePtr<RecordsetObject> owner) noexcept;

  HRESULT get_Count(long* count) override;
  HRESULT Item(VARIANT index, IZIRDBField** field) override;

  // The item of the Fields object that `owner` would make, or made when it was
  // on `snapshot_row`.
  static HRESULT item_of(RecordsetObject* owner, const Cell* snapshot_row,
                         const VARIANT& index,
                         InterfacePtr<FieldObject>* field);

 private:
  static HRESULT invoke_new_enum(FieldsObject& self, Call& call);

  HRESULT item(const VARIANT& index, InterfacePtr<FieldObject>* field) const {
    return item_of(owner_.get(), snapshot_row_, index, field);
  }

  HRESULT get__NewEnum(InterfacePtr<FieldsEnumerator>* enumerator) const;

  InterfacePtr<RecordsetObject> owner_;
  // The row where this was made, among the owner's rows, which are there while
  // it is open. NULL when it was made on none: then there is nothing to fall
  // back on and nothing to enumerate.
  const Cell* snapshot_row_;
};

// One column: of a recordset, or detached, with the row where it was made.
class FieldObject final
    : public AutomationObject<FieldObject, IZIRDBField, IID_IZIRDBField> {
 public:
  static constexpr const wchar_t* kSource = kFieldSource;
  static Members<FieldObject> members();

  // `snapshot_row` points into the owner's rows; NULL: there is no falling
  // back.
  FieldObject(InterfacePtr<RecordsetObject> owner, std::size_t index,
              const Cell* snapshot_row) noexcept
      : owner_(std::move(owner)), index_(index), snapshot_row_(snapshot_row) {}
  // Detached; `snapshot_row` points into `rows`.
  FieldObject(std::shared_ptr<const RowStore> rows, std::size_t index,
              const Cell* snapshot_row) noexcept
      : rows_(std::move(rows)), index_(index), snapshot_row_(snapshot_row) {}

  HRESULT get_Name(BSTR* name) override;
  HRESULT get_Value(VARIANT* value) override;

 private:
  InterfacePtr<RecordsetObject> owner_;
  std::shared_ptr<const RowStore> rows_;
  std::size_t index_;
  const Cell* snapshot_row_;
};

// Walks the columns of a row. Keeps the rows, but no object alive.
class FieldsEnumerator final : public IEnumVARIANT {
 public:
  // `snapshot_row` points into `rows`. Without rows: of no columns.
  FieldsEnumerator(std::shared_ptr<const RowStore> rows,
                   const Cell* snapshot_row, std::size_t index) noexcept
      : rows_(std::move(rows)), snapshot_row_(snapshot_row), index_(index) {
    ++g_object_count;
  }
  FieldsEnumerator(const FieldsEnumerator&) = delete;
  FieldsEnumerator& operator=(const FieldsEnumerator&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override;
  std::uint32_t AddRef() override { return ++ref_count_; }
  std::uint32_t Release() override;
  HRESULT Next(zir_types::ULONG count, VARIANT* values,
               zir_types::ULONG* fetched) override;
  HRESULT Skip(zir_types::ULONG count) override;
  HRESULT Reset() override;
  HRESULT Clone(IEnumVARIANT** clone) override;

  virtual ~FieldsEnumerator() = default;

 private:
  std::size_t column_count() const {
    return rows_ != nullptr ? rows_->columns()->size() : 0;
  }

  std::atomic<std::uint32_t> ref_count_{1};
  std::shared_ptr<const RowStore> rows_;
  const Cell* snapshot_row_;
  std::size_t index_;
};

struct CloseOdbcConnection {
  void operator()(void* handle) const { zirdb_odbc_close(handle); }
};

// An ODBC connection. Knows its recordsets, without keeping them alive.
class ConnectionObject final
    : public AutomationObject<ConnectionObject, IZIRDBConnection,
                              IID_IZIRDBConnection> {
 public:
  static constexpr const wchar_t* kSource = kConnectionSource;
  static Members<ConnectionObject> members();

  ConnectionObject() noexcept = default;
  ConnectionObject(const ConnectionObject&) = delete;
  ConnectionObject& operator=(const ConnectionObject&) = delete;
  ~ConnectionObject() override;

  HRESULT get_ConnectionString(BSTR* connection_string) override;
  HRESULT put_ConnectionString(BSTR connection_string) override;
  HRESULT get_State(long* state) override;
  HRESULT Open(BSTR connection_string, BSTR user, BSTR password,
               long options) override;
  HRESULT Close() override;
  HRESULT Execute(BSTR text, VARIANT* rows_affected, long options,
                  IZIRDBRecordset** recordset) override;

  // The one way in which statements run, a boundary like the operations above.
  // `parameters` may be NULL or empty; afterwards they hold what came back.
  // `recordset` stays empty when the statement has no columns.
  HRESULT ExecuteInternal(const wchar_t* text, VARIANT* rows_affected,
                          std::vector<ZirdbOdbcParameter>* parameters,
                          InterfacePtr<RecordsetObject>* recordset);

  // Called when a recordset is destroyed.
  void unregister_recordset(RecordsetObject& recordset) noexcept;

 private:
  static HRESULT invoke_open(ConnectionObject& self, Call& call);
  static HRESULT invoke_execute(ConnectionObject& self, Call& call);
  static HRESULT invoke_value(ConnectionObject& self, Call& call);

  bool is_open() const { return handle_ != nullptr; }
  HRESULT open(BSTR connection_string, BSTR user, BSTR password);
  HRESULT ExecuteWithParameters(const wchar_t* text,
                                const DbParameterList& parameters,
                                InterfacePtr<RecordsetObject>* recordset);
  void register_recordset(RecordsetObject& recordset) noexcept;
  void invalidate_recordsets() noexcept;
  void close_handle() noexcept;

  std::wstring connection_string_;
  std::unique_ptr<void, CloseOdbcConnection> handle_;  // NULL while closed
  // Linked through the recordsets themselves: listing one asks for no memory,
  // and taking one out costs the same however many there are.
  RecordsetObject* active_recordsets_ = nullptr;
};

// A statement or procedure call, its parameters and its connection.
class CommandObject final
    : public AutomationObject<CommandObject, IZIRDBCommand, IID_IZIRDBCommand> {
 public:
  static constexpr const wchar_t* kSource = kCommandSource;
  static Members<CommandObject> members();

  explicit CommandObject(std::shared_ptr<DbParameterList> parameters) noexcept
      : parameters_(std::move(parameters)) {}

  HRESULT get_ActiveConnection(IDispatch** connection) override;
  HRESULT putref_ActiveConnection(IDispatch* connection) override;
  HRESULT get_CommandText(BSTR* text) override;
  HRESULT put_CommandText(BSTR text) override;
  HRESULT get_CommandType(long* type) override;
  HRESULT put_CommandType(long type) override;
  HRESULT CreateParameter(BSTR name, long type, long direction, long size,
                          VARIANT value, IZIRDBParameter** parameter) override;
  HRESULT get_Parameters(IZIRDBParameters** parameters) override;
  HRESULT Execute(VARIANT* rows_affected, long options,
                  IZIRDBRecordset** recordset) override;

 private:
  static HRESULT invoke_put_active_connection(CommandObject& self, Call& call);
  static HRESULT invoke_create_parameter(CommandObject& self, Call& call);
  static HRESULT invoke_get_parameters(CommandObject& self, Call& call);
  static HRESULT invoke_execute(CommandObject& self, Call& call);

  void set_connection(InterfacePtr<IZIRDBConnection> connection,
                      InterfacePtr<IDispatch> dispatch);
  HRESULT create_parameter(BSTR name, long type, long direction, long size,
                           const VARIANT& value,
                           InterfacePtr<ParameterObject>* parameter);
  // `array` is the script's array that the parameters were made from, if any.
  // It may be gone when the statement has run.
  HRESULT ExecuteWithParameters(VARIANT* rows_affected, long options,
                                const DbParameterList& parameters,
                                const VARIANT* array,
                                InterfacePtr<IZIRDBRecordset>* recordset);
  HRESULT ExecuteDispatchParameterArray(
      VARIANT* rows_affected, long options, const VARIANT* array,
      InterfacePtr<IZIRDBRecordset>* recordset);

  InterfacePtr<IZIRDBConnection> active_connection_;
  InterfacePtr<IDispatch> active_connection_dispatch_;  // of the same object
  std::wstring command_text_;
  std::int64_t command_type_ = ZIRDB_AD_CMD_UNKNOWN;
  std::shared_ptr<DbParameterList> parameters_;
};

// ---------------------------------------------------------------------------
// Marshalling
// ---------------------------------------------------------------------------

// How the type of an undeclared value decides, and of one in an array.
bool is_integer(VARTYPE type) {
  switch (type) {
    case VT_I2:
    case VT_I4:
    case VT_I1:
    case VT_UI1:
    case VT_UI2:
    case VT_UI4:
    case VT_I8:
    case VT_UI8:
      return true;
    default:
      return false;
  }
}

// Parameters take every integer; the runtime's conversion does not.
HRESULT odbc_integer(const VARIANT& value, ZirdbOdbcValue* odbc) {
  long long number = 0;
  HRESULT result = S_OK;
  switch (value.vt) {
    case VT_I1:
      number = std::int64_t{value.cVal};
      break;
    case VT_I2:
      number = value.iVal;
      break;
    case VT_UI2:
      number = value.uiVal;
      break;
    case VT_UI4:
      number = value.ulVal;
      break;
    case VT_UI8:
      number = static_cast<long long>(value.ullVal);
      break;
    default:
      result = variant_to_long_long(&value, &number);
  }
  if (FAILED(result)) return result;
  odbc->kind = ZirdbOdbcValueKind::Int64;
  odbc->int64_value = number;
  return S_OK;
}

HRESULT odbc_text(const VARIANT& value, ZirdbOdbcValue* odbc) {
  _bstr_t text;
  const HRESULT result = variant_to_bstr_value(&value, &text);
  if (FAILED(result)) return result;
  odbc->text_value = utf8_from_bstr(text);
  odbc->kind = ZirdbOdbcValueKind::Text;
  return S_OK;
}

HRESULT odbc_binary(const VARIANT& value, ZirdbOdbcValue* odbc) {
  const HRESULT result = variant_to_byte_array(&value, &odbc->binary_value);
  if (FAILED(result)) return result;
  odbc->kind = ZirdbOdbcValueKind::Binary;
  return S_OK;
}

// Deliberate: nothing but -1 is true, whatever it was converted from.
HRESULT odbc_bool(const VARIANT& value, ZirdbOdbcValue* odbc) {
  _variant_t truth;
  const HRESULT result = VariantChangeType(&truth, &value, 0, VT_BOOL);
  if (FAILED(result)) return result;
  odbc->kind = ZirdbOdbcValueKind::Bool;
  odbc->bool_value = truth.boolVal == VARIANT_TRUE;
  return S_OK;
}

HRESULT odbc_double(const VARIANT& value, ZirdbOdbcValue* odbc) {
  _variant_t number;
  const HRESULT result = VariantChangeType(&number, &value, 0, VT_R8);
  if (FAILED(result)) return result;
  odbc->kind = ZirdbOdbcValueKind::Double;
  odbc->double_value = number.dblVal;
  return S_OK;
}

HRESULT odbc_undeclared(const VARIANT& value, ZirdbOdbcValue* odbc) {
  if (is_integer(value.vt)) return odbc_integer(value, odbc);
  switch (value.vt) {
    case VT_R4:
    case VT_R8:
    case VT_DECIMAL:
      return odbc_double(value, odbc);
    case VT_BOOL:
      return odbc_bool(value, odbc);
    case kByteArray:
      return odbc_binary(value, odbc);
    default:
      return odbc_text(value, odbc);  // dates too
  }
}

// By the declared type, or the value's own.
HRESULT odbc_value(const VARIANT& value, std::int64_t type,
                   ZirdbOdbcValue* odbc) {
  switch (type) {
    case ZIRDB_AD_GUID:
    case ZIRDB_AD_VARCHAR:
    case ZIRDB_AD_VARWCHAR:
      return odbc_text(value, odbc);
    case ZIRDB_AD_VARBINARY:
      return odbc_binary(value, odbc);
    case ZIRDB_AD_BOOLEAN:
      return odbc_bool(value, odbc);
    case ZIRDB_AD_INTEGER:
    case ZIRDB_AD_BIGINT:
      return odbc_integer(value, odbc);
    default:
      return odbc_undeclared(value, odbc);
  }
}

// The four functions that an execution calls. They fail by code alone, a lack
// of memory included; their callers record the text.

// What the ODBC layer is to send for a parameter. On failure `odbc` is partly
// filled; the code is that of the conversion.
HRESULT db_parameter_to_odbc_parameter(const DbParameter& parameter,
                                       ZirdbOdbcParameter* odbc) {
  return without_bad_alloc([&] {
    *odbc = {parameter.type, parameter.direction, parameter.size, {}};
    const VARIANT* const given = unwrapped<const VARIANT>(&parameter.value);
    if (given == nullptr || given->vt == VT_EMPTY || given->vt == VT_NULL) {
      return S_OK;
    }
    const HeldValue held(*given);
    return odbc_value(held.get(), parameter.type, &odbc->value);
  });
}

// What came back for a parameter, into an `out` that owns nothing.
HRESULT odbc_parameter_to_variant(const ZirdbOdbcParameter& odbc,
                                  VARIANT* out) {
  switch (odbc.value.kind) {
    case ZirdbOdbcValueKind::Null:
      out->vt = VT_NULL;
      return S_OK;
    case ZirdbOdbcValueKind::Bool:
      out->vt = VT_BOOL;
      out->boolVal = odbc.value.bool_value ? VARIANT_TRUE : VARIANT_FALSE;
      return S_OK;
    case ZirdbOdbcValueKind::Int64:
      if (odbc.type == ZIRDB_AD_INTEGER) {
        out->vt = VT_I4;
        out->lVal = static_cast<std::int32_t>(odbc.value.int64_value);
      } else {
        out->vt = VT_I8;
        out->llVal = odbc.value.int64_value;
      }
      return S_OK;
    case ZirdbOdbcValueKind::Double:
      out->vt = VT_R8;
      out->dblVal = odbc.value.double_value;
      return S_OK;
    case ZirdbOdbcValueKind::Text:
      out->bstrVal = bstr_from_utf8(odbc.value.text_value.c_str());
      out->vt = VT_BSTR;
      return S_OK;
    case ZirdbOdbcValueKind::Binary:
      return make_byte_array_variant(odbc.value.binary_value, out);
  }
  return E_INVALIDARG;
}

// Gives every parameter the value at its position in `odbc`, inputs too: they
// come back in the type in which they were sent. `parameters` are those that
// were sent; an empty slot among them is passed over. Stops at the first that
// cannot be converted; those before it keep their new values.
HRESULT write_back_parameter_values(
    const DbParameterList& parameters,
    const std::vector<ZirdbOdbcParameter>& odbc) {
  return without_bad_alloc([&] {
    const std::size_t count = std::min(parameters.size(), odbc.size());
    for (std::size_t i = 0; i < count; ++i) {
      DbParameter* const parameter = parameters[i].get();
      if (parameter == nullptr) continue;
      _variant_t value;
      const HRESULT result = odbc_parameter_to_variant(odbc[i], &value);
      if (FAILED(result)) return result;
      replace(parameter->value, value);
    }
    return S_OK;
  });
}

// A direction in which nothing is sent.
bool is_output(std::int64_t direction) {
  return direction == ZIRDB_AD_PARAM_OUTPUT ||
         direction == ZIRDB_AD_PARAM_RETURN_VALUE;
}

// What stands in for the write-back where no values are taken: outputs are
// Empty then, and everything else stays.
void clear_output_parameters(const DbParameterList& parameters) {
  // By position: a value that is let go may add parameters.
  const std::size_t count = parameters.size();
  for (std::size_t i = 0; i < count; ++i) {
    DbParameter* const parameter = parameters[i].get();
    if (parameter == nullptr) continue;
    if (!is_output(parameter->direction)) continue;
    _variant_t empty;
    replace(parameter->value, empty);
  }
}

// Gives the elements of a script's array the values of the parameters that were
// made from them.
HRESULT write_back_parameter_array(SAFEARRAY* array,
                                   const DbParameterList& parameters) {
  return without_bad_alloc([&] {
    // Freed when the array is unlocked again: that may run foreign code, which
    // may let go of the array.
    std::vector<_variant_t> old;
    old.reserve(parameters.size());
    const FirstDimension<VARIANT> elements(array);
    if (FAILED(elements.result())) return elements.result();
    const std::size_t count = std::min(elements.size(), parameters.size());
    for (std::size_t i = 0; i < count; ++i) {
      if (parameters[i] == nullptr) continue;
      _variant_t& value = old.emplace_back();
      const HRESULT copied = copy_variant(parameters[i]->value, &value);
      if (FAILED(copied)) return copied;
      replace(elements[i], value);
    }
    return S_OK;
  });
}

// Describes the parameter that a script's value stands for: one of an array or
// of a list of arguments, at `index`.
HRESULT describe_element(const VARIANT* element, std::size_t index,
                         DbParameter* parameter) {
  parameter->name = L"p" + std::to_wstring(index + 1);
  parameter->direction = ZIRDB_AD_PARAM_INPUT;
  element = unwrapped(element);
  if (element == nullptr || element->vt == VT_EMPTY) {
    // Deliberate: an empty slot asks for a number back.
    parameter->type = ZIRDB_AD_BIGINT;
    parameter->direction = ZIRDB_AD_PARAM_INPUT_OUTPUT;
    return S_OK;
  }
  if (is_integer(element->vt)) {
    parameter->type = ZIRDB_AD_BIGINT;
  } else if (element->vt == VT_BSTR) {
    parameter->type = ZIRDB_AD_VARWCHAR;
    parameter->size = SysStringLen(element->bstrVal);
  } else if (element->vt == VT_BOOL) {
    parameter->type = ZIRDB_AD_BOOLEAN;
  } else if (element->vt == kByteArray) {
    parameter->type = ZIRDB_AD_VARBINARY;
  }
  return copy_variant(*element, &parameter->value);
}

// The array of variants, with one dimension, that a value is; NULL for others.
SAFEARRAY* array_of_values(const VARIANT* value) {
  value = unwrapped(value);
  const bool is_one = value != nullptr && value->vt == kVariantArray &&
                      value->parray != nullptr && value->parray->cDims == 1;
  return is_one ? value->parray : nullptr;
}

// A parameter for each element of an array of variants with one dimension,
// added to `parameters`. DISP_E_TYPEMISMATCH for anything else. Those made
// before a failure stay in the list.
HRESULT build_dispatch_execute_parameters(const VARIANT* value,
                                          DbParameterList* parameters) {
  SAFEARRAY* const array = array_of_values(value);
  if (array == nullptr) return DISP_E_TYPEMISMATCH;
  const FirstDimension<VARIANT> elements(array);
  if (FAILED(elements.result())) return elements.result();
  return without_bad_alloc([&] {
    for (std::size_t i = 0; i < elements.size(); ++i) {
      auto parameter = std::make_shared<DbParameter>();
      const HRESULT described =
          describe_element(&elements[i], i, parameter.get());
      if (FAILED(described)) return described;
      parameters->push_back(std::move(parameter));
    }
    return S_OK;
  });
}

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

Members<ParameterObject> ParameterObject::members() {
  using Self = ParameterObject;
  static constexpr Member<Self> kMembers[] = {
      {L"Value", DISPID_ZIRDB_PARAMETER_VALUE, kGet,
       Get<&Self::get_Value>::answer, Put<&Self::put_Value>::answer},
      {L"Name", DISPID_ZIRDB_PARAMETER_NAME, kGet, Get<&Self::get_Name>::answer,
       Put<&Self::put_Name>::answer},
      {L"Type", DISPID_ZIRDB_PARAMETER_TYPE, kGet, Get<&Self::get_Type>::answer,
       Put<&Self::put_Type>::answer},
      {L"Direction", DISPID_ZIRDB_PARAMETER_DIRECTION, kGet,
       Get<&Self::get_Direction>::answer, Put<&Self::put_Direction>::answer},
      {L"Size", DISPID_ZIRDB_PARAMETER_SIZE, kGet, Get<&Self::get_Size>::answer,
       Put<&Self::put_Size>::answer},
  };
  return members_of(kMembers);
}

HRESULT ParameterObject::get_Name(BSTR* name) {
  return guarded([&] {
    if (parameter_ == nullptr) return E_UNEXPECTED;
    return store(parameter_->name, name);
  });
}

HRESULT ParameterObject::put_Name(BSTR name) {
  return guarded([&] {
    if (parameter_ == nullptr) return E_UNEXPECTED;
    parameter_->name = wstring_from_bstr(name);
    return S_OK;
  });
}

HRESULT ParameterObject::get_Value(VARIANT* value) {
  return guarded([&] {
    if (value == nullptr || parameter_ == nullptr) return E_INVALIDARG;
    VariantInit(value);
    return VariantCopy(value, &parameter_->value);
  });
}

// Deliberate: a value that could not be copied whole is stored as it came out.
HRESULT ParameterObject::put_Value(VARIANT value) {
  return guarded([&] {
    if (parameter_ == nullptr) return E_UNEXPECTED;
    _variant_t copy;
    copy_variant(value, &copy);
    replace(parameter_->value, copy);
    return S_OK;
  });
}

HRESULT get_number(const DbParameter* parameter,
                   std::int64_t DbParameter::*field, long* out) {
  return parameter != nullptr ? store(parameter->*field, out) : E_INVALIDARG;
}

HRESULT put_number(DbParameter* parameter, std::int64_t DbParameter::*field,
                   long value, bool accepted) {
  if (parameter == nullptr) return E_UNEXPECTED;
  // Deliberate: to a script its parameters are part of the command.
  if (!accepted) return fail(kBadArguments, kCommandSource);
  parameter->*field = value;
  return S_OK;
}

HRESULT ParameterObject::get_Type(long* type) {
  return guarded(
      [&] { return get_number(parameter_.get(), &DbParameter::type, type); });
}

HRESULT ParameterObject::put_Type(long type) {
  static constexpr long kTypes[] = {
      ZIRDB_AD_EMPTY, ZIRDB_AD_INTEGER, ZIRDB_AD_BOOLEAN,  ZIRDB_AD_BIGINT,
      ZIRDB_AD_GUID,  ZIRDB_AD_VARCHAR, ZIRDB_AD_VARWCHAR, ZIRDB_AD_VARBINARY};
  return guarded([&] {
    return put_number(parameter_.get(), &DbParameter::type, type,
                      std::find(std::begin(kTypes), std::end(kTypes), type) !=
                          std::end(kTypes));
  });
}

HRESULT ParameterObject::get_Direction(long* direction) {
  return guarded([&] {
    return get_number(parameter_.get(), &DbParameter::direction, direction);
  });
}

HRESULT ParameterObject::put_Direction(long direction) {
  return guarded([&] {
    return put_number(parameter_.get(), &DbParameter::direction, direction,
                      direction >= ZIRDB_AD_PARAM_UNKNOWN &&
                          direction <= ZIRDB_AD_PARAM_RETURN_VALUE);
  });
}

HRESULT ParameterObject::get_Size(long* size) {
  return guarded(
      [&] { return get_number(parameter_.get(), &DbParameter::size, size); });
}

HRESULT ParameterObject::put_Size(long size) {
  return guarded([&] {
    return put_number(parameter_.get(), &DbParameter::size, size, true);
  });
}

Members<ParametersObject> ParametersObject::members() {
  using Self = ParametersObject;
  static constexpr Member<Self> kMembers[] = {
      {L"Item", DISPID_ZIRDB_PARAMETERS_ITEM, kItem,
       GetItem<&Self::item>::answer},
      {L"Count", DISPID_ZIRDB_PARAMETERS_COUNT, kGet,
       Get<&Self::get_Count>::answer},
      {L"Append", DISPID_ZIRDB_PARAMETERS_APPEND, kMethodWithOne,
       invoke_append},
  };
  return members_of(kMembers);
}

HRESULT ParametersObject::get_Count(long* count) {
  return guarded([&] {
    if (count == nullptr || parameters_ == nullptr) return E_INVALIDARG;
    *count = static_cast<long>(parameters_->size());
    return S_OK;
  });
}

// An index that is a name; NULL for one that is not. A NULL text is empty.
const wchar_t* name_of_index(const VARIANT& index) {
  if (index.vt != VT_BSTR) return nullptr;
  return index.bstrVal != nullptr ? index.bstrVal : L"";
}

// An index that is a number, from 0 to below `count`.
bool position_of_index(const VARIANT& index, std::size_t count,
                       std::size_t* position) {
  long long number = 0;
  if (FAILED(variant_to_long_long(&index, &number)) || number < 0 ||
      static_cast<unsigned long long>(number) >= count) {
    return false;
  }
  *position = static_cast<std::size_t>(number);
  return true;
}

HRESULT ParametersObject::resolve_parameter_index(const VARIANT& index,
                                                  std::size_t* position) const {
  const VARIANT* const given = unwrapped(&index);
  if (given == nullptr) return E_INVALIDARG;
  const DbParameterList& list = *parameters_;
  if (const wchar_t* const name = name_of_index(*given)) {
    const auto found =
        std::find_if(list.begin(), list.end(), [name](const auto& parameter) {
          return parameter != nullptr &&
                 wcscasecmp(parameter->name.c_str(), name) == 0;
        });
    if (found == list.end()) return fail(kItemNotFound, kCommandSource);
    *position = static_cast<std::size_t>(found - list.begin());
    return S_OK;
  }
  if (!position_of_index(*given, list.size(), position)) {
    return fail(kItemNotFound, kCommandSource);
  }
  return S_OK;
}

HRESULT ParametersObject::Item(VARIANT index, IZIRDBParameter** parameter) {
  return guarded([&] {
    if (parameter == nullptr) return E_INVALIDARG;
    *parameter = nullptr;
    InterfacePtr<ParameterObject> made;
    const HRESULT result = item(index, &made);
    *parameter = made.detach();
    return result;
  });
}

HRESULT ParametersObject::item(const VARIANT& index,
                               InterfacePtr<ParameterObject>* parameter) const {
  if (parameters_ == nullptr) return E_INVALIDARG;
  std::size_t position = 0;
  const HRESULT result = resolve_parameter_index(index, &position);
  if (FAILED(result)) return result;
  *parameter = make<ParameterObject>((*parameters_)[position]);
  return S_OK;
}

HRESULT ParametersObject::Append(IZIRDBParameter* parameter) {
  return guarded([&] { return append(parameter); });
}

// By its getters, the first failure of which ends it.
HRESULT read_foreign_parameter(IZIRDBParameter* foreign, DbParameter* copy) {
  _bstr_t name;
  HRESULT result = foreign->get_Name(&name.m_s);
  if (FAILED(result)) return result;
  copy->name = wstring_from_bstr(name.m_s);
  _variant_t value;
  result = foreign->get_Value(&value);
  if (FAILED(result)) return result;
  result = copy_variant(value, &copy->value);
  if (FAILED(result)) return result;
  result = foreign->get_Type(&copy->type);
  if (SUCCEEDED(result)) result = foreign->get_Direction(&copy->direction);
  if (SUCCEEDED(result)) result = foreign->get_Size(&copy->size);
  return result;
}

HRESULT ParametersObject::append(IZIRDBParameter* parameter) const {
  if (parameter == nullptr || parameters_ == nullptr) return E_INVALIDARG;
  // Foreign getters may do anything, such as letting this object go.
  const std::shared_ptr<DbParameterList> list = parameters_;
  if (const auto* const shared = own<ParameterObject>(parameter)) {
    if (shared->parameter() == nullptr) return E_UNEXPECTED;
    list->push_back(shared->parameter());
    return S_OK;
  }
  auto copy = std::make_shared<DbParameter>();
  const HRESULT result = read_foreign_parameter(parameter, copy.get());
  // Whatever the getters may have left behind.
  clear_db_error();
  if (FAILED(result)) return result;
  list->push_back(std::move(copy));
  return S_OK;
}

HRESULT ParametersObject::invoke_append(ParametersObject& self, Call& call) {
  // Asking a foreign object may let this one go.
  const auto held = InterfacePtr<ParametersObject>::share(&self);
  const auto object = InterfacePtr<IDispatch>::share(
      static_cast<IDispatch*>(call.arguments(0)));
  const auto parameter = object.query<IZIRDBParameter>(IID_IZIRDBParameter);
  if (!parameter) return DISP_E_TYPEMISMATCH;
  return call.finish(self.append(parameter.get()));
}

// ---------------------------------------------------------------------------
// Fields
//
// Deliberate: what goes wrong here is reported with the recordset's name, as
// part of which a script sees its fields.
// ---------------------------------------------------------------------------

Members<FieldsObject> FieldsObject::members() {
  using Self = FieldsObject;
  static constexpr Member<Self> kMembers[] = {
      {L"Item", DISPID_ZIRDB_FIELDS_ITEM, kItem, GetItem<&Self::item>::answer},
      {L"Count", DISPID_ZIRDB_FIELDS_COUNT, kGet,
       Get<&Self::get_Count>::answer},
      {L"_NewEnum", DISPID_NEWENUM, kEnumerator, invoke_new_enum},
      {L"NewEnum", DISPID_NEWENUM, kEnumerator, invoke_new_enum},
  };
  return members_of(kMembers);
}

FieldsObject::FieldsObject(InterfacePtr<RecordsetObject> owner) noexcept
    : owner_(std::move(owner)),
      snapshot_row_(owner_ ? owner_->current_row() : nullptr) {}

HRESULT FieldsObject::get_Count(long* count) {
  return guarded([&] {
    if (count == nullptr) return E_INVALIDARG;
    *count = !owner_ || owner_->is_closed_by_connection()
                 ? 0
                 : static_cast<long>(owner_->get_column_count());
    return S_OK;
  });
}

// Deliberate: a NULL name is the name of no column, not even of one that has
// none.
HRESULT resolve_column_index(const ColumnTable* columns, const VARIANT& index,
                             std::size_t* position) {
  const VARIANT* const given = unwrapped(&index);
  if (given == nullptr) return E_INVALIDARG;
  if (given->vt != VT_BSTR) {
    const std::size_t count = columns != nullptr ? columns->size() : 0;
    return position_of_index(*given, count, position)
               ? S_OK
               : fail(kItemNotFound, kRecordsetSource);
  }
  const auto found = given->bstrVal != nullptr && columns != nullptr
                         ? columns->find(given->bstrVal)
                         : std::nullopt;
  if (!found) return fail(kItemNotFound, kRecordsetSource);
  *position = *found;
  return S_OK;
}

HRESULT FieldsObject::Item(VARIANT index, IZIRDBField** field) {
  return guarded([&] {
    if (field == nullptr) return E_INVALIDARG;
    *field = nullptr;
    InterfacePtr<FieldObject> made;
    const HRESULT result = item(index, &made);
    *field = made.detach();
    return result;
  });
}

HRESULT FieldsObject::item_of(RecordsetObject* owner, const Cell* snapshot_row,
                              const VARIANT& index,
                              InterfacePtr<FieldObject>* field) {
  if (owner != nullptr && !owner->is_open()) {
    return fail(owner->is_closed_by_connection() ? kItemNotAvailable : kClosed,
                kRecordsetSource);
  }
  std::size_t position = 0;
  const HRESULT result = resolve_column_index(
      owner != nullptr ? owner->columns() : nullptr, index, &position);
  // Without an owner there are no columns to find.
  if (FAILED(result) || owner == nullptr) return result;
  const Cell* const live_row = owner->current_row();
  // Deliberate: without a row of the collection's own there is no falling back,
  // not even on the row that is current now.
  const Cell* const fallback_row =
      live_row != nullptr && snapshot_row != nullptr ? live_row : snapshot_row;
  *field = make<FieldObject>(InterfacePtr<RecordsetObject>::share(owner),
                             position, fallback_row);
  return S_OK;
}

HRESULT FieldsObject::get__NewEnum(
    InterfacePtr<FieldsEnumerator>* enumerator) const {
  if (!owner_ || owner_->is_closed_by_connection()) {
    *enumerator = make<FieldsEnumerator>(nullptr, nullptr, std::size_t{0});
    return S_OK;
  }
  if (!owner_->is_open()) return fail(kClosed, kRecordsetSource);
  if (snapshot_row_ == nullptr) {
    return fail(kNoCurrentRecord, kRecordsetSource);
  }
  *enumerator =
      make<FieldsEnumerator>(owner_->rows(), snapshot_row_, std::size_t{0});
  return S_OK;
}

HRESULT FieldsObject::invoke_new_enum(FieldsObject& self, Call& call) {
  InterfacePtr<FieldsEnumerator> enumerator;
  const HRESULT result = self.get__NewEnum(&enumerator);
  if (FAILED(result)) return call.raise(result);
  VARIANT value = {};
  value.vt = VT_UNKNOWN;
  value.punkVal = enumerator.detach();
  return call.give(value);
}

Members<FieldObject> FieldObject::members() {
  using Self = FieldObject;
  static constexpr Member<Self> kMembers[] = {
      {L"Value", DISPID_ZIRDB_FIELD_VALUE, kGet, Get<&Self::get_Value>::answer},
      {L"Name", DISPID_ZIRDB_FIELD_NAME, kGet, Get<&Self::get_Name>::answer},
  };
  return members_of(kMembers);
}

HRESULT FieldObject::get_Name(BSTR* name) {
  return guarded([&] {
    if (name == nullptr) return E_INVALIDARG;
    *name = nullptr;
    if (owner_ && !owner_->is_open()) {
      return fail(kFieldNotAvailable, kRecordsetSource);
    }
    const ColumnTable& columns =
        owner_ ? *owner_->columns() : *rows_->columns();
    *name = bstr_from_utf8(columns.name(index_));
    return S_OK;
  });
}

HRESULT FieldObject::get_Value(VARIANT* value) {
  return guarded([&] {
    if (value == nullptr) return E_INVALIDARG;
    if (owner_ && !owner_->is_open()) {
      return fail(kFieldNotAvailable, kRecordsetSource);
    }
    VariantInit(value);
    if (!owner_ ||
        (owner_->current_row() == nullptr && snapshot_row_ != nullptr)) {
      return copy_cell(snapshot_row_[index_], value);
    }
    return owner_->copy_current_value(index_, value);
  });
}

HRESULT FieldsEnumerator::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_INVALIDARG;
  *object = nullptr;
  if (riid != IID_IUnknown && riid != IID_IEnumVARIANT) return E_NOINTERFACE;
  *object = static_cast<IEnumVARIANT*>(this);
  AddRef();
  return S_OK;
}

std::uint32_t FieldsEnumerator::Release() {
  const std::uint32_t left = --ref_count_;
  if (left == 0) {
    --g_object_count;
    delete this;
  }
  return left;
}

HRESULT FieldsEnumerator::Next(zir_types::ULONG count, VARIANT* values,
                               zir_types::ULONG* fetched) {
  zir_types::ULONG stored = 0;
  const HRESULT result = guarded([&] {
    if (values == nullptr || (count != 1 && fetched == nullptr)) {
      return E_INVALIDARG;
    }
    for (; stored < count && index_ < column_count(); ++stored, ++index_) {
      IDispatch* const field =
          make<FieldObject>(rows_, index_, snapshot_row_).detach();
      VariantInit(&values[stored]);
      values[stored].vt = VT_DISPATCH;
      values[stored].pdispVal = field;
    }
    return stored == count ? S_OK : S_FALSE;
  });
  if (fetched != nullptr && result != E_INVALIDARG) *fetched = stored;
  return result;
}

HRESULT FieldsEnumerator::Skip(zir_types::ULONG count) {
  return guarded([&] {
    const std::size_t left = column_count() - index_;
    index_ += std::min<std::size_t>(count, left);
    return count > left ? S_FALSE : S_OK;
  });
}

HRESULT FieldsEnumerator::Reset() {
  return guarded([&] {
    index_ = 0;
    return S_OK;
  });
}

HRESULT FieldsEnumerator::Clone(IEnumVARIANT** clone) {
  return guarded([&] {
    if (clone == nullptr) return E_INVALIDARG;
    *clone = nullptr;
    *clone = make<FieldsEnumerator>(rows_, snapshot_row_, index_).detach();
    return S_OK;
  });
}

// ---------------------------------------------------------------------------
// Recordset
// ---------------------------------------------------------------------------

Members<RecordsetObject> RecordsetObject::members() {
  using Self = RecordsetObject;
  static constexpr Member<Self> kMembers[] = {
      {L"Fields", DISPID_ZIRDB_RECORDSET_FIELDS, kAnyShape, invoke_fields},
      {nullptr, DISPID_VALUE, kAnyShape, invoke_fields},
      {L"State", DISPID_ZIRDB_RECORDSET_STATE, kGet,
       Get<&Self::get_State>::answer},
      {L"EOF", DISPID_ZIRDB_RECORDSET_EOF, kGet, Get<&Self::get_EOF>::answer},
      {L"BOF", DISPID_ZIRDB_RECORDSET_BOF, kGet, Get<&Self::get_BOF>::answer},
      {L"RecordCount", DISPID_ZIRDB_RECORDSET_RECORDCOUNT, kGet,
       Get<&Self::get_RecordCount>::answer},
      {L"MoveFirst", DISPID_ZIRDB_RECORDSET_MOVEFIRST, kMethod,
       Do<&Self::MoveFirst>::answer},
      {L"MoveLast", DISPID_ZIRDB_RECORDSET_MOVELAST, kMethod,
       Do<&Self::MoveLast>::answer},
      {L"MovePrevious", DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, kMethod,
       Do<&Self::MovePrevious>::answer},
      {L"MoveNext", DISPID_ZIRDB_RECORDSET_MOVENEXT, kMethod,
       Do<&Self::MoveNext>::answer},
      {L"Close", DISPID_ZIRDB_RECORDSET_CLOSE, kMethod,
       Do<&Self::Close>::answer},
      {L"forEach", DISPID_ZIRDB_RECORDSET_FOREACH, kMethodWithOne,
       invoke_for_each},
  };
  return members_of(kMembers);
}

RecordsetObject::RecordsetObject(std::shared_ptr<const RowStore> rows) noexcept
    : rows_(std::move(rows)) {
  if (rows_ == nullptr) return;
  columns_ = rows_->columns();
  if (rows_->size() == 0) return;
  bof_ = false;
  enter_row({});
}

RecordsetObject::RecordsetObject(WithoutColumns /*tag*/) noexcept
    : open_(false), bof_(false), eof_(false), allow_fields_on_closed_(true) {}

RecordsetObject::~RecordsetObject() {
  if (connection_owner_ != nullptr) {
    connection_owner_->unregister_recordset(*this);
  }
}

void RecordsetObject::enter_row(RowStore::Position position) {
  position_ = position;
  current_cells_ = rows_->cells(position);
  has_current_row_ = true;
  eof_ = eof_on_last_row_ && current_row_ + 1 == rows_->size();
}

HRESULT RecordsetObject::closed_state_error() const {
  return fail(closed_by_connection_ || allow_fields_on_closed_
                  ? kClosed
                  : kRecordsetClosed,
              kRecordsetSource);
}

HRESULT RecordsetObject::get_Fields(IZIRDBFields** fields) {
  return guarded([&] {
    if (fields == nullptr) return E_INVALIDARG;
    *fields = nullptr;
    InterfacePtr<FieldsObject> made;
    const HRESULT result = make_fields(&made);
    *fields = made.detach();
    return result;
  });
}

HRESULT RecordsetObject::fields_owner(RecordsetObject** owner) {
  if (!open_ && !closed_by_connection_ && !allow_fields_on_closed_) {
    return fail(kRecordsetClosed, kRecordsetSource);
  }
  *owner = closed_by_connection_ ? nullptr : this;
  return S_OK;
}

HRESULT RecordsetObject::make_fields(InterfacePtr<FieldsObject>* fields) {
  RecordsetObject* owner = nullptr;
  const HRESULT result = fields_owner(&owner);
  if (FAILED(result)) return result;
  *fields = make<FieldsObject>(InterfacePtr<RecordsetObject>::share(owner));
  return S_OK;
}

HRESULT RecordsetObject::get_State(long* state) {
  return guarded([&] {
    return store(open_ ? ZIRDB_STATE_OPEN : ZIRDB_STATE_CLOSED, state);
  });
}

HRESULT RecordsetObject::get_EOF(VARIANT_BOOL* at_end) {
  return guarded([&] {
    if (at_end == nullptr) return E_INVALIDARG;
    if (!open_) return closed_state_error();
    *at_end = eof_ ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  });
}

HRESULT RecordsetObject::get_BOF(VARIANT_BOOL* at_start) {
  return guarded([&] {
    if (at_start == nullptr) return E_INVALIDARG;
    if (!open_) return closed_state_error();
    *at_start = bof_ ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  });
}

HRESULT RecordsetObject::get_RecordCount(long* count) {
  return guarded([&] {
    if (count == nullptr) return E_INVALIDARG;
    if (!open_) return closed_state_error();
    // Deliberate: a cursor that only goes forward does not tell.
    *count = -1;
    return S_OK;
  });
}

HRESULT RecordsetObject::MoveFirst() {
  return guarded([&] {
    if (!open_) return closed_state_error();
    if (rows_ == nullptr || rows_->size() == 0) {
      return fail(kNoCurrentRecord, kRecordsetSource);
    }
    current_row_ = 0;
    bof_ = false;
    enter_row({});
    return S_OK;
  });
}

// Deliberate: a refused MoveLast leaves the cursor past the end; MoveFirst
// brings it back.
HRESULT RecordsetObject::MoveLast() {
  return guarded([&] {
    if (!open_) return closed_state_error();
    eof_ = true;
    bof_ = true;
    has_current_row_ = false;
    return fail(kNotBackward, kRecordsetSource);
  });
}

HRESULT RecordsetObject::MovePrevious() {
  return guarded([&] {
    if (!open_) return closed_state_error();
    return fail(kNotInThisContext, kRecordsetSource);
  });
}

HRESULT RecordsetObject::MoveNext() {
  return guarded([&] { return move_next(); });
}

HRESULT RecordsetObject::move_next() {
  if (!open_) return closed_state_error();
  if (!has_current_row_) return fail(kNoCurrentRecord, kRecordsetSource);
  bof_ = false;
  if (++current_row_ == rows_->size()) {
    has_current_row_ = false;
    eof_ = true;
  } else {
    enter_row(rows_->next(position_));
  }
  return S_OK;
}

HRESULT RecordsetObject::Close() {
  return guarded([&] { return close(); });
}

HRESULT RecordsetObject::close() {
  if (!open_) return closed_state_error();
  rows_ = nullptr;
  current_row_ = 0;
  has_current_row_ = false;
  bof_ = true;
  eof_ = true;
  closed_by_connection_ = false;
  allow_fields_on_closed_ = true;
  open_ = false;
  return S_OK;
}

HRESULT RecordsetObject::copy_current_value(std::size_t index,
                                            VARIANT* out) const {
  // Columns never change; this is for a caller that would not know.
  if (index >= get_column_count()) {
    return fail(kFieldOutOfRange, kRecordsetSource);
  }
  const Cell* const row = current_row();
  if (row == nullptr) return fail(kNoCurrentRecord, kRecordsetSource);
  return copy_cell(row[index], out);
}

void RecordsetObject::on_connection_closed() {
  open_ = false;
  closed_by_connection_ = true;
  connection_owner_ = nullptr;
}

// Deliberate: a recordset that has no fields to give says so before anything
// else. With arguments, the call is one of the collection's items; nobody could
// see the collection itself, so that is not made.
HRESULT RecordsetObject::invoke_fields(RecordsetObject& self, Call& call) {
  RecordsetObject* owner = nullptr;
  const HRESULT result = self.fields_owner(&owner);
  if (FAILED(result)) return call.raise(result);
  const bool is_item = call.arguments.count() > 0;
  const HRESULT admitted = admit(is_item ? kItem : kGet, call);
  if (FAILED(admitted)) return admitted;
  if (!is_item) {
    return call.give(
        make<FieldsObject>(InterfacePtr<RecordsetObject>::share(owner)));
  }
  call.source = FieldsObject::kSource;
  InterfacePtr<FieldObject> field;
  const HRESULT found = FieldsObject::item_of(owner, self.current_row(),
                                              *call.arguments.raw(0), &field);
  return FAILED(found) ? call.raise(found) : call.give(std::move(field));
}

// An argument that can be called back.
InterfacePtr<IDispatch> callback_of(const VARIANT* argument) {
  if (argument != nullptr && argument->vt == VT_DISPATCH) {
    return InterfacePtr<IDispatch>::share(argument->pdispVal);
  }
  if (argument != nullptr && argument->vt == VT_UNKNOWN) {
    return InterfacePtr<IUnknown>::share(argument->punkVal)
        .query<IDispatch>(IID_IDispatch);
  }
  return {};
}

// Calls `callback` with the fields as its one argument.
HRESULT call_back(const InterfacePtr<IDispatch>& callback, IDispatch* fields,
                  EXCEPINFO* exception) {
  _variant_t argument(fields);
  DISPPARAMS parameters = {&argument, nullptr, 1, 0};
  _variant_t discarded;
  return callback->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_METHOD,
                          &parameters, &discarded, exception, nullptr);
}

// Walks from the current row to the end and closes the recordset. A callback
// that fails ends the walk on its row, with its own code.
HRESULT RecordsetObject::invoke_for_each(RecordsetObject& self, Call& call) {
  // The callback may let the recordset go.
  const auto held = InterfacePtr<RecordsetObject>::share(&self);
  auto callback = callback_of(static_cast<VARIANT*>(call.arguments(0)));
  if (!callback) return DISP_E_TYPEMISMATCH;
  if (!self.open_) return call.raise(self.closed_state_error());
  InterfacePtr<FieldsObject> fields;
  const HRESULT result = self.make_fields(&fields);
  if (FAILED(result)) return call.raise(result);
  while (self.open_ && self.has_current_row_ && !self.eof_) {
    const HRESULT called = call_back(callback, fields.get(), call.exception);
    if (FAILED(called)) return called;
    const HRESULT moved = self.move_next();
    if (FAILED(moved)) return call.raise(moved);
  }
  fields = {};
  callback = {};
  return call.finish(self.close());
}

// ---------------------------------------------------------------------------
// Statements
// ---------------------------------------------------------------------------

// Reads the beginning of a statement. Deliberate: blanks are these four, in
// every locale.
class StatementReader {
 public:
  explicit StatementReader(std::wstring_view text) : rest_(text) {}

  StatementReader& skip_blanks() {
    rest_.remove_prefix(
        std::min(rest_.find_first_not_of(L"\t\n\r "), rest_.size()));
    return *this;
  }
  // Whether `word` comes next, in any case.
  bool is_at(std::wstring_view word) const {
    return rest_.size() >= word.size() &&
           std::equal(word.begin(), word.end(), rest_.begin(),
                      [](wchar_t left, wchar_t right) {
                        return folded(left) == folded(right);
                      });
  }
  // Passes over `word` if it comes next.
  bool skip(std::wstring_view word) {
    if (!is_at(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }
  std::wstring_view rest() const { return rest_; }

 private:
  std::wstring_view rest_;
};

// This procedure runs a statement that it is given, with the values for it: a
// text that calls it is no more a procedure call than that statement is.
constexpr std::wstring_view kExecuteSql = L"sp_executesql";

// "{CALL p" or "{? = CALL p".
bool is_call_escape(std::wstring_view text) {
  StatementReader reader(text);
  if (!reader.skip_blanks().skip(L"{")) return false;
  if (reader.skip_blanks().skip(L"?")) {
    if (!reader.skip_blanks().skip(L"=")) return false;
    reader.skip_blanks();
  }
  return reader.skip(L"CALL ") && !reader.skip_blanks().is_at(kExecuteSql);
}

// Deliberate: other spellings, such as "EXECUTE p", are statements like any.
bool command_looks_like_simple_stored_proc_text(std::wstring_view text) {
  StatementReader reader(text);
  if (reader.skip_blanks().skip(L"EXEC ")) {
    return !reader.skip_blanks().is_at(kExecuteSql);
  }
  return is_call_escape(text);
}

// Deliberate: only as programs spell it that write this call themselves. Such
// a call declares its values in its own text.
bool command_suppresses_parameter_writeback(std::wstring_view text) {
  const StatementReader reader(text);
  return reader.is_at(L"{CALL sp_executesql(") ||
         reader.is_at(L"{? = CALL sp_executesql(");
}

// Whether the last part of a procedure's name is that of one of the server's
// own. Their parameters have names and defaults, which markers do not reach.
bool is_system_procedure(std::wstring_view text) {
  StatementReader reader(text);
  std::wstring_view name = reader.skip_blanks().rest();
  const std::size_t dot = name.rfind(L'.');
  if (dot != std::wstring_view::npos && dot + 1 < name.size()) {
    name.remove_prefix(dot + 1);
  }
  return StatementReader(name).is_at(L"sp_") ||
         StatementReader(name).is_at(L"xp_");
}

// ---------------------------------------------------------------------------
// Connection
// ---------------------------------------------------------------------------

Members<ConnectionObject> ConnectionObject::members() {
  using Self = ConnectionObject;
  static constexpr Shape kOpen = {0, 4, DISPATCH_METHOD, false,
                                  DISP_E_MEMBERNOTFOUND};
  // Without DISPATCH_METHOD the number of arguments does not matter: both forms
  // of execution look for themselves.
  static constexpr Member<Self> kMembers[] = {
      {L"ConnectionString", DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING, kGet,
       Get<&Self::get_ConnectionString>::answer,
       Put<&Self::put_ConnectionString>::answer},
      {L"State", DISPID_ZIRDB_CONNECTION_STATE, kGet,
       Get<&Self::get_State>::answer},
      {L"Open", DISPID_ZIRDB_CONNECTION_OPEN, kOpen, invoke_open},
      {L"Close", DISPID_ZIRDB_CONNECTION_CLOSE, kMethod,
       Do<&Self::Close>::answer},
      {L"Execute", DISPID_ZIRDB_CONNECTION_EXECUTE, kAnyShape, invoke_execute},
      {nullptr, DISPID_VALUE, kAnyShape, invoke_value},
  };
  return members_of(kMembers);
}

ConnectionObject::~ConnectionObject() {
  invalidate_recordsets();
  close_handle();
}

HRESULT ConnectionObject::get_ConnectionString(BSTR* connection_string) {
  return guarded([&] { return store(connection_string_, connection_string); });
}

HRESULT ConnectionObject::put_ConnectionString(BSTR connection_string) {
  return guarded([&] {
    if (is_open()) return fail(kAlreadyOpen, kConnectionSource);
    connection_string_ = wstring_from_bstr(connection_string);
    return S_OK;
  });
}

HRESULT ConnectionObject::get_State(long* state) {
  return guarded([&] {
    return store(is_open() ? ZIRDB_STATE_OPEN : ZIRDB_STATE_CLOSED, state);
  });
}

// Deliberate: nothing is quoted, so that a caller who needs quoting can do it
// as the driver wants it.
void append_key_value(std::string& connection_string, const char* key,
                      const std::string& value) {
  if (value.empty()) return;
  if (!connection_string.empty() && connection_string.back() != ';') {
    connection_string += ';';
  }
  connection_string.append(key).append("=").append(value).append(";");
}

// What the ODBC layer says went wrong.
HRESULT fail_with_odbc_text(HRESULT code, const std::string& error) {
  return set_db_error(code, kConnectionSource,
                      utf32_from_utf8(error.c_str()).c_str());
}

HRESULT ConnectionObject::Open(BSTR connection_string, BSTR user, BSTR password,
                               long /*options*/) {
  return guarded([&] { return open(connection_string, user, password); });
}

HRESULT ConnectionObject::open(BSTR connection_string, BSTR user,
                               BSTR password) {
  if (is_open()) return fail(kAlreadyOpen, kConnectionSource);
  std::wstring given = wstring_from_bstr(connection_string);
  if (given.empty()) given = connection_string_;
  if (given.empty()) return fail(kConnectionStringRequired, kConnectionSource);
  std::string used = utf8_from_bstr(given.c_str());
  append_key_value(used, "UID", utf8_from_bstr(user));
  append_key_value(used, "PWD", utf8_from_bstr(password));
  std::wstring shown = utf32_from_utf8(used.c_str());
  void* handle = nullptr;
  std::string error;
  if (!zirdb_odbc_open(used, &handle, &error)) {
    return fail_with_odbc_text(kOpenFailed, error);
  }
  handle_.reset(handle);
  // Deliberate: user and password can be read here, and a later Open without a
  // string uses them.
  connection_string_ = std::move(shown);
  return S_OK;
}

HRESULT ConnectionObject::Close() {
  return guarded([&] {
    invalidate_recordsets();
    close_handle();
    return S_OK;
  });
}

void ConnectionObject::close_handle() noexcept { handle_.reset(); }

void ConnectionObject::register_recordset(RecordsetObject& recordset) noexcept {
  recordset.connection_owner_ = this;
  recordset.next_ = active_recordsets_;
  if (active_recordsets_ != nullptr) active_recordsets_->previous_ = &recordset;
  active_recordsets_ = &recordset;
}

void ConnectionObject::unregister_recordset(
    RecordsetObject& recordset) noexcept {
  RecordsetObject* const next = recordset.next_;
  RecordsetObject* const previous = recordset.previous_;
  (previous != nullptr ? previous->next_ : active_recordsets_) = next;
  if (next != nullptr) next->previous_ = previous;
}

void ConnectionObject::invalidate_recordsets() noexcept {
  RecordsetObject* recordset = std::exchange(active_recordsets_, nullptr);
  while (recordset != nullptr) {
    recordset->on_connection_closed();
    recordset = recordset->next_;
  }
}

// Hosts refer to anything that they have, aligned or not.
template <class Integer>
void store_count(void* target, std::int64_t count) {
  const auto stored = static_cast<Integer>(count);
  std::memcpy(target, &stored, sizeof stored);
}

// What the variant held is freed last, which may run foreign code.
void store_count_in_variant(void* target, std::int64_t count) {
  VARIANT stored = {};
  stored.vt = VT_I8;
  stored.llVal = count;
  VARIANT held = {};
  std::memcpy(&held, target, sizeof held);
  std::memcpy(target, &stored, sizeof stored);
  _variant_t freed;
  freed.Attach(held);
}

// How the number of affected rows is stored through a reference of this type;
// NULL for a type through which it is not.
auto count_writer(VARTYPE type) -> void (*)(void* target, std::int64_t count) {
  switch (type) {
    case VT_BYREF | VT_I2:
    case VT_BYREF | VT_UI2:
      return store_count<std::uint16_t>;
    case VT_BYREF | VT_UI4:
      return store_count<std::uint32_t>;
    case VT_BYREF | VT_I4:
    case VT_BYREF | VT_I8:
    case VT_BYREF | VT_UI8:
      return store_count<std::uint64_t>;
    case VT_BYREF | VT_VARIANT:
      return store_count_in_variant;
    default:
      return nullptr;
  }
}

void store_rows_affected(const VARIANT* target, std::int64_t count) {
  if (target == nullptr || target->byref == nullptr) return;
  if (auto* const write = count_writer(target->vt)) {
    write(target->byref, count);
  }
}

HRESULT ConnectionObject::Execute(BSTR text, VARIANT* rows_affected,
                                  long /*options*/,
                                  IZIRDBRecordset** recordset) {
  return guarded([&] {
    if (recordset == nullptr) return E_INVALIDARG;
    *recordset = nullptr;
    InterfacePtr<RecordsetObject> made;
    const HRESULT result = ExecuteInternal(text, rows_affected, nullptr, &made);
    *recordset = made.detach();
    return result;
  });
}

HRESULT ConnectionObject::ExecuteInternal(
    const wchar_t* text, VARIANT* rows_affected,
    std::vector<ZirdbOdbcParameter>* parameters,
    InterfacePtr<RecordsetObject>* recordset) {
  return guarded([&] {
    if (!is_open()) return fail(kClosed, kConnectionSource);
    const std::string sql = utf8_from_bstr(text);
    if (sql.empty()) return fail(kNoCommandText, kConnectionSource);
    RowStoreBuilder builder;
    std::int64_t count = 0;
    std::string error;
    bool executed = false;
    try {
      executed = zirdb_odbc_execute_into(handle_.get(), sql, parameters,
                                         builder, count, error);
    } catch (const std::range_error& unconvertible) {
      error = unconvertible.what();
    }
    if (!executed) return fail_with_odbc_text(kExecuteFailed, error);
    if (auto rows = builder.take()) {
      *recordset = make<RecordsetObject>(std::move(rows));
      register_recordset(*recordset->get());
      count = -1;
    }
    // Last: what this frees may close the connection, or let it go.
    store_rows_affected(rows_affected, count);
    return S_OK;
  });
}

// Omitted arguments are empty texts.
HRESULT ConnectionObject::invoke_open(ConnectionObject& self, Call& call) {
  // Reading an argument may run a script.
  const auto held = InterfacePtr<ConnectionObject>::share(&self);
  const UINT count = call.arguments.count();
  _bstr_t texts[3];
  for (UINT i = 0; i < std::min(count, 3U); ++i) {
    texts[i] = static_cast<_bstr_t>(call.arguments(static_cast<int>(i)));
  }
  const long options =
      count > 3 ? static_cast<long>(static_cast<long long>(call.arguments(3)))
                : 0;
  return call.finish(
      self.Open(texts[0].m_s, texts[1].m_s, texts[2].m_s, options));
}

// Nothing, or the recordset, as the result of a statement.
HRESULT give_recordset(const Call& call,
                       InterfacePtr<RecordsetObject> recordset) {
  if (recordset) return call.give(std::move(recordset));
  return call.give(VARIANT{});
}

HRESULT ConnectionObject::invoke_execute(ConnectionObject& self, Call& call) {
  if (!call.has(DISPATCH_METHOD)) return DISP_E_MEMBERNOTFOUND;
  static constexpr Shape kExecute = {1, 3, 0, true, E_INVALIDARG};
  const HRESULT admitted = admit(kExecute, call);
  if (FAILED(admitted)) return admitted;
  const auto held = InterfacePtr<ConnectionObject>::share(&self);
  const auto text = static_cast<_bstr_t>(call.arguments(0));
  VARIANT* rows_affected = nullptr;
  if (call.arguments.count() > 1) {
    if (count_writer(call.arguments.raw(1)->vt) != nullptr) {
      rows_affected = call.arguments.raw(1);
    } else {
      call.arguments.require_number(1);
    }
  }
  if (call.arguments.count() > 2) call.arguments.require_number(2);
  InterfacePtr<RecordsetObject> recordset;
  const HRESULT result =
      self.ExecuteInternal(text.m_s, rows_affected, nullptr, &recordset);
  return FAILED(result) ? call.raise(result)
                        : give_recordset(call, std::move(recordset));
}

// A parameter for each argument behind the text, or for each element of the
// array that is the only one.
HRESULT parameters_of_arguments(const _dispparams_wrapper_t& arguments,
                                DbParameterList* parameters) {
  const UINT count = arguments.count();
  if (count == 2 && array_of_values(arguments.raw(1)) != nullptr) {
    return build_dispatch_execute_parameters(arguments.raw(1), parameters);
  }
  for (UINT i = 1; i < count; ++i) {
    auto parameter = std::make_shared<DbParameter>();
    const HRESULT described = describe_element(
        arguments.raw(static_cast<int>(i)), i - 1, parameter.get());
    if (FAILED(described)) return described;
    if (parameter->value.vt == VT_EMPTY) {
      // Deliberate: an empty argument sends a number, unlike an empty element.
      parameter->value = std::int64_t{0};
    }
    parameters->push_back(std::move(parameter));
  }
  return S_OK;
}

// What the ODBC layer is to send for each of `parameters`, none of which is
// empty. The first that cannot be sent is recorded as an error of `source`.
HRESULT translate_parameters(const DbParameterList& parameters,
                             const wchar_t* source,
                             std::vector<ZirdbOdbcParameter>* odbc) {
  odbc->reserve(parameters.size());
  for (const auto& parameter : parameters) {
    const HRESULT result =
        db_parameter_to_odbc_parameter(*parameter, &odbc->emplace_back());
    if (FAILED(result)) return set_db_error(result, source, kValueText);
  }
  return S_OK;
}

HRESULT ConnectionObject::ExecuteWithParameters(
    const wchar_t* text, const DbParameterList& parameters,
    InterfacePtr<RecordsetObject>* recordset) {
  std::vector<ZirdbOdbcParameter> odbc;
  const HRESULT translated =
      translate_parameters(parameters, kConnectionSource, &odbc);
  if (FAILED(translated)) return translated;
  // Deliberate: a procedure's parameters are a command's business.
  if (!odbc.empty() && command_looks_like_simple_stored_proc_text(text)) {
    return fail(kErrorsOccurred, kConnectionSource);
  }
  return ExecuteInternal(text, nullptr, &odbc, recordset);
}

// The connection's default member. Nothing comes back through its arguments.
HRESULT ConnectionObject::invoke_value(ConnectionObject& self, Call& call) {
  if (!call.has(DISPATCH_METHOD)) return DISP_E_MEMBERNOTFOUND;
  static constexpr Shape kExecute = {1, std::numeric_limits<UINT>::max(), 0,
                                     true, E_INVALIDARG};
  const HRESULT admitted = admit(kExecute, call);
  if (FAILED(admitted)) return admitted;
  const auto held = InterfacePtr<ConnectionObject>::share(&self);
  const auto text = static_cast<_bstr_t>(call.arguments(0));
  // Whatever reading the text may have left behind.
  clear_db_error();
  DbParameterList parameters;
  const HRESULT built = parameters_of_arguments(call.arguments, &parameters);
  if (built == DISP_E_TYPEMISMATCH) return built;
  if (FAILED(built)) return call.raise(built);
  InterfacePtr<RecordsetObject> recordset;
  const HRESULT result =
      self.ExecuteWithParameters(text.m_s, parameters, &recordset);
  return FAILED(result) ? call.raise(result)
                        : give_recordset(call, std::move(recordset));
}

// ---------------------------------------------------------------------------
// Command
// ---------------------------------------------------------------------------

// The ODBC escape that calls the procedure `text`, with a marker for each
// parameter.
HRESULT build_procedure_call(const std::wstring& text,
                             const std::vector<ZirdbOdbcParameter>& parameters,
                             std::wstring* call) {
  if (text.empty()) return E_INVALIDARG;
  const auto is_return_value = [](const ZirdbOdbcParameter& parameter) {
    return parameter.direction == ZIRDB_AD_PARAM_RETURN_VALUE;
  };
  const bool returns =
      !parameters.empty() && is_return_value(parameters.front());
  const auto arguments = parameters.begin() + (returns ? 1 : 0);
  if (std::any_of(arguments, parameters.end(), is_return_value)) {
    return fail(kParameterLayout, kCommandSource);
  }
  *call = returns ? L"{? = CALL " : L"{CALL ";
  *call += text;
  *call += L'(';
  for (auto each = arguments; each != parameters.end(); ++each) {
    *call += each == arguments ? L"?" : L", ?";
  }
  *call += L")}";
  return S_OK;
}

Members<CommandObject> CommandObject::members() {
  using Self = CommandObject;
  // Script engines may read Execute like a property.
  static constexpr Shape kExecuteCommand = {
      0, 3, DISPATCH_METHOD | DISPATCH_PROPERTYGET, true, E_INVALIDARG};
  static constexpr Shape kCreateParameter = {0, 5, DISPATCH_METHOD, true,
                                             E_INVALIDARG};
  static constexpr Member<Self> kMembers[] = {
      {L"ActiveConnection", DISPID_ZIRDB_COMMAND_ACTIVECONNECTION, kGet,
       Get<&Self::get_ActiveConnection>::answer, invoke_put_active_connection},
      {L"CommandText", DISPID_ZIRDB_COMMAND_COMMANDTEXT, kGet,
       Get<&Self::get_CommandText>::answer,
       Put<&Self::put_CommandText>::answer},
      {L"Execute", DISPID_ZIRDB_COMMAND_EXECUTE, kExecuteCommand,
       invoke_execute},
      {L"CreateParameter", DISPID_ZIRDB_COMMAND_CREATEPARAMETER,
       kCreateParameter, invoke_create_parameter},
      {L"Parameters", DISPID_ZIRDB_COMMAND_PARAMETERS, kGet,
       invoke_get_parameters},
      {L"CommandType", DISPID_ZIRDB_COMMAND_COMMANDTYPE, kGet,
       Get<&Self::get_CommandType>::answer,
       Put<&Self::put_CommandType>::answer},
  };
  return members_of(kMembers);
}

HRESULT CommandObject::get_ActiveConnection(IDispatch** connection) {
  return guarded([&] {
    if (connection == nullptr) return E_INVALIDARG;
    *connection = nullptr;
    *connection =
        InterfacePtr<IDispatch>::share(active_connection_dispatch_.get())
            .detach();
    return S_OK;
  });
}

HRESULT CommandObject::putref_ActiveConnection(IDispatch* connection) {
  return guarded([&] {
    // Asking an object, and letting one go, may let this one go.
    const auto held = InterfacePtr<CommandObject>::share(this);
    auto dispatch = InterfacePtr<IDispatch>::share(connection);
    auto asked = dispatch.query<IZIRDBConnection>(IID_IZIRDBConnection);
    if (dispatch && !asked) return fail(kNoConnection, kCommandSource);
    set_connection(std::move(asked), std::move(dispatch));
    return S_OK;
  });
}

// The old references go last.
void CommandObject::set_connection(InterfacePtr<IZIRDBConnection> connection,
                                   InterfacePtr<IDispatch> dispatch) {
  std::swap(active_connection_, connection);
  std::swap(active_connection_dispatch_, dispatch);
}

// The connection that a value stands for; none for one that stands for nothing.
// DISP_E_TYPEMISMATCH.
HRESULT resolve_connection_interfaces(
    const VARIANT* value, InterfacePtr<IZIRDBConnection>* connection,
    InterfacePtr<IDispatch>* dispatch) {
  value = unwrapped(value);
  if (value == nullptr) return DISP_E_TYPEMISMATCH;
  InterfacePtr<IUnknown> object;
  switch (value->vt) {
    case VT_EMPTY:
    case VT_NULL:
      return S_OK;
    case VT_DISPATCH:
      object = InterfacePtr<IUnknown>::share(value->pdispVal);
      break;
    case VT_UNKNOWN:
      object = InterfacePtr<IUnknown>::share(value->punkVal);
      break;
    default:
      return DISP_E_TYPEMISMATCH;
  }
  if (!object) return S_OK;
  *connection = object.query<IZIRDBConnection>(IID_IZIRDBConnection);
  if (!*connection) return DISP_E_TYPEMISMATCH;
  *dispatch = object.query<IDispatch>(IID_IDispatch);
  return *dispatch ? S_OK : DISP_E_TYPEMISMATCH;
}

HRESULT CommandObject::invoke_put_active_connection(CommandObject& self,
                                                    Call& call) {
  const auto held = InterfacePtr<CommandObject>::share(&self);
  InterfacePtr<IZIRDBConnection> connection;
  InterfacePtr<IDispatch> dispatch;
  const HRESULT result = resolve_connection_interfaces(call.arguments.raw(0),
                                                       &connection, &dispatch);
  if (FAILED(result)) return result;
  self.set_connection(std::move(connection), std::move(dispatch));
  return S_OK;
}

HRESULT CommandObject::get_CommandText(BSTR* text) {
  return guarded([&] { return store(command_text_, text); });
}

HRESULT CommandObject::put_CommandText(BSTR text) {
  return guarded([&] {
    command_text_ = wstring_from_bstr(text);
    return S_OK;
  });
}

HRESULT CommandObject::get_CommandType(long* type) {
  return guarded([&] { return store(command_type_, type); });
}

HRESULT CommandObject::put_CommandType(long type) {
  return guarded([&] {
    switch (type) {
      case ZIRDB_AD_CMD_UNSPECIFIED:
      case ZIRDB_AD_CMD_TEXT:
      case ZIRDB_AD_CMD_STORED_PROC:
      case ZIRDB_AD_CMD_UNKNOWN:
        command_type_ = type;
        return S_OK;
      default:
        return E_INVALIDARG;
    }
  });
}

HRESULT CommandObject::CreateParameter(BSTR name, long type, long direction,
                                       long size, VARIANT value,
                                       IZIRDBParameter** parameter) {
  return guarded([&] {
    if (parameter == nullptr) return E_INVALIDARG;
    *parameter = nullptr;
    InterfacePtr<ParameterObject> made;
    const HRESULT result =
        create_parameter(name, type, direction, size, value, &made);
    *parameter = made.detach();
    return result;
  });
}

HRESULT CommandObject::create_parameter(
    BSTR name, long type, long direction, long size, const VARIANT& value,
    InterfacePtr<ParameterObject>* parameter) {
  auto record = std::make_shared<DbParameter>();
  record->name = wstring_from_bstr(name);
  record->type = type;
  record->direction = direction;
  record->size = size;
  // Deliberate: scripts pass Null where there is nothing to pass yet.
  if (!is_output(direction) || value.vt != VT_NULL) {
    const HRESULT copied = copy_variant(value, &record->value);
    if (FAILED(copied)) return copied;
  }
  *parameter = make<ParameterObject>(std::move(record));
  return S_OK;
}

// Omitted arguments are an empty name, 0 and Empty.
HRESULT CommandObject::invoke_create_parameter(CommandObject& self,
                                               Call& call) {
  // Reading an argument may run a script.
  const auto held = InterfacePtr<CommandObject>::share(&self);
  _dispparams_wrapper_t& arguments = call.arguments;
  const int count = static_cast<int>(arguments.count());
  _bstr_t name;
  if (count > 0) name = static_cast<_bstr_t>(arguments(0));
  long numbers[3] = {};
  for (int i = 1; i < std::min(count, 4); ++i) {
    numbers[i - 1] = static_cast<long>(static_cast<long long>(arguments(i)));
  }
  InterfacePtr<ParameterObject> parameter;
  const HRESULT result = self.create_parameter(
      name.m_s, numbers[0], numbers[1], numbers[2],
      count > 4 ? stored_value(arguments, 4) : VARIANT{}, &parameter);
  return FAILED(result) ? call.raise(result) : call.give(std::move(parameter));
}

HRESULT CommandObject::get_Parameters(IZIRDBParameters** parameters) {
  return guarded([&] {
    if (parameters == nullptr) return E_INVALIDARG;
    *parameters = nullptr;
    *parameters = make<ParametersObject>(parameters_).detach();
    return S_OK;
  });
}

HRESULT CommandObject::invoke_get_parameters(CommandObject& self, Call& call) {
  return call.give(make<ParametersObject>(self.parameters_));
}

HRESULT CommandObject::Execute(VARIANT* rows_affected, long options,
                               IZIRDBRecordset** recordset) {
  return guarded([&] {
    if (recordset == nullptr) return E_INVALIDARG;
    *recordset = nullptr;
    InterfacePtr<IZIRDBRecordset> made;
    const HRESULT result = ExecuteWithParameters(rows_affected, options,
                                                 *parameters_, nullptr, &made);
    *recordset = made.detach();
    return result;
  });
}

// The statement that carries out a command's text. Deliberate: a text that
// calls a procedure takes no parameters, and no other text takes outputs;
// programs expect these refusals, and set the command's type to have calls
// built.
HRESULT prepare_statement(const std::wstring& text, std::int64_t type,
                          bool from_array,
                          const std::vector<ZirdbOdbcParameter>& parameters,
                          std::wstring* sql) {
  if (type == ZIRDB_AD_CMD_STORED_PROC) {
    if (!parameters.empty() && is_system_procedure(text)) {
      return fail(kTooManyArguments, kCommandSource);
    }
    return build_procedure_call(text, parameters, sql);
  }
  *sql = text;
  if (parameters.empty()) return S_OK;
  if (from_array && type == ZIRDB_AD_CMD_UNKNOWN && is_call_escape(text)) {
    return S_OK;
  }
  if (command_looks_like_simple_stored_proc_text(text)) {
    return fail(from_array ? kParameterDefinition : kErrorsOccurred,
                kCommandSource);
  }
  const bool has_output =
      std::any_of(parameters.begin(), parameters.end(),
                  [](const auto& each) { return is_output(each.direction); });
  if (has_output && !command_suppresses_parameter_writeback(text)) {
    return fail(kOutputInText, kCommandSource);
  }
  return S_OK;
}

// On a connection that is not this library's. Its errors are what it left
// behind.
HRESULT execute_on_foreign(IZIRDBConnection* connection,
                           const std::wstring& sql, VARIANT* rows_affected,
                           long options,
                           InterfacePtr<IZIRDBRecordset>* recordset) {
  const _bstr_t text(bstr_from_wstring(sql), false);
  clear_db_error();
  IZIRDBRecordset* made = nullptr;
  const HRESULT result =
      connection->Execute(text.m_s, rows_affected, options, &made);
  // A failure may leave anything there.
  if (FAILED(result)) return result;
  *recordset = InterfacePtr<IZIRDBRecordset>::adopt(made);
  return S_OK;
}

// Options have a meaning to foreign connections only.
HRESULT execute_on(IZIRDBConnection* connection, const std::wstring& sql,
                   VARIANT* rows_affected, long options,
                   std::vector<ZirdbOdbcParameter>& parameters,
                   InterfacePtr<IZIRDBRecordset>* recordset) {
  HRESULT result = S_OK;
  auto* const known = own<ConnectionObject>(connection);
  if (known != nullptr) {
    InterfacePtr<RecordsetObject> made;
    result =
        known->ExecuteInternal(sql.c_str(), rows_affected, &parameters, &made);
    *recordset = InterfacePtr<IZIRDBRecordset>::adopt(made.detach());
  } else if (!parameters.empty()) {
    result = fail(kForeignConnection, kCommandSource);
  } else {
    result =
        execute_on_foreign(connection, sql, rows_affected, options, recordset);
  }
  // A lack of memory has no text, but it was the connection's all the same.
  if (known != nullptr && result == E_OUTOFMEMORY) {
    without_bad_alloc(
        [&] { return set_db_error(result, kConnectionSource, nullptr); });
  }
  // To a command, a closed connection is none.
  return result == kClosed.code ? fail(kNoConnection, kCommandSource) : result;
}

// What came back from a statement that ran goes to its parameters, and from
// there to the script's array, if they were made from one and it is still
// there.
HRESULT take_values_back(const DbParameterList& parameters,
                         const std::vector<ZirdbOdbcParameter>& odbc,
                         bool suppressed, const VARIANT* array) {
  if (suppressed) {
    clear_output_parameters(parameters);
  } else {
    const HRESULT written = write_back_parameter_values(parameters, odbc);
    if (FAILED(written)) {
      return set_db_error(written, kCommandSource, kResultText);
    }
  }
  SAFEARRAY* const elements = array_of_values(array);
  if (elements == nullptr) return S_OK;
  const HRESULT written = write_back_parameter_array(elements, parameters);
  return FAILED(written)
             ? set_db_error(written, kCommandSource, kArrayResultText)
             : S_OK;
}

HRESULT CommandObject::ExecuteWithParameters(
    VARIANT* rows_affected, long options, const DbParameterList& parameters,
    const VARIANT* array, InterfacePtr<IZIRDBRecordset>* recordset) {
  // Values and connections may run a script, which may change this command or
  // let it go. What is executed is what it was before.
  const InterfacePtr<IZIRDBConnection> connection = active_connection_;
  const std::wstring text = command_text_;
  const std::int64_t type = command_type_;
  DbParameterList sent;
  std::copy_if(parameters.begin(), parameters.end(), std::back_inserter(sent),
               [](const auto& parameter) { return parameter != nullptr; });
  if (!connection) return fail(kNoConnection, kCommandSource);
  if (text.empty()) return fail(kNoCommandText, kCommandSource);

  std::vector<ZirdbOdbcParameter> odbc;
  HRESULT result = translate_parameters(sent, kCommandSource, &odbc);
  if (FAILED(result)) return result;
  std::wstring sql;
  result = prepare_statement(text, type, array != nullptr, odbc, &sql);
  if (FAILED(result)) return result;
  // Made now: a statement that has run must not fail for want of it.
  auto without_columns =
      make<RecordsetObject>(RecordsetObject::WithoutColumns{});
  InterfacePtr<IZIRDBRecordset> made;
  result =
      execute_on(connection.get(), sql, rows_affected, options, odbc, &made);
  if (FAILED(result)) return result;
  // Without parameters, as on a connection that is not this library's, nothing
  // is taken back.
  result = take_values_back(sent, odbc,
                            type == ZIRDB_AD_CMD_STORED_PROC ||
                                command_suppresses_parameter_writeback(text),
                            array);
  if (FAILED(result)) return result;
  if (!made) {
    made = InterfacePtr<IZIRDBRecordset>::adopt(without_columns.detach());
  }
  *recordset = std::move(made);
  return S_OK;
}

HRESULT CommandObject::ExecuteDispatchParameterArray(
    VARIANT* rows_affected, long options, const VARIANT* array,
    InterfacePtr<IZIRDBRecordset>* recordset) {
  DbParameterList parameters;
  const HRESULT built = build_dispatch_execute_parameters(array, &parameters);
  if (FAILED(built)) return set_db_error(built, kCommandSource, kArrayText);
  return ExecuteWithParameters(rows_affected, options, parameters, array,
                               recordset);
}

// What a script passes to a command's Execute: an array of values at any
// position and, of the rest, RecordsAffected and then Options. A missing
// Options leaves its place to the next argument, because other programs have
// the array between the two; what comes behind is not looked at.
struct ExecuteArguments {
  const VARIANT* array = nullptr;
  VARIANT* rows_affected = nullptr;
  long options = 0;
};

ExecuteArguments execute_arguments(_dispparams_wrapper_t& arguments) {
  ExecuteArguments found;
  bool has_options = false;
  for (int i = 0; i < static_cast<int>(arguments.count()); ++i) {
    VARIANT* const argument = arguments.raw(i);
    if (array_of_values(argument) != nullptr) {
      if (found.array != nullptr) throw _com_error(DISP_E_TYPEMISMATCH);
      found.array = argument;
    } else if (found.rows_affected == nullptr) {
      found.rows_affected = argument;
    } else if (!has_options) {
      const auto* const given = static_cast<VARIANT*>(arguments(i));
      if (given != nullptr && given->vt == VT_ERROR) continue;
      found.options = static_cast<long>(static_cast<long long>(arguments(i)));
      has_options = true;
    }
  }
  return found;
}

HRESULT CommandObject::invoke_execute(CommandObject& self, Call& call) {
  // What a value or a connection does may let this go.
  const auto held = InterfacePtr<CommandObject>::share(&self);
  const ExecuteArguments given = execute_arguments(call.arguments);
  InterfacePtr<IZIRDBRecordset> recordset;
  const HRESULT result =
      given.array != nullptr
          ? self.ExecuteDispatchParameterArray(
                given.rows_affected, given.options, given.array, &recordset)
          : self.ExecuteWithParameters(given.rows_affected, given.options,
                                       *self.parameters_, nullptr, &recordset);
  if (FAILED(result)) return call.raise(result);
  auto dispatch = recordset.query<IDispatch>(IID_IDispatch);
  if (dispatch) return call.give(std::move(dispatch));
  // Whatever a foreign connection may have left behind.
  clear_db_error();
  return call.raise(E_NOINTERFACE);
}

// ---------------------------------------------------------------------------
// The class factory
// ---------------------------------------------------------------------------

// What a factory makes; the order is that of kClasses.
enum class ZIRDBClassKind : std::uint32_t {
  Connection = 0,
  Command = 1,
  Recordset = 2
};

struct CreatableClass {
  const CLSID& clsid;
  const wchar_t* name;
  ZIRDBClassKind kind;
};
const CreatableClass kClasses[] = {
    {CLSID_ZIRDBConnection, L"Connection", ZIRDBClassKind::Connection},
    {CLSID_ZIRDBCommand, L"Command", ZIRDBClassKind::Command},
    {CLSID_ZIRDBRecordset, L"Recordset", ZIRDBClassKind::Recordset},
};

// Deliberate: factories do not count as objects, so that one kept by a host
// does not keep the library.
class ZIRDBClassFactory final : public IClassFactory {
 public:
  explicit ZIRDBClassFactory(ZIRDBClassKind kind) noexcept : kind_(kind) {}
  ZIRDBClassFactory(const ZIRDBClassFactory&) = delete;
  ZIRDBClassFactory& operator=(const ZIRDBClassFactory&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
    *object = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }

  std::uint32_t AddRef() override { return ++ref_count_; }

  std::uint32_t Release() override {
    const std::uint32_t left = --ref_count_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
    return guarded([&] {
      if (outer != nullptr) return CLASS_E_NOAGGREGATION;
      if (object == nullptr) return E_INVALIDARG;
      *object = nullptr;
      switch (kind_) {
        case ZIRDBClassKind::Connection:
          return make<ConnectionObject>()->QueryInterface(riid, object);
        case ZIRDBClassKind::Command:
          return make<CommandObject>(std::make_shared<DbParameterList>())
              ->QueryInterface(riid, object);
        case ZIRDBClassKind::Recordset:
          return make<RecordsetObject>()->QueryInterface(riid, object);
      }
      return E_UNEXPECTED;
    });
  }

  // Deliberate: an unlock without a lock is ignored.
  HRESULT LockServer(BOOL lock) override {
    if (lock != 0) {
      ++g_lock_count;
      return S_OK;
    }
    std::uint32_t count = g_lock_count.load();
    while (count != 0 &&
           !g_lock_count.compare_exchange_weak(count, count - 1)) {
    }
    return S_OK;
  }

  virtual ~ZIRDBClassFactory() = default;

 private:
  std::atomic<std::uint32_t> ref_count_{1};
  ZIRDBClassKind kind_;
};

const CreatableClass* find_class(REFCLSID clsid, const wchar_t* name) {
  for (const CreatableClass& each : kClasses) {
    if (clsid == CLSID_NULL
            ? name != nullptr && wcscasecmp(each.name, name) == 0
            : clsid == each.clsid) {
      return &each;
    }
  }
  return nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points
// ---------------------------------------------------------------------------

HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** factory) {
  return guarded([&] {
    if (factory == nullptr) return E_INVALIDARG;
    // With CLSID_NULL the host passes the class's name in here.
    const auto* const name = static_cast<const wchar_t*>(*factory);
    *factory = nullptr;
    const CreatableClass* const found = find_class(clsid, name);
    if (found == nullptr) return CLASS_E_CLASSNOTAVAILABLE;
    return make<ZIRDBClassFactory>(found->kind)->QueryInterface(riid, factory);
  });
}

HRESULT DllCanUnloadNow() {
  return g_object_count.load() != 0 || g_lock_count.load() != 0 ? S_FALSE
                                                                : S_OK;
}
