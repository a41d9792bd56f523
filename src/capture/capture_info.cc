#include "capture/capture_info.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <ctime>
#include <map>
#include <set>
#include <string_view>
#include <vector>

#include "capture/capture_format.h"

namespace kestro::zqp::capture {
namespace {

constexpr std::array<const char*, 10> kKindNames = {"?",   "start", "list", "file", "engine",
                                                    "ypu", "dsp",   "ddr",  "end",  "ddr-exit"};

// Bytes as printable text: control bytes and quotes escaped, NULs (between
// command-line arguments) shown as blanks.
std::string Printable(std::string_view bytes, bool nul_is_blank) {
  while (!bytes.empty() && (bytes.back() == '\n' || (nul_is_blank && bytes.back() == '\0'))) {
    bytes.remove_suffix(1);
  }
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\0' && nul_is_blank) {
      text += ' ';
    } else if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      text += escaped;
    } else {
      text += c;
    }
  }
  return text;
}

struct Summary {
  std::uint64_t wall_ns = 0;
  std::uint64_t delay = 0, frequency = 0;
  std::string engines_option, release, machine;
  std::vector<std::string> lines;               // shape and engines, in file order
  std::map<std::string, std::string> names;     // pid -> name
  std::map<std::string, std::string> commands;  // pid -> command line
  std::array<std::uint64_t, kKindNames.size()> counts{};
  std::uint64_t ypu_answers = 0;
  std::uint64_t dsp_changes = 0;
  std::uint64_t last_us = 0;
  std::optional<std::uint64_t> end_us;
};

// The pid of "/proc/PID/FILE", or empty.
std::string ProcPid(std::string_view path, std::string_view file) {
  if (path.size() <= 6 + file.size() || !path.starts_with("/proc/") || !path.ends_with(file)) {
    return {};
  }
  path.remove_prefix(6);
  path.remove_suffix(file.size());
  const bool digits =
      std::all_of(path.begin(), path.end(), [](char c) { return c >= '0' && c <= '9'; });
  return digits ? std::string(path) : std::string();
}

// Reads a batch of changes (accelerator answers, or DSP nodes with their
// bytes), moving last_us to its last time; returns how many it holds.
std::uint64_t SkipBatch(PayloadReader& payload, bool with_bytes, std::uint64_t& last_us) {
  payload.Varint();
  const std::uint64_t n = payload.Varint();
  std::uint64_t time = 0;
  for (std::uint64_t i = 0; i < n && payload.ok(); ++i) {
    time += payload.Varint();
    payload.Varint();
    payload.Varint();
    if (with_bytes) payload.Bytes();
  }
  last_us = std::max(last_us, time);
  return n;
}

bool Take(const CaptureReader::Record& record, Summary& summary) {
  PayloadReader payload(record.payload);
  const auto kind = static_cast<std::size_t>(record.kind);
  summary.counts[kind < kKindNames.size() ? kind : 0]++;
  switch (record.kind) {
    case RecordKind::kStart:
      summary.wall_ns = payload.Varint();
      summary.delay = payload.Varint();
      summary.frequency = payload.Varint();
      summary.engines_option = payload.Bytes();
      summary.release = payload.Bytes();
      summary.machine = payload.Bytes();
      break;
    case RecordKind::kList: {
      payload.Varint();
      std::string line = "list      " + std::string(payload.Bytes()) + ":";
      if (payload.Varint() == 0) line += " (does not open)";
      for (std::uint64_t n = payload.Varint(); n > 0 && payload.ok(); --n) {
        line += " " + Printable(payload.Bytes(), false);
      }
      summary.lines.push_back(line);
      break;
    }
    case RecordKind::kFile: {
      const std::uint64_t time = payload.Varint();
      const std::string path(payload.Bytes());
      const bool present = payload.Varint() != 0;
      const std::uint64_t mode = payload.Varint();
      const std::string_view content = payload.Bytes();
      summary.last_us = std::max(summary.last_us, time);
      if (const std::string pid = ProcPid(path, "/comm"); !pid.empty() && present) {
        summary.names[pid] = Printable(content, false);
      } else if (const std::string cmd = ProcPid(path, "/cmdline"); !cmd.empty() && present) {
        summary.commands[cmd] = Printable(content, true);
      } else if (time == 0) {
        char line[64];
        std::snprintf(line, sizeof line, present ? "%06" PRIo64 : "absent", mode);
        std::string text = "file      " + path + ": " + line;
        if (present && content.size() <= 64) text += " \"" + Printable(content, false) + "\"";
        if (present && content.size() > 64)
          text += ", " + std::to_string(content.size()) + " bytes";
        summary.lines.push_back(text);
      }
      break;
    }
    case RecordKind::kEngine: {
      std::string line = "engine    " + std::string(payload.Bytes());
      const std::uint64_t cores = payload.Varint();
      for (std::uint64_t n = payload.Varint(); n > 0 && payload.ok(); --n) payload.Bytes();
      const char* unit = line.ends_with("YPU")   ? " core"
                         : line.ends_with("DSP") ? " node"
                                                 : " file";
      line += ": " + std::to_string(cores) + unit + (cores == 1 ? "" : "s");
      summary.lines.push_back(line);
      break;
    }
    case RecordKind::kYpu:
      summary.ypu_answers += SkipBatch(payload, false, summary.last_us);
      break;
    case RecordKind::kDsp:
      summary.dsp_changes += SkipBatch(payload, true, summary.last_us);
      break;
    case RecordKind::kDdr:
      summary.last_us = std::max(summary.last_us, payload.Varint());
      payload.Bytes();
      break;
    case RecordKind::kEnd:
      summary.end_us = payload.Varint();
      break;
    case RecordKind::kDdrExit:
      summary.last_us = std::max(summary.last_us, payload.Varint());
      payload.Varint();
      break;
  }
  return payload.ok();
}

}  // namespace

