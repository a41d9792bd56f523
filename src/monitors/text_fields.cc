#include "monitors/text_fields.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/board_path.h"
#include "base/log.h"

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
[[gnu::always_inline]] inline void AddPiece(std::vector<std::string_view>& fields,
                                            std::string_view piece) {
  // Most pieces are words: no white space at either end to trim.
  if (piece.empty() || (!IsSpace(piece.front()) && !IsSpace(piece.back()))) {
    fields.push_back(piece);
    return;
  }
  const std::string_view trimmed = Trim(piece);
  fields.push_back(trimmed.empty() ? piece : trimmed);
}

// Eight bytes at a time: heap tables pad their columns with runs of blanks,
// and splitting their thousands of rows was most of a frame's work.
constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

// Byte i of the text is byte i of the word, counting from the low end.
std::uint64_t LoadWord(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

// The first byte from p on that is c, or end.
const char* FindByte(const char* p, const char* end, char c) {
  const std::uint64_t pattern = kOnes * static_cast<unsigned char>(c);
  for (; end - p >= 8; p += 8) {
    const std::uint64_t x = LoadWord(p) ^ pattern;
    // The lowest high bit set marks the first zero byte of x exactly: a
    // borrow only runs upwards from a zero byte.
    const std::uint64_t zero = (x - kOnes) & ~x & kHighs;
    if (zero != 0) return p + std::countr_zero(zero) / 8;
  }
  while (p != end && *p != c) ++p;
  return p;
}

// The first byte from p on that is not c, or end.
const char* SkipByte(const char* p, const char* end, char c) {
  const std::uint64_t pattern = kOnes * static_cast<unsigned char>(c);
  for (; end - p >= 8; p += 8) {
    const std::uint64_t x = LoadWord(p) ^ pattern;
    if (x != 0) return p + std::countr_zero(x) / 8;
  }
  while (p != end && *p == c) ++p;
  return p;
}

}  // namespace

void SplitFields(std::string_view text, char delimiter, std::vector<std::string_view>& fields,
                 std::size_t limit) {
  fields.clear();
  if (limit == 0) return;
  const char* const end = text.data() + text.size();
  const char* start = text.data();
  for (;;) {
    const char* const stop = FindByte(start, end, delimiter);
    if (stop == end) break;
    if (stop != start) {
      AddPiece(fields, std::string_view(start, static_cast<std::size_t>(stop - start)));
      if (fields.size() == limit) return;
    }
    // The empty pieces between the delimiters of a run are dropped.
    start = SkipByte(stop + 1, end, delimiter);
  }
  // The last piece is kept even when empty.
  AddPiece(fields, std::string_view(start, static_cast<std::size_t>(end - start)));
}

std::vector<std::string_view> SplitFields(std::string_view text, char delimiter) {
  std::vector<std::string_view> fields;
  SplitFields(text, delimiter, fields);
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
