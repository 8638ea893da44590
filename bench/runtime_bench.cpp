// SPDX-License-Identifier: MIT
//
// runtime_bench: what the runtime's strings, variants, coercion and operators
// cost, each beside the plainest way of doing the same.
//
// Before anything is timed, the library and its yardsticks do every case once
// and must agree byte by byte: a fast wrong answer ends the program. What
// counts is the ratio of two ways in one run; repetitions of all ways are
// shuffled, so that a busy machine disturbs them alike. Time is the thread's
// CPU time.
//
// Sections: texts; yardsticks; cases; converters; strings and variants;
// coercion; operators; the report; the command line.

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <algorithm>
#include <cinttypes>
#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "bench_run.h"
#include "zir.h"

namespace {

using bench_run::add_way;
using bench_run::hidden;
using bench_run::median;
using bench_run::require;
using bench_run::touch;

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

/// The same numbers in every run and with every standard library.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t next() {
    state_ += 0x9E3779B97F4A7C15;
    std::uint64_t bits = state_;
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EB;
    return bits ^ (bits >> 31);
  }
  /// 0 to `bound` - 1.
  std::uint64_t below(std::uint64_t bound) { return next() % bound; }
  std::uint64_t between(std::uint64_t least, std::uint64_t most) {
    return least + below(most - least + 1);
  }
  bool one_in(std::uint64_t count) { return below(count) == 0; }

 private:
  std::uint64_t state_;
};

wchar_t pick(Random& random, std::uint32_t first, std::uint32_t last) {
  return static_cast<wchar_t>(random.between(first, last));
}

/// A unit's value, which is never negative.
std::uint32_t value_of(wchar_t unit) {
  return static_cast<std::uint32_t>(std::int32_t{unit});
}

std::size_t utf8_length(wchar_t unit) {
  const std::uint32_t value = value_of(unit);
  return value < 0x80 ? 1U : value < 0x800 ? 2U : value < 0x10000 ? 3U : 4U;
}

std::string to_utf8(const std::wstring& units) {
  std::string bytes;
  for (const wchar_t unit : units) {
    const std::uint32_t value = value_of(unit);
    const std::size_t length = utf8_length(unit);
    constexpr std::uint32_t kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
    bytes += static_cast<char>(kLead[length] | (value >> (6 * (length - 1))));
    for (std::size_t left = length - 1; left > 0; --left) {
      bytes += static_cast<char>(0x80 | ((value >> (6 * (left - 1))) & 0x3F));
    }
  }
  return bytes;
}

/// Words until the text takes `bytes` of UTF-8, with `letter` for each letter.
template <class Letter>
std::wstring words(Random& random, std::size_t bytes, Letter letter) {
  std::wstring text;
  std::size_t length = 0;
  std::uint64_t left_in_word = random.between(2, 9);
  while (length < bytes) {
    wchar_t unit = L' ';
    if (left_in_word > 0) {
      unit = letter();
      --left_in_word;
    } else {
      left_in_word = random.between(2, 9);
    }
    text += unit;
    length += utf8_length(unit);
  }
  return text;
}

std::wstring ascii_text(Random& random, std::size_t bytes) {
  return words(random, bytes, [&] {
    return random.one_in(8) ? pick(random, '0', '9') : pick(random, 'a', 'z');
  });
}

/// European text: every tenth letter has an accent, a few signs take three
/// bytes.
std::wstring mixed_text(Random& random, std::size_t bytes) {
  return words(random, bytes, [&] {
    if (random.one_in(40)) return pick(random, 0x2010, 0x2026);
    return random.one_in(10) ? pick(random, 0xC0, 0x17F)
                             : pick(random, 'a', 'z');
  });
}

/// Cyrillic words, or Chinese without spaces.
std::wstring dense_text(Random& random, std::size_t bytes) {
  if (random.one_in(2)) {
    return words(random, bytes, [&] { return pick(random, 0x430, 0x44F); });
  }
  std::wstring text;
  while (text.size() * 3 < bytes) {
    text += pick(random, 0x4E00, 0x9FA5);
  }
  return text;
}

struct Corpus {
  std::string name;
  double faster;     ///< how many times as fast as the plain converter to be
  double copy_cost;  ///< of a VariantCopy, in bare copies; 0: no target
  std::vector<std::string> utf8{};
  std::vector<std::wstring> utf32{};
  std::size_t most_bytes = 0;  ///< of one text, with its terminator
  std::size_t most_units = 0;
};

