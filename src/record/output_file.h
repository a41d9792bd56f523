// Where the records go: standard output or a file, one whole record per
// write, never leaving a piece of a record behind in a regular file, and
// never writing through a link that another user planted.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kestro::zqp::record {

class OutputFile {
 public:
  OutputFile() = default;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  // An empty path is standard output, refused when stdout_closed says it was
  // closed at start (another file would have taken its number).
  //
  // Otherwise the file's folder is opened once and everything after happens
  // relative to it. A final component that is a link is followed only when
  // the link belongs to the caller or to the folder's owner (the kernel's
  // protected-links rule, applied whatever the kernel's setting); links under
  // /proc (/dev/stdout) are the kernel's own and followed. A folder is
  // refused.
  //
  // With replace, every Write replaces the file's whole content at once: the
  // text goes to a new hidden file in the same folder, which is then renamed
  // over the name, so a reader sees the old or the new content, never a mix.
  // The new file takes the mode of the file it replaces (0644 when there is
  // none). A FIFO or a device is written to as without replace. Without
  // replace, the file is created (mode 0666 less the umask) or emptied and
  // records follow each other.
  //
  // False with error set ("cannot write FILE: reason"); nothing is created or
  // changed then.
  bool Open(const std::string& path, bool replace, bool stdout_closed, std::string& error);

  // Writes text whole, retrying short writes. On failure the bytes of text
  // that did get into a regular file are cut off again, so the file ends with
  // the last complete record; false with error set.
  bool Write(std::string_view text, std::string& error);

 private:
  // Opens the folder of path into dir_fd and sets name, following the links
  // the rule allows. False with error set.
  bool Resolve(std::string path, std::string& error);
  // For replace: refuses a folder and turns replace off for what is not a
  // regular file. False with error set.
  bool CheckReplaceable(std::string& error);
  bool Append(std::string_view text, std::string& error);
  bool Replace(std::string_view text, std::string& error);
  // Creates a new hidden file beside name; -1 with errno set.
  int CreateTemporary(std::string& temporary);
  std::string Failure(int error_number) const;

  std::string shown;  // the path as messages show it
  std::string name;   // the final component, in dir_fd
  int dir_fd = -1;
  int fd = -1;
  bool owned = false;
  bool replace = false;
  // The mode of a replacement when no file is there to take it from.
  mode_t mode = 0644;
};

// Writes every byte of text to fd, retrying after short writes and EINTR.
// False with errno set.
bool WriteAll(int fd, std::string_view text);

}  // namespace kestro::zqp::record
