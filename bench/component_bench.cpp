// SPDX-License-Identifier: MIT
//
// component_bench: what a script pays for reading a result through the
// component's objects, and that it pays no more for a wide row, a long value or
// a late column than for others.
//
// Before anything is timed, every way does its work once and what it reads is
// compared with what was stored: a fast wrong answer ends the program. What
// counts is the ratio or the difference of two ways in one run; repetitions of
// all ways are shuffled, so that a busy machine disturbs them alike. Time is
// the thread's CPU time.
//
// Sections: data; ways and comparisons; accesses; values; cells; the cursor;
// release; the report; the command line.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "bench_run.h"
#include "support/component_workbench.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using bench_run::add_way;
using bench_run::hidden;
using bench_run::median;
using bench_run::require;
using bench_run::touch;
using workbench::Cell;

// ---------------------------------------------------------------------------
// Data
// ---------------------------------------------------------------------------

/// All names have the same length, so that only their position differs.
std::string narrow_name(std::size_t column) {
  const std::string digits = std::to_string(column);
  return "column_" + std::string(3 - digits.size(), '0') + digits;
}

std::wstring wide_name(std::size_t column) {
  const std::string name = narrow_name(column);
  return {name.begin(), name.end()};
}

std::vector<std::string> names(std::size_t columns) {
  std::vector<std::string> all;
  for (std::size_t i = 0; i < columns; ++i) all.push_back(narrow_name(i));
  return all;
}

/// One value's integer; no two in a result are the same.
std::int64_t number_at(std::size_t row, std::size_t column) {
  return static_cast<std::int64_t>(row * 1000 + column);
}
Cell number_cell(std::size_t row, std::size_t column) {
  return number_at(row, column);
}

/// A row as databases have them: numbers, texts, bytes and nothing.
Cell mixed_cell(std::size_t row, std::size_t column) {
  switch (column % 8) {
    case 0:
    case 1:
      return number_at(row, column);
    case 2:
      return static_cast<double>(row) / 4;
    case 3:
      return std::string("twelve_chars");
    case 4:
      return std::string(
          "about sixty bytes of text, some of them outside of "
          "\xC3\xA9\xC3\xA8");
    case 5:
      if (row % 2 == 0) return workbench::Null();
      return number_at(row, column);
    case 6:
      return std::string("2024-01-31 18:00:00");
    default:
      return workbench::Blob(32, static_cast<unsigned char>(row));
  }
}

/// A recordset of a few rows whose values are texts.
struct Shape {
  std::size_t columns;
  std::size_t bytes;
  const char* name;
};

constexpr Shape kSmallest = {1, 10, "1x10"};
constexpr Shape kWidest = {200, 10, "200x10"};
constexpr Shape kLargest = {200, 10000, "200x10k"};
constexpr Shape kShapes[] = {kSmallest,
                             {10, 10, "10x10"},
                             {100, 10, "100x10"},
                             kWidest,
                             {1, 10000, "1x10k"},
                             {10, 10000, "10x10k"},
                             {100, 10000, "100x10k"},
                             kLargest};

/// Says which column it stands in.
std::string text_in(std::size_t column, std::size_t bytes) {
  std::string text = narrow_name(column);
  text.resize(bytes, '.');
  return text;
}

template <class Interface, class Call>
InterfacePtr<Interface> received(const std::string& what, Call call) {
  Interface* object = nullptr;
  const HRESULT result = call(&object);
  require(result == S_OK && object != nullptr, what + " failed");
  return InterfacePtr<Interface>::adopt(object);
}

InterfacePtr<IZIRDBFields> fields_of(IZIRDBRecordset* recordset) {
  return received<IZIRDBFields>("get_Fields", [&](IZIRDBFields** out) {
    return recordset->get_Fields(out);
  });
}
InterfacePtr<IZIRDBField> item(IZIRDBFields* fields, const VARIANT& index) {
  return received<IZIRDBField>(
      "Item", [&](IZIRDBField** out) { return fields->Item(index, out); });
}
template <class Interface>
InterfacePtr<IDispatch> late_bound(Interface* object) {
  return InterfacePtr<Interface>::share(object).template query<IDispatch>(
      IID_IDispatch);
}