struct CorpusKind {
  const char* name;
  std::wstring (*text)(Random&, std::size_t);
  std::size_t bytes;
  double faster;
  double copy_cost;
};

constexpr CorpusKind kCorpusKinds[] = {
    {"ascii_4k", ascii_text, 4096, 3.5, 0},
    {"ascii_60", ascii_text, 60, 1.8, 0},
    {"ascii_12", ascii_text, 12, 1.1, 1.5},
    {"mixed_60", mixed_text, 60, 1.05, 0},
    {"dense_60", dense_text, 60, 0.85, 0},
    {"dense_4k", dense_text, 4096, 0.85, 0},
};

/// Enough that no branch predictor learns them. The long ones are fewer: in
/// UTF-32 these alone are 64 MB.
constexpr std::size_t kTexts = 20000;
constexpr std::size_t kLongTexts = 4000;
constexpr std::size_t kQuickTexts = 200;

/// Lengths lie within an eighth of the nominal one, as those of a column do.
Corpus make_corpus(const CorpusKind& kind, bool quick) {
  Corpus corpus{kind.name, kind.faster, kind.copy_cost};
  Random random(kind.bytes);
  const std::size_t full = kind.bytes > 1000 ? kLongTexts : kTexts;
  for (std::size_t left = quick ? kQuickTexts : full; left > 0; --left) {
    const std::size_t bytes = random.between(kind.bytes - kind.bytes / 8,
                                             kind.bytes + kind.bytes / 8);
    corpus.utf32.push_back(kind.text(random, bytes));
    corpus.utf8.push_back(to_utf8(corpus.utf32.back()));
    corpus.most_bytes =
        std::max(corpus.most_bytes, corpus.utf8.back().size() + 1);
    corpus.most_units =
        std::max(corpus.most_units, corpus.utf32.back().size() + 1);
  }
  return corpus;
}

// ---------------------------------------------------------------------------
// Yardsticks: converters
// ---------------------------------------------------------------------------

bool is_continuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

/// The plain decoder: everything utf8_utf32 promises, byte by byte.
[[gnu::noinline]] std::size_t plain_decode(wchar_t* destination,
                                           std::size_t capacity,
                                           const char* source) {
  if (source == nullptr) source = "";
  if (destination == nullptr) capacity = 0;
  const auto* at = reinterpret_cast<const unsigned char*>(source);
  std::size_t count = 0;
  while (*at != 0) {
    if (capacity != 0 && count == capacity - 1) {
      destination[count] = 0;
      return capacity;
    }
    std::uint32_t unit = *at++;
    if (unit >= 0x80) {
      switch (unit >> 4) {
        case 0xC:
        case 0xD:
          if (!is_continuation(at[0])) return 0;
          unit = ((unit & 0x1F) << 6) | (at[0] & 0x3FU);
          at += 1;
          break;
        case 0xE:
          if (!is_continuation(at[0]) || !is_continuation(at[1])) return 0;
          unit =
              ((unit & 0x0F) << 12) | ((at[0] & 0x3FU) << 6) | (at[1] & 0x3FU);
          at += 2;
          break;
        case 0xF:
          if (unit >= 0xF8 || !is_continuation(at[0]) ||
              !is_continuation(at[1]) || !is_continuation(at[2])) {
            return 0;
          }
          unit = ((unit & 0x07) << 18) | ((at[0] & 0x3FU) << 12) |
                 ((at[1] & 0x3FU) << 6) | (at[2] & 0x3FU);
          at += 3;
          break;
        default:
          return 0;
      }
    }
    if (capacity != 0) destination[count] = static_cast<wchar_t>(unit);
    ++count;
  }
  if (capacity != 0) destination[count] = 0;
  return count + 1;
}