int DescribeCapture(const std::string& path, std::FILE* out, std::FILE* err) {
  CaptureReader reader;
  std::string error;
  if (!reader.Open(path, error)) {
    std::fprintf(err, "%s\n", error.c_str());
    return 1;
  }
  Summary summary;
  CaptureReader::Record record;
  CaptureReader::Status status;
  std::string note;
  while ((status = reader.Next(record, error)) == CaptureReader::Status::kRecord) {
    if (!Take(record, summary)) {
      status = CaptureReader::Status::kCorrupt;
      error = path + ": record at byte " + std::to_string(record.offset) +
              " is corrupt: its fields run past its end";
      break;
    }
  }
  struct stat info {};
  stat(path.c_str(), &info);
  const time_t seconds = static_cast<time_t>(summary.wall_ns / 1'000'000'000u);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char when[32];
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
  const std::uint64_t length = summary.end_us.value_or(summary.last_us);
  std::fprintf(out, "capture   %s, %lld bytes, format %u\n", path.c_str(),
               static_cast<long long>(info.st_size), reader.Version());
  std::fprintf(out, "began     %s, %" PRIu64 ".%01" PRIu64 " s, %s\n", when, length / 1'000'000,
               length / 100'000 % 10,
               summary.end_us                               ? "ended cleanly"
               : status == CaptureReader::Status::kEnd      ? "no end record"
               : status == CaptureReader::Status::kCutShort ? "cut short"
                                                            : "corrupt");
  std::fprintf(out, "options   -d %" PRIu64 " -f %" PRIu64 " -e %s\n", summary.delay,
               summary.frequency,
               summary.engines_option.empty() ? "(all)" : summary.engines_option.c_str());
  std::fprintf(out, "kernel    %s %s\n", Printable(summary.release, false).c_str(),
               Printable(summary.machine, false).c_str());
  for (const std::string& line : summary.lines) std::fprintf(out, "%s\n", line.c_str());
  std::set<std::string> pids;
  for (const auto& [pid, name] : summary.names) pids.insert(pid);
  for (const auto& [pid, command] : summary.commands) pids.insert(pid);
  for (const std::string& pid : pids) {
    std::fprintf(out, "process   %s %s: %s\n", pid.c_str(),
                 summary.names.count(pid) ? summary.names[pid].c_str() : "?",
                 summary.commands.count(pid) ? summary.commands[pid].c_str() : "");
  }
  std::fprintf(out, "records  ");
  for (std::size_t kind = 1; kind < kKindNames.size(); ++kind) {
    std::fprintf(out, " %s %" PRIu64 "%s", kKindNames[kind], summary.counts[kind],
                 kind + 1 < kKindNames.size() ? "," : "\n");
  }
  std::fprintf(out,
               "changes   %" PRIu64 " of the accelerator's answers, %" PRIu64 " of DSP nodes\n",
               summary.ypu_answers, summary.dsp_changes);
  if (status == CaptureReader::Status::kCutShort) {
    std::fprintf(err, "%s; the records before it are described\n", error.c_str());
  } else if (status == CaptureReader::Status::kCorrupt) {
    std::fprintf(err, "%s\n", error.c_str());
    return 1;
  }
  return 0;
}

}  // namespace kestro::zqp::capture
