// Where the records go: standard output or a file, one whole record per
// write, never leaving a piece of a record behind in a regular file.
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

  // An empty path is standard output (refused when it is closed). With
  // replace, every Write replaces the file's whole content at once: the text
  // goes to a new file in the same folder, which is then renamed over path,
  // so a reader sees the old or the new content, never a mix (a trial file
  // checks here that the folder takes files). A link is followed and its
  // target replaced; a folder is refused; a FIFO or a device is written to
  // as without replace. Without it, path is created or emptied and records
  // follow each other. False with error set ("cannot write FILE: reason").
  bool Open(const std::string& path, bool replace, std::string& error);

  // Writes text whole, retrying short writes. On failure the bytes of text
  // that did get into a regular file are cut off again, so the file ends with
  // the last complete record; false with error set.
  bool Write(std::string_view text, std::string& error);

 private:
  // For replace: follows a link, refuses a folder and turns replace off for
  // what is not a regular file. False with error set.
  bool CheckReplaceable(std::string& error);
  bool Append(std::string_view text, std::string& error);
  bool Replace(std::string_view text, std::string& error);
  std::string Failure(int error_number) const;

  std::string path;
  std::string shown;  // the path as messages show it
  int fd = -1;
  bool owned = false;
  bool replace = false;
  mode_t mode = 0644;
};

// Writes every byte of text to fd, retrying after short writes and EINTR.
// False with errno set.
bool WriteAll(int fd, std::string_view text);

}  // namespace kestro::zqp::record
