// The output formats of a Record, each a pure function to text:
// CSV (RFC 4180, CRLF line ends), JSON lines, the Prometheus text
// exposition format (for node_exporter's textfile collector) and OpenMetrics
// with timestamps (for backfilling a time-series database).
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "record/record.h"

namespace kestro::zqp::record {

enum class Format { kCsv, kJsonLines, kPrometheus, kOpenMetrics };

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
// One object and "\n".
std::string JsonLine(const Record& record);
// A whole exposition: HELP and TYPE lines, samples without timestamps (the
// textfile collector refuses them), the time as a gauge and a comment;
// loading as a 0-1 ratio; the per-process series of the `processes` largest
// ION holders only (none for 0).
std::string PrometheusText(const Record& record, std::size_t processes);

// One record as a whole OpenMetrics exposition, as a scrape gets it: the
// families of the text format with their OpenMetrics types, samples without
// timestamps (the scraper stamps them), and "# EOF".
std::string OpenMetricsText(const Record& record, std::size_t processes);

// A recording in the OpenMetrics text format, for loading into a time-series
// database afterwards: the families of the text format, every sample with
// the record's time (seconds since the epoch), HELP and TYPE the first time a
// family appears, and "# EOF" at the end. The samples of a family are spread
// over the records, which promtool's backfill reads.
class OpenMetricsWriter {
 public:
  // The samples of one record.
  std::string Samples(const Record& record, std::size_t processes);
  static constexpr const char* kEnd = "# EOF\n";

 private:
  std::set<std::string> declared_;
};

// RFC 4180: quoted (quotes doubled) when the field holds a comma, a quote, CR
// or LF; otherwise as it is.
std::string CsvField(std::string_view field);
// A JSON string, quotes included, that gives back the exact bytes: valid UTF-8
// stays as it is; '"' and '\' are escaped; bytes below 0x20 and 0x7f become
// \u00XX; a byte that is not part of valid UTF-8 becomes the lone surrogate
// \udcXX (XX its value, 80 to ff), the convention of Python's
// "surrogateescape" error handler, so that
// json.loads(text).encode("utf-8", "surrogateescape") is the original bytes.
// (\u00XX for those bytes would be ambiguous with the valid UTF-8 of U+0080 to
// U+00FF.)
std::string JsonString(std::string_view bytes);
// A Prometheus label value, without its quotes: '\', '"' and LF escaped as the
// format wants; since label values must be UTF-8, bytes that are not part of
// valid UTF-8 and other control bytes become U+FFFD (JSON lines keep them).
std::string PrometheusLabelValue(std::string_view bytes);
// Length of the valid UTF-8 sequence at bytes[at] (RFC 3629: no overlong
// forms, no surrogates, nothing above U+10FFFF), 0 when there is none.
std::size_t Utf8SequenceLength(std::string_view bytes, std::size_t at);
// "2024-05-01T12:00:00.123Z"
std::string Rfc3339(std::int64_t wall_ms);
// Loading in percent to the hundredth, shortest form: "29.6", "100", "0.25";
// empty for NaN and infinities (an empty CSV cell, null in JSON, no sample in
// the Prometheus text).
std::string Percent(float value);
// A loading percentage as a ratio of 1 to the ten-thousandth, shortest form:
// "0.296", "1", "0.0025"; empty for NaN and infinities.
std::string Ratio(float percent);

}  // namespace kestro::zqp::record
