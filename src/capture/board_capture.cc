#include "capture/board_capture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "base/board_path.h"
#include "capture/capture_format.h"
#include "monitor/monitor_config.h"
#include "monitors/ddr_monitor.h"
#include "monitors/dsp_loading_node.h"
#include "monitors/memory_usage.h"
#include "monitors/ypu_monitor.h"

namespace kestro::zqp::capture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kHeapPath[] = "/sys/kernel/debug/ion/heaps/all_heap_info";
// Files read once at start: what discovery and the DDR monitor look at.
constexpr const char* kStartFiles[] = {"/sys/class/boardinfo/soc_name",
                                       "/sys/devices/system/ypu/core_num",
                                       "/sys/devices/system/ypu/ratio", "/var/run/dsp_event"};
// The folders discovery lists, and the entry prefixes it counts there.
struct Listing {
  const char* dir;
  std::vector<const char*> prefixes;
};
const Listing kListings[] = {{"/dev/", {"vdsp", "jpu", "vpu"}},
                             {"/sys/devices/virtual/vps/flow/", {"gdc", "stitch", "pym", "isp"}}};
// A file the monitor reads through a 64-byte buffer gives at most 63 bytes.
constexpr std::size_t kLoadingReadSize = 63;
constexpr std::size_t kMaxFileSize = 16u << 20;
// A DSP node that is not there is looked for again this often.
constexpr std::int64_t kNodeRetryUs = 50'000;

std::uint64_t MicrosSince(Clock::time_point start) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

// The content of a file (at most kMaxFileSize bytes), nullopt when it does not open.
std::optional<std::string> ReadWhole(const std::string& path, std::uint32_t* mode = nullptr) {
  const int fd = open(base::BoardPath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  if (mode != nullptr && fstat(fd, &info) == 0) *mode = info.st_mode;
  std::string text;
  if (mode == nullptr || S_ISREG(info.st_mode)) {
    char buffer[65536];
    for (;;) {
      const ssize_t got = read(fd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0 || text.size() + static_cast<std::size_t>(got) > kMaxFileSize) break;
      text.append(buffer, static_cast<std::size_t>(got));
    }
  }
  close(fd);
  return text;
}

std::string FilePayload(std::uint64_t time_us, std::string_view path,
                        const std::optional<std::string>& content, std::uint32_t mode) {
  PayloadWriter payload;
  payload.Varint(time_us);
  payload.Bytes(path);
  payload.Varint(content ? 1 : 0);
  payload.Varint(content ? mode : 0);
  payload.Bytes(content ? *content : std::string_view());
  return payload.Text();
}

// Records made on the sampling threads, written by the main thread.
class Pending {
 public:
  void Push(RecordKind kind, std::string_view payload) {
    std::string record = EncodeRecord(kind, payload);
    const std::lock_guard lock(mutex);
    records.push_back(std::move(record));
  }
  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex);
    return std::exchange(records, {});
  }

 private:
  std::mutex mutex;
  std::vector<std::string> records;
};

// Stops the threads at once, whatever they wait for.
class StopFlag {
 public:
  void Set() {
    {
      const std::lock_guard lock(mutex);
      stopped = true;
    }
    wake.notify_all();
  }
  // Waits until the deadline; true when stopped meanwhile.
  bool WaitUntil(Clock::time_point deadline) {
    std::unique_lock lock(mutex);
    return wake.wait_until(lock, deadline, [this] { return stopped; });
  }
  bool Stopped() {
    const std::lock_guard lock(mutex);
    return stopped;
  }

 private:
  std::mutex mutex;
  std::condition_variable wake;
  bool stopped = false;
};

// The accelerator's answers and the DSP nodes' bytes, at the sampling
// frequency, kept as changes.
class Sampler {
 public:
  Sampler(const monitors::YpuLibrary* library, std::uint32_t cores, std::size_t dsp_nodes,
          Clock::time_point start)
      : library(library), last_cap(cores, ~0u), nodes(dsp_nodes), start(start) {}
  ~Sampler() {
    for (Node& node : nodes) {
      if (node.map != nullptr) munmap(node.map, monitors::kDspLoadingNodeSize);
    }
  }

