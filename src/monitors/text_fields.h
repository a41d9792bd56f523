// Text helpers shared by the DDR monitor and the memory collector, and the
// process-name check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kestro::zqp::monitors {

// Splits text at every delimiter. A piece ended by a delimiter is dropped when
// empty, kept as it stands when it holds only white space (isspace), and kept
// trimmed of leading and trailing white space otherwise. The piece after the
// last delimiter is always kept: trimmed when something is left after
// trimming, otherwise as it stands, so empty text or text ending in the
// delimiter yields a final empty view. Never fails. The views point into text,
// which must outlive them.
std::vector<std::string_view> SplitFields(std::string_view text, char delimiter);
// The same into fields, without allocating: at most fields.size() of them
// (the first ones of the whole split), so a caller that reads the first
// columns leaves the rest unsplit. Returns how many were stored.
std::size_t SplitFields(std::string_view text, char delimiter, std::span<std::string_view> fields);

// True when some process under /proc has a first command-line argument whose
// part after the last '/' begins with name. False when none does, or after
// "open proc failed" (LogError) when /proc cannot be opened.
bool IsProcessRunning(const char* name);

}  // namespace kestro::zqp::monitors
