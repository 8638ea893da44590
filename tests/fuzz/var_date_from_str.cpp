// SPDX-License-Identifier: MIT
//
// Fuzz target: VarDateFromStr, any text.

#include <ctime>

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

/// What a 256-byte buffer keeps of a text: whole characters, as long as a byte
/// stays free for the terminator.
std::string cut_utf8(const std::wstring& text) {
  std::string bytes;
  for (const wchar_t unit : text) {
    const std::string one = fuzz::encode_utf8(unit);
    if (bytes.size() + one.size() >= 256) break;
    bytes += one;
  }
  return bytes;
}

/// Days from 1899-12-30 to a day of the proleptic Gregorian calendar, counted
/// over years that begin in March. Division truncates, which only the two
/// months in front of the year 0's March can tell.
std::int64_t day_number(std::int64_t year, int month, int day) {
  if (month < 3) {
    --year;
    month += 12;
  }
  const std::int64_t leap_days = year / 4 - year / 100 + year / 400;
  constexpr std::int64_t kBefore[] = {0,   31,  61,  92,  122, 153,
                                      184, 214, 245, 275, 306, 337};
  return 365 * year + leap_days + kBefore[month - 3] + (day - 1) - 693899;
}

/// False where no format fits. A format that fits only in part leaves what it
/// read, and the next one goes on from there.
bool model(const std::wstring& text, double* date) {
  const std::string bytes = cut_utf8(text);
  struct tm time {};
  bool found = false;
  for (const char* const format :
       {"%Y/%m/%d %H:%M:%S", "%Y/%m/%d %H:%M", "%Y/%m/%d", "%Y-%m-%d %H:%M:%S",
        "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
    if (strptime(bytes.c_str(), format, &time) != nullptr) {
      found = true;
      break;
    }
  }
  if (!found) {
    if (strptime(bytes.c_str(), "%H:%M:%S", &time) == nullptr) return false;
    time.tm_year = -1;
    time.tm_mon = 11;
    time.tm_mday = 30;
  }
  const std::int64_t days = day_number(std::int64_t{time.tm_year} + 1900,
                                       time.tm_mon + 1, time.tm_mday);
  const int seconds = 3600 * time.tm_hour + 60 * time.tm_min + time.tm_sec;
  *date = static_cast<double>(days) + seconds / 86400.0;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  fuzz::Input input(data, size);
  const std::wstring text = fuzz::until_zero(input.units<wchar_t>(SIZE_MAX));
  const fuzz::ExactText<wchar_t> source(text, 0);

  constexpr double kUntouched = 12345.678;
  double expected = kUntouched;
  const HRESULT expected_result = model(text, &expected) ? S_OK : E_INVALIDARG;
  double date = kUntouched;
  const HRESULT result = VarDateFromStr(source.get(), 0, 0, &date);
  fuzz::check(result == expected_result, "the result");
  fuzz::check(date >= expected && date <= expected, "the date");
  return 0;
}
