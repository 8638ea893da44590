// SPDX-License-Identifier: MIT
//
// zir: the Automation runtime.
//
// Sections, leaf to root: failing; numbers; strings; the converters; exception
// records; arrays; variants; dates; coercion; operators; libraries; activation;
// identifiers; object context.
//
// What a reader needs to know:
//  - Everything exported has C linkage and is called from foreign code: nothing
//    throws, except a context's properties, as their contract says.
//  - `not_implemented` writes every stub line. Their numbers and texts are part
//    of the contract and do not follow this file's lines.
//  - What frees something first forgets it: releasing an object runs foreign
//    code, which may come back to the same variant or thread.
//  - Where the processor would trap or the language leaves a result open, the
//    helpers under "numbers" say what comes out.

#include "zir.h"

#include <dlfcn.h>
#include <emmintrin.h>
#include <sys/time.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Failing
// ---------------------------------------------------------------------------

// Deliberate: on standard output, where a script's author sees that it used
// something this runtime does not have.
HRESULT not_implemented(const char* function, int line, const wchar_t* detail,
                        HRESULT result) {
  std::printf("###%s: Implement here '%s' line %d. (%ls)\n", function, "zir",
              line, detail != nullptr ? detail : L"(null)");
  return result;
}

HRESULT unsupported_type(const char* function, int line, VARTYPE type) {
  wchar_t detail[32];
  std::swprintf(detail, std::size(detail), L"vt:%d", int{type});
  return not_implemented(function, line, detail, E_INVALIDARG);
}

HRESULT unsupported_types(const char* function, int line, VARTYPE left,
                          VARTYPE right) {
  wchar_t detail[32];
  std::swprintf(detail, std::size(detail), L"vt:%d->%d", int{left}, int{right});
  return not_implemented(function, line, detail, E_INVALIDARG);
}

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

constexpr double kTwoTo63 = 9223372036854775808.0;

// Toward zero. What does not fit (NaN too) becomes the least value, as the
// processor's own conversion has it.
std::int64_t truncated(double value) {
  return value >= -kTwoTo63 && value < kTwoTo63
             ? static_cast<std::int64_t>(value)
             : std::numeric_limits<std::int64_t>::min();
}

// The same to unsigned, again with the processor's answers outside the range.
std::uint64_t truncated_unsigned(double value) {
  if (value >= 2 * kTwoTo63) return 0;
  if (value >= kTwoTo63) return static_cast<std::uint64_t>(value);
  return static_cast<std::uint64_t>(truncated(value));
}

// Sums and products of integers wrap around.
std::int64_t wrapped(std::uint64_t bits) {
  return static_cast<std::int64_t>(bits);
}
std::uint64_t bits_of(std::int64_t value) {
  return static_cast<std::uint64_t>(value);
}

struct FloorDivision {
  std::int64_t quotient;
  std::int64_t remainder;  // never negative
};

FloorDivision floor_divide(std::int64_t dividend, std::int64_t divisor) {
  FloorDivision result{dividend / divisor, dividend % divisor};
  if (result.remainder < 0) {
    result.remainder += divisor;
    --result.quotient;
  }
  return result;
}

// ---------------------------------------------------------------------------
// Strings
// ---------------------------------------------------------------------------

// In front of a string's characters.
using StringCount = std::uint64_t;

StringCount& count_of(BSTR string) {
  return reinterpret_cast<StringCount*>(string)[-1];
}

// A string with room for so many bytes, and its count set; NULL without memory.
BSTR allocate_string(StringCount count, std::uint64_t bytes) {
  void* const block = std::malloc(sizeof(StringCount) + bytes);
  if (block == nullptr) return nullptr;
  ::new (block) StringCount(count);
  return reinterpret_cast<BSTR>(static_cast<StringCount*>(block) + 1);
}

// A string of so many units and its terminator; the units are to be written.
BSTR allocate_text(std::uint64_t count) {
  wchar_t* const string = allocate_string(count, sizeof(wchar_t) * (count + 1));
  if (string != nullptr) string[count] = L'\0';
  return string;
}

inline BSTR copy_text(const wchar_t* units, std::uint64_t count) {
  wchar_t* const string = allocate_text(count);
  if (string == nullptr) return nullptr;
  struct Part {
    wchar_t units[8];
  };
  constexpr std::uint64_t kPart = std::size(Part().units);
  if (count < kPart || count > 2 * kPart) {
    std::memcpy(string, units, sizeof(wchar_t) * count);
    return string;
  }
  // Most texts of a database are short, and a call costs as much as copying
  // them does: two parts that overlap in the middle.
  std::memcpy(string, units, sizeof(Part));
  std::memcpy(string + count - kPart, units + count - kPart, sizeof(Part));
  return string;
}

void free_string(BSTR string) {
  if (string != nullptr) std::free(&count_of(string));
}

const wchar_t* text_of(const wchar_t* string) {
  return string != nullptr ? string : L"";
}

struct Free {
  void operator()(void* block) const { std::free(block); }
};

}  // namespace

BSTR SysAllocString(const wchar_t* text) {
  return text != nullptr ? copy_text(text, std::wcslen(text)) : nullptr;
}

BSTR SysAllocStringLen(const wchar_t* units, UINT count) {
  // Refused as a count that callers can only have reached by a wrap-around.
  if (count == std::numeric_limits<UINT>::max()) return nullptr;
  if (units != nullptr) return copy_text(units, count);
  wchar_t* const string = allocate_text(count);
  if (string != nullptr) string[0] = L'\0';
  return string;
}

BSTR SysAllocStringByteLen(const char* bytes, UINT count) {
  wchar_t* const string = allocate_string(count, count);
  if (string != nullptr && bytes != nullptr) std::memcpy(string, bytes, count);
  return string;
}

unsigned int SysStringLen(BSTR string) {
  return string != nullptr ? static_cast<unsigned int>(count_of(string)) : 0;
}

unsigned int SysStringByteLen(BSTR string) { return SysStringLen(string); }

void SysFreeString(BSTR string) { free_string(string); }

// ---------------------------------------------------------------------------
// The converters
//
// ASCII goes 16 characters at a time, and so does text that is ASCII in parts;
// a script without ASCII is decoded character by character, its bytes checked
// together. Of a text nothing behind its terminator, or behind what fits, is
// read, and what lies behind the output is the caller's.
// ---------------------------------------------------------------------------