InterfacePtr<IZIRDBRecordset> recordset_of(const Shape& shape) {
  workbench::Row row;
  for (std::size_t i = 0; i < shape.columns; ++i) {
    row.emplace_back(text_in(i, shape.bytes));
  }
  return workbench::recordset(names(shape.columns), {row, row});
}

void require_text(IZIRDBField* field, const std::string& expected,
                  const std::string& what) {
  _variant_t value;
  require(field->get_Value(&value) == S_OK && value.vt == VT_BSTR &&
              std::wstring(value.bstrVal, SysStringLen(value.bstrVal)) ==
                  std::wstring(expected.begin(), expected.end()),
          what + ": a value differs");
}

// ---------------------------------------------------------------------------
// Ways and comparisons
// ---------------------------------------------------------------------------

/// How two ways are compared.
enum class Measure {
  kRatio,  ///< of their times: at most
  kExtra   ///< nanoseconds more: at most
};

struct Comparison {
  std::string way;
  std::string against;
  Measure measure;
  double target;  ///< 0: none set
};

struct Bench {
  bool quick = false;
  std::vector<Comparison> comparisons{};
  /// What the time of one iteration is divided by, where that is not one item.
  std::map<std::string, double> items{};
};

/// Registers `act`, which is done over and over.
template <class Act>
void add_repeated(const Bench& bench, const std::string& name, Act act) {
  constexpr std::size_t kTimes = 1000;
  add_way(bench.quick, name, kTimes, [act]() mutable {
    for (std::size_t i = 0; i < kTimes; ++i) act();
  });
}

void compare(Bench& bench, const std::string& way, const std::string& against,
             Measure measure, double target) {
  bench.comparisons.push_back({way, against, measure, target});
}

/// What must not grow may not differ by more.
constexpr double kSame = 1.1;

// ---------------------------------------------------------------------------
// Accesses: a Fields object, a field of it
// ---------------------------------------------------------------------------

void add_fields(Bench& bench, const Shape& shape,
                const InterfacePtr<IZIRDBRecordset>& recordset) {
  long count = 0;
  require(fields_of(recordset.get())->get_Count(&count) == S_OK &&
              static_cast<std::size_t>(count) == shape.columns,
          "a Fields object does not know its columns");
  const std::string name = std::string("fields/") + shape.name;
  add_repeated(bench, name, [recordset] {
    IZIRDBFields* fields = nullptr;
    recordset->get_Fields(&fields);
    touch(fields);
    fields->Release();
  });
  if (shape.name != kSmallest.name) {
    compare(bench, name, "fields/1x10", Measure::kRatio, kSame);
  }
}

/// The way "item_KIND/SHAPE/PLACE", checked.
void add_item(Bench& bench, const Shape& shape, const std::string& name,
              const InterfacePtr<IZIRDBFields>& fields, const _variant_t& index,
              std::size_t column) {
  require_text(item(fields.get(), index).get(), text_in(column, shape.bytes),
               name);
  add_repeated(bench, name, [fields, index] {
    IZIRDBField* field = nullptr;
    fields->Item(index, &field);
    touch(field);
    field->Release();
  });
}

void add_items(Bench& bench, const Shape& shape,
               const InterfacePtr<IZIRDBRecordset>& recordset) {
  const auto fields = fields_of(recordset.get());
  const std::size_t last = shape.columns - 1;
  for (const bool by_name : {false, true}) {
    const std::string kind = by_name ? "item_name/" : "item_number/";
    const std::string first_way = kind + shape.name + "/first";
    const auto index = [&](std::size_t column) {
      return by_name ? _variant_t(wide_name(column).c_str())
                     : _variant_t(column);
    };
    add_item(bench, shape, first_way, fields, index(0), 0);
    if (shape.name != kSmallest.name) {
      compare(bench, first_way, kind + "1x10/first", Measure::kRatio, kSame);
    }
    if (last == 0) continue;
    const std::string last_way = kind + shape.name + "/last";
    add_item(bench, shape, last_way, fields, index(last), last);
    compare(bench, last_way, first_way, Measure::kRatio, kSame);
  }
}