/// The plain encoder: everything utf32_utf8 promises, unit by unit.
[[gnu::noinline]] std::size_t plain_encode(char* destination,
                                           std::size_t capacity,
                                           const wchar_t* source) {
  if (source == nullptr) source = L"";
  if (destination == nullptr) capacity = 0;
  std::size_t position = 0;
  const auto put = [&](std::size_t offset, std::uint32_t byte) {
    destination[position + offset] = static_cast<char>(byte);
  };
  for (; *source != 0; ++source) {
    const std::uint32_t unit = value_of(*source);
    if (unit < 0x80) {
      if (position + 1 < capacity) put(0, unit);
      position += 1;
    } else if (unit < 0x800) {
      if (position + 2 < capacity) {
        put(0, 0xC0 | (unit >> 6));
        put(1, 0x80 | (unit & 0x3F));
      }
      position += 2;
    } else if (unit < 0x10000) {
      if (position + 3 < capacity) {
        put(0, 0xE0 | (unit >> 12));
        put(1, 0x80 | ((unit >> 6) & 0x3F));
        put(2, 0x80 | (unit & 0x3F));
      }
      position += 3;
    } else {
      if (position + 4 < capacity) {
        put(0, 0xF0 | ((unit >> 18) & 0xFF));
        put(1, 0x80 | ((unit >> 12) & 0x3F));
        put(2, 0x80 | ((unit >> 6) & 0x3F));
        put(3, 0x80 | (unit & 0x3F));
      }
      position += 4;
    }
  }
  if (capacity != 0) {
    destination[std::min(position, capacity - 1)] = 0;
  }
  return position + 1;
}

/// glibc's converters, under a UTF-8 locale.
std::size_t glibc_decode(wchar_t* destination, std::size_t capacity,
                         const char* source) {
  return std::mbstowcs(destination, source, capacity) + 1;
}
std::size_t glibc_encode(char* destination, std::size_t capacity,
                         const wchar_t* source) {
  return std::wcstombs(destination, source, capacity) + 1;
}

/// iconv, which writes but cannot measure. It is told the length.
class Iconv {
 public:
  Iconv(const char* to, const char* from) : handle_(iconv_open(to, from)) {
    require(handle_ != reinterpret_cast<iconv_t>(-1), "iconv_open failed");
  }
  Iconv(const Iconv&) = delete;
  Iconv& operator=(const Iconv&) = delete;
  ~Iconv() { iconv_close(handle_); }

  /// The units written, 0 on failure.
  template <class To, class Text>
  std::size_t operator()(To* destination, std::size_t capacity,
                         const Text& source) const {
    auto* in = reinterpret_cast<char*>(
        const_cast<typename Text::value_type*>(source.c_str()));
    std::size_t in_left =
        (source.size() + 1) * sizeof(typename Text::value_type);
    auto* out = reinterpret_cast<char*>(destination);
    std::size_t out_left = capacity * sizeof(To);
    if (iconv(handle_, &in, &in_left, &out, &out_left) != 0) return 0;
    return capacity - out_left / sizeof(To);
  }

 private:
  iconv_t handle_;
};

// ---------------------------------------------------------------------------
// Cases
// ---------------------------------------------------------------------------

/// How a case is judged.
enum class Measure {
  kFaster,  ///< yardstick's time over the library's: at least
  kCost,    ///< the library's time over the yardstick's: at most
  kExtra    ///< nanoseconds more than the yardstick's: at most
};

/// The library against one yardstick, "name/library" and "name/YARDSTICK".
struct Case {
  std::string name;
  std::string yardstick;
  Measure measure;
  double target;  ///< 0: none set
};

struct Bench {
  bool quick = false;
  bool utf8_locale = false;
  std::deque<Corpus> corpora{};
  std::vector<Case> cases{};
};

template <class Library, class Yardstick>
void add_case(Bench& bench, const Case& one, std::size_t count, Library library,
              Yardstick yardstick) {
  add_way(bench.quick, one.name + "/library", count, library);
  add_way(bench.quick, one.name + "/" + one.yardstick, count, yardstick);
  bench.cases.push_back(one);
}

// ---------------------------------------------------------------------------
// Converters
// ---------------------------------------------------------------------------

template <class To>
std::vector<To> patterned(std::size_t size) {
  return std::vector<To>(size, static_cast<To>(0x55));
}

/// One of the two directions.
template <class To, class From>
struct Direction {
  using Converter = std::size_t (*)(To*, std::size_t, const From*);
  const char* name;
  Converter library;
  Converter plain;
  Converter glibc;
  const Iconv* iconv;
  bool has_targets;  ///< cells are decoded by the million, parameters encoded
};

/// The results and the whole buffers agree, for a converter that takes a text.
template <class To, class Text, class Convert, class Reference>
void check_one(const std::string& what, const Text& text, std::size_t capacity,
               const Convert& convert, const Reference& reference) {
  std::vector<To> expected = patterned<To>(capacity + 1);
  std::vector<To> got = patterned<To>(capacity + 1);
  const std::size_t expected_result =
      reference(expected.data(), capacity, text);
  const std::size_t result = convert(got.data(), capacity, text);
  require(result == expected_result && got == expected,
          what + " differs, capacity " + std::to_string(capacity));
}