  void Run(std::uint32_t frequency, StopFlag& stop) {
    const auto period = std::chrono::nanoseconds(1'000'000'000 / std::max(frequency, 1u));
    Clock::time_point next = Clock::now();
    while (!stop.Stopped()) {
      SampleOnce();
      next += period;
      const Clock::time_point now = Clock::now();
      if (next < now) next = now;  // a late wake-up does not make a burst
      if (stop.WaitUntil(next)) break;
    }
  }

  // The accelerator changes since the last call, as one record's payload;
  // empty when nothing changed.
  std::string TakeYpu() {
    const std::lock_guard lock(mutex);
    if (changes.empty()) return {};
    PayloadWriter payload;
    payload.Varint(last_cap.size());
    payload.Varint(changes.size());
    std::uint64_t previous = 0;
    for (const Change& change : changes) {
      payload.Varint(change.time_us - previous);
      payload.Varint(change.core);
      payload.Varint(change.cap);
      previous = change.time_us;
    }
    changes.clear();
    return payload.Text();
  }

  // The DSP node changes since the last call, as one record's payload (the
  // nodes differ in a few bytes, so a batch deflates well); empty when none.
  std::string TakeDsp() {
    const std::lock_guard lock(mutex);
    if (node_changes.empty()) return {};
    PayloadWriter payload;
    payload.Varint(nodes.size());
    payload.Varint(node_changes.size());
    std::uint64_t previous = 0;
    for (const NodeChange& change : node_changes) {
      payload.Varint(change.time_us - previous);
      payload.Varint(change.node);
      payload.Varint(change.present ? 1 : 0);
      payload.Bytes(change.bytes);
      previous = change.time_us;
    }
    node_changes.clear();
    return payload.Text();
  }

  // The pids that hold a slot of a DSP node now.
  std::set<std::int32_t> DspHolders() {
    const std::lock_guard lock(mutex);
    return holders;
  }

 private:
  struct Change {
    std::uint64_t time_us;
    std::uint32_t core;
    std::uint32_t cap;
  };
  struct NodeChange {
    std::uint64_t time_us;
    std::uint32_t node;
    bool present;
    std::string bytes;
  };
  struct Node {
    void* map = nullptr;
    std::int64_t last_try_us = -kNodeRetryUs;
    std::string bytes;  // as last recorded; empty while absent
    bool recorded = false;
  };

  void SampleOnce() {
    const std::uint64_t now = MicrosSince(start);
    for (std::uint32_t core = 0; core < last_cap.size(); ++core) {
      unsigned int cap = 0;
      library->core_cap(core, &cap);
      if (cap == last_cap[core]) continue;
      last_cap[core] = cap;
      const std::lock_guard lock(mutex);
      changes.push_back({now, core, cap});
    }
    bool holders_changed = false;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      Node& node = nodes[i];
      if (node.map == nullptr &&
          static_cast<std::int64_t>(now) - node.last_try_us >= kNodeRetryUs) {
        node.last_try_us = static_cast<std::int64_t>(now);
        Map(i, node);
      }
      std::string bytes;
      if (node.map != nullptr) {
        bytes.assign(static_cast<const char*>(node.map), monitors::kDspLoadingNodeSize);
      }
      if (node.recorded && bytes == node.bytes) continue;
      node.bytes = bytes;
      node.recorded = true;
      holders_changed = true;
      const std::lock_guard lock(mutex);
      node_changes.push_back({now, static_cast<std::uint32_t>(i), node.map != nullptr, bytes});
    }
    if (holders_changed) UpdateHolders();
  }

  void Map(std::size_t index, Node& node) {
    const std::string name = "/dsp_loading_node_1_" + std::to_string(index);
    const int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return;
    struct stat info {};
    if (fstat(fd, &info) == 0 &&
        static_cast<std::size_t>(info.st_size) >= monitors::kDspLoadingNodeSize) {
      void* map = mmap(nullptr, monitors::kDspLoadingNodeSize, PROT_READ, MAP_SHARED, fd, 0);
      if (map != MAP_FAILED) node.map = map;
    }
    close(fd);
  }

  void UpdateHolders() {
    std::set<std::int32_t> now;
    for (const Node& node : nodes) {
      if (node.bytes.size() < monitors::kDspLoadingNodeSize) continue;
      monitors::DspLoadingNode copy;
      std::memcpy(&copy, node.bytes.data(), sizeof copy);
      for (std::uint32_t slot = 0; slot < monitors::kDspSlotCount; ++slot) {
        if ((copy.free_mask >> slot & 1) == 0 && copy.pids[slot] != 0) {
          now.insert(static_cast<std::int32_t>(copy.pids[slot]));
        }
      }
    }
    const std::lock_guard lock(mutex);
    holders = std::move(now);
  }

  const monitors::YpuLibrary* library;
  std::vector<std::uint32_t> last_cap;
  std::vector<Node> nodes;
  Clock::time_point start;
  std::mutex mutex;
  std::vector<Change> changes;
  std::vector<NodeChange> node_changes;
  std::set<std::int32_t> holders;
};

