// Per-core DSP loading, sampled from the runtime's shared-memory loading
// nodes while at least one live process uses a DSP.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "monitor/status_monitor.h"
#include "monitors/dsp_event_fifo.h"
#include "monitors/dsp_loading_node.h"
#include "monitors/dsp_process_table.h"

namespace kestro::zqp::monitors {

// What the monitor holds for one configured node; the core index is the
// position in the configuration's node list. A descriptor counts as open only
// when it is greater than 0.
struct DspCoreEntry {
  // The mapped node, null when not mapped.
  DspLoadingNode* node = nullptr;
  // The node's running_mask, null until a scan of this core ended with the
  // monitor's has-process flag set. Read by the sampler; written only while
  // no worker thread runs.
  std::uint32_t* running = nullptr;
  int shm_fd = -1;
  int lock_fd = -1;
  // Never filled by the monitor.
  std::string name;
  // Logical board path "/var/run/dsp_loading_flock_<core>".
  std::string lock_path;
};

// Samples, per core, whether any process has work running on it; the status
// monitor's worker turns that into a loading percentage per core.
//
// It runs only while a tracked process lives: the event fifo announces new
// users, a process descriptor per user tells of its exit, and the exit of the
// last one stops and joins the worker and unmaps every node. Nothing here is
// fatal: the monitor is always constructed ready, and a core it cannot watch
// shows 0.0.
//
// Threads: the fifo and process-exit callbacks run on the runner's thread
// (which must be the thread that constructs, starts and destroys the monitor);
// the sampler runs on the worker and only calls IsCoreBusy. The runner must not
// dispatch this monitor's callbacks after it is destroyed.
class DSPMonitor : public monitor::StatusMonitor {
 public:
  // One loading slot per configured shared-memory name; makes the event fifo
  // "/var/run/dsp_event", watches it and scans every node. Always ready.
  DSPMonitor(const monitor::MonitorConfig& config,
             const std::shared_ptr<runner::WatchTaskRunner>& runner);
  // Unwatches the fifo, joins the worker (does not Stop it: the owner must),
  // unmaps the nodes, closes the tracked process descriptors, then removes the
  // fifo.
  ~DSPMonitor() override;

  // Starts sampling only once some scan has found a live process.
  void Start() override;
  // One pointer test and one atomic load: false when the core is not being
  // watched. core must be below the number of configured nodes.
  bool IsCoreBusy(std::uint32_t core) override;

  // Watches the fifo's read end on the runner when it is open.
  void AddDspEvent();
  // Tracks the message's pid and watches its process descriptor; false (and
  // nothing watched) when the pid is negative or the process is gone.
  bool UpdateDspProcess(DSPEventMsg msg);

  // Inspection, for the runner's thread.
  bool HasProcess() const { return has_process_.load(); }
  bool HasWorkerThreads() const { return !threads.empty(); }
  std::size_t TrackedProcessCount() { return processes_.Size(); }
  std::size_t CoreCount() const { return entries_.size(); }
  const DspCoreEntry& CoreEntry(std::uint32_t core) const { return entries_[core]; }
  const DspEventFifo& EventFifo() const { return fifo_; }

 protected:
  // Fifo readable: one message per call. While sampling it tracks the pid;
  // while idle it ignores the content, rescans and tries Start.
  void OnDspEvent(int fd);
  // Releases the message's slot on every core, forgets the pid, and when no
  // process is left stops, joins and unmaps.
  void OnProcessExit(DSPEventMsg msg);
  // Clears the slot's running bit (forcing the loading to 0.0 when no bit is
  // left) and marks it free under the lock file. Nothing while the core is
  // not watched.
  void ReleaseSlot(std::uint32_t core, std::uint32_t slot);
  // Maps one node and tracks the processes of its held slots. Returns the
  // has-process flag, or false when the lock file, the object, the mapping or
  // the magic fails (each with its message).
  bool MapLoadingNode(std::uint32_t core);
  // MapLoadingNode on every core; returns the has-process flag.
  bool ScanLoadingNodes();
  void UnmapLoadingNodes();

 private:
  // Destroyed in reverse order: the table, then the fifo, then the entries.
  std::vector<DspCoreEntry> entries_;
  DspEventFifo fifo_;
  // Set when any scan finds a live process; never cleared.
  std::atomic<bool> has_process_{false};
  DspProcessTable processes_;
};

}  // namespace kestro::zqp::monitors