/// `sources` converted by every way are `expected`; and the two that promise
/// the same also agree on texts that do not fit or are damaged.
template <class To, class From>
void check_converters(const Bench& bench, const Direction<To, From>& direction,
                      const std::vector<std::basic_string<From>>& sources,
                      const std::vector<std::basic_string<To>>& expected,
                      std::size_t capacity) {
  using Text = std::basic_string<From>;
  const auto by = [](auto function) {
    return [function](To* to, std::size_t size, const Text& text) {
      return function(to, size, text.c_str());
    };
  };
  const std::string name = direction.name;
  Random random(1);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    const Text& source = sources[i];
    const auto right = [&](To* to, std::size_t, const Text&) {
      const std::size_t count = expected[i].size() + 1;
      std::copy_n(expected[i].c_str(), count, to);
      return count;
    };
    check_one<To>(name + "/library", source, capacity, by(direction.library),
                  right);
    check_one<To>(name + "/plain", source, capacity, by(direction.plain),
                  right);
    check_one<To>(name + "/iconv", source, capacity, *direction.iconv, right);
    const std::size_t needed = expected[i].size() + 1;
    require(direction.library(nullptr, 0, source.c_str()) == needed &&
                direction.plain(nullptr, 0, source.c_str()) == needed,
            name + ": a measure differs");
    if (bench.utf8_locale) {
      check_one<To>(name + "/glibc", source, capacity, by(direction.glibc),
                    right);
      require(direction.glibc(nullptr, 0, source.c_str()) == needed,
              name + ": glibc's measure differs");
    }
    check_one<To>(name + ", cut", source, random.between(1, needed),
                  by(direction.library), by(direction.plain));
    Text damaged = source;
    damaged[random.below(damaged.size())] = static_cast<From>(random.next());
    check_one<To>(name + ", damaged", damaged, capacity + 4 * damaged.size(),
                  by(direction.library), by(direction.plain));
  }
}

template <class To, class Text, class Convert>
auto converting(const std::vector<Text>& sources, std::size_t capacity,
                Convert convert) {
  return [&sources, convert, buffer = std::vector<To>(capacity)]() mutable {
    To* const to = buffer.empty() ? nullptr : buffer.data();
    for (const Text& source : sources) {
      std::size_t result = convert(to, buffer.size(), source);
      touch(&result);
    }
  };
}

template <class To, class From>
void add_converters(Bench& bench, const Corpus& corpus,
                    const Direction<To, From>& direction,
                    const std::vector<std::basic_string<From>>& sources,
                    std::size_t most) {
  using Text = std::basic_string<From>;
  // Where a call goes is hidden from the compiler: the yardsticks must not gain
  // from standing in this file.
  const auto by = [](auto function) {
    return [function = hidden(function)](To* to, std::size_t size,
                                         const Text& text) {
      return function(to, size, text.c_str());
    };
  };
  for (const bool writes : {false, true}) {
    const std::string name = std::string(direction.name) + "/" + corpus.name +
                             (writes ? "/write" : "/measure");
    const std::size_t capacity = writes ? most : 0;
    const auto pass = [&](auto convert) {
      return converting<To>(sources, capacity, convert);
    };
    add_case(bench,
             {name, "plain", Measure::kFaster,
              direction.has_targets ? corpus.faster : 0},
             sources.size(), pass(by(direction.library)),
             pass(by(direction.plain)));
    if (bench.utf8_locale) {
      add_way(bench.quick, name + "/glibc", sources.size(),
              pass(by(direction.glibc)));
    }
    if (writes) {
      add_way(bench.quick, name + "/iconv", sources.size(),
              pass([convert = direction.iconv](To* to, std::size_t size,
                                               const Text& text) {
                return (*convert)(to, size, text);
              }));
    }
  }
}

void add_all_converters(Bench& bench) {
  static const Iconv decoder("WCHAR_T", "UTF-8");
  static const Iconv encoder("UTF-8", "WCHAR_T");
  const Direction<wchar_t, char> decode{"utf8_utf32", utf8_utf32, plain_decode,
                                        glibc_decode, &decoder,   true};
  const Direction<char, wchar_t> encode{"utf32_utf8", utf32_utf8, plain_encode,
                                        glibc_encode, &encoder,   false};
  for (const Corpus& corpus : bench.corpora) {
    check_converters(bench, decode, corpus.utf8, corpus.utf32,
                     corpus.most_units);
    check_converters(bench, encode, corpus.utf32, corpus.utf8,
                     corpus.most_bytes);
    add_converters(bench, corpus, decode, corpus.utf8, corpus.most_units);
    add_converters(bench, corpus, encode, corpus.utf32, corpus.most_bytes);
  }
}