// One driver loading file, read as the monitor reads it, at its period.
void WatchLoadingFile(const std::string& path, int fd, std::uint32_t period_ms, Pending& pending,
                      Clock::time_point start, StopFlag& stop, std::string last) {
  Clock::time_point next = Clock::now();
  while (!stop.Stopped()) {
    char buffer[kLoadingReadSize];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    lseek(fd, 0, SEEK_SET);
    std::string text(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
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

std::string ListPayload(const Listing& listing) {
  PayloadWriter payload;
  payload.Varint(0);
  payload.Bytes(listing.dir);
  std::vector<std::string> names;
  DIR* dir = opendir(base::BoardPath(listing.dir).c_str());
  payload.Varint(dir != nullptr ? 1 : 0);
  if (dir != nullptr) {
    while (const dirent* entry = readdir(dir)) {
      const std::string_view name = entry->d_name;
      for (const char* prefix : listing.prefixes) {
        if (name.starts_with(prefix)) names.emplace_back(name);
      }
    }
    closedir(dir);
  }
  // readdir's order, which discovery keeps, does not matter: it counts.
  payload.Varint(names.size());
  for (const std::string& name : names) payload.Bytes(name);
  return payload.Text();
}

std::string StartPayload(const base::MonitorOption& option) {
  PayloadWriter payload;
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  payload.Varint(static_cast<std::uint64_t>(wall.tv_sec) * 1'000'000'000u +
                 static_cast<std::uint64_t>(wall.tv_nsec));
  payload.Varint(option.delay_ms);
  payload.Varint(option.frequency);
  std::string engines;
  for (const std::string& item : option.enable_list) {
    engines += (engines.empty() ? "" : ",") + item;
  }
  payload.Bytes(engines);
  utsname name{};
  uname(&name);
  payload.Bytes(name.release);
  payload.Bytes(name.machine);
  return payload.Text();
}

std::string EnginePayload(const std::string& name, std::uint32_t cores,
                          const std::vector<std::string>& files) {
  PayloadWriter payload;
  payload.Bytes(name);
  payload.Varint(cores);
  payload.Varint(files.size());
  for (const std::string& file : files) payload.Bytes(file);
  return payload.Text();
}

// What the monitor reads of a process: its resident size from status, and
// its name and command line, which a replay gives its stand-in. Nothing else
// of status (its other lines say more than a capture needs).
std::optional<std::string> StatusFields(std::int32_t pid) {
  std::optional<std::string> status = ReadWhole("/proc/" + std::to_string(pid) + "/status");
  if (!status) return std::nullopt;
  std::string kept;
  std::size_t at = 0;
  while (at < status->size()) {
    std::size_t end = status->find('\n', at);
    end = end == std::string::npos ? status->size() : end + 1;
    const std::string_view line(status->data() + at, end - at);
    if (line.starts_with("Name:") || line.starts_with("VmRSS:")) kept.append(line);
    at = end;
  }
  return kept;
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
  for (const Listing& listing : kListings) {
    first.push_back(EncodeRecord(RecordKind::kList, ListPayload(listing)));
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
          char buffer[kLoadingReadSize];
          const ssize_t got = read(fd, buffer, sizeof buffer);
          lseek(fd, 0, SEEK_SET);
          content.emplace(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
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

  StopFlag stop;
  Sampler sampler(library, library != nullptr ? cores->core_num : 0, dsp_nodes, start);
  std::vector<std::thread> threads;
  if (ok) {
    ddr->Start();
    threads.emplace_back([&] { sampler.Run(option.frequency, stop); });
    const std::uint32_t period = std::min<std::uint32_t>(option.delay_ms, 3000);
    for (const Watched& file : watched) {
      threads.emplace_back([&, file] {
        WatchLoadingFile(file.path, file.fd, period, pending, start, stop, file.first);
      });
    }
  }

  std::string heap_last;
  bool heap_recorded = false;
  std::map<std::string, std::optional<std::string>> proc_last;
  const auto tick = [&] {
    const std::uint64_t now = MicrosSince(start);
    std::uint32_t mode = 0;
    const std::optional<std::string> heap = ReadWhole(kHeapPath, &mode);
    if (!heap_recorded || heap.value_or("\x01") != heap_last) {
      pending.Push(RecordKind::kFile, FilePayload(now, kHeapPath, heap, mode));
      heap_last = heap.value_or("\x01");
      heap_recorded = true;
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
