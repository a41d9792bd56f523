// Parsers of the text that engine drivers publish in their loading files.
// Both have the shape the file monitor takes as its reader: given a
// NUL-terminated text they store the value and return what sscanf returns
// (the number of values converted, 0 when the text does not start as expected,
// EOF (-1) when it holds no token at all). The caller accepts the value only
// when the result is exactly 1; otherwise value may be left unchanged.
// Both are free of shared state and safe to call from several threads.
#pragma once

namespace kestro::zqp::monitors {

// "<label> <number> <unit>": the second whitespace-separated token, as a float.
long ReadSecondToken(float& value, const char* text);
// "<number>...": a float at the start of the text (leading blanks skipped).
long ReadPlainNumber(float& value, const char* text);

}  // namespace kestro::zqp::monitors