void add_accesses(Bench& bench) {
  for (const Shape& shape : kShapes) {
    const auto recordset = recordset_of(shape);
    add_fields(bench, shape, recordset);
    add_items(bench, shape, recordset);
  }
  compare(bench, "item_name/200x10/last", "item_number/200x10/last",
          Measure::kExtra, 0);
}

// ---------------------------------------------------------------------------
// Values: the one that is asked for
// ---------------------------------------------------------------------------

/// The plainest way to the same string: measured, allocated, decoded.
BSTR decoded(const char* utf8) {
  const std::size_t size = utf8_utf32(nullptr, 0, utf8);
  auto* const text = SysAllocStringLen(nullptr, static_cast<UINT>(size - 1));
  utf8_utf32(text, size, utf8);
  return text;
}

void add_text_value(Bench& bench, const Shape& shape) {
  const auto recordset = recordset_of(shape);
  const auto fields = fields_of(recordset.get());
  const std::size_t last = shape.columns - 1;
  const auto field = item(fields.get(), _variant_t(last));
  const std::string text = text_in(last, shape.bytes);
  const std::string name = std::string("value/") + shape.name;
  require_text(field.get(), text, name);
  add_repeated(bench, name, [field] {
    VARIANT value{};
    field->get_Value(&value);
    touch(&value);
    VariantClear(&value);
  });
  add_repeated(bench, name + "/decoded", [text] {
    auto* const copy = decoded(hidden(text.c_str()));
    touch(copy);
    SysFreeString(copy);
  });
  compare(bench, name, name + "/decoded", Measure::kRatio,
          shape.bytes > 1000 ? 1.25 : 0);
}

void add_values(Bench& bench) {
  for (const Shape& shape : kShapes) {
    if (shape.columns == 1 || shape.columns == 200) {
      add_text_value(bench, shape);
    }
  }
  compare(bench, "value/200x10", "value/1x10", Measure::kRatio, kSame);
  compare(bench, "value/200x10k", "value/1x10k", Measure::kRatio, kSame);
}

// ---------------------------------------------------------------------------
// Cells: every one of a result, the way a script reads it
// ---------------------------------------------------------------------------

/// Member ids, looked up once as script engines do.
DISPID id_of(IDispatch* object, const wchar_t* name) {
  std::wstring copy = name;
  wchar_t* names[] = {copy.data()};
  DISPID id = DISPID_UNKNOWN;
  require(object->GetIDsOfNames(IID_NULL, names, 1, 0, &id) == S_OK,
          "a member is not there");
  return id;
}

struct Ids {
  explicit Ids(IZIRDBRecordset* recordset) {
    const auto rows = late_bound(recordset);
    const auto all = fields_of(recordset);
    const auto one = item(all.get(), _variant_t(0));
    fields = id_of(rows.get(), L"Fields");
    move_first = id_of(rows.get(), L"MoveFirst");
    move_next = id_of(rows.get(), L"MoveNext");
    at_end = id_of(rows.get(), L"EOF");
    item_of = id_of(late_bound(all.get()).get(), L"Item");
    value = id_of(late_bound(one.get()).get(), L"Value");
  }
  DISPID fields;
  DISPID move_first;
  DISPID move_next;
  DISPID at_end;
  DISPID item_of;
  DISPID value;
};

/// A late-bound call; what it stores is the caller's.
HRESULT invoke(IDispatch* object, DISPID member, WORD flags, VARIANT* result,
               const VARIANT* argument = nullptr) {
  VARIANT given{};
  DISPPARAMS arguments{};
  if (argument != nullptr) {
    given = *argument;
    arguments.rgvarg = &given;
    arguments.cArgs = 1;
  }
  EXCEPINFO exception{};
  UINT bad_argument = 0;
  return object->Invoke(member, IID_NULL, 0, flags, &arguments, result,
                        &exception, &bad_argument);
}

