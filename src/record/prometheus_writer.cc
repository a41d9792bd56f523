#include "record/prometheus_writer.h"

#include "base/program_name.h"
#include "record/figure_text.h"
#include "record/metric_catalogue.h"

namespace kestro::zqp::record {

std::string PrometheusText(const Record& record, std::size_t processes) {
  std::string out =
      std::string("# ") + base::kRecordProgram + " sample at " + Rfc3339(record.wall_ms) + "\n";
  for (const MetricFamily& family : Families(record, processes)) {
    // The text format has no info type: an info metric is a gauge of 1
    // whose name ends in _info.
    const std::string name = family.SampleName();
    out += "# HELP " + name + " " + family.help + "\n# TYPE " + name + " gauge\n";
    for (const auto& [labels, value] : family.samples) AppendSample(out, name, labels, value, "");
  }
  return out;
}

}  // namespace kestro::zqp::record
