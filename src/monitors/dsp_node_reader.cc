#include "monitors/dsp_node_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/board_path.h"
#include "base/process_descriptor.h"

namespace kestro::zqp::monitors {
namespace {

// A node that could not be mapped is tried again at most this often: while
// the runtime is absent each try costs a failed shm_open.
constexpr std::int64_t kRemapMs = 1000;

std::int64_t SteadyMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

std::uint32_t LoadWord(const std::uint32_t& word) {
  // The runtime writes these words in another process while we read them.
  return std::atomic_ref<std::uint32_t>(const_cast<std::uint32_t&>(word)).load();
}

// The process's command name, as the kernel keeps it (at most 15 bytes).
std::string CommandName(std::int32_t pid) {
  const int fd =
      open(base::BoardPath("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  char text[64];
  const ssize_t got = read(fd, text, sizeof text);
  close(fd);
  if (got <= 0) return {};
  std::string name(text, static_cast<std::size_t>(got));
  if (name.back() == '\n') name.pop_back();
  return name;
}

}  // namespace

DspNodeReader::DspNodeReader(const monitor::MonitorConfig& config,
                             const std::shared_ptr<runner::WatchTaskRunner>& runner)
    : monitor::StatusMonitor(config, runner) {
  SetLoadingNum(static_cast<std::uint32_t>(files.size()));
  cores_.resize(files.size());
  SetTasks({[this] { Run(); }});
  ready.store(true);
}

DspNodeReader::~DspNodeReader() {
  JoinThreads();
  for (const auto& [pid, fd] : pidfds_) close(fd);
  for (Core& core : cores_) {
    if (core.node != nullptr) munmap(const_cast<DspLoadingNode*>(core.node), kDspLoadingNodeSize);
  }
}

bool DspNodeReader::IsCoreBusy(std::uint32_t core) {
  const DspLoadingNode* node = cores_[core].node;
  if (node == nullptr) return false;
  return (LoadWord(node->running_mask) & cores_[core].live_mask->load()) != 0;
}

bool DspNodeReader::AnyLive() const {
  return std::any_of(cores_.begin(), cores_.end(),
                     [](const Core& core) { return core.live_mask->load() != 0; });
}

void DspNodeReader::Run() {
  InitCoreStats();
  const std::uint32_t period = std::max<std::uint32_t>(GetSamplePeriod(), 1);
  std::uint32_t since_refresh = kRefreshMs;
  while (!stop.load()) {
    if (since_refresh >= kRefreshMs) {
      Refresh();
      since_refresh = 0;
    }
    if (AnyLive()) {
      Sample();
      SleepMs(period);
      since_refresh += period;
      continue;
    }
    // Nobody alive holds a slot, so every sample until the next refresh
    // reads idle: take them after one sleep instead of one wake-up each.
    const std::uint32_t samples = std::max<std::uint32_t>((kRefreshMs - since_refresh) / period, 1);
    SleepMs(samples * period);
    for (std::uint32_t i = 0; i < samples; ++i) Sample();
    since_refresh += samples * period;
  }
}

void DspNodeReader::Remember(std::int32_t pid) {
  if (!remembered_.insert(pid).second) return;
  Client client{pid, CommandName(pid)};
  const std::lock_guard<std::mutex> hold(seen_mutex_);
  seen_.push_back(std::move(client));
}

std::vector<DspNodeReader::Client> DspNodeReader::SeenClients() const {
  const std::lock_guard<std::mutex> hold(seen_mutex_);
  return seen_;
}

void DspNodeReader::MapNode(std::uint32_t core, std::int64_t now_ms) {
  Core& entry = cores_[core];
  if (entry.last_attempt_ms >= 0 && now_ms - entry.last_attempt_ms < kRemapMs) return;
  entry.last_attempt_ms = now_ms;
  const int fd = shm_open(files[core].c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return;
  // An object caught between its creation and its sizing is empty; a mapping
  // past its end would fault on the first read.
  struct stat status {};
  void* addr = MAP_FAILED;
  if (fstat(fd, &status) == 0 && status.st_size > 0) {
    addr = mmap(nullptr, kDspLoadingNodeSize, PROT_READ, MAP_SHARED, fd, 0);
  }
  close(fd);
  if (addr == MAP_FAILED) return;
  const auto* node = static_cast<const DspLoadingNode*>(addr);
  if (node->magic != kDspNodeMagic) {
    munmap(addr, kDspLoadingNodeSize);
    return;
  }
  entry.node = node;
}

void DspNodeReader::ReapEnded() {
  if (pidfds_.empty()) return;
  std::vector<pollfd> waits;
  waits.reserve(pidfds_.size());
  for (const auto& [pid, fd] : pidfds_) waits.push_back({fd, POLLIN, 0});
  if (poll(waits.data(), waits.size(), 0) <= 0) return;
  for (const pollfd& wait : waits) {
    if (wait.revents == 0) continue;
    // A process descriptor turns readable when its process has ended.
    const auto it = std::find_if(pidfds_.begin(), pidfds_.end(),
                                 [&wait](const auto& entry) { return entry.second == wait.fd; });
    dead_.insert(it->first);
    close(it->second);
    pidfds_.erase(it);
  }
}

void DspNodeReader::Refresh() {
  const std::int64_t now_ms = SteadyMs();
  ReapEnded();
  std::unordered_set<std::int32_t> named;
  for (std::uint32_t core = 0; core < cores_.size(); ++core) {
    Core& entry = cores_[core];
    if (entry.node == nullptr) MapNode(core, now_ms);
    if (entry.node == nullptr) continue;
    const std::uint32_t free_mask = LoadWord(entry.node->free_mask);
    std::uint32_t live = 0;
    for (std::uint32_t slot = 0; slot < kDspSlotCount; ++slot) {
      if ((free_mask & (1u << slot)) != 0) continue;
      const auto pid = static_cast<std::int32_t>(LoadWord(entry.node->pids[slot]));
      if (pid <= 0) continue;
      named.insert(pid);
      if (dead_.count(pid) != 0) continue;
      if (pidfds_.count(pid) == 0) {
        const int fd = base::OpenProcessDescriptor(pid);
        if (fd < 0) {
          dead_.insert(pid);
          continue;
        }
        pidfds_.emplace(pid, fd);
      }
      live |= 1u << slot;
      if (keep_seen_.load(std::memory_order_relaxed)) Remember(pid);
    }
    entry.live_mask->store(live);
  }
  // A process that left its slots needs no watching; a dead one no longer
  // named cannot come back under the same number while we remember it.
  std::erase_if(pidfds_, [&named](const auto& entry) {
    if (named.count(entry.first) != 0) return false;
    close(entry.second);
    return true;
  });
  std::erase_if(dead_, [&named](std::int32_t pid) { return named.count(pid) == 0; });
}

}  // namespace kestro::zqp::monitors