/// recordset.Fields.Item(name).Value, each of them a call.
struct ByThreeCalls {
  static void read(IDispatch* rows, const Ids& ids, const VARIANT& name,
                   VARIANT* value) {
    VARIANT fields{};
    VARIANT field{};
    invoke(rows, ids.fields, DISPATCH_PROPERTYGET, &fields);
    invoke(fields.pdispVal, ids.item_of, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
           &field, &name);
    invoke(field.pdispVal, ids.value, DISPATCH_PROPERTYGET, value);
    field.pdispVal->Release();
    fields.pdispVal->Release();
  }
};

/// recordset(name).Value.
struct ByTwoCalls {
  static void read(IDispatch* rows, const Ids& ids, const VARIANT& name,
                   VARIANT* value) {
    VARIANT field{};
    invoke(rows, DISPID_VALUE, DISPATCH_METHOD | DISPATCH_PROPERTYGET, &field,
           &name);
    invoke(field.pdispVal, ids.value, DISPATCH_PROPERTYGET, value);
    field.pdispVal->Release();
  }
};

/// What every way does with every value: numbers and lengths are added up.
void add_up(VARIANT* value, std::uint64_t* sum) {
  switch (static_cast<int>(value->vt)) {
    case VT_I8:
      *sum += value->ullVal;
      break;
    case VT_BSTR:
      *sum += SysStringLen(value->bstrVal);
      break;
    case VT_ARRAY | VT_UI1:
      *sum += value->parray->rgsabound[0].cElements;
      break;
    default:
      break;
  }
  touch(value);
  VariantClear(value);
}

std::uint64_t weight(const Cell& cell) {
  if (const auto* const number = std::get_if<std::int64_t>(&cell)) {
    return static_cast<std::uint64_t>(*number);
  }
  if (const auto* const text = std::get_if<std::string>(&cell)) {
    const auto continues = [](char c) { return (c & 0xC0) == 0x80; };
    return text->size() - static_cast<std::size_t>(std::count_if(
                              text->begin(), text->end(), continues));
  }
  const auto* const bytes = std::get_if<workbench::Blob>(&cell);
  return bytes != nullptr ? bytes->size() : 0;
}

struct Table {
  std::size_t columns;
  std::size_t rows;
  Cell (*cell)(std::size_t row, std::size_t column);

  std::size_t count() const { return columns * rows; }
  /// What add_up must come to.
  std::uint64_t sum() const {
    std::uint64_t all = 0;
    for (std::size_t row = 0; row < rows; ++row) {
      for (std::size_t column = 0; column < columns; ++column) {
        all += weight(cell(row, column));
      }
    }
    return all;
  }
  InterfacePtr<IZIRDBRecordset> recordset() const {
    return workbench::recordset(names(columns), rows, cell);
  }
};

/// A way whose pass adds up all values of a table; the sum is checked each
/// time.
template <class Pass>
void add_walk(const Bench& bench, const std::string& name, const Table& table,
              Pass pass) {
  const std::uint64_t expected = table.sum();
  const auto checked = [name, expected, pass] {
    require(pass() == expected, name + ": what was read differs");
  };
  checked();
  add_way(bench.quick, name, table.count(), checked);
}

std::vector<_variant_t> keys(std::size_t columns) {
  std::vector<_variant_t> all;
  for (std::size_t i = 0; i < columns; ++i) {
    all.emplace_back(wide_name(i).c_str());
  }
  return all;
}