namespace {

using Byte = unsigned char;

constexpr std::ptrdiff_t kBlock = 16;
constexpr std::ptrdiff_t kHalf = kBlock / 2;
constexpr std::ptrdiff_t kLongest = 4;  // bytes of a character
// Where a block has shown that characters must be taken one by one, so many of
// them are: every return to blocks is a branch that is mispredicted.
constexpr std::ptrdiff_t kSinglyAtOnce = 4 * kBlock;

template <class Word>
Word load(const void* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

__m128i load_16(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
void store_8(void* to, __m128i value) {
  _mm_storel_epi64(static_cast<__m128i*>(to), value);
}
void store_16(void* to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

// --- ASCII bytes to units ---

void widen_4(__m128i bytes, wchar_t* to) {
  const __m128i zero = _mm_setzero_si128();
  store_16(to, _mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
}

void widen_8(__m128i bytes, wchar_t* to) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i words = _mm_unpacklo_epi8(bytes, zero);
  store_16(to, _mm_unpacklo_epi16(words, zero));
  store_16(to + 4, _mm_unpackhi_epi16(words, zero));
}

void widen_16(__m128i bytes, wchar_t* to) {
  widen_8(bytes, to);
  widen_8(_mm_srli_si128(bytes, 8), to + 8);
}

// Fewer bytes than a block, as two words that overlap in the middle. Whether
// all of them are ASCII and there are 4 or more; only then they are written.
template <bool kWrite>
bool widen_rest(const Byte* from, std::ptrdiff_t count, wchar_t* to) {
  if (count >= 8) {
    const auto first = load<std::uint64_t>(from);
    const auto last = load<std::uint64_t>(from + count - 8);
    if (((first | last) & 0x8080808080808080U) != 0) return false;
    if (kWrite) {
      widen_8(_mm_cvtsi64_si128(static_cast<std::int64_t>(first)), to);
      widen_8(_mm_cvtsi64_si128(static_cast<std::int64_t>(last)),
              to + count - 8);
    }
    return true;
  }
  if (count >= 4) {
    const auto first = load<std::uint32_t>(from);
    const auto last = load<std::uint32_t>(from + count - 4);
    if (((first | last) & 0x80808080U) != 0) return false;
    if (kWrite) {
      widen_4(_mm_cvtsi32_si128(static_cast<std::int32_t>(first)), to);
      widen_4(_mm_cvtsi32_si128(static_cast<std::int32_t>(last)),
              to + count - 4);
    }
    return true;
  }
  return false;
}

// --- UTF-8 to UTF-32 ---

enum class Walk { going, finished, cut, invalid };

// How far a decoder has come.
struct Walked {
  Walk outcome;
  const Byte* at;
  std::size_t units;
};

// Which characters decode_singly takes.
enum class Take { all, sequences };

// Decodes the characters that begin in [at, stop) one by one, only up to the
// first ASCII one with Take::sequences. The bytes of the last and three more
// may be read.
template <bool kWrite, Take kTake>
Walked decode_singly(const Byte* at, const Byte* stop, wchar_t* to,
                     std::size_t units) {
  while (at < stop) {
    const auto word = load<std::uint32_t>(at);
    std::uint32_t value = word & 0x7FU;
    if ((word & 0x80U) == 0) {
      if (kTake == Take::sequences) break;
      at += 1;
    } else if ((word & 0xC0E0U) == 0x80C0U) {
      value = (word & 0x1FU) << 6U | (word >> 8U & 0x3FU);
      at += 2;
    } else if ((word & 0xC0C0F0U) == 0x8080E0U) {
      value =
          (word & 0x0FU) << 12U | (word >> 2U & 0xFC0U) | (word >> 16U & 0x3FU);
      at += 3;
    } else if ((word & 0xC0C0C0F8U) == 0x808080F0U) {
      value = (word & 0x07U) << 18U | (word << 4U & 0x3F000U) |
              (word >> 10U & 0xFC0U) | (word >> 24U & 0x3FU);
      at += 4;
    } else {
      return {Walk::invalid, at, units};
    }
    if (kWrite) to[units] = static_cast<wchar_t>(value);
    ++units;
  }
  return {Walk::going, at, units};
}

// Decodes characters while `more(at, units)`, byte by byte. The terminator is
// no continuation byte, so nothing behind it is read.
template <bool kWrite, class More>
Walked decode_by_bytes(const Byte* at, wchar_t* to, std::size_t units,
                       More more) {
  while (more(at, units)) {
    const Byte lead = *at++;
    std::uint32_t value = lead;
    int following = 0;
    if ((lead & 0xE0U) == 0xC0) {
      value = lead & 0x1FU;
      following = 1;
    } else if ((lead & 0xF0U) == 0xE0) {
      value = lead & 0x0FU;
      following = 2;
    } else if ((lead & 0xF8U) == 0xF0) {
      value = lead & 0x07U;
      following = 3;
    } else if (lead >= 0x80) {
      return {Walk::invalid, at, units};
    }
    for (; following > 0; --following) {
      if ((*at & 0xC0U) != 0x80) return {Walk::invalid, at, units};
      value = value << 6U | (*at++ & 0x3FU);
    }
    if (kWrite) to[units] = static_cast<wchar_t>(value);
    ++units;
  }
  return {Walk::going, at, units};
}

// Decodes text that is ASCII in parts: at least a block of it, up to `end` or
// as far as a buffer goes; a sequence that goes beyond `end` is left.
//
// How far the ASCII part of a block reaches cannot be predicted, so a branch on
// it would cost more than it saves. The whole block is written instead and the
// excess overwritten by what follows: into the buffer, because behind the last
// character nothing of the caller's may change.
template <bool kWrite>
Walked decode_mixed(const Byte* at, const Byte* end, wchar_t* to,
                    std::size_t units) {
  constexpr std::ptrdiff_t kBytes = 256;
  wchar_t buffer[kWrite ? kBytes + kBlock : 1];
  end = at + std::min(end - at, kBytes);
  Walked walked = {Walk::going, at, 0};
  const auto skip = [&walked](std::ptrdiff_t ascii) {
    walked.at += ascii;
    walked.units += static_cast<std::size_t>(ascii);
  };
  while (end - walked.at >= kBlock) {
    const __m128i block = load_16(walked.at);
    const auto others = static_cast<unsigned>(_mm_movemask_epi8(block));
    if (kWrite) widen_16(block, buffer + walked.units);
    skip(__builtin_ctz(others | 1U << kBlock));
    walked = decode_singly<kWrite, Take::sequences>(walked.at, end - 3, buffer,
                                                    walked.units);
    if (walked.outcome != Walk::going) break;
  }
  if (walked.outcome == Walk::going) {
    // The last block once more, with zeros behind it to be read.
    Byte copy[2 * kBlock] = {};
    store_16(copy, load_16(end - kBlock));
    const Byte* const copy_end = copy + kBlock;
    walked.at = copy_end - (end - walked.at);
    while (walked.at < copy_end) {
      const auto word = load<std::uint64_t>(walked.at);
      const std::uint64_t others = word & 0x8080808080808080U;
      if (kWrite) {
        widen_8(_mm_cvtsi64_si128(static_cast<std::int64_t>(word)),
                buffer + walked.units);
      }
      skip(std::min<std::ptrdiff_t>(
          others == 0 ? 8 : __builtin_ctzll(others) / 8, copy_end - walked.at));
      const Walked next = decode_singly<kWrite, Take::sequences>(
          walked.at, copy_end, buffer, walked.units);
      // A zero was taken for a continuation byte, or something else is wrong,
      // which shows when the text itself is read on.
      if (next.outcome != Walk::going) break;
      walked = next;
    }
    walked.at = end - (copy_end - walked.at);
  }
  if (kWrite) std::memcpy(to + units, buffer, walked.units * sizeof(wchar_t));
  walked.units += units;
  return walked;
}

// Decodes the characters that begin in [at, end), which holds no terminator.
template <bool kWrite>
Walked decode_stretch(const Byte* at, const Byte* end, wchar_t* to,
                      std::size_t units) {
  bool after_ascii = false;
  while (end - at >= kBlock) {
    const __m128i block = load_16(at);
    const auto others = static_cast<unsigned>(_mm_movemask_epi8(block));
    after_ascii = others == 0;
    if (after_ascii) {
      if (kWrite) widen_16(block, to + units);
      at += kBlock;
      units += kBlock;
      continue;
    }
    const std::ptrdiff_t readable = end - at - 3;
    if (readable < kBlock) break;
    // Two sequences in a row: a script that has hardly any ASCII.
    const bool dense =
        (others & others >> 1U & others >> 2U & others >> 3U) != 0;
    const Walked walked =
        dense ? decode_singly<kWrite, Take::all>(
                    at, at + std::min(readable, kSinglyAtOnce), to, units)
              : decode_mixed<kWrite>(at, end, to, units);
    if (walked.outcome != Walk::going) return walked;
    at = walked.at;
    units = walked.units;
  }
  const std::ptrdiff_t rest = end - at;
  if (rest <= 0) return {Walk::going, at, units};
  if (after_ascii) {
    // The rest, together with characters of the block before it.
    const __m128i block = load_16(end - kBlock);
    if (_mm_movemask_epi8(block) == 0) {
      units += static_cast<std::size_t>(rest);
      if (kWrite) widen_16(block, to + units - kBlock);
      return {Walk::going, end, units};
    }
  } else if (rest < kBlock &&
             widen_rest<kWrite>(at, rest, kWrite ? to + units : nullptr)) {
    return {Walk::going, end, units + static_cast<std::size_t>(rest)};
  }
  const Walked walked =
      decode_singly<kWrite, Take::all>(at, end - 3, to, units);
  if (walked.outcome != Walk::going) return walked;
  return decode_by_bytes<kWrite>(
      walked.at, to, walked.units,
      [end](const Byte* next, std::size_t) { return next < end; });
}

// Decodes up to `room` units, or counts them.
template <bool kWrite>
Walked decode_utf8(const Byte* at, std::size_t room, wchar_t* to) {
  Walked walked = {Walk::going, at, 0};
  while (walked.outcome == Walk::going) {
    if (walked.units == room) {
      walked.outcome = *walked.at == 0 ? Walk::finished : Walk::cut;
      break;
    }
    // So many units take at least so many bytes: a text that is cut need not be
    // terminated.
    const auto* const text = reinterpret_cast<const char*>(walked.at);
    const std::size_t count =
        kWrite ? strnlen(text, room - walked.units) : std::strlen(text);
    if (count == 0) {
      walked.outcome = Walk::finished;
      break;
    }
    walked =
        decode_stretch<kWrite>(walked.at, walked.at + count, to, walked.units);
    // What is left then is mostly not ASCII, and too short to look ahead again
    // and again.
    if (kWrite && walked.outcome == Walk::going &&
        room - walked.units < std::size_t{kSinglyAtOnce}) {
      walked =
          decode_by_bytes<kWrite>(walked.at, to, walked.units,
                                  [room](const Byte* next, std::size_t units) {
                                    return units < room && *next != 0;
                                  });
      if (walked.outcome == Walk::invalid) break;
      walked.outcome = *walked.at == 0 ? Walk::finished : Walk::cut;
    }
  }
  return walked;
}

// What all decoders return for a capacity other than 0, and how they end.
template <class Unit>
std::size_t terminate(Walked walked, Unit* destination, std::size_t capacity) {
  if (walked.outcome == Walk::invalid) return 0;
  destination[walked.units] = 0;
  return walked.outcome == Walk::cut ? capacity : walked.units + 1;
}

// --- UTF-32 to UTF-8 ---

// Two halves of 8 units as bytes, if all of them are ASCII.
bool narrow(const wchar_t* first, const wchar_t* second, __m128i& bytes) {
  const __m128i a = load_16(first);
  const __m128i b = load_16(first + 4);
  const __m128i c = load_16(second);
  const __m128i d = load_16(second + 4);
  const __m128i all = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
  const __m128i others = _mm_srli_epi32(all, 7);
  if (_mm_movemask_epi8(_mm_cmpeq_epi32(others, _mm_setzero_si128())) !=
      0xFFFF) {
    return false;
  }
  bytes = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
  return true;
}

std::uint32_t code_of(wchar_t unit) { return static_cast<std::uint32_t>(unit); }

// The bytes of a character.
std::size_t utf8_length(std::uint32_t value) {
  return std::size_t{1} + static_cast<std::size_t>(value >= 0x80) +
         static_cast<std::size_t>(value >= 0x800) +
         static_cast<std::size_t>(value >= 0x10000);
}

// The bytes of a text without its terminator.
std::size_t utf8_length(const wchar_t* at, const wchar_t* end) {
  const __m128i zero = _mm_setzero_si128();
  std::size_t length = 0;
  while (end - at >= kBlock / 4) {
    __m128i bytes;
    if (end - at >= kBlock && narrow(at, at + kHalf, bytes)) {
      length += kBlock;
      at += kBlock;
      continue;
    }
    // Four bytes a character, less one for each limit that it is below.
    __m128i saved = zero;
    const wchar_t* const stop = at + std::min(end - at, kBlock) / 4 * 4;
    for (; at < stop; at += 4) {
      const __m128i units = load_16(at);
      length += 16;
      saved =
          _mm_add_epi32(saved, _mm_cmpeq_epi32(_mm_srli_epi32(units, 7), zero));
      saved = _mm_add_epi32(saved,
                            _mm_cmpeq_epi32(_mm_srli_epi32(units, 11), zero));
      saved = _mm_add_epi32(saved,
                            _mm_cmpeq_epi32(_mm_srli_epi32(units, 16), zero));
    }
    std::int32_t lanes[4];
    store_16(lanes, saved);
    length -=
        static_cast<std::size_t>(-(lanes[0] + lanes[1] + lanes[2] + lanes[3]));
  }
  for (; at < end; ++at) {
    length += utf8_length(code_of(*at));
  }
  return length;
}

// Writes a character; the place behind it.
char* encode(std::uint32_t value, char* to) {
  const auto tail = [value](unsigned shift) {
    return static_cast<char>(0x80U | (value >> shift & 0x3FU));
  };
  if (value < 0x80) {
    *to++ = static_cast<char>(value);
  } else if (value < 0x800) {
    *to++ = static_cast<char>(0xC0U | value >> 6U);
    *to++ = tail(0);
  } else if (value < 0x10000) {
    *to++ = static_cast<char>(0xE0U | value >> 12U);
    *to++ = tail(6);
    *to++ = tail(0);
  } else {
    *to++ = static_cast<char>(0xF0U | (value >> 18U & 0xFFU));
    *to++ = tail(12);
    *to++ = tail(6);
    *to++ = tail(0);
  }
  return to;
}

// How far an encoder has come.
struct Encoded {
  const wchar_t* at;
  char* to;
};

// Encodes [at, stop), as far as there is room.
Encoded encode(const wchar_t* at, const wchar_t* stop, char* to,
               const char* end) {
  while (at < stop) {
    const std::ptrdiff_t rest = stop - at;
    __m128i bytes;
    if (rest >= kBlock && end - to >= kBlock && narrow(at, at + kHalf, bytes)) {
      store_16(to, bytes);
      at += kBlock;
      to += kBlock;
      continue;
    }
    if (rest < kBlock && rest >= kHalf && end - to >= rest &&
        narrow(at, stop - kHalf, bytes)) {
      // The halves overlap.
      store_8(to, bytes);
      store_8(to + rest - kHalf, _mm_srli_si128(bytes, kHalf));
      return {stop, to + rest};
    }
    // As many as there is room for, whatever they are.
    const wchar_t* const singly_stop =
        at + std::min({rest, kSinglyAtOnce, (end - to) / kLongest});
    if (at == singly_stop) {
      const auto value = code_of(*at);
      if (static_cast<std::size_t>(end - to) < utf8_length(value)) break;
      to = encode(value, to);
      ++at;
    }
    for (; at < singly_stop; ++at) {
      to = encode(code_of(*at), to);
    }
  }
  return {at, to};
}

}  // namespace

std::size_t utf8_utf32(wchar_t* destination, std::size_t capacity,
                       const char* source) {
  const auto* const text =
      reinterpret_cast<const Byte*>(source != nullptr ? source : "");
  if (destination == nullptr || capacity == 0) {
    const Walked walked = decode_utf8<false>(
        text, std::numeric_limits<std::size_t>::max(), nullptr);
    return walked.outcome == Walk::invalid ? 0 : walked.units + 1;
  }
  return terminate(decode_utf8<true>(text, capacity - 1, destination),
                   destination, capacity);
}

std::size_t utf32_utf8(char* destination, std::size_t capacity,
                       const wchar_t* source) {
  const wchar_t* const at = text_of(source);
  const wchar_t* const stop = at + std::wcslen(at);
  if (destination == nullptr || capacity == 0) {
    return utf8_length(at, stop) + 1;
  }
  // One byte is kept for the terminator. No more is counted on than the text
  // can need: callers may name any capacity for a buffer that is large enough.
  const std::size_t room =
      std::min(capacity - 1,
               static_cast<std::size_t>(stop - at) * std::size_t{kLongest});
  const Encoded encoded = encode(at, stop, destination, destination + room);
  const auto written = static_cast<std::size_t>(encoded.to - destination);
  if (encoded.at == stop) {
    *encoded.to = '\0';
    return written + 1;
  }
  // Nothing is written behind a character that did not fit, not even a shorter
  // one.
  destination[capacity - 1] = '\0';
  return written + utf8_length(encoded.at, stop) + 1;
}

namespace {

// Copies units one by one while `accept` takes them.
template <class From, class To, class Accept>
std::size_t copy_units(To* destination, std::size_t capacity,
                       const From* source, Accept accept) {
  const bool write = destination != nullptr && capacity != 0;
  const std::size_t room =
      write ? capacity - 1 : std::numeric_limits<std::size_t>::max();
  std::size_t units = 0;
  for (; source[units] != 0; ++units) {
    if (units == room) {
      return terminate({Walk::cut, nullptr, units}, destination, capacity);
    }
    if (!accept(source[units])) return 0;
    if (write) {
      destination[units] = static_cast<To>(
          static_cast<std::make_unsigned_t<From>>(source[units]));
    }
  }
  if (write) destination[units] = 0;
  return units + 1;
}

}  // namespace

std::size_t utf16_utf32(wchar_t* destination, std::size_t capacity,
                        const std::uint16_t* source) {
  static constexpr std::uint16_t kEmpty = 0;
  return copy_units(
      destination, capacity, source != nullptr ? source : &kEmpty,
      [](std::uint16_t unit) { return (unit & 0xFC00U) != 0xD800; });
}

std::size_t utf32_utf16(std::uint16_t* destination, std::size_t capacity,
                        const wchar_t* source) {
  return copy_units(destination, capacity, text_of(source), [](wchar_t unit) {
    return static_cast<std::uint32_t>(unit) <= 0x7FFF;
  });
}

// ---------------------------------------------------------------------------
// Exception records
// ---------------------------------------------------------------------------

void ExcepinfoInit(EXCEPINFO* info) { *info = EXCEPINFO(); }

HRESULT ExcepinfoClear(EXCEPINFO* info) {
  info->wCode = 0;
  info->wReserved = 0;
  SysFreeString(std::exchange(info->bstrSource, nullptr));
  SysFreeString(std::exchange(info->bstrDescription, nullptr));
  SysFreeString(std::exchange(info->bstrHelpFile, nullptr));
  info->dwHelpContext = 0;
  info->pvReserved = nullptr;
  info->pfnDeferredFillIn = nullptr;
  info->scode = 0;
  return S_OK;
}

HRESULT ExcepinfoCopy(EXCEPINFO* destination, EXCEPINFO* source) {
  ExcepinfoClear(destination);
  destination->wCode = source->wCode;
  destination->wReserved = source->wReserved;
  destination->bstrSource = SysAllocString(source->bstrSource);
  destination->bstrDescription = SysAllocString(source->bstrDescription);
  destination->bstrHelpFile = SysAllocString(source->bstrHelpFile);
  destination->dwHelpContext = source->dwHelpContext;
  destination->pvReserved = source->pvReserved;
  destination->pfnDeferredFillIn = source->pfnDeferredFillIn;
  destination->scode = source->scode;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------

namespace {

struct ElementType {
  VARTYPE vt;
  USHORT features;
  std::uint32_t size;
};

constexpr ElementType kElementTypes[] = {
    {VT_VARIANT, FADF_AUTO | FADF_VARIANT, sizeof(VARIANT)},
    {VT_BSTR, FADF_AUTO | FADF_BSTR, sizeof(BSTR)},
    {VT_UI1, FADF_AUTO, sizeof(BYTE)},
};

SAFEARRAYBOUND* bounds_of(SAFEARRAY* array) {
  return reinterpret_cast<SAFEARRAYBOUND*>(reinterpret_cast<char*>(array) +
                                           offsetof(SAFEARRAY, rgsabound));
}

// The product of all dimensions; false when it does not fit.
bool multiply_bounds(const SAFEARRAYBOUND* bounds, UINT dimensions,
                     std::uint64_t& count) {
  const auto* const end = bounds + dimensions;
  count = 0;
  if (std::any_of(bounds, end, [](const SAFEARRAYBOUND& bound) {
        return bound.cElements == 0;
      })) {
    return true;
  }
  count = 1;
  return std::all_of(bounds, end, [&count](const SAFEARRAYBOUND& bound) {
    return !__builtin_mul_overflow(count, bound.cElements, &count);
  });
}

// Deliberate: an array without dimensions counts as one element here, although
// it is created for none; its storage always has room for one. False when the
// count does not fit, which only a descriptor made by hand can bring about.
bool element_count(SAFEARRAY* array, std::uint64_t& count) {
  return multiply_bounds(bounds_of(array), array->cDims, count);
}

// Calls `act` for each element, if there is storage for them.
template <class Element, class Act>
void for_each_element(SAFEARRAY* array, Act act) {
  std::uint64_t count = 0;
  if (array->pvData == nullptr || !element_count(array, count)) return;
  auto* const elements = static_cast<Element*>(array->pvData);
  for (std::uint64_t i = 0; i < count; ++i) act(elements[i], i);
}

using Block = std::unique_ptr<void, Free>;

// Storage for the elements, at least one of them, zeroed; bytes are left as
// they come, but for the one that stands for none.
Block allocate_elements(std::uint64_t count, std::uint32_t size) {
  std::uint64_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
  if (size == sizeof(BYTE) && count > 0) return Block(std::malloc(bytes));
  return Block(std::calloc(std::max<std::uint64_t>(count, 1), size));
}

// A descriptor that takes over its storage; NULL without memory for it. The
// bounds, and the one behind them, are zero without `bounds`.
SAFEARRAY* make_descriptor(USHORT dimensions, USHORT features,
                           std::uint32_t element_size, Block elements,
                           const SAFEARRAYBOUND* bounds) {
  if (elements == nullptr) return nullptr;
  const std::size_t count = std::size_t{dimensions} + 1;
  void* const block = std::calloc(
      1, offsetof(SAFEARRAY, rgsabound) + count * sizeof(SAFEARRAYBOUND));
  if (block == nullptr) return nullptr;
  auto* const array = static_cast<SAFEARRAY*>(block);
  array->cDims = dimensions;
  array->fFeatures = features;
  array->cbElements = element_size;
  array->pvData = elements.release();
  if (bounds != nullptr) {
    std::copy_n(bounds, dimensions, bounds_of(array));
  }
  return array;
}

}  // namespace

SAFEARRAY* SafeArrayCreate(VARTYPE type, UINT dimensions,
                           SAFEARRAYBOUND* bounds) {
  const auto* const row =
      std::find_if(std::begin(kElementTypes), std::end(kElementTypes),
                   [type](const ElementType& each) { return each.vt == type; });
  if (row == std::end(kElementTypes)) return nullptr;
  if (dimensions > std::numeric_limits<USHORT>::max()) return nullptr;
  std::uint64_t count = 0;
  if (bounds != nullptr && dimensions != 0 &&
      !multiply_bounds(bounds, dimensions, count)) {
    return nullptr;
  }
  return make_descriptor(static_cast<USHORT>(dimensions), row->features,
                         row->size, allocate_elements(count, row->size),
                         bounds);
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE type, LONG lower_bound,
                                 zir_types::ULONG count) {
  SAFEARRAYBOUND bound = {count, lower_bound};
  return SafeArrayCreate(type, 1, &bound);
}

namespace {

// Makes a bitwise copy of a value other than a VT_BSTR or an array a copy of
// its own.
void deepen(VARIANT* copy) {
  switch (copy->vt) {
    case VT_UNKNOWN:
    case VT_DISPATCH:
      if (copy->punkVal != nullptr) copy->punkVal->AddRef();
      break;
    case VT_LPSTR:
      if (const char* const text = copy->pszVal; text != nullptr) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): values share no text
        const std::size_t size = std::strlen(text) + 1;
        copy->pszVal = static_cast<char*>(std::malloc(size));
        if (copy->pszVal != nullptr) std::memcpy(copy->pszVal, text, size);
      }
      break;
    default:
      break;
  }
}

// The same of a VT_BSTR.
void copy_string(VARIANT* copy) {
  if (wchar_t* const text = copy->bstrVal; text != nullptr) {
    copy->bstrVal = copy_text(text, std::wcslen(text));
  }
}

// Lets go of a payload of another type than VT_BSTR and than an array.
void release_payload(VARTYPE vt, VARIANT* value) {
  switch (vt) {
    case VT_UNKNOWN:
    case VT_DISPATCH:
      if (value->punkVal != nullptr) value->punkVal->Release();
      break;
    case VT_LPSTR:
      std::free(value->pszVal);
      break;
    default:
      break;
  }
}

// Locks an array that is on its way out and frees its strings. The number of
// its values, which are the caller's to clear.
std::uint64_t begin_to_destroy(SAFEARRAY* array) {
  // An element that is released may reach for the array once more.
  array->cLocks = 1;
  if ((array->fFeatures & FADF_VARIANT) != 0) {
    std::uint64_t count = 0;
    return array->pvData != nullptr && element_count(array, count) ? count : 0;
  }
  if ((array->fFeatures & FADF_BSTR) != 0) {
    for_each_element<BSTR>(array, [](BSTR& string, std::uint64_t) {
      free_string(std::exchange(string, nullptr));
    });
  }
  return 0;
}

void end_destroying(SAFEARRAY* array) {
  array->cLocks = 0;
  if ((array->fFeatures & FADF_AUTO) != 0) {
    std::free(array->pvData);
    std::free(array);
  }
}

// Where an array's destruction goes on when that of one of its elements, an
// array in turn, is through. Arrays nest as deep as a script cares to nest
// them, which must become neither calls as deep nor a need for memory: it is
// kept in the first element, which is the first to be cleared and stays Empty.
struct Outer {
  VARTYPE empty;
  std::uint16_t next_low;
  std::uint32_t next_high;
  SAFEARRAY* outer;
};
static_assert(sizeof(Outer) == sizeof(VARIANT) &&
              offsetof(VARIANT, vt) == offsetof(Outer, empty));

// Destroys an array that is not locked and all that it holds, in the order of
// the elements.
void destroy(SAFEARRAY* array) {
  SAFEARRAY* outer = nullptr;
  std::uint64_t count = begin_to_destroy(array);
  std::uint64_t next = 0;
  for (;;) {
    if (next == count) {
      end_destroying(array);
      if (outer == nullptr) return;
      array = outer;
      Outer kept = {};
      std::memcpy(&kept, array->pvData, sizeof kept);
      static_cast<VARIANT*>(array->pvData)[0] = VARIANT();
      next = std::uint64_t{kept.next_high} << 16 | kept.next_low;
      outer = kept.outer;
      element_count(array, count);
      continue;
    }
    VARIANT& value = static_cast<VARIANT*>(array->pvData)[next++];
    const VARTYPE vt = std::exchange(value.vt, VARTYPE{VT_EMPTY});
    if (vt == VT_BSTR) {
      free_string(value.bstrVal);
    } else if ((vt & VT_ARRAY) == 0) {
      release_payload(vt, &value);
    } else if (SAFEARRAY* const inner = value.parray;
               inner != nullptr && inner->cLocks == 0) {
      const std::uint64_t inner_count = begin_to_destroy(inner);
      if (inner_count == 0) {
        end_destroying(inner);
        continue;
      }
      // No address space has elements for more than these 48 bits.
      const Outer kept = {VT_EMPTY, static_cast<std::uint16_t>(next),
                          static_cast<std::uint32_t>(next >> 16), outer};
      std::memcpy(array->pvData, &kept, sizeof kept);
      outer = array;
      array = inner;
      count = inner_count;
      next = 0;
    }
  }
}

// An array whose values are being copied.
struct Copied {
  const VARIANT* from;
  VARIANT* to;
  std::uint64_t left;
  const SAFEARRAY* array;
};

// A copy of an array with everything but its values, which are Empty.
// E_OUTOFMEMORY.
HRESULT begin_to_copy(SAFEARRAY* array, SAFEARRAY** copy, Copied* level) {
  const bool variants = (array->fFeatures & FADF_VARIANT) != 0;
  const bool strings = !variants && (array->fFeatures & FADF_BSTR) != 0;
  std::uint32_t size = array->cbElements;
  if (variants) size = sizeof(VARIANT);
  if (strings) size = sizeof(BSTR);
  std::uint64_t count = 0;
  if (!element_count(array, count)) return E_OUTOFMEMORY;
  Block block = allocate_elements(count, size);
  void* const elements = block.get();
  *copy = make_descriptor(array->cDims, array->fFeatures, array->cbElements,
                          std::move(block), bounds_of(array));
  if (*copy == nullptr) return E_OUTOFMEMORY;
  *level = {};
  if (array->pvData == nullptr) return S_OK;
  if (variants) {
    *level = {static_cast<const VARIANT*>(array->pvData),
              static_cast<VARIANT*>(elements), count, array};
  } else if (strings) {
    for_each_element<BSTR>(array, [elements](BSTR string, std::uint64_t i) {
      static_cast<BSTR*>(elements)[i] = SysAllocString(string);
    });
  } else if (count != 0) {
    std::memcpy(elements, array->pvData, count * size);
  }
  return S_OK;
}

// The arrays around the one whose values are being copied. One that comes up in
// itself has no end, so all of them are known.
class CopiedLevels {
 public:
  CopiedLevels() { levels_.reserve(kSearched); }

  Copied& innermost() { return levels_.back(); }
  bool empty() const { return levels_.empty(); }

  bool has(const SAFEARRAY* array) const {
    const auto end = levels_.begin() + static_cast<std::ptrdiff_t>(
                                           std::min(levels_.size(), kSearched));
    return std::any_of(
               levels_.begin(), end,
               [array](const Copied& level) { return level.array == array; }) ||
           further_.count(array) != 0;
  }

  // Throws std::bad_alloc, and nothing has changed.
  void enter(const Copied& level) {
    levels_.push_back(level);
    if (levels_.size() <= kSearched) return;
    try {
      further_.insert(level.array);
    } catch (...) {
      levels_.pop_back();
      throw;
    }
  }
  void leave() {
    if (levels_.size() > kSearched) further_.erase(levels_.back().array);
    levels_.pop_back();
  }

 private:
  // Few enough to be looked through, one by one.
  static constexpr std::size_t kSearched = 16;
  std::vector<Copied> levels_;
  std::set<const SAFEARRAY*> further_;  // the array of each level behind those
};

// Makes a copy of an array within the array of `levels` and enters it; NULL for
// one that has no end, and without memory.
SAFEARRAY* copy_inner(SAFEARRAY* inner, CopiedLevels& levels) {
  if (levels.has(inner)) return nullptr;
  SAFEARRAY* copy = nullptr;
  Copied level = {};
  if (FAILED(begin_to_copy(inner, &copy, &level)) || level.left == 0) {
    return copy;
  }
  try {
    levels.enter(level);
  } catch (const std::bad_alloc&) {
    SafeArrayDestroy(copy);
    return nullptr;
  }
  return copy;
}

// Copies the values of an array and of all that are in them, one level after
// the other. What there is no memory for stays NULL; std::bad_alloc when there
// is none to begin with.
void copy_values(const Copied& outermost) {
  const auto copy_simple = [](VARIANT value, VARIANT* to) {
    // A host's object may throw, and what it did not count is not owned.
    if (value.vt == VT_BSTR) {
      copy_string(&value);
    } else {
      deepen(&value);
    }
    *to = value;
  };
  Copied level = outermost;
  const auto copy_until_array = [&level, copy_simple] {
    while (level.left != 0 && (level.from->vt & VT_ARRAY) == 0) {
      copy_simple(*level.from++, level.to++);
      --level.left;
    }
    return level.left != 0;
  };
  // Most arrays hold none, and need no levels.
  if (!copy_until_array()) return;
  CopiedLevels levels;
  levels.enter(level);
  for (;;) {
    level = levels.innermost();
    const bool at_array = copy_until_array();
    if (!at_array) {
      levels.leave();
      if (levels.empty()) return;
      continue;
    }
    VARIANT* const to = level.to++;
    const VARIANT value = *level.from++;
    --level.left;
    levels.innermost() = level;
    *to = value;
    to->parray = nullptr;
    if (value.parray != nullptr) to->parray = copy_inner(value.parray, levels);
  }
}

}  // namespace

HRESULT SafeArrayDestroy(SAFEARRAY* array) {
  if (array == nullptr) return E_INVALIDARG;
  if (array->cLocks != 0) return DISP_E_ARRAYISLOCKED;
  destroy(array);
  return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy) {
  if (array == nullptr || copy == nullptr) return E_INVALIDARG;
  *copy = nullptr;
  Copied level = {};
  const HRESULT result = begin_to_copy(array, copy, &level);
  if (FAILED(result)) return result;
  try {
    copy_values(level);
    return S_OK;
  } catch (const std::bad_alloc&) {
    SafeArrayDestroy(std::exchange(*copy, nullptr));
    return E_OUTOFMEMORY;
  } catch (...) {  // out of a host's object
    SafeArrayDestroy(std::exchange(*copy, nullptr));
    throw;
  }
}

namespace {

// The bound of a dimension, counted from 1.
HRESULT find_bound(SAFEARRAY* array, UINT dimension, const LONG* out,
                   SAFEARRAYBOUND& bound) {
  if (array == nullptr || out == nullptr) return E_INVALIDARG;
  if (dimension == 0 || dimension > array->cDims) return DISP_E_BADINDEX;
  bound = bounds_of(array)[dimension - 1];
  return S_OK;
}

}  // namespace

HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
  SAFEARRAYBOUND found = {};
  const HRESULT result = find_bound(array, dimension, bound, found);
  if (SUCCEEDED(result)) {
    *bound = wrapped(bits_of(found.lLbound) + found.cElements - 1);
  }
  return result;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
  SAFEARRAYBOUND found = {};
  const HRESULT result = find_bound(array, dimension, bound, found);
  if (SUCCEEDED(result)) *bound = found.lLbound;
  return result;
}

HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data) {
  if (array == nullptr || data == nullptr) return E_INVALIDARG;
  if (array->cLocks != 0) return E_UNEXPECTED;
  array->cLocks = 1;
  *data = array->pvData;
  return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* array) {
  if (array == nullptr) return E_INVALIDARG;
  if (array->cLocks == 0) return E_UNEXPECTED;
  --array->cLocks;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Variants
// ---------------------------------------------------------------------------

namespace {

constexpr VARTYPE kReference = VT_BYREF | VT_VARIANT;

// A value of a type, its payload zero.
VARIANT value_of(VARTYPE vt) {
  VARIANT value = {};
  value.vt = vt;
  return value;
}

// What VariantClear does, without a call through the library's exports.
inline void clear(VARIANT* value) {
  const VARTYPE vt = std::exchange(value->vt, VARTYPE{VT_EMPTY});
  if (vt == VT_BSTR) {
    free_string(value->bstrVal);
  } else if ((vt & VT_ARRAY) != 0) {
    SafeArrayDestroy(value->parray);
  } else if (vt > VT_NULL) {
    release_payload(vt, value);
  }
}

}  // namespace

void VariantInit(VARIANT* value) { *value = VARIANT(); }

HRESULT VariantClear(VARIANT* value) {
  clear(value);
  return S_OK;
}

HRESULT VariantCopy(VARIANT* destination, const VARIANT* source) {
  if (destination->vt != VT_EMPTY) clear(destination);
  // A host's object may throw, and what it did not count is not owned.
  VARIANT copy = *source;
  if (copy.vt == VT_BSTR) {
    copy_string(&copy);
  } else if ((copy.vt & VT_ARRAY) == 0) {
    deepen(&copy);
  } else if (SAFEARRAY* const array = std::exchange(copy.parray, nullptr)) {
    SafeArrayCopy(array, &copy.parray);
  }
  *destination = copy;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Dates
// ---------------------------------------------------------------------------

namespace {

// Days from 0000-03-01, where the 400-year cycle of the calendar begins, to the
// first day of the scale.
constexpr std::int64_t kDayZero = 693899;
constexpr int kSecondsPerDay = 86400;

// The first of the formats that the text begins with. Deliberate: `time` is not
// cleared between them, so an hour that a longer format read before it failed
// stays for a shorter one.
bool read_date(const char* text, struct tm& time) {
  static constexpr const char* kFormats[] = {
      "%Y/%m/%d %H:%M:%S", "%Y/%m/%d %H:%M", "%Y/%m/%d",
      "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d",
  };
  for (const char* const format : kFormats) {
    if (strptime(text, format, &time) != nullptr) return true;
  }
  if (strptime(text, "%H:%M:%S", &time) == nullptr) return false;
  time.tm_year = -1;
  time.tm_mon = 11;
  time.tm_mday = 30;
  return true;
}

}  // namespace

HRESULT VarDateFromStr(const wchar_t* text, LCID /*lcid*/,
                       zir_types::ULONG /*flags*/, DATE* date) {
  if (text == nullptr || date == nullptr) return E_INVALIDARG;
  // Zeroed, because the end of a text that is cut is not written throughout.
  char buffer[256] = {};
  utf32_utf8(buffer, sizeof buffer, text);
  struct tm time = {};
  if (!read_date(buffer, time)) return E_INVALIDARG;
  *date = tm_double(time);
  return S_OK;
}

DATE tm_double(struct tm time) {
  std::int64_t month = std::int64_t{time.tm_mon} + 1;
  std::int64_t year = std::int64_t{time.tm_year} + 1900;
  if (month < 3) {
    year -= 1;
    month += 12;
  }
  const std::int64_t days = 365 * year + year / 4 - year / 100 + year / 400 +
                            (153 * (month - 3) + 2) / 5 + time.tm_mday - 1 -
                            kDayZero;
  const std::int64_t seconds = 3600 * std::int64_t{time.tm_hour} +
                               60 * std::int64_t{time.tm_min} + time.tm_sec;
  return static_cast<double>(days) +
         static_cast<double>(seconds) / kSecondsPerDay;
}

void double_tm(DATE date, struct tm* time) {
  const double shifted = date + static_cast<double>(kDayZero);
  const double whole = std::floor(shifted);
  // Beyond these the year does not fit; a NaN becomes the lower one.
  constexpr double kMostDays = 1e12;
  const std::int64_t day = whole > -kMostDays
                               ? truncated(std::min(whole, kMostDays))
                               : truncated(-kMostDays);
  const double fraction = std::floor((shifted - whole) * kSecondsPerDay + 0.5);
  // Deliberate: a time just before midnight does not become the next day.
  const int second =
      fraction > 0 ? static_cast<int>(std::min(fraction, kSecondsPerDay - 1.0))
                   : 0;

  const auto [era, day_of_era] = floor_divide(day, 146097);
  const std::int64_t year_of_era = (day_of_era - day_of_era / 1460 +
                                    day_of_era / 36524 - day_of_era / 146096) /
                                   365;
  const std::int64_t day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const std::int64_t month_index = (5 * day_of_year + 2) / 153;  // March is 0
  const std::int64_t month =
      month_index < 10 ? month_index + 3 : month_index - 9;
  const std::int64_t year = year_of_era + 400 * era + (month <= 2 ? 1 : 0);

  *time = {};
  time->tm_year =
      static_cast<int>(std::clamp<std::int64_t>(year - 1900, INT_MIN, INT_MAX));
  time->tm_mon = static_cast<int>(month - 1);
  time->tm_mday =
      static_cast<int>(day_of_year - (153 * month_index + 2) / 5 + 1);
  time->tm_hour = second / 3600;
  time->tm_min = second % 3600 / 60;
  time->tm_sec = second % 60;
  time->tm_wday = -1;
  time->tm_yday = -1;
  time->tm_isdst = -1;
}

namespace {

SYSTEMTIME system_time(const struct tm& time, WORD milliseconds) {
  const auto word = [](std::int64_t value) { return static_cast<WORD>(value); };
  return {word(std::int64_t{time.tm_year} + 1900),
          word(time.tm_mon + 1),
          word(time.tm_wday),
          word(time.tm_mday),
          word(time.tm_hour),
          word(time.tm_min),
          word(time.tm_sec),
          milliseconds};
}

}  // namespace

int SystemTimeToVariantTime(SYSTEMTIME* time, double* date) {
  struct tm broken_down = {};
  broken_down.tm_year = time->wYear - 1900;
  broken_down.tm_mon = time->wMonth - 1;
  broken_down.tm_mday = time->wDay;
  broken_down.tm_hour = time->wHour;
  broken_down.tm_min = time->wMinute;
  broken_down.tm_sec = time->wSecond;
  *date = tm_double(broken_down);
  return 1;
}

int VariantTimeToSystemTime(double date, SYSTEMTIME* time) {
  struct tm broken_down = {};
  double_tm(date, &broken_down);
  *time = system_time(broken_down, 0);
  return 1;
}

void GetLocalTime(SYSTEMTIME* time) {
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  struct tm local = {};
  localtime_r(&now.tv_sec, &local);
  *time = system_time(local, static_cast<WORD>(now.tv_usec / 1000));
}

// ---------------------------------------------------------------------------
// Coercion
//
// A converter per target, a row for each. A converter fills the payload of a
// value that has the target's type and is zero otherwise, so that no bytes of
// an earlier value show behind a narrow one.
// ---------------------------------------------------------------------------

namespace {

// A converter's answer for a source that it does not know. No member's failure
// looks like it: it is not negative.
constexpr HRESULT kUnsupported = 2;

// Default members may answer with an object, whose default member is asked in
// turn; so long a chain goes nowhere.
constexpr int kMostDefaultMembers = 64;

HRESULT change_type(VARIANT* destination, const VARIANT* source, VARTYPE type,
                    int depth);

// Numbers in front of a text: false when there is none.
bool read_integer(BSTR text, std::int64_t& value) {
  const wchar_t* const start = text_of(text);
  // Plain numbers, as nearly all are, in a fraction of the library's time.
  constexpr std::ptrdiff_t kMostDigits = 18;
  const bool negative = *start == L'-';
  const wchar_t* const digits = start + (negative ? 1 : 0);
  const wchar_t* at = digits;
  std::int64_t number = 0;
  for (; *at >= L'0' && *at <= L'9' && at - digits < kMostDigits; ++at) {
    number = number * 10 + (*at - L'0');
  }
  if (at != digits && (*at < L'0' || *at > L'9')) {
    value = negative ? -number : number;
    return true;
  }
  wchar_t* end = nullptr;
  value = std::wcstoll(start, &end, 10);
  return end != start;
}

bool read_double(BSTR text, double& value) {
  const wchar_t* const start = text_of(text);
  wchar_t* end = nullptr;
  value = std::wcstod(start, &end);
  return end != start;
}

HRESULT to_i8(const VARIANT& from, VARIANT& to, int /*depth*/) {
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_BSTR:
      return read_integer(from.bstrVal, to.llVal) ? S_OK : E_INVALIDARG;
    case VT_I4:
      to.llVal = from.lVal;
      return S_OK;
    case VT_R8:
      to.llVal = truncated(from.dblVal);
      return S_OK;
    case VT_BOOL:
      to.llVal = from.boolVal;
      return S_OK;
    case VT_UI1:
      to.llVal = from.bVal;
      return S_OK;
    default:
      return kUnsupported;
  }
}

HRESULT to_i4(const VARIANT& from, VARIANT& to, int /*depth*/) {
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_BSTR:
      return read_integer(from.bstrVal, to.lVal) ? S_OK : E_INVALIDARG;
    case VT_I8:
      to.lVal = from.llVal;
      return S_OK;
    default:
      return kUnsupported;
  }
}

HRESULT to_i2(const VARIANT& from, VARIANT& to, int /*depth*/) {
  std::int64_t value = 0;
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_BSTR:
      if (!read_integer(from.bstrVal, value)) return E_INVALIDARG;
      break;
    case VT_I4:
      value = from.lVal;
      break;
    case VT_I8:
      value = from.llVal;
      break;
    default:
      return kUnsupported;
  }
  to.uiVal = static_cast<std::uint16_t>(value);
  return S_OK;
}

