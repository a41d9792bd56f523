#include "record/writers.h"

#include "base/version.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "base/version.h"
#include "monitors/memory_usage.h"

namespace kestro::zqp::record {
namespace {

// Milliseconds as seconds with three decimals: "12.003".
std::string Seconds(std::int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(ms / 1000),
                static_cast<long long>(ms % 1000));
  return text;
}

void AppendHex(std::string& out, const char* prefix, unsigned char byte) {
  char text[16];
  std::snprintf(text, sizeof text, "%s%02x", prefix, byte);
  out += text;
}

// A figure's text, or what the format writes for a figure that is no number
// (a driver may publish "nan", which sscanf reads).
std::string Otherwise(std::string text, const char* otherwise) {
  return text.empty() ? otherwise : text;
}

bool IsControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

const LoadingFigure* FindLoading(const Record& record, const std::string& label) {
  for (const LoadingFigure& figure : record.loading) {
    if (Label(figure) == label) return &figure;
  }
  return nullptr;
}

const HeapFigure* FindHeap(const Record& record, std::size_t index) {
  for (const HeapFigure& heap : record.heaps) {
    if (heap.index == index) return &heap;
  }
  return nullptr;
}

// One metric family of a record: its name, HELP text, type and samples
// (labels without braces, value).
struct MetricFamily {
  std::string name;
  const char* help;
  const char* type;  // "gauge", or "info" (OpenMetrics; a gauge in the text format)
  std::vector<std::pair<std::string, std::string>> samples;
};

// The families of a record, in the order they are written; a family with no
// sample is left out.
void Family(std::vector<MetricFamily>& out, const char* name, const char* type, const char* help,
            std::vector<std::pair<std::string, std::string>> samples) {
  if (!samples.empty()) out.push_back({name, help, type, std::move(samples)});
}

// "name{labels} value", with " timestamp" when given, and a line end.
void AppendSample(std::string& out, const std::string& name, const std::string& labels,
                  const std::string& value, const std::string& timestamp) {
  out += name;
  if (!labels.empty()) out += "{" + labels + "}";
  out += " " + value;
  if (!timestamp.empty()) out += " " + timestamp;
  out += "\n";
}

}  // namespace

std::size_t Utf8SequenceLength(std::string_view bytes, std::size_t at) {
  const auto byte = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // overlong below U+0800
    if (lead == 0xed) high = 0x9f;  // surrogates U+D800..U+DFFF
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;   // overlong below U+10000
    if (lead == 0xf4) high = 0x8f;  // above U+10FFFF
  } else {
    return 0;
  }
  if (at + length > bytes.size() || byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  return length;
}

std::string CsvField(std::string_view field) {
  if (field.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(field);
  std::string out = "\"";
  for (const char c : field) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string JsonString(std::string_view bytes) {
  std::string out = "\"";
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = Utf8SequenceLength(bytes, at);
    const auto byte = static_cast<unsigned char>(bytes[at]);
    if (length == 0) {
      AppendHex(out, "\\udc", byte);
      ++at;
      continue;
    }
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += bytes[at];
    } else if (IsControl(byte)) {
      AppendHex(out, "\\u00", byte);
    } else {
      out.append(bytes.substr(at, length));
    }
    at += length;
  }
  return out + "\"";
}

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

std::string Rfc3339(std::int64_t wall_ms) {
  // Calendar arithmetic only: gmtime_r would first load the local time zone
  // (/etc/localtime), whose code and data a UTC stamp has no use for.
  using namespace std::chrono;
  const sys_time<milliseconds> time{milliseconds(wall_ms)};
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss<milliseconds> clock(time - day);
  char text[48];
  std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return text;
}