template <class Way>
void add_late_walk(const Bench& bench, const std::string& name,
                   const Table& table) {
  const auto recordset = table.recordset();
  const Ids ids(recordset.get());
  const auto late = late_bound(recordset.get());
  add_walk(bench, name, table, [late, ids, names = keys(table.columns)] {
    std::uint64_t sum = 0;
    invoke(late.get(), ids.move_first, DISPATCH_METHOD, nullptr);
    for (;;) {
      VARIANT at_end{};
      invoke(late.get(), ids.at_end, DISPATCH_PROPERTYGET, &at_end);
      if (at_end.boolVal != VARIANT_FALSE) return sum;
      for (const _variant_t& one : names) {
        VARIANT value{};
        Way::read(late.get(), ids, one, &value);
        add_up(&value, &sum);
      }
      invoke(late.get(), ids.move_next, DISPATCH_METHOD, nullptr);
    }
  });
}

void add_vtable_walk(const Bench& bench, const std::string& name,
                     const Table& table) {
  const auto recordset = table.recordset();
  add_walk(bench, name, table, [recordset, names = keys(table.columns)] {
    std::uint64_t sum = 0;
    recordset->MoveFirst();
    for (;;) {
      VARIANT_BOOL at_end = VARIANT_FALSE;
      recordset->get_EOF(&at_end);
      if (at_end != VARIANT_FALSE) return sum;
      for (const _variant_t& one : names) {
        IZIRDBFields* fields = nullptr;
        IZIRDBField* field = nullptr;
        VARIANT value{};
        recordset->get_Fields(&fields);
        fields->Item(one, &field);
        field->get_Value(&value);
        field->Release();
        fields->Release();
        add_up(&value, &sum);
      }
      recordset->MoveNext();
    }
  });
}

/// A number of a table by one virtual call, as little as reading can cost.
struct Source {
  Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  virtual ~Source() = default;
  virtual HRESULT read(std::size_t cell, VARIANT* value) const = 0;
};

struct Numbers final : Source {
  explicit Numbers(const Table& table) {
    for (std::size_t row = 0; row < table.rows; ++row) {
      for (std::size_t column = 0; column < table.columns; ++column) {
        numbers.push_back(number_at(row, column));
      }
    }
  }
  HRESULT read(std::size_t cell, VARIANT* value) const override {
    value->vt = VT_I8;
    value->llVal = numbers[cell];
    return S_OK;
  }
  std::vector<std::int64_t> numbers;
};

/// Another one, so that the compiler cannot know which is called.
struct NoNumbers final : Source {
  HRESULT read(std::size_t /*cell*/, VARIANT* value) const override {
    value->vt = VT_EMPTY;
    return S_FALSE;
  }
};

void add_virtual_walk(const Bench& bench, const std::string& name,
                      const Table& table) {
  static const Numbers numbers(table);
  static const NoNumbers no_numbers;
  const Source* const sources[] = {&no_numbers, &numbers};
  const Source* const source = *hidden(&sources[1]);
  add_walk(bench, name, table, [source, count = table.count()] {
    std::uint64_t sum = 0;
    for (std::size_t cell = 0; cell < count; ++cell) {
      VARIANT value{};
      source->read(cell, &value);
      add_up(&value, &sum);
    }
    return sum;
  });
}

void add_cells(Bench& bench) {
  const std::size_t cells = bench.quick ? 640 : 64000;
  for (const std::size_t columns : {8U, 64U, 200U}) {
    const Table numbers = {columns, cells / columns, number_cell};
    const Table mixed = {columns, cells / columns, mixed_cell};
    const std::string suffix = "_" + std::to_string(columns);
    add_late_walk<ByThreeCalls>(bench, "cell/late" + suffix, numbers);
    add_late_walk<ByTwoCalls>(bench, "cell/late_short" + suffix, numbers);
    add_vtable_walk(bench, "cell/vtable" + suffix, numbers);
    add_late_walk<ByTwoCalls>(bench, "cell/late_short_mixed" + suffix, mixed);
    if (columns == 8) {
      add_virtual_walk(bench, "cell/virtual" + suffix, numbers);
      continue;
    }
    for (const char* const way : {"cell/late", "cell/late_short", "cell/vtable",
                                  "cell/late_short_mixed"}) {
      compare(bench, way + suffix, std::string(way) + "_8", Measure::kRatio,
              kSame);
    }
  }
  compare(bench, "cell/late_8", "cell/vtable_8", Measure::kExtra, 0);
  compare(bench, "cell/late_short_8", "cell/vtable_8", Measure::kExtra, 0);
  compare(bench, "cell/late_8", "cell/virtual_8", Measure::kExtra, 0);
  compare(bench, "cell/vtable_8", "cell/virtual_8", Measure::kExtra, 0);
}

