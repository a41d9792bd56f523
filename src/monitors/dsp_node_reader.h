// Per-core DSP loading for a program that must not disturb the board: the
// runtime's loading nodes are mapped read-only and their clients followed by
// reading the nodes, with no event fifo, no lock file and no write.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "monitor/status_monitor.h"
#include "monitors/dsp_loading_node.h"

namespace kestro::zqp::monitors {

// Samples, per core, whether a live client has work running on it.
//
// The monitor cleans up after a client that died with work running (it
// clears the slot's running bit); a reader may not write, so it counts a
// running bit only for a slot whose process is alive. Every kRefreshMs the
// worker re-reads which slots are held and by whom, opens one process
// descriptor per live holder (never two for one process), and closes the
// descriptor of a process once it has ended or holds no slot any more. While
// no core has a live holder no client can be running, and the worker wakes
// only to refresh.
//
// Everything but construction and destruction happens on the worker, so no
// callback runs on the runner. Loading slots hold NaN until the first
// sampling window has ended. Nothing is fatal: a node that cannot be mapped
// (absent, empty, wrong magic) is tried again at a later refresh, and its core
// reads 0.
class DspNodeReader : public monitor::StatusMonitor {
 public:
  static constexpr std::uint32_t kRefreshMs = 50;

  // One loading slot per configured shared-memory name. Maps nothing yet;
  // always ready.
  DspNodeReader(const monitor::MonitorConfig& config,
                const std::shared_ptr<runner::WatchTaskRunner>& runner);
  // Joins the worker (the owner must Stop it first), closes every process
  // descriptor and unmaps every node.
  ~DspNodeReader() override;

  // One pointer test and two atomic loads: a running bit of a live slot.
  bool IsCoreBusy(std::uint32_t core) override;
  // Samples and refreshes until stopped.
  void Run() override;

  // Re-reads the held slots of every core, maps the nodes not yet mapped and
  // updates which slots have a live holder. Worker only (or a test while no
  // worker runs).
  void Refresh();

  struct Client {
    std::int32_t pid = 0;
    std::string name;  // /proc/PID/comm without its newline; empty when unreadable
  };
  // From now on, remember every live process seen holding a slot (off by
  // default: a recording that runs for months would remember every client
  // the board ever had). Any thread.
  void KeepSeenClients() { keep_seen_.store(true, std::memory_order_relaxed); }
  // The processes remembered, in the order first seen. Any thread.
  std::vector<Client> SeenClients() const;
  // No live process holds a slot: every core is idle, sampled or not.
  bool SurelyIdle() const override { return !AnyLive(); }

  // Inspection, while no worker runs.
  std::size_t WatchedProcessCount() const { return pidfds_.size(); }
  std::uint32_t LiveSlots(std::uint32_t core) const { return cores_[core].live_mask->load(); }

 private:
  struct Core {
    const DspLoadingNode* node = nullptr;
    // Slots whose holder was alive at the last refresh.
    std::unique_ptr<std::atomic<std::uint32_t>> live_mask =
        std::make_unique<std::atomic<std::uint32_t>>(0);
    // Steady-clock ms of the last failed attempt to map, to retry slowly.
    std::int64_t last_attempt_ms = -1;
  };

  void MapNode(std::uint32_t core, std::int64_t now_ms);
  // Closes the descriptors of processes that have ended; they become dead.
  void ReapEnded();
  bool AnyLive() const;
  void Remember(std::int32_t pid);

  std::vector<Core> cores_;
  // pid -> its process descriptor, for live holders only.
  std::unordered_map<std::int32_t, int> pidfds_;
  // Holders known to have ended while a slot still names them.
  std::unordered_set<std::int32_t> dead_;
  std::atomic<bool> keep_seen_{false};
  std::unordered_set<std::int32_t> remembered_;  // worker only
  mutable std::mutex seen_mutex_;
  std::vector<Client> seen_;  // under seen_mutex_
};

}  // namespace kestro::zqp::monitors
