// Records as CSV (RFC 4180, CRLF line ends), one header line and a row per
// record.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "record/record.h"

namespace kestro::zqp::record {

// The CSV columns, fixed by the first record of a run: its loading rows and
// its heaps. Later figures outside them stay out of the CSV (JSON lines have
// everything); a fixed column without a figure gets an empty cell.
struct CsvLayout {
  std::vector<std::string> labels;  // "YPU0", ...
  std::vector<std::size_t> heaps;   // indexes into kHeapNames
};

CsvLayout LayoutOf(const Record& record);
// "time,elapsed_s,YPU0,...,ddr_read_bytes_per_second,ddr_write_bytes_per_second,
// cma_reserved_total_bytes,cma_reserved_used_bytes,cma_reserved_free_bytes,..."
std::string CsvHeader(const CsvLayout& layout);
std::string CsvRow(const CsvLayout& layout, const Record& record);

// RFC 4180: quoted (quotes doubled) when the field holds a comma, a quote, CR
// or LF; otherwise as it is.
std::string CsvField(std::string_view field);

}  // namespace kestro::zqp::record
