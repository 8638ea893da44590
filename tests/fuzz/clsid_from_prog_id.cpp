// SPDX-License-Identifier: MIT
//
// Fuzz target: CLSIDFromProgID, any content of a ".clsid" file.

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "fuzz/fuzz.h"
#include "zir.h"

namespace {

/// A folder that "REGISTRY" names, with one file.
class Registry {
 public:
  Registry() {
    std::string folder =
        (std::filesystem::temp_directory_path() / "zirdb_fuzz_XXXXXX").string();
    fuzz::check(mkdtemp(folder.data()) != nullptr, "no temporary folder");
    fuzz::check(setenv("REGISTRY", folder.c_str(), 1) == 0, "no environment");
    folder_ = folder;
  }
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;
  ~Registry() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  void write(const std::uint8_t* data, std::size_t size) const {
    std::FILE* const file =
        std::fopen((folder_ / "FUZZ.CLASS.clsid").c_str(), "wb");
    fuzz::check(file != nullptr, "no file");
    const bool written = std::fwrite(data, 1, size, file) == size;
    fuzz::check(std::fclose(file) == 0 && written, "a short file");
  }

 private:
  std::filesystem::path folder_;
};

/// Reads what the scanf family reads of "{%8x-%4hx-%4hx-%2hhx%2hhx-%2hhx..".
class Scanner {
 public:
  explicit Scanner(std::string text) : text_(std::move(text)) {}

  bool literal(char wanted) {
    if (!is(position_, wanted)) return false;
    ++position_;
    return true;
  }

  /// %x of at most `width` characters. Blanks in front do not count; a sign and
  /// "0x" do, and "0x" without a digit is a zero.
  bool hexadecimal(std::size_t width, std::uint32_t* value) {
    while (std::isspace(at(position_)) != 0) ++position_;
    const std::size_t end = position_ + width;
    bool negative = false;
    if (is(position_, '-') || is(position_, '+')) {
      negative = is(position_, '-');
      ++position_;
    }
    bool any = false;
    if (position_ + 1 < end && is(position_, '0') &&
        (is(position_ + 1, 'x') || is(position_ + 1, 'X'))) {
      position_ += 2;
      any = true;
    }
    std::uint32_t number = 0;
    for (; position_ < end && std::isxdigit(at(position_)) != 0; ++position_) {
      const int digit = at(position_);
      const int from = std::isdigit(digit) != 0 ? '0' : 'a' - 10;
      number =
          number * 16 + static_cast<std::uint32_t>(std::tolower(digit) - from);
      any = true;
    }
    *value = negative ? 0 - number : number;
    return any;
  }

 private:
  int at(std::size_t position) const {
    return position < text_.size() ? static_cast<std::uint8_t>(text_[position])
                                   : 0;
  }
  bool is(std::size_t position, char wanted) const {
    return position < text_.size() && text_[position] == wanted;
  }

  std::string text_;
  std::size_t position_ = 0;
};

/// Whether all eleven fields are there. Those that are have been stored.
bool model(const std::string& content, CLSID* clsid) {
  Scanner scanner(content);
  std::uint32_t value = 0;
  if (!scanner.literal('{') || !scanner.hexadecimal(8, &value)) return false;
  clsid->Data1 = value;
  if (!scanner.literal('-') || !scanner.hexadecimal(4, &value)) return false;
  clsid->Data2 = static_cast<std::uint16_t>(value);
  if (!scanner.literal('-') || !scanner.hexadecimal(4, &value)) return false;
  clsid->Data3 = static_cast<std::uint16_t>(value);
  for (std::size_t i = 0; i < 8; ++i) {
    const bool dash = i == 0 || i == 2;
    if (dash && !scanner.literal('-')) return false;
    if (!scanner.hexadecimal(2, &value)) return false;
    clsid->Data4[i] = static_cast<std::uint8_t>(value);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const Registry registry;
  registry.write(data, size);

  CLSID expected;
  std::memset(&expected, 0x5A, sizeof expected);
  CLSID clsid = expected;
  const std::string content(data, data + size);
  const HRESULT expected_result = model(content, &expected) ? S_OK : E_FAIL;
  const HRESULT result = CLSIDFromProgID(L"Fuzz.Class", &clsid);
  fuzz::check(result == expected_result, "the result");
  fuzz::check(clsid == expected, "the fields");
  return 0;
}
