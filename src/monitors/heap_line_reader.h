// Lines of the ION heap text, read in large blocks and handed out in place.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace kestro::zqp::monitors {

// Hands out the lines of a file as fgets into a buffer of line_size bytes
// would see them, without copying: a line is cut after its newline or after
// line_size - 1 bytes (a longer line comes as several), and a C string of it
// ends at a NUL byte, so the line given does too. The file is read from its
// current offset in blocks of block_size bytes; a read error ends it as its
// end would. The descriptor stays the caller's.
class HeapLineReader {
 public:
  HeapLineReader(int fd, std::size_t line_size, std::size_t block_size);

  // The next line, newline included; false at the end. The view is valid
  // until the next call.
  bool Next(std::string_view& line);

 private:
  // Moves what is left to the front and reads until a whole line's worth of
  // bytes is held or the file ends.
  void Fill();

  int fd_;
  std::size_t line_size_;
  std::size_t block_size_;
  std::unique_ptr<char[]> block_;
  std::size_t begin_ = 0;  // first byte not yet handed out
  std::size_t end_ = 0;    // end of the bytes read
  bool at_end_ = false;
};

}  // namespace kestro::zqp::monitors
