// What kvt_zqp_capture --info prints of a capture file.
#pragma once

#include <cstdio>
#include <string>

namespace kestro::zqp::capture {

// Prints to out: when the capture began (UTC) and how long it ran, the
// options, the kernel, the board's shape (listings, start files), the
// engines, the processes named in it with their command lines, the record
// counts by kind and the file's size. Returns 0; 1 after a message on err
// when the file cannot be read, is not a capture, is of a newer format, or
// holds a corrupt record (what precedes it is described). A capture cut short
// inside a record is described up to its last whole record, with a note.
int DescribeCapture(const std::string& path, std::FILE* out, std::FILE* err);

}  // namespace kestro::zqp::capture