HRESULT to_ui1(const VARIANT& from, VARIANT& to, int /*depth*/) {
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_I8:
      to.bVal = static_cast<BYTE>(from.llVal);
      return S_OK;
    default:
      return kUnsupported;
  }
}

HRESULT to_r8(const VARIANT& from, VARIANT& to, int /*depth*/) {
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_I8:
      to.dblVal = static_cast<double>(from.llVal);
      return S_OK;
    case VT_BOOL:
      to.dblVal = from.boolVal;
      return S_OK;
    case VT_BSTR:
      return read_double(from.bstrVal, to.dblVal) ? S_OK : E_INVALIDARG;
    default:
      return kUnsupported;
  }
}

HRESULT to_date(const VARIANT& from, VARIANT& to, int /*depth*/) {
  switch (from.vt) {
    case VT_EMPTY:
      return S_OK;
    case VT_I8:
      to.date = static_cast<double>(from.llVal);
      return S_OK;
    case VT_BSTR:
      return VarDateFromStr(text_of(from.bstrVal), 0, 0, &to.date);
    default:
      return kUnsupported;
  }
}

HRESULT to_bool(const VARIANT& from, VARIANT& to, int /*depth*/) {
  bool value = false;
  switch (from.vt) {
    case VT_EMPTY:
      break;
    case VT_I8:
      value = from.llVal != 0;
      break;
    case VT_BSTR:
      value = wcscasecmp(text_of(from.bstrVal), L"true") == 0;
      if (!value && wcscasecmp(text_of(from.bstrVal), L"false") != 0) {
        return E_INVALIDARG;
      }
      break;
    default:
      return kUnsupported;
  }
  to.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT to_lpstr(const VARIANT& from, VARIANT& to, int /*depth*/) {
  if (from.vt != VT_BSTR) return kUnsupported;
  if (from.bstrVal == nullptr) return S_OK;
  const std::size_t size = utf32_utf8(nullptr, 0, from.bstrVal);
  to.pszVal = static_cast<char*>(std::malloc(size));
  if (to.pszVal == nullptr) return E_INVALIDARG;
  utf32_utf8(to.pszVal, size, from.bstrVal);
  return S_OK;
}

HRESULT store_text(const wchar_t* units, std::size_t count, VARIANT& to) {
  to.bstrVal = copy_text(units, count);
  return to.bstrVal != nullptr ? S_OK : E_INVALIDARG;
}

template <class Integer>
HRESULT store_integer(Integer value, VARIANT& to) {
  char digits[std::numeric_limits<Integer>::digits10 + 2];
  char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const auto count = static_cast<std::size_t>(end - digits);
  to.bstrVal = allocate_text(count);
  if (to.bstrVal == nullptr) return E_INVALIDARG;
  std::copy(digits, end, to.bstrVal);
  return S_OK;
}

HRESULT store_double(double value, VARIANT& to) {
  wchar_t text[40];
  const int count = std::swprintf(text, std::size(text), L"%.15g", value);
  return count < 0 ? E_INVALIDARG
                   : store_text(text, static_cast<std::size_t>(count), to);
}

// The time alone on the first day of the scale, the date alone at midnight.
// Texts of more than 19 characters, for years beyond 9999, are cut.
HRESULT store_date(DATE date, VARIANT& to) {
  constexpr int kMostCharacters = 19;
  struct tm time = {};
  double_tm(date, &time);
  wchar_t text[80];
  int count = 0;
  if (date >= 0.0 && date < 1.0) {
    count = std::swprintf(text, std::size(text), L"%02d:%02d:%02d",
                          time.tm_hour, time.tm_min, time.tm_sec);
  } else {
    count = std::swprintf(text, std::size(text), L"%04lld/%02d/%02d",
                          1900LL + time.tm_year, time.tm_mon + 1, time.tm_mday);
    if (time.tm_hour != 0 || time.tm_min != 0 || time.tm_sec != 0) {
      count += std::swprintf(
          text + count, std::size(text) - static_cast<std::size_t>(count),
          L" %02d:%02d:%02d", time.tm_hour, time.tm_min, time.tm_sec);
    }
  }
  return store_text(
      text, static_cast<std::size_t>(std::clamp(count, 0, kMostCharacters)),
      to);
}

// Deliberate: the string's count includes the terminator of the 8-bit text, so
// it is one more than the number of characters.
HRESULT store_utf8(const char* text, VARIANT& to) {
  if (text == nullptr) return S_OK;
  const std::size_t size = utf8_utf32(nullptr, 0, text);
  if (size == 0) return store_text(L"", 0, to);  // not UTF-8
  to.bstrVal = allocate_text(size);
  if (to.bstrVal == nullptr) return E_INVALIDARG;
  utf8_utf32(to.bstrVal, size, text);
  return S_OK;
}

HRESULT store_default_member(IDispatch* object, VARIANT& to, int depth) {
  if (object == nullptr || depth == kMostDefaultMembers) return E_INVALIDARG;
  DISPPARAMS none = {};
  _variant_t value;
  const HRESULT result =
      object->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_PROPERTYGET, &none,
                     &value, nullptr, nullptr);
  if (FAILED(result)) return result;
  VARIANT text = {};
  const HRESULT changed = change_type(&text, &value, VT_BSTR, depth + 1);
  if (SUCCEEDED(changed)) to.bstrVal = text.bstrVal;
  return changed;
}

