#include "capture/node_sampler.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/process_descriptor.h"
#include "monitors/dsp_loading_node.h"

namespace kestro::zqp::capture {
namespace {

// A DSP node that is not there is looked for again this often.
constexpr std::int64_t kNodeRetryUs = 50'000;

}  // namespace

NodeSampler::NodeSampler(const monitors::YpuLibrary* library, std::uint32_t cores,
                         std::size_t dsp_nodes, Clock::time_point start)
    : library(library), last_cap(cores, ~0u), nodes(dsp_nodes), start(start) {}

NodeSampler::~NodeSampler() {
  for (Node& node : nodes) {
    if (node.map != nullptr) munmap(node.map, monitors::kDspLoadingNodeSize);
  }
  for (const auto& [pid, fd] : watched) close(fd);
}

void NodeSampler::Run(std::uint32_t frequency, StopFlag& stop) {
  const std::int64_t period_ns = 1'000'000'000 / std::max(frequency, 1u);
  Clock::time_point next = Clock::now();
  // A DSP client that works in periods of whole milliseconds would be sampled
  // at the same phases of its period forever by a strict clock: 3 ms busy in
  // every 10 ms, read every 2 ms, shows as 2 or 4 ms in the capture, and a
  // replay would play 20 % or 40 %. Steps drawn evenly between half and one
  // and a half periods keep the rate and spread the phases.
  std::uint64_t dither = static_cast<std::uint64_t>(next.time_since_epoch().count()) | 1;
  while (!stop.Stopped()) {
    SampleOnce();
    dither ^= dither << 13;
    dither ^= dither >> 7;
    dither ^= dither << 17;
    next += std::chrono::nanoseconds(
        period_ns / 2 +
        static_cast<std::int64_t>(dither % static_cast<std::uint64_t>(period_ns + 1)));
    const Clock::time_point now = Clock::now();
    if (next < now) next = now;  // a late wake-up does not make a burst
    if (stop.WaitUntil(next)) break;
  }
}

// The accelerator changes since the last call, as one record's payload;
// empty when nothing changed.
std::string NodeSampler::TakeYpu() {
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
std::string NodeSampler::TakeDsp() {
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
std::set<std::int32_t> NodeSampler::DspHolders() {
  const std::lock_guard lock(mutex);
  return holders;
}

void NodeSampler::SampleOnce() {
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
    if (node.map == nullptr && static_cast<std::int64_t>(now) - node.last_try_us >= kNodeRetryUs) {
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
  PollHolders(now);
}

void NodeSampler::PollHolders(std::uint64_t now) {
  if (watched.empty()) return;
  std::vector<pollfd> waits;
  waits.reserve(watched.size());
  for (const auto& [pid, fd] : watched) waits.push_back({fd, POLLIN, 0});
  if (poll(waits.data(), waits.size(), 0) <= 0) return;
  std::size_t i = 0;
  for (auto it = watched.begin(); it != watched.end(); ++i) {
    if (waits[i].revents == 0) {
      ++it;
      continue;
    }
    close(it->second);
    {
      const std::lock_guard lock(mutex);
      exits.emplace_back(now, it->first);
    }
    it = watched.erase(it);
  }
}

void NodeSampler::WatchHolders(const std::set<std::int32_t>& now) {
  for (auto it = watched.begin(); it != watched.end();) {
    if (now.count(it->first) != 0) {
      ++it;
      continue;
    }
    close(it->second);
    it = watched.erase(it);
  }
  for (const std::int32_t pid : now) {
    if (watched.count(pid) != 0) continue;
    // A holder already gone (a stale slot) has no descriptor and is not watched.
    const int fd = base::OpenProcessDescriptor(pid);
    if (fd >= 0) watched.emplace(pid, fd);
  }
}

std::vector<std::pair<std::uint64_t, std::int32_t>> NodeSampler::TakeExits() {
  const std::lock_guard lock(mutex);
  return std::exchange(exits, {});
}

void NodeSampler::Map(std::size_t index, Node& node) {
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

void NodeSampler::UpdateHolders() {
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
  WatchHolders(now);
  const std::lock_guard lock(mutex);
  holders = std::move(now);
}

}  // namespace kestro::zqp::capture