namespace {

// value * 10^decimals rounded half away from zero, printed in its shortest
// exact form with at most `decimals` decimals ("29.6", "100", "0.0025").
// Integers only: std::round would pull in libm and to_chars(double) its
// shortest-form tables, resident pages the monitor does not have.
std::string Fixed(double value, int decimals, std::int64_t unit) {
  if (!std::isfinite(value)) return "";
  const double scaled = value * static_cast<double>(unit);
  char text[64];
  if (!(scaled > -1e15 && scaled < 1e15)) {
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
  }
  const auto units = static_cast<std::int64_t>(scaled + (scaled < 0 ? -0.5 : 0.5));
  const std::uint64_t magnitude = static_cast<std::uint64_t>(units < 0 ? -units : units);
  auto fraction = static_cast<unsigned>(magnitude % static_cast<std::uint64_t>(unit));
  int length = std::snprintf(text, sizeof text, "%s%llu", units < 0 ? "-" : "",
                             static_cast<unsigned long long>(magnitude / unit));
  if (fraction != 0) {
    while (fraction % 10 == 0) {
      fraction /= 10;
      --decimals;
    }
    length += std::snprintf(text + length, sizeof text - length, ".%0*u", decimals, fraction);
  }
  return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace

std::string Percent(float value) {
  return Fixed(static_cast<double>(value), 2, 100);
}

std::string Ratio(float percent) {
  // Percent to the hundredth is the ratio to 1e-4.
  return Fixed(static_cast<double>(percent) / 100.0, 4, 10000);
}

CsvLayout LayoutOf(const Record& record) {
  CsvLayout layout;
  for (const LoadingFigure& figure : record.loading) layout.labels.push_back(Label(figure));
  for (const HeapFigure& heap : record.heaps) layout.heaps.push_back(heap.index);
  return layout;
}

std::string CsvHeader(const CsvLayout& layout) {
  std::string out = "time,elapsed_s";
  for (const std::string& label : layout.labels) out += "," + CsvField(label);
  out += ",ddr_read_bytes_per_second,ddr_write_bytes_per_second";
  for (const std::size_t heap : layout.heaps) {
    for (const char* figure : {"total", "used", "free"}) {
      out += std::string(",") + kHeapNames[heap] + "_" + figure + "_bytes";
    }
  }
  return out + "\r\n";
}

std::string CsvRow(const CsvLayout& layout, const Record& record) {
  std::string out = Rfc3339(record.wall_ms) + "," + Seconds(record.elapsed_ms);
  for (const std::string& label : layout.labels) {
    const LoadingFigure* figure = FindLoading(record, label);
    out += "," + (figure ? Percent(figure->percent) : "");
  }
  for (const std::uint64_t bytes : {record.ddr_read_bytes_per_s, record.ddr_write_bytes_per_s}) {
    out += "," + (record.ddr_ready ? std::to_string(bytes) : "");
  }
  for (const std::size_t index : layout.heaps) {
    const HeapFigure* heap = FindHeap(record, index);
    if (heap == nullptr) {
      out += ",,,";
      continue;
    }
    for (const std::uint64_t bytes :
         {heap->total_bytes, heap->used_bytes, heap->total_bytes - heap->used_bytes}) {
      out += "," + std::to_string(bytes);
    }
  }
  return out + "\r\n";
}

std::string JsonLine(const Record& record) {
  std::string out = "{\"time\":\"" + Rfc3339(record.wall_ms) +
                    "\",\"elapsed_s\":" + Seconds(record.elapsed_ms) + ",\"loading\":[";
  for (std::size_t i = 0; i < record.loading.size(); ++i) {
    const LoadingFigure& figure = record.loading[i];
    out += std::string(i ? "," : "") + "{\"label\":" + JsonString(Label(figure)) +
           ",\"engine\":" + JsonString(figure.engine) + ",\"core\":" + std::to_string(figure.core) +
           ",\"percent\":" + Otherwise(Percent(figure.percent), "null") + "}";
  }
  out += "],\"ddr\":";
  out += record.ddr_ready
             ? "{\"read_bytes_per_second\":" + std::to_string(record.ddr_read_bytes_per_s) +
                   ",\"write_bytes_per_second\":" + std::to_string(record.ddr_write_bytes_per_s) +
                   "}"
             : "null";
  out += ",\"heaps\":[";
  for (std::size_t i = 0; i < record.heaps.size(); ++i) {
    const HeapFigure& heap = record.heaps[i];
    out += std::string(i ? "," : "") + "{\"name\":\"" + kHeapNames[heap.index] +
           "\",\"total_bytes\":" + std::to_string(heap.total_bytes) +
           ",\"used_bytes\":" + std::to_string(heap.used_bytes) +
           ",\"free_bytes\":" + std::to_string(heap.total_bytes - heap.used_bytes) + "}";
  }
  out += "],\"processes\":[";
  for (std::size_t i = 0; i < record.processes.size(); ++i) {
    const ProcessFigure& process = record.processes[i];
    out += std::string(i ? "," : "") + "{\"pid\":" + std::to_string(process.pid) +
           ",\"name\":" + JsonString(process.name) +
           ",\"rss_bytes\":" + std::to_string(process.rss_bytes) +
           ",\"ion_bytes\":" + std::to_string(process.ion_bytes) + "}";
  }
  return out + "]}\n";
}

namespace {

std::vector<MetricFamily> Families(const Record& record, std::size_t processes) {
  using Samples = std::vector<std::pair<std::string, std::string>>;
  std::vector<MetricFamily> out;
  Family(out, "kvt_zqp_build", "info", "Version of kvt_zqp_record; always 1.",
         {{"version=\"" + PrometheusLabelValue(GetVersion()) + "\"", "1"}});
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
    const std::string labels = std::string("heap=\"") + kHeapNames[heap.index] + "\"";
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

}  // namespace

std::string PrometheusText(const Record& record, std::size_t processes) {
  std::string out = "# kvt_zqp_record sample at " + Rfc3339(record.wall_ms) + "\n";
  for (const MetricFamily& family : Families(record, processes)) {
    // The text format has no info type: an info metric is a gauge of 1
    // whose name ends in _info.
    const bool info = std::string_view(family.type) == "info";
    const std::string name = info ? family.name + "_info" : family.name;
    out += "# HELP " + name + " " + family.help + "\n# TYPE " + name + " gauge\n";
    for (const auto& [labels, value] : family.samples) AppendSample(out, name, labels, value, "");
  }
  return out;
}

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
    const bool info = std::string_view(family.type) == "info";
    const std::string name = info ? family.name + "_info" : family.name;
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