HRESULT to_bstr(const VARIANT& from, VARIANT& to, int depth) {
  switch (from.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return store_text(L"", 0, to);
    case VT_I2:
    case VT_BOOL:
      return store_integer(from.iVal, to);
    case VT_I4:
    case VT_I8:
      return store_integer(from.llVal, to);
    case VT_UI1:
      return store_integer(from.bVal, to);
    case VT_UI8:
      return store_integer(from.ullVal, to);
    case VT_R8:
      return store_double(from.dblVal, to);
    case VT_DATE:
      return store_date(from.date, to);
    case VT_DISPATCH:
      return store_default_member(from.pdispVal, to, depth);
    case VT_LPSTR:
      return store_utf8(from.pszVal, to);
    default:
      return kUnsupported;
  }
}

struct Target {
  VARTYPE vt;
  int stub_line;
  HRESULT (*convert)(const VARIANT& from, VARIANT& to, int depth);
};

constexpr Target kTargets[] = {
    {VT_I8, 1045, to_i8},    {VT_BSTR, 940, to_bstr}, {VT_R8, 1009, to_r8},
    {VT_BOOL, 981, to_bool}, {VT_I4, 1069, to_i4},    {VT_DATE, 1134, to_date},
    {VT_I2, 1097, to_i2},    {VT_UI1, 1111, to_ui1},  {VT_LPSTR, 950, to_lpstr},
};
constexpr int kNoTargetStubLine = 1139;

