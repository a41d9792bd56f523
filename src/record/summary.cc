#include "record/summary.h"

#include <string.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/program_name.h"
#include "display/format_size.h"
#include "monitors/memory_usage.h"
#include "record/figure_text.h"
#include "record/json_writer.h"

namespace kestro::zqp::record {
namespace {

constexpr std::size_t kWidth = 80;
constexpr int kLabelWidth = 18;

std::string Printf(const char* format, auto... args) {
  char text[256];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

// "12.0K", as the report scales sizes, without its padding.
std::string Size(std::uint64_t bytes) {
  display::HumanSize size{};
  display::FormatSize(bytes, size);
  std::string text = Printf("%llu.%u", static_cast<unsigned long long>(size.value), size.tenth);
  if (size.unit != ' ') text += size.unit;
  return text;
}

std::string SizeOr(const std::optional<std::uint64_t>& bytes) {
  return bytes ? Size(*bytes) : "n/a";
}

std::string OneDecimal(const std::optional<double>& value) {
  return value ? Printf("%.1f", *value) : "n/a";
}

// A label padded to the first column; a longer one keeps its length.
std::string Row(std::string label, const std::vector<std::string>& cells, int cell_width) {
  std::string line = "  " + label;
  if (line.size() < kLabelWidth) line.resize(kLabelWidth, ' ');
  for (const std::string& cell : cells) line += Printf("%*s", cell_width, cell.c_str());
  return line + "\n";
}

// Valid UTF-8 as it is; bytes that would move the cursor or break the
// table (C0 and C1 controls, DEL, bytes that are not valid UTF-8) as '?'.
// At most limit bytes, cut between characters.
std::string Printable(std::string_view bytes, std::size_t limit) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t length = Utf8SequenceLength(bytes, at);
    const auto lead = static_cast<unsigned char>(bytes[at]);
    const auto next = length > 1 ? static_cast<unsigned char>(bytes[at + 1]) : 0;
    const bool control = length == 1 ? lead < 0x20 || lead == 0x7f : lead == 0xc2 && next < 0xa0;
    std::string_view piece = bytes.substr(at, length);
    if (length == 0 || control) {
      piece = "?";
      length = std::max<std::size_t>(length, 1);
    }
    if (text.size() + piece.size() > limit) break;
    text += piece;
    at += length;
  }
  return text;
}

// A word as a shell would need it typed: as it is when it holds only safe
// characters, otherwise single-quoted.
std::string ShellWord(const std::string& word) {
  if (!word.empty() &&
      word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                             "_-+=./:,@%") == std::string::npos) {
    return word;
  }
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// A percentage, null when never taken.
std::string PercentOr(const std::optional<double>& value) {
  return value ? Percent(static_cast<float>(*value)) : "";
}

// Bytes, null when never taken.
std::string BytesOr(const std::optional<std::uint64_t>& bytes) {
  return bytes ? std::to_string(*bytes) : "";
}

}  // namespace

void RunSummary::Begin(const Record& before) {
  for (const HeapFigure& heap : before.heaps) {
    Heap& entry = heaps_[heap.index];
    entry.total = heap.total_bytes;
    entry.start = entry.peak = heap.used_bytes;
  }
}

void RunSummary::Add(const Record& record, std::int64_t interval_ms) {
  ++records_;
  const double ms = static_cast<double>(std::max<std::int64_t>(interval_ms, 0));
  for (const LoadingFigure& figure : record.loading) {
    const std::string label = Label(figure);
    auto core = std::find_if(cores_.begin(), cores_.end(),
                             [&label](const Core& c) { return c.label == label; });
    if (core == cores_.end()) core = cores_.insert(cores_.end(), Core{label, {}, {}, 0, 0});
    if (!std::isfinite(figure.percent)) continue;
    core->values.push_back(figure.percent);
    if (interval_ms * 2 >= interval_ms_) core->whole.push_back(figure.percent);
    core->weighted += figure.percent * ms;
    core->weight += ms;
  }
  if (record.ddr_ready) {
    ddr_ms_ += ms;
    read_.weighted += static_cast<double>(record.ddr_read_bytes_per_s) * ms;
    write_.weighted += static_cast<double>(record.ddr_write_bytes_per_s) * ms;
    read_.peak = std::max(read_.peak, record.ddr_read_bytes_per_s);
    write_.peak = std::max(write_.peak, record.ddr_write_bytes_per_s);
  }
  // A heap missing from this record has no end figure, unless a later one
  // has it again.
  for (auto& [index, heap] : heaps_) heap.end.reset();
  for (const HeapFigure& figure : record.heaps) {
    Heap& heap = heaps_[figure.index];
    heap.total = figure.total_bytes;
    heap.end = figure.used_bytes;
    heap.peak = std::max(heap.peak.value_or(0), figure.used_bytes);
  }
  for (const ProcessFigure& process : record.processes) {
    if (process.ion_bytes == 0) continue;
    Holder& holder = holders_[process.pid];
    holder.name = process.name;
    holder.peak_ion = std::max(holder.peak_ion, process.ion_bytes);
    holder.peak_rss = std::max(holder.peak_rss, process.rss_bytes);
  }
}

