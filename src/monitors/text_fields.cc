#include "monitors/text_fields.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/board_path.h"
#include "base/log.h"
#include "monitors/byte_mask.h"

namespace kestro::zqp::monitors {
namespace {

// isspace of the "C" locale, the only one the program runs in (it never calls
// setlocale), without a library call per character: heap tables have
// thousands of padded rows.
bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view Trim(std::string_view piece) {
  while (!piece.empty() && IsSpace(piece.front())) piece.remove_prefix(1);
  while (!piece.empty() && IsSpace(piece.back())) piece.remove_suffix(1);
  return piece;
}

// Trimming never turns a blank piece into nothing.
[[gnu::always_inline]] inline std::string_view Shaped(std::string_view piece) {
  // Most pieces are words: no white space at either end to trim.
  if (piece.empty() || (!IsSpace(piece.front()) && !IsSpace(piece.back()))) return piece;
  const std::string_view trimmed = Trim(piece);
  return trimmed.empty() ? piece : trimmed;
}

// Heap tables pad their columns with runs of blanks, and splitting their
// thousands of rows was most of a frame's work: the delimiters of 64 bytes
// are found sixteen at a time into one mask, and the pieces are read off the
// mask's edges.
// Bit i set where byte i of the length (at most 64) at p is c; the text
// around p begins at begin.
[[gnu::always_inline]] inline std::uint64_t Match64(const char* begin, const char* p,
                                                    std::size_t length, char c) {
  std::uint64_t mask = 0;
  std::size_t at = 0;
  for (; at + 16 <= length; at += 16) mask |= std::uint64_t{Match16(p + at, c)} << at;
  if (at == length) return mask;
  if (p + length - begin >= 16) {
    // The last sixteen bytes, read again where they overlap the ones before.
    return mask | (std::uint64_t{Match16(p + length - 16, c)} >> (at + 16 - length) << at);
  }
  char tail[16] = {};
  std::memcpy(tail, p + at, length - at);
  const std::uint64_t bytes = (std::uint64_t{1} << (length - at)) - 1;
  return mask | (std::uint64_t{Match16(tail, c)} & bytes);
}

// Calls add with every piece, shaped, until it returns false.
template <typename Add>
[[gnu::always_inline]] inline void Split(std::string_view text, char delimiter, Add add) {
  const char* const data = text.data();
  const std::size_t size = text.size();
  constexpr std::size_t kNone = SIZE_MAX;
  std::size_t piece = kNone;  // where the piece being read began
  for (std::size_t block = 0; block < size; block += 64) {
    const std::size_t length = std::min<std::size_t>(64, size - block);
    const char* const p = data + block;
    const std::uint64_t delimiters = Match64(data, p, length, delimiter);
    const std::uint64_t valid = length == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << length) - 1;
    const std::uint64_t inside = ~delimiters & valid;
    // A set bit where a byte is in a piece and the one before it is not, or
    // the other way round: a piece's first byte, or the delimiter ending it.
    std::uint64_t edges = (inside ^ ((inside << 1) | (piece != kNone ? 1 : 0))) & valid;
    while (edges != 0) {
      const std::size_t edge = block + static_cast<std::size_t>(std::countr_zero(edges));
      edges &= edges - 1;
      if (piece == kNone) {
        piece = edge;
      } else {
        if (!add(Shaped(std::string_view(data + piece, edge - piece)))) return;
        piece = kNone;
      }
    }
  }
  // The last piece is kept even when empty.
  const std::size_t last = piece != kNone ? piece : size;
  add(Shaped(std::string_view(data + last, size - last)));
}

}  // namespace

std::size_t SplitFields(std::string_view text, char delimiter, std::span<std::string_view> fields) {
  if (fields.empty()) return 0;
  std::size_t count = 0;
  Split(text, delimiter, [&](std::string_view piece) {
    fields[count++] = piece;
    return count < fields.size();
  });
  return count;
}

std::vector<std::string_view> SplitFields(std::string_view text, char delimiter) {
  std::vector<std::string_view> fields;
  Split(text, delimiter, [&](std::string_view piece) {
    fields.push_back(piece);
    return true;
  });
  return fields;
}

bool IsProcessRunning(const char* name) {
  const std::string proc = base::BoardPath("/proc");
  DIR* dir = opendir(proc.c_str());
  if (dir == nullptr) {
    base::LogError("open proc failed\n");
    return false;
  }
  const std::size_t name_length = std::strlen(name);
  bool found = false;
  while (!found) {
    const dirent* entry = readdir(dir);
    if (entry == nullptr) break;
    if (!IsDigit(entry->d_name[0])) continue;
    char path[64];
    const int length = std::snprintf(path, sizeof(path), "/proc/%s/cmdline", entry->d_name);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof(path)) continue;
    const int fd = open(base::BoardPath(path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char cmdline[256];
    const ssize_t got = read(fd, cmdline, sizeof(cmdline) - 1);
    close(fd);
    if (got < 0) continue;
    cmdline[got] = '\0';
    // The arguments are NUL-separated, so C string functions see only the first.
    const char* slash = std::strrchr(cmdline, '/');
    const char* base = slash != nullptr ? slash + 1 : cmdline;
    found = std::strncmp(base, name, name_length) == 0;
  }
  closedir(dir);
  return found;
}

}  // namespace kestro::zqp::monitors
