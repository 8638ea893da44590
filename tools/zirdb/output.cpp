// SPDX-License-Identifier: MIT
//
// Answers as text. Sections: values; what terminals show; tables; CSV; JSON.
//
// JSON is written by hand: the rows are flat, and texts that are to stay
// readable while U+2028 is escaped, and doubles in their shortest form, are
// more than the usual libraries offer.

#include "output.h"

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <set>

namespace {

using late_bound::Value;

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

bool is_number(const Value& value) {
  return value.type() == VT_I8 || value.type() == VT_R8;
}

// The shortest text that reads back as the same number.
std::string shortest(double number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number < 0 ? "-Infinity" : "Infinity";
  // 100000, not 1e+05, which is shorter.
  const double size = std::fabs(number);
  const bool plain = size == 0 || (size >= 1e-5 && size < 1e17);
  char text[64];
  const auto end = std::to_chars(
      text, text + sizeof text, number,
      plain ? std::chars_format::fixed : std::chars_format::scientific);
  return {text, end.ptr};
}

std::string hex(const late_bound::Bytes& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

// Everything but NULL.
std::string plain_text(const Value& value) {
  switch (value.type()) {
    case VT_BOOL:
      return value.truth() ? "true" : "false";
    case VT_I8:
      return std::to_string(value.integer());
    case VT_R8:
      return shortest(value.number());
    case VT_ARRAY | VT_UI1:
      return hex(value.bytes());
    default:
      return text_of(value);
  }
}

// ---------------------------------------------------------------------------
// What terminals show
// ---------------------------------------------------------------------------

// While it lives, the thread's characters are UTF-8 whatever the environment
// says. Where there is no such locale, bytes beyond ASCII count as no
// characters and are shown by number.
class Utf8Characters {
 public:
  Utf8Characters()
      : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)),
        before_(uselocale(locale_)) {}
  Utf8Characters(const Utf8Characters&) = delete;
  Utf8Characters& operator=(const Utf8Characters&) = delete;
  ~Utf8Characters() {
    uselocale(before_);
    if (locale_ != nullptr) freelocale(locale_);
  }

 private:
  locale_t locale_;
  locale_t before_;
};

// A text as it is shown, and how many columns of a terminal it takes.
struct Shown {
  std::string text;
  std::size_t width = 0;
};

struct Range {
  wchar_t first;
  wchar_t last;
};

// Marks of direction: they would move what stands beside them.
constexpr Range kDirections[] = {{L'\u061C', L'\u061C'},
                                 {L'\u200E', L'\u200F'},
                                 {L'\u2028', L'\u202E'},
                                 {L'\u2066', L'\u2069'}};

bool is_direction(wchar_t character) {
  return std::any_of(std::begin(kDirections), std::end(kDirections),
                     [character](const Range& range) {
                       return range.first <= character &&
                              character <= range.last;
                     });
}

void append_escaped(Shown& shown, const char* format, unsigned number) {
  char text[16];
  std::snprintf(text, sizeof text, format, number);
  shown.text += text;
  shown.width = shown.text.size();
}

Shown shown_on_terminal(std::string_view utf8) {
  const Utf8Characters characters;
  Shown shown;
  std::mbstate_t state = {};
  for (std::size_t at = 0; at < utf8.size();) {
    Shown next;
    wchar_t character = L'\0';
    const std::size_t read =
        mbrtowc(&character, &utf8[at], utf8.size() - at, &state);
    const bool valid = read <= utf8.size() - at;  // the errors are huge
    const std::size_t size = valid && read != 0 ? read : 1;
    const int width = valid ? wcwidth(character) : -1;
    const auto code = static_cast<char32_t>(character);
    if (!valid) {
      state = {};
      append_escaped(next, "\\x%02x", static_cast<unsigned char>(utf8[at]));
    } else if (character == L'\t') {
      next = {"\\t", 2};
    } else if (character == L'\n') {
      next = {"\\n", 2};
    } else if (character == L'\r') {
      next = {"\\r", 2};
    } else if (width < 0 || is_direction(character) || code == 0) {
      append_escaped(next, code > 0xFFFF ? "\\U%08x" : "\\u%04x", code);
    } else {
      next = {std::string(utf8.substr(at, size)),
              static_cast<std::size_t>(width)};
    }
    shown.text += next.text;
    shown.width += next.width;
    at += size;
  }
  return shown;
}

}  // namespace

std::string visible(std::string_view utf8) {
  return shown_on_terminal(utf8).text;
}

// ---------------------------------------------------------------------------
// Tables
// ---------------------------------------------------------------------------