RunSummary::Stats RunSummary::StatsOf(const Core& core) {
  Stats stats;
  if (core.values.empty()) return stats;
  std::vector<float> sorted = core.whole.empty() ? core.values : core.whole;
  std::sort(sorted.begin(), sorted.end());
  // Nearest rank: the smallest figure at or above 95 % of the records.
  const std::size_t rank = (sorted.size() * 95 + 99) / 100;
  stats.p95 = sorted[std::max<std::size_t>(rank, 1) - 1];
  stats.max = sorted.back();
  if (core.weight > 0) {
    stats.mean = core.weighted / core.weight;
  } else {  // only records of no length: each counts once
    double sum = 0;
    for (const float value : core.values) sum += value;
    stats.mean = sum / static_cast<double>(core.values.size());
  }
  return stats;
}

std::vector<std::pair<std::int32_t, RunSummary::Holder>> RunSummary::TopHolders() const {
  std::vector<std::pair<std::int32_t, Holder>> top(holders_.begin(), holders_.end());
  std::stable_sort(top.begin(), top.end(), [](const auto& a, const auto& b) {
    return a.second.peak_ion > b.second.peak_ion;
  });
  if (top.size() > kProcessCount) top.resize(kProcessCount);
  return top;
}

std::string RunSummary::Table(const CommandOutcome& outcome) const {
  std::string command;
  for (const std::string& word : outcome.argv) {
    command += (command.empty() ? "" : " ") + Printable(ShellWord(word), kWidth);
  }
  std::string out = base::kRecordProgram + (": " + command);
  if (out.size() > kWidth) out = out.substr(0, kWidth - 3) + "...";
  out += "\n";
  if (outcome.signal != 0) {
    out += Printf("killed by signal %d (%s), exit status %d\n", outcome.signal,
                  strsignal(outcome.signal), outcome.exit_status);
  } else {
    out += Printf("exit status %d\n", outcome.exit_status);
  }
  out += Printf("wall time %.2f s, %u record%s of %u ms\n", outcome.wall_seconds, records_,
                records_ == 1 ? "" : "s", outcome.interval_ms);

  if (!cores_.empty()) {
    out += "\n" + std::string("Loading (%)").append(kLabelWidth - 11, ' ') +
           Printf("%8s%8s%8s\n", "mean", "p95", "max");
    for (const Core& core : cores_) {
      const Stats stats = StatsOf(core);
      out += Row(core.label, {OneDecimal(stats.mean), OneDecimal(stats.p95), OneDecimal(stats.max)},
                 8);
    }
  }

  out += "\nDDR";
  if (ddr_ms_ <= 0) {
    out += std::string(kLabelWidth - 3, ' ') + Printf("%8s\n", "n/a");
  } else {
    out += std::string(kLabelWidth - 3, ' ') + Printf("%8s%8s%8s\n", "mean/s", "peak/s", "moved");
    for (const auto& [name, direction] : {std::pair{"read", &read_}, std::pair{"write", &write_}}) {
      const auto mean = static_cast<std::uint64_t>(direction->weighted / ddr_ms_ + 0.5);
      const auto moved = static_cast<std::uint64_t>(direction->weighted / 1000 + 0.5);
      out += Row(name, {Size(mean), Size(direction->peak), Size(moved)}, 8);
    }
  }

  if (!heaps_.empty()) {
    out += "\nION heap" + std::string(kLabelWidth - 8, ' ') +
           Printf("%8s%8s%8s%8s%8s\n", "total", "start", "peak", "end", "kept");
    for (const auto& [index, heap] : heaps_) {
      std::string kept = "n/a";
      if (heap.start && heap.end) {
        kept = *heap.end >= *heap.start ? Size(*heap.end - *heap.start)
                                        : "-" + Size(*heap.start - *heap.end);
      }
      out +=
          Row(monitors::kHeapNames[index],
              {Size(heap.total), SizeOr(heap.start), SizeOr(heap.peak), SizeOr(heap.end), kept}, 8);
    }
  }

  const auto top = TopHolders();
  if (!top.empty()) {
    out += "\nION holders" + std::string(kLabelWidth - 11, ' ') +
           Printf("%8s%10s%10s\n", "PID", "peak ION", "peak RSS");
    for (const auto& [pid, holder] : top) {
      out += Row(Printable(holder.name, 16), {std::to_string(pid)}, 8);
      out.pop_back();
      out += Printf("%10s%10s\n", Size(holder.peak_ion).c_str(), Size(holder.peak_rss).c_str());
    }
  }

  out += Printf("\nDSP clients: %zu\n", dsp_clients_.size());
  std::string line = " ";
  for (std::size_t i = 0; i < dsp_clients_.size(); ++i) {
    const DspClient& client = dsp_clients_[i];
    const std::string pid = std::to_string(client.pid);
    const std::string item =
        " " + (client.name.empty() ? pid : Printable(client.name, 16) + " (" + pid + ")") +
        (i + 1 < dsp_clients_.size() ? "," : "");
    if (line.size() + item.size() > kWidth && line.size() > 1) {
      out += line + "\n";
      line = " ";
    }
    line += item;
  }
  if (line.size() > 1) out += line + "\n";
  return out;
}

