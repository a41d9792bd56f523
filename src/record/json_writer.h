// Records as JSON lines: one object per record and a line end.
#pragma once

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

}  // namespace kestro::zqp::record
