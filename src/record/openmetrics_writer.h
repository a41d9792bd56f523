// Records in the OpenMetrics text format: one record as a scrape gets it, or
// a whole recording with timestamps for backfilling a time-series database.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "record/record.h"

namespace kestro::zqp::record {

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

}  // namespace kestro::zqp::record
