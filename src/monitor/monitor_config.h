// Per-engine monitor configuration and the discovery of an engine's cores.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/monitor_option.h"

namespace kestro::zqp::monitor {

// What one monitor needs. A default-constructed value (empty name) is what a
// generator returns when the engine is not present; the registry drops it.
struct MonitorConfig {
  std::string name;
  std::uint32_t frequency = 0;
  std::uint32_t delay = 0;
  bool task_per_file = false;
  bool write_sample_time = false;
  bool batch = false;
  // One entry per core, in core order: board paths (logical, see BoardPath)
  // or, for the DSP, shared-memory object names. ({}: designated initialisers
  // may leave it out without a warning.)
  std::vector<std::string> files{};
  // MonitorOption::read_only: write nothing on the board; loading slots start
  // as NaN (no figure yet) and a failed read publishes NaN, not 0.
  bool read_only = false;
};

using GenConfigFunc = std::function<MonitorConfig(const base::MonitorOption&)>;

// Engine name to configuration generator, iterated in its fixed order
// YPU, DSP, GDC, ISP, JPU, PYM, STITCH, VPU. Immutable after static
// initialisation.
class GenConfigRegistry {
 public:
  using Entry = std::pair<std::string, GenConfigFunc>;

  explicit GenConfigRegistry(std::vector<Entry> entries) : entries_(std::move(entries)) {}

  // Exact, case-sensitive lookup; nullptr when the name is not a key.
  const GenConfigFunc* Find(std::string_view name) const;

  std::vector<Entry>::const_iterator begin() const { return entries_.begin(); }
  std::vector<Entry>::const_iterator end() const { return entries_.end(); }
  std::size_t size() const { return entries_.size(); }

 private:
  std::vector<Entry> entries_;
};

extern const GenConfigRegistry g_gen_config_funcs;

// Appends to out the names in dir (a logical board path) that begin with
// prefix and end with suffix (empty matches all), skipping names that begin
// with '.', in readdir order. Returns 0, or -1 after "Failed to open directory
// %s" when dir cannot be opened.
int ListDir(const char* dir, const std::string& prefix, const std::string& suffix,
            std::vector<std::string>& out);

// Copy with ASCII 'A'..'Z' lowered; every other byte kept.
std::string ToLower(const std::string& s);
// Copy with ASCII 'a'..'z' raised; every other byte kept.
std::string ToUpper(const std::string& s);

MonitorConfig GenerateYpuConfig(const base::MonitorOption& option);
// Throws std::logic_error when "/dev/" cannot be listed; nothing catches it.
MonitorConfig GenerateDspConfig(const base::MonitorOption& option);
// JPU, VPU: empty configuration when no /dev entry matches.
MonitorConfig BuildDebugDirConfig(const std::string& name, const base::MonitorOption& option);
// GDC, STITCH, PYM, ISP: empty configuration only when the flow folder cannot
// be listed; no match keeps the name with no files.
MonitorConfig BuildVpsFlowConfig(const std::string& name, const std::string& suffix,
                                 const base::MonitorOption& option);

// Overwrites config with the DDR monitor's configuration. Always true.
bool BuildDdrConfig(const base::MonitorOption& option, MonitorConfig& config);

// Appends one configuration per enabled engine (all engines, in table order,
// when the enable list is empty). False after "%s not support" (verbose) for an
// unknown name, keeping what was appended.
bool GenerateMonitorConfigs(const base::MonitorOption& option, std::vector<MonitorConfig>& configs);

}  // namespace kestro::zqp::monitor