// ---------------------------------------------------------------------------
// Strings and variants
// ---------------------------------------------------------------------------

/// The block of a BSTR: its count, its characters, its terminator.
std::size_t block_bytes(std::size_t units) {
  return sizeof(std::uint64_t) + (units + 1) * sizeof(wchar_t);
}

const char* block_of(BSTR string) {
  return reinterpret_cast<const char*>(string) - sizeof(std::uint64_t);
}

bool same_string(BSTR string, const std::wstring& text) {
  const std::uint64_t count = text.size();
  return string != nullptr &&
         std::memcmp(block_of(string), &count, sizeof count) == 0 &&
         std::wmemcmp(string, text.c_str(), text.size() + 1) == 0;
}

void add_strings(Bench& bench, const Corpus& corpus) {
  const std::vector<std::wstring>& texts = corpus.utf32;
  // As long as the corpus, which outlives the benchmarks.
  static std::deque<std::vector<_variant_t>> all_values;
  std::vector<_variant_t>& values = all_values.emplace_back();
  for (const std::wstring& text : texts) {
    values.emplace_back(text.c_str());
    const _bstr_t whole(SysAllocString(text.c_str()), false);
    const _bstr_t counted(
        SysAllocStringLen(text.data(), static_cast<UINT>(text.size())), false);
    _variant_t copy;
    VariantCopy(&copy, &values.back());
    require(same_string(whole.m_s, text) && same_string(counted.m_s, text) &&
                copy.vt == VT_BSTR && copy.bstrVal != values.back().bstrVal &&
                same_string(copy.bstrVal, text),
            "a copied string differs");
  }

  // What each of the three has to do at least: the same bytes into a block of
  // their own, with the size known.
  static std::deque<std::vector<std::pair<const char*, std::size_t>>>
      all_blocks;
  auto& blocks = all_blocks.emplace_back();
  for (const _variant_t& value : values) {
    blocks.emplace_back(block_of(value.bstrVal),
                        block_bytes(SysStringLen(value.bstrVal)));
  }
  const auto bare = [&blocks] {
    for (const auto& [bytes, size] : blocks) {
      void* block = std::malloc(size);
      std::memcpy(block, bytes, size);
      touch(block);
      std::free(block);
    }
  };
  const auto name = [&](const char* what) {
    return std::string(what) + "/" + corpus.name;
  };
  add_case(
      bench, {name("SysAllocString"), "malloc", Measure::kCost, 0},
      texts.size(),
      [&texts] {
        for (const std::wstring& text : texts) {
          BSTR string = SysAllocString(text.c_str());
          touch(string);
          SysFreeString(string);
        }
      },
      bare);
  add_case(
      bench, {name("SysAllocStringLen"), "malloc", Measure::kCost, 0},
      texts.size(),
      [&texts] {
        for (const std::wstring& text : texts) {
          BSTR string =
              SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
          touch(string);
          SysFreeString(string);
        }
      },
      bare);
  add_case(
      bench, {name("VariantCopy"), "malloc", Measure::kCost, corpus.copy_cost},
      texts.size(),
      [&values] {
        VARIANT copy{};
        for (const _variant_t& value : values) {
          VariantCopy(&copy, &value);
          touch(&copy);
          VariantClear(&copy);
        }
      },
      bare);
}

/// The same type and payload.
bool same_value(const VARIANT& left, const VARIANT& right) {
  return left.vt == right.vt && left.llVal == right.llVal;
}

/// Sixteen bytes there, and the type taken back: all a number's copy needs.
[[gnu::noinline]] void assign(VARIANT* destination, const VARIANT* source) {
  *destination = *source;
}
[[gnu::noinline]] void reset(VARIANT* value) { value->vt = VT_EMPTY; }

