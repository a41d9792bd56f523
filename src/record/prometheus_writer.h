// A record in the Prometheus text exposition format, for node_exporter's
// textfile collector.
#pragma once

#include <cstddef>
#include <string>

#include "record/record.h"

namespace kestro::zqp::record {

// A whole exposition: HELP and TYPE lines, samples without timestamps (the
// textfile collector refuses them), the time as a gauge and a comment;
// loading as a 0-1 ratio; the per-process series of the `processes` largest
// ION holders only (none for 0).
std::string PrometheusText(const Record& record, std::size_t processes);

}  // namespace kestro::zqp::record