// Into `to`, which owns nothing yet. Nothing is left in it after a failure.
HRESULT convert(const VARIANT& from, VARIANT& to, VARTYPE type, int depth) {
  if (from.vt == type) return VariantCopy(&to, &from);
  int stub_line = kNoTargetStubLine;
  for (const Target& target : kTargets) {
    if (target.vt != type) continue;
    VARIANT value = value_of(type);
    const HRESULT result = target.convert(from, value, depth);
    if (result != kUnsupported) {
      if (SUCCEEDED(result)) to = value;
      return result;
    }
    stub_line = target.stub_line;
    break;
  }
  return unsupported_types("VariantChangeType", stub_line, from.vt, type);
}

// What a value stands for: one level of reference is looked through.
template <class Variant>
Variant* dereferenced(Variant* value) {
  return value != nullptr && value->vt == kReference ? value->pvarVal : value;
}

HRESULT change_type(VARIANT* destination, const VARIANT* source, VARTYPE type,
                    int depth) {
  if (destination == nullptr || source == nullptr) return E_INVALIDARG;
  VARIANT converted = {};
  if (destination != source) {
    clear(destination);
    const VARIANT* const from = dereferenced(source);
    if (from == nullptr) return E_INVALIDARG;
    const HRESULT result = convert(*from, converted, type, depth);
    if (SUCCEEDED(result)) *destination = converted;
    return result;
  }
  VARIANT* const place = dereferenced(destination);
  if (place == nullptr) return E_INVALIDARG;
  const HRESULT result = convert(*place, converted, type, depth);
  if (FAILED(result)) return result;
  VARIANT replaced = std::exchange(*place, converted);
  clear(&replaced);
  return result;
}

}  // namespace

