// The metric families a record exposes, shared by the Prometheus text format
// and OpenMetrics: names, HELP texts, types and samples, and the escaping of
// label values.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "record/record.h"

namespace kestro::zqp::record {

// One metric family of a record: its name, HELP text, type and samples
// (labels without braces, value).
struct MetricFamily {
  std::string name;
  const char* help;
  const char* type;  // "gauge", or "info" (OpenMetrics; a gauge in the text format)
  std::vector<std::pair<std::string, std::string>> samples;

  // The samples' metric name: an info family's ends in "_info".
  std::string SampleName() const {
    return std::string_view(type) == "info" ? name + "_info" : name;
  }
};

// The families of a record, in the order they are written; a family with no
// sample is left out. The per-process series are those of the `processes`
// largest ION holders only (none for 0).
std::vector<MetricFamily> Families(const Record& record, std::size_t processes);

// "name{labels} value", with " timestamp" when given, and a line end.
void AppendSample(std::string& out, const std::string& name, const std::string& labels,
                  const std::string& value, const std::string& timestamp);

// A Prometheus label value, without its quotes: '\', '"' and LF escaped as the
// format wants; since label values must be UTF-8, bytes that are not part of
// valid UTF-8 and other control bytes become U+FFFD (JSON lines keep them).
std::string PrometheusLabelValue(std::string_view bytes);

}  // namespace kestro::zqp::record
