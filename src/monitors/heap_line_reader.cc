#include "monitors/heap_line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "monitors/byte_mask.h"

namespace kestro::zqp::monitors {
namespace {

// The first newline or NUL byte of the length bytes at p, or nullptr; the
// text around p begins at begin.
const char* FindNewlineOrNul(const char* begin, const char* p, std::size_t length) {
  std::size_t at = 0;
  for (; at + 16 <= length; at += 16) {
    const std::uint32_t found = Match16(p + at, '\n') | Match16(p + at, '\0');
    if (found != 0) return p + at + std::countr_zero(found);
  }
  if (at == length) return nullptr;
  if (p + length - begin >= 16) {
    // The last sixteen bytes, read again where they overlap the ones before.
    const char* const last = p + length - 16;
    const std::uint32_t found =
        (Match16(last, '\n') | Match16(last, '\0')) >> (at + 16 - length) << (at + 16 - length);
    return found != 0 ? last + std::countr_zero(found) : nullptr;
  }
  for (; at < length; ++at) {
    if (p[at] == '\n' || p[at] == '\0') return p + at;
  }
  return nullptr;
}

}  // namespace

HeapLineReader::HeapLineReader(int fd, std::size_t line_size, std::size_t block_size)
    : fd_(fd),
      line_size_(line_size),
      block_size_(std::max(block_size, line_size)),
      block_(new char[block_size_]) {}

void HeapLineReader::Fill() {
  std::memmove(block_.get(), block_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  // debugfs may give less than asked for, a page of records at a time.
  while (!at_end_ && end_ < line_size_ - 1) {
    const ssize_t got = read(fd_, block_.get() + end_, block_size_ - end_);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      at_end_ = true;
    } else {
      end_ += static_cast<std::size_t>(got);
    }
  }
}

bool HeapLineReader::Next(std::string_view& line) {
  if (end_ - begin_ < line_size_ - 1 && !at_end_) Fill();
  if (begin_ == end_) return false;
  const char* const start = block_.get() + begin_;
  const std::size_t most = std::min(end_ - begin_, line_size_ - 1);
  const char* const stop = FindNewlineOrNul(block_.get(), start, most);
  std::size_t length = stop != nullptr ? static_cast<std::size_t>(stop - start) : most;
  if (stop == nullptr || *stop == '\n') {
    length += stop != nullptr ? 1 : 0;
    begin_ += length;
  } else {
    // The rest of the line is read, and not seen.
    const void* const newline = std::memchr(stop, '\n', most - length);
    begin_ += newline != nullptr
                  ? static_cast<std::size_t>(static_cast<const char*>(newline) - start) + 1
                  : most;
  }
  line = std::string_view(start, length);
  return true;
}

}  // namespace kestro::zqp::monitors
