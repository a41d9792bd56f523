// The output formats of a Record, each a pure function to text:
// CSV (RFC 4180, CRLF line ends), JSON lines, the Prometheus text
// exposition format (for node_exporter's textfile collector) and OpenMetrics
// with timestamps (for backfilling a time-series database).
#pragma once

#include "record/csv_writer.h"
#include "record/figure_text.h"
#include "record/json_writer.h"
#include "record/openmetrics_writer.h"
#include "record/prometheus_writer.h"

namespace kestro::zqp::record {

enum class Format { kCsv, kJsonLines, kPrometheus, kOpenMetrics };

}  // namespace kestro::zqp::record
