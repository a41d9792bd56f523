#include "record/openmetrics_writer.h"

#include "record/figure_text.h"
#include "record/metric_catalogue.h"

namespace kestro::zqp::record {
namespace {

// The OpenMetrics lines of a record's families; HELP and TYPE for those not
// yet in declared; samples with the timestamp when one is given.
std::string OpenMetricsLines(const Record& record, std::size_t processes,
                             const std::string& timestamp, std::set<std::string>& declared) {
  std::string out;
  for (const MetricFamily& family : Families(record, processes)) {
    if (declared.insert(family.name).second) {
      out += "# HELP " + family.name + " " + family.help + "\n# TYPE " + family.name + " " +
             family.type + "\n";
    }
    const std::string name = family.SampleName();
    for (const auto& [labels, value] : family.samples) {
      AppendSample(out, name, labels, value, timestamp);
    }
  }
  return out;
}

}  // namespace

std::string OpenMetricsWriter::Samples(const Record& record, std::size_t processes) {
  return OpenMetricsLines(record, processes, Seconds(record.wall_ms), declared_);
}

std::string OpenMetricsText(const Record& record, std::size_t processes) {
  std::set<std::string> declared;
  return OpenMetricsLines(record, processes, "", declared) + OpenMetricsWriter::kEnd;
}

}  // namespace kestro::zqp::record