void add_numbers(Bench& bench) {
  static std::vector<VARIANT> values;
  Random random(3);
  for (std::size_t left = bench.quick ? kQuickTexts : kTexts; left > 0;
       --left) {
    VARIANT value{};
    value.vt = VT_I8;
    value.llVal = static_cast<std::int64_t>(random.next());
    values.push_back(value);
    VARIANT copy{};
    VariantCopy(&copy, &value);
    require(same_value(copy, value), "a copied integer differs");
    VariantClear(&copy);
    require(copy.vt == VT_EMPTY, "a cleared integer is not empty");
  }
  add_case(
      bench, {"VariantCopy/I8", "assign", Measure::kExtra, 0}, values.size(),
      [] {
        VARIANT copy{};
        for (const VARIANT& value : values) {
          VariantCopy(&copy, &value);
          touch(&copy);
          VariantClear(&copy);
        }
      },
      [] {
        VARIANT copy{};
        for (const VARIANT& value : values) {
          assign(&copy, &value);
          touch(&copy);
          reset(&copy);
        }
      });
}

// ---------------------------------------------------------------------------
// Coercion
// ---------------------------------------------------------------------------

/// Bare wcstoll; false where no digit is found.
bool read_integer(const wchar_t* text, std::int64_t* value) {
  wchar_t* end = nullptr;
  *value = std::wcstoll(text, &end, 10);
  return end != text;
}

/// Bare snprintf, and a block for the text, which the caller frees.
template <class Value>
wchar_t* print(const char* format, Value value) {
  char digits[40];
  const int length = std::snprintf(digits, sizeof digits, format, value);
  const std::size_t units = static_cast<std::size_t>(length) + 1;
  auto* const text =
      static_cast<wchar_t*>(std::malloc(units * sizeof(wchar_t)));
  if (text == nullptr) throw std::bad_alloc();
  std::copy_n(digits, units, text);
  return text;
}

/// Converts each value to `type`; where that makes strings, each conversion
/// frees the one before it.
auto changing(const std::vector<_variant_t>& values, VARTYPE type) {
  return [&values, type] {
    VARIANT changed{};
    for (const _variant_t& value : values) {
      VariantChangeType(&changed, &value, 0, type);
      touch(&changed);
    }
    VariantClear(&changed);
  };
}

/// Prints each value's payload; each print frees the one before it.
template <class Value>
auto printing(const std::vector<_variant_t>& values, const char* format,
              Value VARIANT::*payload) {
  return [&values, format, payload] {
    wchar_t* text = nullptr;
    for (const _variant_t& value : values) {
      std::free(text);
      text = print(format, value.*payload);
      touch(text);
    }
    std::free(text);
  };
}

template <class Value>
void check_printed(const std::vector<_variant_t>& values, const char* format,
                   Value VARIANT::*payload) {
  for (const _variant_t& value : values) {
    _variant_t text;
    wchar_t* const expected = print(format, value.*payload);
    const _bstr_t owned(expected);
    std::free(expected);
    require(VariantChangeType(&text, &value, 0, VT_BSTR) == S_OK &&
                text.vt == VT_BSTR && same_string(text.bstrVal, owned.m_s),
            std::string("a number printed with ") + format + " differs");
  }
}

void add_coercion(Bench& bench) {
  static std::vector<_variant_t> integers;
  static std::vector<_variant_t> doubles;
  static std::vector<_variant_t> texts;
  Random random(4);
  for (std::size_t left = bench.quick ? kQuickTexts : kTexts; left > 0;
       --left) {
    // One to eighteen digits; every fourth below zero.
    auto number = static_cast<std::int64_t>(random.next() >> 4);
    for (std::uint64_t digits = random.below(18); digits > 0; --digits) {
      number /= 10;
    }
    if (random.one_in(4)) number = -number;
    integers.emplace_back(number);
    texts.emplace_back(std::to_wstring(number).c_str());
    // Amounts with two decimals, and doubles that need every digit.
    const auto raw = static_cast<double>(random.below(100000000));
    doubles.emplace_back(random.one_in(2) ? raw / 100 : std::sqrt(raw));

    _variant_t read;
    std::int64_t expected = 0;
    require(read_integer(texts.back().bstrVal, &expected) &&
                expected == number &&
                VariantChangeType(&read, &texts.back(), 0, VT_I8) == S_OK &&
                read.vt == VT_I8 && read.llVal == expected,
            "an integer read from a text differs");
  }
  check_printed(integers, "%" PRId64, &VARIANT::llVal);
  check_printed(doubles, "%.15g", &VARIANT::dblVal);

  add_case(bench, {"VariantChangeType/BSTR_I8", "wcstoll", Measure::kCost, 1.5},
           texts.size(), changing(texts, VT_I8), [] {
             for (const _variant_t& text : texts) {
               std::int64_t value = 0;
               bool read = read_integer(text.bstrVal, &value);
               touch(&value);
               touch(&read);
             }
           });
  add_case(bench, {"VariantChangeType/I8_BSTR", "snprintf", Measure::kCost, 0},
           integers.size(), changing(integers, VT_BSTR),
           printing(integers, "%" PRId64, &VARIANT::llVal));
  add_case(bench, {"VariantChangeType/R8_BSTR", "snprintf", Measure::kCost, 0},
           doubles.size(), changing(doubles, VT_BSTR),
           printing(doubles, "%.15g", &VARIANT::dblVal));
}