HRESULT VariantChangeType(VARIANT* destination, const VARIANT* source,
                          USHORT /*flags*/, VARTYPE type) {
  return change_type(destination, source, type, 0);
}

// ---------------------------------------------------------------------------
// Operators
// ---------------------------------------------------------------------------

namespace {

struct Operands {
  const VARIANT* left;
  const VARIANT* right;
};

// What two operands stand for; no left one when either is missing.
Operands operands(const VARIANT* left, const VARIANT* right) {
  left = dereferenced(left);
  right = dereferenced(right);
  return {right != nullptr ? left : nullptr, right};
}

// An operand, and the converted value that stands in its place.
class Operand {
 public:
  explicit Operand(const VARIANT* value) : value_(value) {}
  Operand(const Operand&) = delete;
  Operand& operator=(const Operand&) = delete;
  ~Operand() {
    if (converted_.vt != VT_EMPTY) clear(&converted_);
  }

  const VARIANT* operator->() const { return value_; }
  VARTYPE type() const { return value_->vt; }

  // Failure is not reported: the operand is VT_EMPTY then, which no operator
  // takes.
  void convert_to(VARTYPE type) {
    if (value_->vt == type) return;
    VARIANT next = {};
    change_type(&next, value_, type, 0);
    clear(&converted_);
    converted_ = next;
    value_ = &converted_;
  }

 private:
  const VARIANT* value_;
  VARIANT converted_ = {};
};

// Field by field: a value built in pieces and then copied as one would have to
// wait for the pieces.
void set_type(VARIANT* result, VARTYPE vt) {
  result->vt = vt;
  result->wReserved1 = 0;
  result->wReserved2 = 0;
  result->wReserved3 = 0;
  result->ullVal = 0;
}

HRESULT store(VARIANT* result, std::int64_t value) {
  set_type(result, VT_I8);
  result->llVal = value;
  return S_OK;
}

HRESULT store(VARIANT* result, double value) {
  set_type(result, VT_R8);
  result->dblVal = value;
  return S_OK;
}

HRESULT store_bool(VARIANT* result, unsigned bits) {
  set_type(result, VT_BOOL);
  result->uiVal = static_cast<std::uint16_t>(bits);
  return S_OK;
}

enum Rules : unsigned {
  kBoolIsInteger = 1,    // a VT_BOOL operand becomes a VT_I8
  kIntegerConverts = 2,  // a VT_I8 makes the other operand one
  kConcatenates = 4,     // two texts
  kDivides = 8,
};

struct Arithmetic {
  const char* name;
  int stub_line;
  unsigned rules;
  std::int64_t (*of_integers)(std::int64_t, std::int64_t);
  double (*of_doubles)(double, double);
};

std::int64_t add(std::int64_t left, std::int64_t right) {
  return wrapped(bits_of(left) + bits_of(right));
}
std::int64_t subtract(std::int64_t left, std::int64_t right) {
  return wrapped(bits_of(left) - bits_of(right));
}
std::int64_t multiply(std::int64_t left, std::int64_t right) {
  return wrapped(bits_of(left) * bits_of(right));
}
double add(double left, double right) { return left + right; }
double subtract(double left, double right) { return left - right; }
double multiply(double left, double right) { return left * right; }
double divide(double left, double right) { return left / right; }

constexpr Arithmetic kAdd = {"VarAdd", 728, kIntegerConverts | kConcatenates,
                             add, add};
constexpr Arithmetic kSub = {"VarSub", 759, 0, subtract, subtract};
constexpr Arithmetic kMul = {"VarMul", 633, kBoolIsInteger, multiply, multiply};
constexpr Arithmetic kDiv = {"VarDiv", 686, kDivides, nullptr, divide};

constexpr bool has(const Arithmetic& row, Rules rule) {
  return (row.rules & rule) != 0;
}

template <const Arithmetic& kRow>
HRESULT calculate(std::int64_t left, std::int64_t right, VARIANT* result) {
  if constexpr (has(kRow, kDivides)) {
    if (right == 0) return DISP_E_DIVBYZERO;
    return store(result, kRow.of_doubles(static_cast<double>(left),
                                         static_cast<double>(right)));
  } else {
    return store(result, kRow.of_integers(left, right));
  }
}

template <const Arithmetic& kRow>
HRESULT calculate(double left, double right, VARIANT* result) {
  if (has(kRow, kDivides) && right == 0.0) return DISP_E_DIVBYZERO;
  return store(result, kRow.of_doubles(left, right));
}

// Out of line, so that two numbers make no operands.
template <const Arithmetic& kRow>
__attribute__((noinline)) HRESULT calculate_converted(const VARIANT* l,
                                                      const VARIANT* r,
                                                      VARIANT* result) {
  Operand left(l);
  Operand right(r);
  if (has(kRow, kBoolIsInteger)) {
    if (left.type() == VT_BOOL) left.convert_to(VT_I8);
    if (right.type() == VT_BOOL) right.convert_to(VT_I8);
  }
  if (has(kRow, kIntegerConverts) && right.type() == VT_I8) {
    left.convert_to(VT_I8);
  }
  if (right.type() == VT_R8) left.convert_to(VT_R8);
  if (left.type() == VT_R8) right.convert_to(VT_R8);
  if (has(kRow, kIntegerConverts) && left.type() == VT_I8) {
    right.convert_to(VT_I8);
  }

  if (left.type() == VT_R8 && right.type() == VT_R8) {
    return calculate<kRow>(left->dblVal, right->dblVal, result);
  }
  if (left.type() == VT_I8 && right.type() == VT_I8) {
    return calculate<kRow>(left->llVal, right->llVal, result);
  }
  return unsupported_types(kRow.name, kRow.stub_line, left.type(),
                           right.type());
}

template <const Arithmetic& kRow>
HRESULT arithmetic(VARIANT* l, VARIANT* r, VARIANT* result) {
  const auto [left, right] = operands(l, r);
  if (left == nullptr || result == nullptr) return E_INVALIDARG;
  if (left->vt == VT_I8 && right->vt == VT_I8) {
    return calculate<kRow>(left->llVal, right->llVal, result);
  }
  if (left->vt == VT_R8 && right->vt == VT_R8) {
    return calculate<kRow>(left->dblVal, right->dblVal, result);
  }
  if (has(kRow, kConcatenates) && left->vt == VT_BSTR && right->vt == VT_BSTR) {
    return VarCat(l, r, result);
  }
  return calculate_converted<kRow>(left, right, result);
}

}  // namespace

