// The accelerator library's answers and the DSP loading nodes' bytes, read at
// the sampling frequency on a thread of their own and kept as changes, which
// the main thread takes as records' payloads. The holders of DSP slots are
// watched as closely: the monitor learns of a holder's end at once (a process
// descriptor), so a replay must end its stand-in as exactly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "capture/capture_threads.h"
#include "monitors/ypu_monitor.h"

namespace kestro::zqp::capture {

class NodeSampler {
 public:
  // library may be null (no accelerator); cores is its core count then 0.
  // The DSP nodes are "/dsp_loading_node_1_0" .. dsp_nodes - 1, mapped
  // read-only when they appear (looked for every 50 ms while absent).
  NodeSampler(const monitors::YpuLibrary* library, std::uint32_t cores, std::size_t dsp_nodes,
              Clock::time_point start);
  NodeSampler(const NodeSampler&) = delete;
  NodeSampler& operator=(const NodeSampler&) = delete;
  ~NodeSampler();

  // Samples frequency times a second until stop.
  void Run(std::uint32_t frequency, StopFlag& stop);

  // The accelerator's answers that changed since the last call (core count,
  // count, then time step, core and capacity of each) as one record's
  // payload; empty when none did.
  std::string TakeYpu();
  // The DSP nodes that changed since the last call (node count, count, then
  // time step, node, present and bytes of each) as one record's payload: the
  // nodes differ in a few bytes, so a batch deflates well. Empty when none.
  std::string TakeDsp();
  // The pids that hold a slot of a DSP node now.
  std::set<std::int32_t> DspHolders();
  // The holders that ended since the last call: when (microseconds since the
  // start) and their pid.
  std::vector<std::pair<std::uint64_t, std::int32_t>> TakeExits();

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
    std::int64_t last_try_us = -1'000'000;
    std::string bytes;  // as last recorded; empty while absent
    bool recorded = false;
  };

  void SampleOnce();
  void Map(std::size_t index, Node& node);
  void UpdateHolders();
  void WatchHolders(const std::set<std::int32_t>& now);
  void PollHolders(std::uint64_t now);

  const monitors::YpuLibrary* library;
  std::vector<std::uint32_t> last_cap;  // sampler thread only
  std::vector<Node> nodes;              // sampler thread only; its size is fixed
  Clock::time_point start;
  // A process descriptor of each live holder; sampler thread only.
  std::map<std::int32_t, int> watched;
  std::mutex mutex;  // guards what follows
  std::vector<Change> changes;
  std::vector<NodeChange> node_changes;
  std::set<std::int32_t> holders;
  std::vector<std::pair<std::uint64_t, std::int32_t>> exits;
};

}  // namespace kestro::zqp::capture
