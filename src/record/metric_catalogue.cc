#include "record/metric_catalogue.h"

#include <algorithm>

#include "base/program_name.h"
#include "base/version.h"
#include "monitors/memory_usage.h"
#include "record/figure_text.h"

namespace kestro::zqp::record {
namespace {

// Adds a family unless it has no sample.
void Family(std::vector<MetricFamily>& out, const char* name, const char* type, const char* help,
            std::vector<std::pair<std::string, std::string>> samples) {
  if (!samples.empty()) out.push_back({name, help, type, std::move(samples)});
}

}  // namespace

std::string PrometheusLabelValue(std::string_view bytes) {
  std::string out;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = Utf8SequenceLength(bytes, at);
    const auto byte = static_cast<unsigned char>(bytes[at]);
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += bytes[at];
    } else if (byte == '\n') {
      out += "\\n";
    } else if (length == 0 || IsControl(byte)) {
      out += "\xef\xbf\xbd";
    } else {
      out.append(bytes.substr(at, length));
    }
    at += length == 0 ? 1 : length;
  }
  return out;
}

void AppendSample(std::string& out, const std::string& name, const std::string& labels,
                  const std::string& value, const std::string& timestamp) {
  out += name;
  if (!labels.empty()) out += "{" + labels + "}";
  out += " " + value;
  if (!timestamp.empty()) out += " " + timestamp;
  out += "\n";
}

std::vector<MetricFamily> Families(const Record& record, std::size_t processes) {
  using Samples = std::vector<std::pair<std::string, std::string>>;
  std::vector<MetricFamily> out;
  static const std::string kBuildHelp =
      std::string("Version of ") + base::kRecordProgram + "; always 1.";
  Family(out, "kvt_zqp_build", "info", kBuildHelp.c_str(),
         {{"version=\"" + PrometheusLabelValue(base::GetVersion()) + "\"", "1"}});
  Family(out, "kvt_zqp_sample_timestamp_seconds", "gauge",
         "Wall-clock time of the sample, seconds since the epoch.",
         {{"", Seconds(record.wall_ms)}});
  Family(out, "kvt_zqp_elapsed_seconds", "gauge", "Time since the recording started.",
         {{"", Seconds(record.elapsed_ms)}});
  Samples loading;
  for (const LoadingFigure& figure : record.loading) {
    // A figure nobody can vouch for is an absent series, not a NaN sample
    // that queries would carry along.
    const std::string ratio = Ratio(figure.percent);
    if (ratio.empty()) continue;
    loading.emplace_back("engine=\"" + PrometheusLabelValue(figure.engine) + "\",core=\"" +
                             std::to_string(figure.core) + "\"",
                         ratio);
  }
  Family(out, "kvt_zqp_loading_ratio", "gauge",
         "Share of the last completed interval an engine core was busy, 0 to 1.", loading);
  Family(out, "kvt_zqp_ddr_figures_live", "gauge",
         "1 when the DDR tool runs and answered within 3 s (or three intervals), else 0.",
         {{"", record.ddr_ready ? "1" : "0"}});
  Samples ddr;
  if (record.ddr_ready) {
    ddr = {{"direction=\"read\"", std::to_string(record.ddr_read_bytes_per_s)},
           {"direction=\"write\"", std::to_string(record.ddr_write_bytes_per_s)}};
  }
  Family(out, "kvt_zqp_ddr_bandwidth_bytes_per_second", "gauge",
         "DDR bandwidth over the last interval the DDR tool reported.", ddr);
  Samples total;
  Samples used;
  Samples free;
  for (const HeapFigure& heap : record.heaps) {
    const std::string labels = std::string("heap=\"") + monitors::kHeapNames[heap.index] + "\"";
    total.emplace_back(labels, std::to_string(heap.total_bytes));
    used.emplace_back(labels, std::to_string(heap.used_bytes));
    free.emplace_back(labels, std::to_string(heap.total_bytes - heap.used_bytes));
  }
  Family(out, "kvt_zqp_heap_size_bytes", "gauge", "Total size of an ION heap.", total);
  Family(out, "kvt_zqp_heap_used_bytes", "gauge", "Memory of an ION heap held by allocations.",
         used);
  Family(out, "kvt_zqp_heap_free_bytes", "gauge", "Memory of an ION heap not held by allocations.",
         free);
  // Process labels come and go with the board's processes: only the largest
  // holders, and only when asked, so a series count stays bounded.
  std::vector<const ProcessFigure*> holders;
  for (const ProcessFigure& process : record.processes) holders.push_back(&process);
  std::stable_sort(holders.begin(), holders.end(),
                   [](const auto* a, const auto* b) { return a->ion_bytes > b->ion_bytes; });
  if (holders.size() > processes) holders.resize(processes);
  std::sort(holders.begin(), holders.end(),
            [](const auto* a, const auto* b) { return a->pid < b->pid; });
  Samples rss;
  Samples ion;
  for (const ProcessFigure* process : holders) {
    const std::string labels = "pid=\"" + std::to_string(process->pid) + "\",name=\"" +
                               PrometheusLabelValue(process->name) + "\"";
    rss.emplace_back(labels, std::to_string(process->rss_bytes));
    ion.emplace_back(labels, std::to_string(process->ion_bytes));
  }
  Family(out, "kvt_zqp_process_resident_bytes", "gauge",
         "Resident memory of one of the largest ION holders.", rss);
  Family(out, "kvt_zqp_process_ion_bytes", "gauge",
         "ION memory counted for one of the largest holders.", ion);
  return out;
}

}  // namespace kestro::zqp::record