namespace {

Shown shown_in_table(const Value& value) {
  if (value.is_nothing()) return {"NULL", 4};
  std::string text = plain_text(value);
  if (value.type() == (VT_ARRAY | VT_UI1)) text.insert(0, "0x");
  return shown_on_terminal(text);
}

// The lines of one column, header first, padded to the same width.
std::vector<std::string> column_lines(const Answer& answer, std::size_t column,
                                      bool is_last) {
  std::vector<Shown> cells = {shown_on_terminal(answer.columns[column])};
  bool to_the_right = false;
  for (const auto& row : answer.rows) {
    cells.push_back(shown_in_table(row[column]));
    to_the_right = to_the_right || is_number(row[column]);
  }
  std::size_t width = 1;
  for (const Shown& cell : cells) width = std::max(width, cell.width);

  std::vector<std::string> lines;
  for (const Shown& cell : cells) {
    const std::string padding(width - cell.width, ' ');
    // Lines have no blanks at their ends.
    lines.push_back(to_the_right ? padding + cell.text
                    : is_last    ? cell.text
                                 : cell.text + padding);
  }
  lines.insert(lines.begin() + 1, std::string(width, '-'));
  return lines;
}

}  // namespace

std::string as_table(const Answer& answer) {
  std::vector<std::string> lines(answer.rows.size() + 2);
  for (std::size_t i = 0; i < answer.columns.size(); ++i) {
    const auto column = column_lines(answer, i, i + 1 == answer.columns.size());
    for (std::size_t line = 0; line < lines.size(); ++line) {
      if (i > 0) lines[line] += "  ";
      lines[line] += column[line];
    }
  }
  std::string table;
  for (const std::string& line : lines) table += line + '\n';
  return table;
}

// ---------------------------------------------------------------------------
// CSV
// ---------------------------------------------------------------------------

namespace {

bool is_blank(char character) { return character == ' ' || character == '\t'; }

std::string csv_field(const std::string& text) {
  const bool plain = !text.empty() && !is_blank(text.front()) &&
                     !is_blank(text.back()) &&
                     text.find_first_of(",\"\r\n") == std::string::npos;
  if (plain) return text;
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"') quoted += '"';
    quoted += character;
  }
  return quoted + '"';
}

std::string csv_field(const Value& value) {
  return value.is_nothing() ? "" : csv_field(plain_text(value));
}

template <class Fields>
std::string csv_line(const Fields& fields) {
  std::string line;
  for (const auto& field : fields) line += csv_field(field) + ',';
  line.back() = '\n';
  return line;
}

}  // namespace

std::string as_csv(const Answer& answer) {
  if (answer.columns.empty()) return "";
  std::string text = csv_line(answer.columns);
  for (const auto& row : answer.rows) text += csv_line(row);
  return text;
}

// ---------------------------------------------------------------------------
// JSON
// ---------------------------------------------------------------------------

namespace {

// Escapes controls, U+2028 and U+2029, which end lines in JavaScript, and
// leaves other characters readable.
std::string json_string(std::string_view utf8) {
  std::string text = "\"";
  const auto escape = [&](unsigned code) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
    text += escaped;
  };
  const auto byte = [&](std::size_t at) -> unsigned {
    return at < utf8.size() ? static_cast<unsigned char>(utf8[at]) : 0;
  };
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    if (byte(i) == '"' || byte(i) == '\\') {
      text += '\\';
      text += utf8[i];
    } else if (byte(i) < 0x20 || byte(i) == 0x7F) {
      escape(byte(i));
    } else if (byte(i) == 0xC2 && byte(i + 1) < 0xA0) {
      escape(byte(i + 1));
      i += 1;
    } else if (byte(i) == 0xE2 && byte(i + 1) == 0x80 &&
               (byte(i + 2) == 0xA8 || byte(i + 2) == 0xA9)) {
      escape(0x2028 + (byte(i + 2) & 1));
      i += 2;
    } else {
      text += utf8[i];
    }
  }
  return text + '"';
}

std::string json_value(const Value& value) {
  if (value.is_nothing()) return "null";
  std::string text = plain_text(value);
  // JSON has no number for what is not finite.
  const bool bare = value.type() == VT_BOOL || value.type() == VT_I8 ||
                    (value.type() == VT_R8 && std::isfinite(value.number()));
  return bare ? text : json_string(text);
}

// A second "name" is "name_2", unless another column is called that.
std::vector<std::string> json_keys(const std::vector<std::string>& columns) {
  std::set<std::string> taken;
  const std::set<std::string> names(columns.begin(), columns.end());
  std::vector<std::string> keys;
  for (const std::string& name : columns) {
    std::string key = name;
    for (int i = 2; taken.count(key) > 0 || (key != name && names.count(key));
         ++i) {
      key = name + '_' + std::to_string(i);
    }
    taken.insert(key);
    keys.push_back(json_string(key));
  }
  return keys;
}

}  // namespace

std::string as_json(const Answer& answer) {
  const std::vector<std::string> keys = json_keys(answer.columns);
  std::string text = "[";
  for (const auto& row : answer.rows) {
    text += text.size() == 1 ? "\n{" : ",\n{";
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i > 0) text += ", ";
      text += keys[i] + ": " + json_value(row[i]);
    }
    text += '}';
  }
  return text + (answer.rows.empty() ? "]\n" : "\n]\n");
}