std::string RunSummary::Json(const CommandOutcome& outcome) const {
  JsonWriter json;
  json.Open('{').Key("command").Open('[');
  for (const std::string& word : outcome.argv) json.String(word);
  json.Close(']').Key("exit_status").Number(outcome.exit_status);
  json.Key("signal").Number(outcome.signal != 0 ? std::to_string(outcome.signal) : "");
  json.Key("wall_seconds").Number(Printf("%.3f", outcome.wall_seconds));
  json.Key("records").Number(records_).Key("interval_ms").Number(outcome.interval_ms);
  json.Key("loading").Open('{');
  for (const Core& core : cores_) {
    const Stats stats = StatsOf(core);
    json.Key(core.label).Open('{').Key("mean_percent").Number(PercentOr(stats.mean));
    json.Key("p95_percent").Number(PercentOr(stats.p95));
    json.Key("max_percent").Number(PercentOr(stats.max)).Close('}');
  }
  json.Close('}').Key("ddr");
  if (ddr_ms_ <= 0) {
    json.Null();
  } else {
    json.Open('{');
    for (const auto& [name, direction] : {std::pair{"read", &read_}, std::pair{"write", &write_}}) {
      json.Key(name).Open('{').Key("mean_bytes_per_second");
      json.Number(static_cast<std::uint64_t>(direction->weighted / ddr_ms_ + 0.5));
      json.Key("peak_bytes_per_second").Number(direction->peak).Key("bytes");
      json.Number(static_cast<std::uint64_t>(direction->weighted / 1000 + 0.5)).Close('}');
    }
    json.Close('}');
  }
  json.Key("heaps").Open('{');
  for (const auto& [index, heap] : heaps_) {
    json.Key(monitors::kHeapNames[index]).Open('{').Key("total_bytes").Number(heap.total);
    json.Key("start_bytes")
        .Number(BytesOr(heap.start))
        .Key("peak_bytes")
        .Number(BytesOr(heap.peak));
    json.Key("end_bytes").Number(BytesOr(heap.end)).Close('}');
  }
  json.Close('}').Key("processes").Open('[');
  for (const auto& [pid, holder] : TopHolders()) {
    json.Open('{').Key("pid").Number(pid).Key("name").String(holder.name);
    json.Key("peak_ion_bytes").Number(holder.peak_ion);
    json.Key("peak_rss_bytes").Number(holder.peak_rss).Close('}');
  }
  json.Close(']').Key("dsp_clients").Open('[');
  for (const DspClient& client : dsp_clients_) {
    json.Open('{').Key("pid").Number(client.pid).Key("name").String(client.name).Close('}');
  }
  return json.Close(']').Close('}').Line();
}

}  // namespace kestro::zqp::record