// ---------------------------------------------------------------------------
// The cursor
// ---------------------------------------------------------------------------

/// Moves through all rows; ends where the recordset says that there is no more.
std::size_t rows_walked(IZIRDBRecordset* recordset) {
  std::size_t rows = 0;
  recordset->MoveFirst();
  for (VARIANT_BOOL at_end = VARIANT_FALSE; at_end == VARIANT_FALSE; ++rows) {
    require(recordset->MoveNext() == S_OK, "MoveNext failed");
    recordset->get_EOF(&at_end);
  }
  return rows;
}

void add_moves(Bench& bench) {
  const std::size_t rows = bench.quick ? 100 : 5000;
  for (const std::size_t columns : {1U, 200U}) {
    const Table table = {columns, rows, number_cell};
    const auto recordset = table.recordset();
    require(rows_walked(recordset.get()) == rows, "rows are missing");
    const std::string suffix = "/" + std::to_string(columns);
    add_way(bench.quick, "move_next" + suffix, rows, [recordset, rows] {
      recordset->MoveFirst();
      HRESULT all = S_OK;
      for (std::size_t i = 0; i < rows; ++i) all |= recordset->MoveNext();
      require(all == S_OK, "MoveNext failed");
    });
    const Ids ids(recordset.get());
    const auto late = late_bound(recordset.get());
    add_way(bench.quick, "move_next_late" + suffix, rows, [late, ids, rows] {
      invoke(late.get(), ids.move_first, DISPATCH_METHOD, nullptr);
      HRESULT all = S_OK;
      for (std::size_t i = 0; i < rows; ++i) {
        all |= invoke(late.get(), ids.move_next, DISPATCH_METHOD, nullptr);
      }
      require(all == S_OK, "MoveNext failed");
    });
  }
  compare(bench, "move_next/200", "move_next/1", Measure::kRatio, 0);
  compare(bench, "move_next/1", "cell/virtual_8", Measure::kExtra, 0);
  compare(bench, "move_next_late/1", "move_next/1", Measure::kExtra, 0);
}

// ---------------------------------------------------------------------------
// Release
// ---------------------------------------------------------------------------

double cpu_seconds() {
  std::timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) +
         static_cast<double>(time.tv_nsec) / 1e9;
}

enum class End { kRelease, kClose };