HRESULT VarAdd(VARIANT* left, VARIANT* right, VARIANT* result) {
  return arithmetic<kAdd>(left, right, result);
}
HRESULT VarSub(VARIANT* left, VARIANT* right, VARIANT* result) {
  return arithmetic<kSub>(left, right, result);
}
HRESULT VarMul(VARIANT* left, VARIANT* right, VARIANT* result) {
  return arithmetic<kMul>(left, right, result);
}
HRESULT VarDiv(VARIANT* left, VARIANT* right, VARIANT* result) {
  return arithmetic<kDiv>(left, right, result);
}

HRESULT VarMod(VARIANT* l, VARIANT* r, VARIANT* result) {
  const auto [left, right] = operands(l, r);
  if (left == nullptr || result == nullptr) return E_INVALIDARG;
  if (left->vt != VT_I8 || right->vt != VT_I8) {
    return unsupported_types("VarMod", 651, left->vt, right->vt);
  }
  if (right->llVal == 0) return DISP_E_DIVBYZERO;
  // Nothing remains, and the processor would trap on the least value.
  if (right->llVal == -1) return store(result, std::int64_t{0});
  return store(result, left->llVal % right->llVal);
}

HRESULT VarPow(VARIANT* l, VARIANT* r, VARIANT* result) {
  const auto [left, right] = operands(l, r);
  if (left == nullptr || result == nullptr) return E_INVALIDARG;
  const auto is_number = [](const VARIANT* value) {
    return value->vt == VT_I8 || value->vt == VT_R8;
  };
  if (!is_number(left) || !is_number(right)) {
    return unsupported_types("VarPow", 594, left->vt, right->vt);
  }
  const auto number = [](const VARIANT* value) {
    return value->vt == VT_I8 ? static_cast<double>(value->llVal)
                              : value->dblVal;
  };
  const double power = std::pow(number(left), number(right));
  return left->vt == VT_I8 && right->vt == VT_I8
             ? store(result, truncated(power))
             : store(result, power);
}

HRESULT VarCat(VARIANT* l, VARIANT* r, VARIANT* result) {
  const auto [l_value, r_value] = operands(l, r);
  if (l_value == nullptr || result == nullptr) return E_INVALIDARG;
  if (l_value->vt == VT_NULL && r_value->vt == VT_NULL) {
    *result = value_of(VT_NULL);
    return S_OK;
  }
  if (l_value->vt == VT_NULL || r_value->vt == VT_NULL) {
    VARIANT text = {};
    const HRESULT changed = change_type(
        &text, l_value->vt == VT_NULL ? r_value : l_value, VT_BSTR, 0);
    if (SUCCEEDED(changed)) *result = text;
    return changed;
  }
  Operand left(l_value);
  Operand right(r_value);
  left.convert_to(VT_BSTR);
  right.convert_to(VT_BSTR);
  if (left.type() != VT_BSTR || right.type() != VT_BSTR) {
    return unsupported_types("VarCat", 810, left.type(), right.type());
  }
  const UINT left_count = SysStringLen(left->bstrVal);
  const UINT right_count = SysStringLen(right->bstrVal);
  UINT count = 0;
  if (__builtin_add_overflow(left_count, right_count, &count)) {
    return E_OUTOFMEMORY;
  }
  wchar_t* const text = SysAllocStringLen(nullptr, count);
  if (text == nullptr) return E_OUTOFMEMORY;
  std::copy_n(text_of(left->bstrVal), left_count, text);
  std::copy_n(text_of(right->bstrVal), right_count, text + left_count);
  *result = value_of(VT_BSTR);
  result->bstrVal = text;
  return S_OK;
}

namespace {

template <class Value>
HRESULT compared(Value left, Value right) {
  return VARCMP_EQ + static_cast<HRESULT>(left > right) -
         static_cast<HRESULT>(right > left);
}

// Makes the other operand `type` when one of them is; whether one is.
bool agree_on(VARTYPE type, Operand& left, Operand& right) {
  if (left.type() == type) {
    right.convert_to(type);
  } else if (right.type() == type) {
    left.convert_to(type);
  } else {
    return false;
  }
  return true;
}

// Out of line, so that comparing two numbers makes no operands.
__attribute__((noinline)) HRESULT compare_converted(const VARIANT* l,
                                                    const VARIANT* r) {
  Operand left(l);
  Operand right(r);
  if (left.type() != right.type() && !agree_on(VT_BSTR, left, right) &&
      !agree_on(VT_R8, left, right)) {
    agree_on(VT_I8, left, right);
  }
  if (left.type() == right.type()) {
    switch (left.type()) {
      case VT_BSTR:
        return compared(
            std::wcscmp(text_of(left->bstrVal), text_of(right->bstrVal)), 0);
      case VT_R8:
        return compared(left->dblVal, right->dblVal);
      case VT_I8:
      case VT_I4:
        return compared(left->llVal, right->llVal);
      case VT_BOOL:
        return compared(left->boolVal, right->boolVal);
      default:
        break;
    }
  }
  return unsupported_types("VarCmp", 488, left.type(), right.type());
}

}  // namespace

HRESULT VarCmp(VARIANT* l, VARIANT* r, LCID /*lcid*/,
               zir_types::ULONG /*flags*/) {
  const auto [left, right] = operands(l, r);
  if (left == nullptr) return E_INVALIDARG;
  if (left->vt == VT_I8 && right->vt == VT_I8) {
    return compared(left->llVal, right->llVal);
  }
  if (left->vt == VT_R8 && right->vt == VT_R8) {
    return compared(left->dblVal, right->dblVal);
  }
  return compare_converted(left, right);
}

namespace {

struct Logical {
  const char* name;
  int stub_line;
  unsigned (*of_bits)(unsigned, unsigned);
};

constexpr Logical kAnd = {"VarAnd", 391,
                          [](unsigned l, unsigned r) { return l & r; }};
constexpr Logical kOr = {"VarOr", 407,
                         [](unsigned l, unsigned r) { return l | r; }};
constexpr Logical kXor = {"VarXor", 423,
                          [](unsigned l, unsigned r) { return l ^ r; }};

template <const Logical& kRow>
HRESULT logical(VARIANT* l, VARIANT* r, VARIANT* result) {
  const auto [left, right] = operands(l, r);
  if (left == nullptr || result == nullptr) return E_INVALIDARG;
  if (left->vt != VT_BOOL || right->vt != VT_BOOL) {
    return unsupported_types(kRow.name, kRow.stub_line, left->vt, right->vt);
  }
  return store_bool(result, kRow.of_bits(left->uiVal, right->uiVal));
}

}  // namespace

HRESULT VarAnd(VARIANT* left, VARIANT* right, VARIANT* result) {
  return logical<kAnd>(left, right, result);
}
HRESULT VarOr(VARIANT* left, VARIANT* right, VARIANT* result) {
  return logical<kOr>(left, right, result);
}
HRESULT VarXor(VARIANT* left, VARIANT* right, VARIANT* result) {
  return logical<kXor>(left, right, result);
}

HRESULT VarNot(VARIANT* operand, VARIANT* result) {
  const VARIANT* const value = dereferenced(operand);
  if (value == nullptr || result == nullptr) return E_INVALIDARG;
  if (value->vt != VT_BOOL) return unsupported_type("VarNot", 375, value->vt);
  return store_bool(result, ~unsigned{value->uiVal});
}

namespace {

// A factor of 10 so many times. Deliberate: step by step, because one power of
// ten would round differently. Ends when a step changes nothing (zero,
// infinity, NaN).
template <class Step>
double repeated(double value, int times, Step step) {
  for (int i = 0; i < times; ++i) {
    const double next = step(value);
    if (next == value || std::isnan(next)) return next;
    value = next;
  }
  return value;
}

double rounded(double value, int decimals) {
  const double scaled =
      repeated(value, decimals, [](double x) { return x * 10; });
  const double lowered = scaled - 0.5;
  std::uint64_t whole = truncated_unsigned(lowered);
  if (lowered >= 0) ++whole;
  return repeated(static_cast<double>(whole), decimals,
                  [](double x) { return x / 10; });
}

// The operators on one number: doubles by `of_double`, integers by
// `of_integer`.
template <class OfDouble, class OfInteger>
HRESULT unary(const char* name, int stub_line, const VARIANT* operand,
              VARIANT* result, OfDouble of_double, OfInteger of_integer) {
  if (operand == nullptr || result == nullptr) return E_INVALIDARG;
  switch (operand->vt) {
    case VT_R8:
      return store(result, of_double(operand->dblVal));
    case VT_I8:
      return store(result, of_integer(operand->llVal));
    default:
      return unsupported_type(name, stub_line, operand->vt);
  }
}

std::int64_t same(std::int64_t value) { return value; }

}  // namespace

HRESULT VarRound(VARIANT* operand, int decimals, VARIANT* result) {
  return unary(
      "VarRound", 514, operand, result,
      [decimals](double x) { return rounded(x, decimals); }, same);
}

HRESULT VarInt(VARIANT* operand, VARIANT* result) {
  return unary(
      "VarInt", 532, operand, result,
      [](double x) { return x < 0 ? std::trunc(x) - 1 : std::trunc(x); }, same);
}

HRESULT VarFix(VARIANT* operand, VARIANT* result) {
  return unary("VarFix", 549, operand, result, truncated, same);
}

HRESULT VarAbs(VARIANT* operand, VARIANT* result) {
  return unary(
      "VarAbs", 566, operand, result, [](double x) { return x < 0 ? -x : x; },
      [](std::int64_t x) { return x < 0 ? wrapped(0 - bits_of(x)) : x; });
}

// ---------------------------------------------------------------------------
// Libraries
// ---------------------------------------------------------------------------

namespace {

constexpr char kRegistry[] = "REGISTRY";

// NULL when it is not set, or set to nothing.
const char* registry() {
  // Read every time, so that a change counts from the next activation on.
  const char* const directory = std::getenv(kRegistry);  // NOLINT(*-mt-unsafe)
  return directory != nullptr && *directory != '\0' ? directory : nullptr;
}

std::string zir_join_path(const std::string& directory,
                          const std::string& name) {
  if (directory.empty()) return name;
  const char last = directory.back();
  return last == '/' || last == '\\' ? directory + name
                                     : directory + '/' + name;
}

void* zir_dlopen_stem(const std::string& stem) {
  if (stem.empty()) return nullptr;
  if (stem.find_first_of("/\\") != std::string::npos) {
    return dlopen(stem.c_str(), RTLD_NOW);
  }
  const std::string name = stem + ".so";
  if (const char* const directory = registry()) {
    const std::string joined = zir_join_path(directory, name);
    // Links are resolved, so that all names of one file load it once.
    const std::unique_ptr<char, Free> resolved(
        realpath(joined.c_str(), nullptr));
    const char* const path = resolved ? resolved.get() : joined.c_str();
    if (void* const library = dlopen(path, RTLD_NOW)) return library;
  }
  return dlopen(name.c_str(), RTLD_NOW);
}

}  // namespace