// ---------------------------------------------------------------------------
// Operators
// ---------------------------------------------------------------------------

/// An operator as a virtual call that knows its operands' type.
struct Operation {
  Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  virtual ~Operation() = default;
  virtual HRESULT apply(const VARIANT& left, const VARIANT& right,
                        VARIANT* result) const = 0;
};

template <class Compute>
struct IntegerOperation final : Operation {
  HRESULT apply(const VARIANT& left, const VARIANT& right,
                VARIANT* result) const override {
    result->vt = VT_I8;
    result->ullVal = Compute()(left.ullVal, right.ullVal);
    return S_OK;
  }
};

template <class Compute>
struct DoubleOperation final : Operation {
  HRESULT apply(const VARIANT& left, const VARIANT& right,
                VARIANT* result) const override {
    result->vt = VT_R8;
    result->dblVal = Compute()(left.dblVal, right.dblVal);
    return S_OK;
  }
};

template <class Value>
HRESULT compare(Value left, Value right) {
  return left < right ? VARCMP_LT : left > right ? VARCMP_GT : VARCMP_EQ;
}

template <class Value, Value VARIANT::*payload>
struct Comparison final : Operation {
  HRESULT apply(const VARIANT& left, const VARIANT& right,
                VARIANT*) const override {
    return compare(left.*payload, right.*payload);
  }
};

using Operator = HRESULT (*)(VARIANT*, VARIANT*, VARIANT*);

HRESULT var_cmp(VARIANT* left, VARIANT* right, VARIANT* /*result*/) {
  return VarCmp(left, right, 0, 0);
}

struct Pair {
  VARIANT left;
  VARIANT right;
};

/// `call` is a template argument, so that the library is called directly.
template <Operator call>
void add_operator(Bench& bench, const std::string& name,
                  std::vector<Pair>& pairs, const Operation& operation) {
  for (Pair& pair : pairs) {
    VARIANT expected{};
    VARIANT result{};
    const HRESULT expected_code =
        operation.apply(pair.left, pair.right, &expected);
    require(call(&pair.left, &pair.right, &result) == expected_code &&
                same_value(result, expected),
            name + ": a result differs");
  }
  add_case(
      bench, {name, "virtual", Measure::kExtra, 3}, pairs.size(),
      [&pairs] {
        VARIANT result{};
        for (Pair& pair : pairs) {
          HRESULT code = call(&pair.left, &pair.right, &result);
          touch(&code);
          touch(&result);
        }
      },
      [&pairs, &operation] {
        const Operation* const object = hidden(&operation);
        VARIANT result{};
        for (Pair& pair : pairs) {
          HRESULT code = object->apply(pair.left, pair.right, &result);
          touch(&code);
          touch(&result);
        }
      });
}

void add_operators(Bench& bench) {
  static std::vector<Pair> integers;
  static std::vector<Pair> doubles;
  Random random(5);
  for (std::size_t left = bench.quick ? kQuickTexts : kTexts; left > 0;
       --left) {
    const auto number = [&] {
      return static_cast<std::int64_t>(random.below(2000)) - 1000;
    };
    integers.push_back({_variant_t(number()), _variant_t(number())});
    const auto fraction = [&] { return static_cast<double>(number()) / 8; };
    doubles.push_back({_variant_t(fraction()), _variant_t(fraction())});
  }
  static const IntegerOperation<std::plus<>> add_integers;
  static const IntegerOperation<std::multiplies<>> multiply_integers;
  static const Comparison<std::int64_t, &VARIANT::llVal> compare_integers;
  static const DoubleOperation<std::plus<>> add_doubles;
  static const DoubleOperation<std::multiplies<>> multiply_doubles;
  static const Comparison<double, &VARIANT::dblVal> compare_doubles;
  add_operator<VarAdd>(bench, "VarAdd/I8", integers, add_integers);
  add_operator<VarAdd>(bench, "VarAdd/R8", doubles, add_doubles);
  add_operator<VarMul>(bench, "VarMul/I8", integers, multiply_integers);
  add_operator<VarMul>(bench, "VarMul/R8", doubles, multiply_doubles);
  add_operator<var_cmp>(bench, "VarCmp/I8", integers, compare_integers);
  add_operator<var_cmp>(bench, "VarCmp/R8", doubles, compare_doubles);
}

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

