#include "monitors/text_fields.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/board_path.h"
#include "base/log.h"

namespace kestro::zqp {
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
void AddPiece(std::vector<std::string_view>& fields, std::string_view piece) {
  const std::string_view trimmed = Trim(piece);
  fields.push_back(trimmed.empty() ? piece : trimmed);
}

}  // namespace

void SplitFields(std::string_view text, char delimiter, std::vector<std::string_view>& fields) {
  fields.clear();
  const char* const end = text.data() + text.size();
  const char* start = text.data();
  for (const char* p = start; p != end; ++p) {
    if (*p != delimiter) continue;
    // The empty piece between two delimiters is dropped; the last piece is
    // kept even when empty.
    if (p != start) AddPiece(fields, std::string_view(start, static_cast<std::size_t>(p - start)));
    start = p + 1;
  }
  AddPiece(fields, std::string_view(start, static_cast<std::size_t>(end - start)));
}

std::vector<std::string_view> SplitFields(std::string_view text, char delimiter) {
  std::vector<std::string_view> fields;
  SplitFields(text, delimiter, fields);
  return fields;
}

bool IsProcessRunning(const char* name) {
  const std::string proc = BoardPath("/proc");
  DIR* dir = opendir(proc.c_str());
  if (dir == nullptr) {
    LogError("open proc failed\n");
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
    const int fd = open(BoardPath(path).c_str(), O_RDONLY | O_CLOEXEC);
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

}  // namespace kestro::zqp