HMODULE LoadLibraryW(const wchar_t* name) try {
  if (name == nullptr) return nullptr;
  char stem[256] = {};
  if (utf32_utf8(stem, sizeof stem, name) >= sizeof stem) return nullptr;
  return zir_dlopen_stem(stem);
} catch (const std::bad_alloc&) {
  return nullptr;
}

HMODULE GetModuleHandleW(const wchar_t* name) {
  return name == nullptr ? dlopen(nullptr, RTLD_LAZY) : nullptr;
}

void* GetProcAddress(HMODULE module, const char* name) {
  return name != nullptr ? dlsym(module, name) : nullptr;
}

// ---------------------------------------------------------------------------
// Activation
// ---------------------------------------------------------------------------

namespace {

// Asks a library's class factory for an object. `failure` stands for whatever
// keeps the factory from being asked. For CLSID_NULL the component finds the
// class by `class_name`, NULL when none was given.
HRESULT create_from(HMODULE library, REFCLSID clsid, wchar_t* class_name,
                    IUnknown* outer, REFIID riid, void** object,
                    HRESULT failure) {
  if (library == nullptr) return failure;
  const auto get_class_object = reinterpret_cast<LPFNGETCLASSOBJECT>(
      GetProcAddress(library, "DllGetClassObject"));
  if (get_class_object == nullptr) return failure;
  void* found = class_name;
  if (FAILED(get_class_object(clsid, IID_IClassFactory, &found)) ||
      found == nullptr || found == class_name) {
    return failure;
  }
  const auto factory =
      InterfacePtr<IClassFactory>::adopt(static_cast<IClassFactory*>(found));
  return factory->CreateInstance(outer, riid, object);
}

constexpr std::size_t kGuidUnits = 39;  // with the terminator

// `format` takes the eleven fields.
void format_guid(REFGUID guid, const wchar_t* format,
                 wchar_t (&text)[kGuidUnits]) {
  std::swprintf(text, kGuidUnits, format, guid.Data1, guid.Data2, guid.Data3,
                guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3],
                guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
}

}  // namespace

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD /*context*/,
                         REFIID riid, void** object) {
  wchar_t name[kGuidUnits];
  format_guid(clsid,
              L"{%08X-%04hX-%04hX-%02hhX%02hhX-"
              L"%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX}",
              name);
  return create_from(LoadLibraryW(name), clsid, nullptr, outer, riid, object,
                     E_FAIL);
}

HRESULT CoCreateInstanceByName(const wchar_t* program_id, IUnknown* outer,
                               DWORD /*context*/, REFIID riid, void** object) {
  if (program_id == nullptr) return CO_E_CLASSSTRING;
  wchar_t stem[256] = {};
  std::wcsncpy(stem, program_id, std::size(stem) - 1);
  wchar_t* at = stem;
  for (; *at != L'\0' && *at != L'.'; ++at) {
    *at = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(*at)));
  }
  wchar_t* class_name = nullptr;
  if (*at == L'.') {
    *at = L'\0';
    class_name = at + 1;
  }
  return create_from(LoadLibraryW(stem), CLSID_NULL, class_name, outer, riid,
                     object, CO_E_CLASSSTRING);
}

HRESULT CoGetObject(const wchar_t* name, BIND_OPTS* /*options*/, REFIID riid,
                    void** object) {
  static constexpr wchar_t kPrefix[] = L"new:";
  constexpr std::size_t kPrefixLength = std::size(kPrefix) - 1;
  if (name == nullptr || wcsncasecmp(name, kPrefix, kPrefixLength) != 0) {
    return E_FAIL;
  }
  const HRESULT result = CoCreateInstanceByName(
      name + kPrefixLength, nullptr, CLSCTX_INPROC_SERVER, riid, object);
  return FAILED(result) ? E_FAIL : result;
}

HRESULT CLSIDFromProgID(const wchar_t* program_id, CLSID* clsid) try {
  if (program_id == nullptr) return CO_E_CLASSSTRING;
  if (clsid == nullptr) return E_INVALIDARG;
  // Zeroed, because the end of a text that is cut is not written throughout.
  char name[256] = {};
  utf32_utf8(name, sizeof name, program_id);
  for (char& byte : name) {
    byte = static_cast<char>(std::toupper(static_cast<unsigned char>(byte)));
  }
  const char* const directory = registry();
  if (directory == nullptr) return CO_E_CLASSSTRING;
  const std::string path =
      zir_join_path(directory, std::string(name) + ".clsid");
  const auto close = [](std::FILE* file) { std::fclose(file); };
  const std::unique_ptr<std::FILE, decltype(close)> file(
      std::fopen(path.c_str(), "r"), close);
  if (file == nullptr) return CO_E_CLASSSTRING;
  constexpr int kFields = 11;
  // NOLINTNEXTLINE(cert-err34-c): eleven fields or nothing
  const int read = std::fscanf(
      file.get(), "{%8x-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx}",
      &clsid->Data1, &clsid->Data2, &clsid->Data3, &clsid->Data4[0],
      &clsid->Data4[1], &clsid->Data4[2], &clsid->Data4[3], &clsid->Data4[4],
      &clsid->Data4[5], &clsid->Data4[6], &clsid->Data4[7]);
  return read == kFields ? S_OK : E_FAIL;
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
}

HRESULT CLSIDFromString(const wchar_t* text, CLSID* /*clsid*/) {
  return not_implemented("CLSIDFromString", 176, text, E_NOTIMPL);
}

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

const IID IID_IUnknown = {
    0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IDispatch = {
    0x00020400, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IEnumVARIANT = {
    0x00020404, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IErrorInfo = {0x1CF2B120,
                            0x547D,
                            0x101B,
                            {0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19}};
const IID IID_IContextProperties = {
    0xD396DA85,
    0xBF8F,
    0x11D1,
    {0xBB, 0xAE, 0x00, 0xC0, 0x4F, 0xC2, 0xFA, 0x5F}};
const IID IID_IGetContextProperties = {
    0x51372AF4,
    0xCAE7,
    0x11CF,
    {0xBE, 0x81, 0x00, 0xAA, 0x00, 0xA2, 0xFA, 0x25}};
const IID IID_NULL = {};
const CLSID CLSID_NULL = {};

HRESULT CoCreateGuid(GUID* guid) {
  if (guid == nullptr) return E_INVALIDARG;
  // Deliberate: the bytes as they come, so that the first eight are numbers in
  // the machine's order.
  uuid_t bytes;
  static_assert(sizeof bytes == sizeof *guid);
  uuid_generate(bytes);
  std::memcpy(guid, bytes, sizeof *guid);
  return S_OK;
}

int StringFromGUID2(REFGUID guid, wchar_t* buffer, int size) {
  constexpr auto kUnits = static_cast<int>(kGuidUnits);
  if (buffer == nullptr || size < kUnits) return 0;
  wchar_t text[kGuidUnits];
  format_guid(guid,
              L"{%08x-%04hx-%04hx-%02hhx%02hhx-"
              L"%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx}",
              text);
  std::copy(std::begin(text), std::end(text), buffer);
  return kUnits;
}

// ---------------------------------------------------------------------------
// Object context
// ---------------------------------------------------------------------------

namespace {

// A thread's named values. The table of the second base leads to the same
// operations.
class CoContext final : public IContextProperties,
                        public IGetContextProperties {
 public:
  CoContext() = default;
  CoContext(const CoContext&) = delete;
  CoContext& operator=(const CoContext&) = delete;

  // Deliberate: CoGetObjectContext is the one way to the interfaces.
  HRESULT QueryInterface(REFIID /*riid*/, void** /*object*/) override {
    return E_NOTIMPL;
  }
  zir_types::ULONG AddRef() override { return ++m_refc; }
  zir_types::ULONG Release() override {
    const zir_types::ULONG left = --m_refc;
    if (left != 0) return left;
    // A property that is destroyed with the context may still use it.
    m_refc = 1;
    delete this;
    return 0;
  }

  HRESULT Count(LONG* /*count*/) override {
    return not_implemented("Count", 285, L"", E_NOTIMPL);
  }

  HRESULT GetProperty(const wchar_t* name, VARIANT* value) override {
    const auto found = m_map.find(name);
    if (found == m_map.end()) return E_FAIL;
    if (value == nullptr) return E_INVALIDARG;
    return VariantCopy(value, &found->second);
  }

  HRESULT EnumNames(IEnumContextProps** /*names*/) override {
    return not_implemented("EnumNames", 296, L"", E_NOTIMPL);
  }

  HRESULT SetProperty(const wchar_t* name, VARIANT value) override {
    _variant_t& property = m_map[name];
    _variant_t replaced(std::move(property));
    return VariantCopy(&property, &value);
  }

  HRESULT RemoveProperty(const wchar_t* name) override {
    return not_implemented("RemoveProperty", 303, name, E_NOTIMPL);
  }

  virtual ~CoContext() = default;

 private:
  std::uint32_t m_refc = 1;
  std::map<std::wstring, _variant_t> m_map;
};
static_assert(sizeof(CoContext) == 72);

// Each holds one reference.
struct ThreadContext {
  IContextProperties* context;
  IErrorInfo* error;
};
// In static thread-local storage, for which a thread has memory: reaching for
// other storage ends the process when there is none.
[[gnu::tls_model("initial-exec")]] thread_local ThreadContext g_CoContext;

}  // namespace

HRESULT CoInitializeEx(void* /*reserved*/, DWORD /*flags*/) {
  if (g_CoContext.context != nullptr) return S_FALSE;
  g_CoContext.context = new (std::nothrow) CoContext;
  return g_CoContext.context != nullptr ? S_OK : E_OUTOFMEMORY;
}

void CoUninitialize() {
  if (auto* const context = std::exchange(g_CoContext.context, nullptr)) {
    context->Release();
  }
  if (auto* const error = std::exchange(g_CoContext.error, nullptr)) {
    error->Release();
  }
}

HRESULT CoGetObjectContext(REFIID riid, void** object) {
  if (g_CoContext.context == nullptr) return E_FAIL;
  if (object == nullptr) return E_INVALIDARG;
  // One pointer for both: the slots that the reading half has are the same.
  if (riid != IID_IContextProperties && riid != IID_IGetContextProperties) {
    return E_NOINTERFACE;
  }
  g_CoContext.context->AddRef();
  *object = g_CoContext.context;
  return S_OK;
}

HRESULT SetErrorInfo(DWORD /*reserved*/, IErrorInfo* error) {
  if (error != nullptr) error->AddRef();
  IErrorInfo* const replaced = std::exchange(g_CoContext.error, error);
  if (replaced == nullptr) return S_OK;
  replaced->Release();
  return S_FALSE;
}
