// Records as JSON lines, one object per record and a line end, and the
// writer that every JSON text of the recorder goes through.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

#include "record/record.h"

namespace kestro::zqp::record {

// One object and "\n".
std::string JsonLine(const Record& record);

// A JSON string, quotes included, that gives back the exact bytes: valid UTF-8
// stays as it is; '"' and '\' are escaped; bytes below 0x20 and 0x7f become
// \u00XX; a byte that is not part of valid UTF-8 becomes the lone surrogate
// \udcXX (XX its value, 80 to ff), the convention of Python's
// "surrogateescape" error handler, so that
// json.loads(text).encode("utf-8", "surrogateescape") is the original bytes.
// (\u00XX for those bytes would be ambiguous with the valid UTF-8 of U+0080 to
// U+00FF.)
std::string JsonString(std::string_view bytes);

// Builds one JSON text value by value and places the commas: a value or a
// key that follows a value gets one.
class JsonWriter {
 public:
  // '{' or '['.
  JsonWriter& Open(char bracket);
  // '}' or ']'.
  JsonWriter& Close(char bracket);
  // A member's name, escaped as JsonString, and its colon.
  JsonWriter& Key(std::string_view name);
  JsonWriter& String(std::string_view bytes);
  // A number's text as it is; null when empty (a figure that is no number).
  JsonWriter& Number(std::string_view text);
  template <std::integral T>
  JsonWriter& Number(T value) {
    return Number(std::string_view(std::to_string(value)));
  }
  JsonWriter& Null() { return Number(std::string_view()); }
  // The text and a line end.
  std::string Line() const { return out_ + "\n"; }

 private:
  void Separate();
  std::string out_;
};

}  // namespace kestro::zqp::record
