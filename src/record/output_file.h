// Where the records go: standard output or a file, one whole record per
// write, never leaving a piece of a record behind in a regular file, and
// never writing through a link that another user planted.
#pragma once

#include <sys/stat.h>
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
  // Otherwise the path is walked one component at a time and everything
  // after happens relative to the folder reached. A link, in the folder part
  // or as the last component, is followed only when it belongs to root or to
  // the caller (as root: only to root), whatever the kernel's protected-links
  // setting; the kernel's own links under /proc (/dev/stdout's target) are
  // followed. A folder is refused, and so is a FIFO or a device that the last
  // component reaches through a link (one named directly is written to). An
  // existing regular file with more than one link is emptied only when it
  // is the caller's and its folder is root's or the caller's: otherwise
  // another account may have linked it to a file it cannot write.
  //
  // With replace, every Write replaces the file's whole content at once: the
  // text goes to a new hidden file in the same folder (".NAME.tmp-" and 12
  // hexadecimal digits), flushed to disk, which is then renamed over the
  // name, and the folder is flushed too: a reader sees the old or the new
  // content, never a mix, even after a power cut. The new file takes the
  // mode of the file it replaces, and its owner and group as far as the
  // caller may give them (the caller's, 0644 when there is none).
  // Temporaries of that name which a killed recorder left are removed here
  // (the caller's regular files only). A FIFO or a device is written to as
  // without replace. Without replace, the file is created (mode 0666 less
  // the umask) or emptied and records follow each other.
  //
  // False with error set ("cannot write FILE: reason"); nothing is created or
  // changed then.
  bool Open(const std::string& path, bool replace, bool stdout_closed, std::string& error);

  // Writes text whole, retrying short writes. On failure the bytes of text
  // that did get into a regular file are cut off again, so the file ends with
  // the last complete record; false with error set.
  bool Write(std::string_view text, std::string& error);

 private:
  // Walks path to the folder of its last component, following only the
  // links the rule allows: sets dir_fd, name, where, through_link and
  // kernel_link. False with error set.
  bool Resolve(const std::string& path, std::string& error);
  // Refuses what the rules refuse of the existing last component (info,
  // exists); decides whether replace stays on.
  bool CheckExisting(const struct stat& info, bool exists, std::string& error);
  // Opens a file or device to write records one after the other.
  bool OpenStream(const struct stat& info, bool exists, std::string& error);
  void RemoveStaleTemporaries();
  bool Append(std::string_view text, std::string& error);
  bool Replace(std::string_view text, std::string& error);
  // Creates a new hidden file beside name; -1 with errno set.
  int CreateTemporary(std::string& temporary);
  std::string Failure(int error_number) const;
  std::string Refusal(const std::string& reason) const;

  std::string shown;  // the path as messages show it
  std::string name;   // the final component, in dir_fd
  std::string where;  // the final component's path as walked, for messages
  // The last component was reached through a link that is not the kernel's.
  bool through_link = false;
  // The last component is a link of the kernel's under /proc, followed by
  // the kernel itself.
  bool kernel_link = false;
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
