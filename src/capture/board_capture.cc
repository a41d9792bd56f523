#include "capture/board_capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "base/board_path.h"
#include "capture/board_shape.h"
#include "capture/capture_format.h"
#include "capture/capture_threads.h"
#include "capture/node_sampler.h"
#include "monitor/monitor_config.h"
#include "monitors/ddr_monitor.h"
#include "monitors/memory_usage.h"
#include "monitors/ypu_monitor.h"

namespace kestro::zqp::capture {
namespace {

// A loading file read as the monitor reads it: at most 63 bytes from its
// top, the descriptor rewound for the next read.
std::string ReadLoading(int fd) {
  char buffer[kLoadingReadSize];
  const ssize_t got = read(fd, buffer, sizeof buffer);
  lseek(fd, 0, SEEK_SET);
  return std::string(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
}

// One driver loading file, read at its period, kept when it changed.
void WatchLoadingFile(const std::string& path, int fd, std::uint32_t period_ms, Pending& pending,
                      Clock::time_point start, StopFlag& stop, std::string last) {
  Clock::time_point next = Clock::now();
  while (!stop.Stopped()) {
    std::string text = ReadLoading(fd);
    if (text != last) {
      pending.Push(RecordKind::kFile, FilePayload(MicrosSince(start), path, text, 0));
      last = std::move(text);
    }
    next += std::chrono::milliseconds(period_ms);
    const Clock::time_point now = Clock::now();
    if (next < now) next = now;
    if (stop.WaitUntil(next)) break;
  }
}

}  // namespace

BoardCapture::BoardCapture(const base::MonitorOption& option, record::OutputFile& out)
    : option(option), out(out) {}

bool BoardCapture::Run(const sigset_t& stop_signals, std::string& error) {
  const Clock::time_point start = Clock::now();
  Pending pending;
  std::vector<std::string> first;
  first.push_back(EncodeHeader());
  first.push_back(EncodeRecord(RecordKind::kStart, StartPayload(option)));
  for (const std::string& listing : ListPayloads()) {
    first.push_back(EncodeRecord(RecordKind::kList, listing));
  }
  for (const char* path : kStartFiles) {
    std::uint32_t mode = 0;
    const std::optional<std::string> content = ReadWhole(path, &mode);
    first.push_back(EncodeRecord(RecordKind::kFile, FilePayload(0, path, content, mode)));
  }

  // The engines as the monitor would bring them up, read-only.
  base::MonitorOption read_only = option;
  read_only.read_only = true;
  std::vector<monitor::MonitorConfig> configs;
  try {
    monitor::GenerateMonitorConfigs(read_only, configs);
  } catch (const std::logic_error&) {
    // A board without /dev: the DSP's discovery gives up, as the monitor's
    // would; the engines found before it are captured.
  }
  const monitors::YpuLibrary* library = nullptr;
  std::unique_ptr<monitors::YpuCoreSet> cores;
  std::size_t dsp_nodes = 0;
  struct Watched {
    std::string path;
    int fd;
    std::string first;
  };
  std::vector<Watched> watched;
  for (const monitor::MonitorConfig& config : configs) {
    if (config.name.empty()) continue;
    std::uint32_t core_count = static_cast<std::uint32_t>(config.files.size());
    if (config.name == "YPU") {
      library = monitors::YpuLibrary::Load();
      if (library != nullptr) cores = std::make_unique<monitors::YpuCoreSet>(library);
      core_count = cores && cores->opened ? cores->core_num : 0;
      if (core_count == 0) library = nullptr;
    } else if (config.name == "DSP") {
      dsp_nodes = config.files.size();
    } else {
      for (const std::string& path : config.files) {
        if (path.empty()) continue;
        std::uint32_t mode = 0;
        const int fd = open(base::BoardPath(path).c_str(), O_RDONLY | O_CLOEXEC);
        std::optional<std::string> content;
        if (fd >= 0) {
          struct stat info {};
          if (fstat(fd, &info) == 0) mode = info.st_mode;
          content = ReadLoading(fd);
          watched.push_back({path, fd, *content});
        }
        first.push_back(EncodeRecord(RecordKind::kFile, FilePayload(0, path, content, mode)));
      }
    }
    first.push_back(
        EncodeRecord(RecordKind::kEngine, EnginePayload(config.name, core_count, config.files)));
  }
  bool ok = true;
  for (const std::string& record : first) {
    if (ok) ok = out.Write(record, error);
  }

  // The DDR tool, run as the monitor runs it; its lines are kept as they come.
  monitor::MonitorConfig ddr_config;
  monitor::BuildDdrConfig(read_only, ddr_config);
  auto ddr = std::make_unique<monitors::DDRMonitor>(ddr_config);
  ddr->SetLineObserver([&pending, start](std::string_view line) {
    PayloadWriter payload;
    payload.Varint(MicrosSince(start));
    payload.Bytes(line);
    pending.Push(RecordKind::kDdr, payload.Text());
  });
  ddr->SetExitObserver([&pending, start](int status) {
    PayloadWriter payload;
    payload.Varint(MicrosSince(start));
    payload.Varint(static_cast<std::uint32_t>(status));
    pending.Push(RecordKind::kDdrExit, payload.Text());
  });

  StopFlag stop;
  NodeSampler sampler(library, library != nullptr ? cores->core_num : 0, dsp_nodes, start);
  std::vector<std::thread> threads;
  if (ok) {
    ddr->Start();
    threads.emplace_back([&] { sampler.Run(option.frequency, stop); });
    const std::uint32_t period = std::min<std::uint32_t>(option.delay_ms, 3000);
    for (const Watched& file : watched) {
      threads.emplace_back([&, file, period] {
        WatchLoadingFile(file.path, file.fd, period, pending, start, stop, file.first);
      });
    }
  }

  // The heap text as last recorded: nullopt before the first record.
  std::optional<std::optional<std::string>> heap_last;
  std::map<std::string, std::optional<std::string>> proc_last;
  const auto tick = [&] {
    const std::uint64_t now = MicrosSince(start);
    std::uint32_t mode = 0;
    const std::optional<std::string> heap = ReadWhole(kHeapPath, &mode);
    if (!heap_last || *heap_last != heap) {
      pending.Push(RecordKind::kFile, FilePayload(now, kHeapPath, heap, mode));
      heap_last = heap;
    }
    // A DSP holder's end, when the sampler saw it.
    for (const auto& [when, pid] : sampler.TakeExits()) {
      const std::string path = "/proc/" + std::to_string(pid) + "/status";
      const auto known = proc_last.find(path);
      if (known == proc_last.end() || !known->second) continue;
      pending.Push(RecordKind::kFile, FilePayload(when, path, std::nullopt, 0));
      known->second = std::nullopt;
    }
    // The processes the report could name: holders of ION memory and of DSP slots.
    std::set<std::int32_t> pids = sampler.DspHolders();
    monitors::MemoryUsage usage;
    monitors::CollectMemoryUsage(usage);
    for (const auto& [pid, process] : usage.processes) pids.insert(pid);
    std::set<std::string> seen;
    for (const std::int32_t pid : pids) {
      const std::string folder = "/proc/" + std::to_string(pid);
      const std::pair<std::string, std::optional<std::string>> files[] = {
          {folder + "/status", StatusFields(pid)},
          {folder + "/comm", ReadWhole(folder + "/comm")},
          {folder + "/cmdline", ReadWhole(folder + "/cmdline")}};
      for (const auto& [path, content] : files) {
        seen.insert(path);
        const auto known = proc_last.find(path);
        if (known != proc_last.end() && known->second == content) continue;
        pending.Push(RecordKind::kFile, FilePayload(now, path, content, 0));
        proc_last[path] = content;
      }
    }
    // A process that left the tables is recorded gone once.
    for (auto it = proc_last.begin(); it != proc_last.end();) {
      if (seen.count(it->first) != 0) {
        ++it;
        continue;
      }
      if (it->second) pending.Push(RecordKind::kFile, FilePayload(now, it->first, std::nullopt, 0));
      it = proc_last.erase(it);
    }
  };
  const auto flush = [&] {
    const std::string ypu = sampler.TakeYpu();
    if (!ypu.empty()) pending.Push(RecordKind::kYpu, ypu);
    const std::string dsp = sampler.TakeDsp();
    if (!dsp.empty()) pending.Push(RecordKind::kDsp, dsp);
    for (const std::string& record : pending.Take()) {
      if (ok) ok = out.Write(record, error);
    }
  };

  const Clock::time_point end = option.duration_s == 0
                                    ? Clock::time_point::max()
                                    : start + std::chrono::seconds(option.duration_s);
  Clock::time_point next = start;
  while (ok) {
    tick();
    flush();
    next += std::chrono::milliseconds(option.delay_ms);
    const Clock::time_point now = Clock::now();
    if (next < now) next = now;
    const Clock::time_point wake = std::min(next, end);
    const auto wait = std::chrono::duration_cast<std::chrono::nanoseconds>(wake - now);
    const timespec timeout{static_cast<time_t>(wait.count() / 1'000'000'000),
                           static_cast<long>(wait.count() % 1'000'000'000)};
    const int got = sigtimedwait(&stop_signals, nullptr, &timeout);
    if (got > 0 || Clock::now() >= end) break;
  }
  stop.Set();
  ddr.reset();
  for (std::thread& thread : threads) thread.join();
  for (const Watched& file : watched) close(file.fd);
  flush();
  PayloadWriter finish;
  finish.Varint(MicrosSince(start));
  if (ok) ok = out.Write(EncodeRecord(RecordKind::kEnd, finish.Text()), error);
  return ok;
}

}  // namespace kestro::zqp::capture