/// One iteration builds a recordset and times how it goes.
void add_release(Bench& bench, const std::string& name, std::size_t rows,
                 int iterations, End end) {
  const Table table = {8, rows, mixed_cell};
  const auto run = [table, end](benchmark::State& state) {
    while (state.KeepRunning()) {
      auto recordset = table.recordset();
      const double before = cpu_seconds();
      if (end == End::kClose) {
        recordset->Close();
      } else {
        recordset = {};
      }
      state.SetIterationTime(cpu_seconds() - before);
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseManualTime()
      ->Iterations(bench.quick ? 1 : iterations);
  bench.items[name] = static_cast<double>(rows);
}

void check_release(const Table& table) {
  auto recordset = table.recordset();
  require(rows_walked(recordset.get()) == table.rows, "rows are missing");
  require(workbench::objects_alive() == 1, "an object is left");
  require(recordset->Close() == S_OK, "Close failed");
  recordset = {};
  require(workbench::objects_alive() == 0, "a recordset is left");
}

void add_releases(Bench& bench) {
  check_release({8, 1000, mixed_cell});
  struct Size {
    const char* name;
    std::size_t rows;
    int iterations;
  };
  constexpr Size kSizes[] = {
      {"1e4", 10000, 20}, {"1e5", 100000, 4}, {"1e6", 1000000, 1}};
  for (const Size& size : kSizes) {
    const std::size_t rows = bench.quick ? size.rows / 100 : size.rows;
    add_release(bench, std::string("release/") + size.name, rows,
                size.iterations, End::kRelease);
    add_release(bench, std::string("close/") + size.name, rows, size.iterations,
                End::kClose);
  }
  // Freed pages go back to the system above some size, which costs more than
  // keeping them; what counts is that ten times the rows cost ten times.
  compare(bench, "release/1e5", "release/1e4", Measure::kRatio, 0);
  compare(bench, "release/1e6", "release/1e5", Measure::kRatio, 1.5);
  compare(bench, "close/1e6", "close/1e5", Measure::kRatio, 1.5);
}

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

/// Keeps the nanoseconds per item of every repetition, way by way in the order
/// in which they were registered: repetitions end in any order.
class Reporter : public benchmark::BenchmarkReporter {
 public:
  explicit Reporter(const Bench& bench) : bench_(bench) {}

  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string& name = run.run_name.function_name;
      const auto divided = bench_.items.find(name);
      const bool by_hand = divided != bench_.items.end();
      const double time = by_hand ? run.GetAdjustedRealTime() / divided->second
                                  : run.GetAdjustedCPUTime();
      order_[run.family_index] = name;
      times_[name].push_back(time);
    }
  }

  /// Empty for a way that the command line left out.
  const std::vector<double>& times(const std::string& name) {
    return times_[name];
  }

  void print() {
    std::printf("%-28s %10s%10s%10s\n", "way", "median", "min", "max");
    for (const auto& [family, name] : order_) {
      const std::vector<double>& all = times_[name];
      std::printf("%-28s %10.1f%10.1f%10.1f ns\n", name.c_str(), median(all),
                  *std::min_element(all.begin(), all.end()),
                  *std::max_element(all.begin(), all.end()));
    }
  }

 private:
  const Bench& bench_;
  std::map<std::int64_t, std::string> order_;
  std::map<std::string, std::vector<double>> times_;
};

void print_comparison(const Comparison& one, const std::vector<double>& way,
                      const std::vector<double>& against) {
  std::vector<double> figures;
  for (std::size_t i = 0; i < std::min(way.size(), against.size()); ++i) {
    figures.push_back(one.measure == Measure::kRatio ? way[i] / against[i]
                                                     : way[i] - against[i]);
  }
  if (figures.empty()) return;
  const double middle = median(figures);
  std::printf("%-26s %-24s %7.2f%8.2f%8.2f", one.way.c_str(),
              one.against.c_str(), middle,
              *std::min_element(figures.begin(), figures.end()),
              *std::max_element(figures.begin(), figures.end()));
  const char* const unit = one.measure == Measure::kRatio ? "times" : "ns more";
  if (one.target == 0) {
    std::printf("                  %s\n", unit);
    return;
  }
  std::printf("  <= %4.2f  %-7s %s\n", one.target,
              middle <= one.target ? "REACHED" : "MISSED", unit);
}

void print_comparisons(const Bench& bench, Reporter& reporter) {
  std::printf("\n%-26s %-24s %7s%8s%8s  target\n", "way", "against", "median",
              "min", "max");
  for (const Comparison& one : bench.comparisons) {
    print_comparison(one, reporter.times(one.way), reporter.times(one.against));
  }
}

// ---------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------

int bench_main(int argc, char** argv) {
  Bench bench;
  if (!bench_run::initialise(argc, argv, &bench.quick)) return EXIT_FAILURE;

  add_releases(bench);
  add_accesses(bench);
  add_values(bench);
  add_cells(bench);
  add_moves(bench);

  Reporter reporter(bench);
  require(benchmark::RunSpecifiedBenchmarks(&reporter) > 0,
          "no way matches the filter");
  reporter.print();
  // One short repetition says nothing about speed.
  if (!bench.quick) print_comparisons(bench, reporter);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return bench_main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "component_bench: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