/// Keeps every repetition's time; shows one line per way, its median, in the
/// order of the cases: repetitions end in any order.
class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter() : ConsoleReporter(OO_None) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        times_[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
      }
      if (run.aggregate_name == "median" || run.repetitions == 1) {
        shown_.push_back(run);
        shown_.back().run_name.min_time.clear();
        shown_.back().run_name.repetitions.clear();
      }
    }
  }

  void Finalize() override {
    std::sort(shown_.begin(), shown_.end(),
              [](const Run& left, const Run& right) {
                return left.family_index < right.family_index;
              });
    ConsoleReporter::ReportRuns(shown_);
  }

  /// Nanoseconds per item, one for each repetition; empty for a way that the
  /// command line left out.
  const std::vector<double>& times(const std::string& name) {
    return times_[name];
  }

 private:
  std::vector<Run> shown_;
  std::map<std::string, std::vector<double>> times_;
};

void print_case(const Case& one, const std::vector<double>& library,
                const std::vector<double>& yardstick) {
  std::vector<double> figures;
  for (std::size_t i = 0; i < std::min(library.size(), yardstick.size()); ++i) {
    switch (one.measure) {
      case Measure::kFaster:
        figures.push_back(yardstick[i] / library[i]);
        break;
      case Measure::kCost:
        figures.push_back(library[i] / yardstick[i]);
        break;
      case Measure::kExtra:
        figures.push_back(library[i] - yardstick[i]);
        break;
    }
  }
  if (figures.empty()) return;
  const double middle = median(figures);
  const bool least = one.measure == Measure::kFaster;
  std::printf("%-30s %-8s %8.2f%8.2f%8.2f", one.name.c_str(),
              one.yardstick.c_str(), middle,
              *std::min_element(figures.begin(), figures.end()),
              *std::max_element(figures.begin(), figures.end()));
  constexpr const char* kUnits[] = {"times as fast", "times the cost",
                                    "ns more"};
  const char* const unit = kUnits[static_cast<int>(one.measure)];
  if (one.target == 0) {
    std::printf("                   %s\n", unit);
    return;
  }
  const bool reached = least ? middle >= one.target : middle <= one.target;
  std::printf("  %s %4.2f  %-7s %s\n", least ? ">=" : "<=", one.target,
              reached ? "REACHED" : "MISSED", unit);
}

void print_cases(const std::vector<Case>& cases, Reporter& reporter) {
  std::printf("\n%-30s %-8s %8s%8s%8s  target\n", "case", "against", "median",
              "min", "max");
  for (const Case& one : cases) {
    print_case(one, reporter.times(one.name + "/library"),
               reporter.times(one.name + "/" + one.yardstick));
  }
}

// ---------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------

int bench_main(int argc, char** argv) {
  Bench bench;
  if (!bench_run::initialise(argc, argv, &bench.quick)) return EXIT_FAILURE;

  bench.utf8_locale = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  if (!bench.utf8_locale) {
    std::fputs(
        "runtime_bench: no locale C.UTF-8: glibc's converters are left "
        "out\n",
        stderr);
  }
  for (const CorpusKind& kind : kCorpusKinds) {
    bench.corpora.push_back(make_corpus(kind, bench.quick));
  }
  add_all_converters(bench);
  for (const Corpus& corpus : bench.corpora) {
    if (corpus.name == "ascii_12" || corpus.name == "ascii_60") {
      add_strings(bench, corpus);
    }
  }
  add_numbers(bench);
  add_coercion(bench);
  add_operators(bench);

  Reporter reporter;
  require(benchmark::RunSpecifiedBenchmarks(&reporter) > 0,
          "no case matches the filter");
  // One short repetition says nothing about speed.
  if (!bench.quick) print_cases(bench.cases, reporter);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return bench_main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "runtime_bench: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
