#include "monitor/monitor_config.h"

#include <dirent.h>

#include <stdexcept>

#include "base/board_path.h"
#include "base/log.h"

namespace kestro::zqp::monitor {
namespace {

constexpr const char* kVpsFlowDir = "/sys/devices/virtual/vps/flow/";

MonitorConfig WithOptions(std::string name, std::vector<std::string> files, bool vps_flow,
                          const base::MonitorOption& option) {
  MonitorConfig config;
  config.name = std::move(name);
  config.frequency = option.frequency;
  config.delay = option.delay_ms;
  config.task_per_file = vps_flow;
  // The driver's sampling period is one setting shared by every reader; only
  // the monitor sets it.
  config.write_sample_time = vps_flow && !option.read_only;
  config.batch = option.batch;
  config.read_only = option.read_only;
  config.files = std::move(files);
  return config;
}

}  // namespace

const GenConfigFunc* GenConfigRegistry::Find(std::string_view name) const {
  for (const auto& entry : entries_) {
    if (entry.first == name) return &entry.second;
  }
  return nullptr;
}

// The order of this table is the order in which monitors are created and
// drawn when no engine is enabled explicitly.
const GenConfigRegistry g_gen_config_funcs({
    {"YPU", GenerateYpuConfig},
    {"DSP", GenerateDspConfig},
    {"GDC", [](const base::MonitorOption& o) { return BuildVpsFlowConfig("GDC", "src", o); }},
    {"ISP", [](const base::MonitorOption& o) { return BuildVpsFlowConfig("ISP", "src", o); }},
    {"JPU", [](const base::MonitorOption& o) { return BuildDebugDirConfig("JPU", o); }},
    {"PYM", [](const base::MonitorOption& o) { return BuildVpsFlowConfig("PYM", "src", o); }},
    {"STITCH",
     [](const base::MonitorOption& o) { return BuildVpsFlowConfig("STITCH", "ich0", o); }},
    {"VPU", [](const base::MonitorOption& o) { return BuildDebugDirConfig("VPU", o); }},
});

int ListDir(const char* dir, const std::string& prefix, const std::string& suffix,
            std::vector<std::string>& out) {
  DIR* handle = opendir(base::BoardPath(dir).c_str());
  if (handle == nullptr) {
    base::LogError("Failed to open directory %s\n", dir);
    return -1;
  }
  while (const dirent* entry = readdir(handle)) {
    std::string_view name(entry->d_name);
    if (name.empty() || name.front() == '.') continue;
    if (!prefix.empty() && !name.starts_with(prefix)) continue;
    if (!suffix.empty() && !name.ends_with(suffix)) continue;
    out.emplace_back(name);
  }
  closedir(handle);
  return 0;
}

std::string ToLower(const std::string& s) {
  std::string out = s;
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string ToUpper(const std::string& s) {
  std::string out = s;
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

MonitorConfig GenerateYpuConfig(const base::MonitorOption& option) {
  return WithOptions("YPU", {"/sys/devices/system/ypu/ratio"}, false, option);
}

MonitorConfig GenerateDspConfig(const base::MonitorOption& option) {
  std::vector<std::string> entries;
  if (ListDir("/dev/", "vdsp", "", entries) != 0) {
    // Kept on purpose: without "/dev/" the generator fails with the logic
    // error of a string built from a null pointer. Nothing catches it, so the
    // process aborts through the fatal-signal path, which still stops the
    // monitors and restores the terminal.
    throw std::logic_error("basic_string: construction from null is not valid");
  }
  std::vector<std::string> files;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    files.push_back("/dsp_loading_node_1_" + std::to_string(i));
  }
  return WithOptions("DSP", std::move(files), false, option);
}

MonitorConfig BuildDebugDirConfig(const std::string& name, const base::MonitorOption& option) {
  const std::string lower = ToLower(name);
  std::vector<std::string> entries;
  if (ListDir("/dev/", lower, "", entries) != 0 || entries.empty()) return MonitorConfig{};
  std::vector<std::string> files;
  files.push_back("/sys/kernel/debug/" + lower + "/loading");
  for (std::size_t i = 1; i < entries.size(); ++i) {
    files.push_back("/sys/kernel/debug/" + lower + std::to_string(i) + "/loading");
  }
  return WithOptions(name, std::move(files), false, option);
}

MonitorConfig BuildVpsFlowConfig(const std::string& name, const std::string& suffix,
                                 const base::MonitorOption& option) {
  const std::string lower = ToLower(name);
  std::vector<std::string> entries;
  if (ListDir(kVpsFlowDir, lower, suffix, entries) != 0) return MonitorConfig{};
  // The file ending follows the engine, not the discovery suffix.
  const char* ending = name == "STITCH" ? "_ich0/loading" : "_src/loading";
  std::vector<std::string> files;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    files.push_back(kVpsFlowDir + lower + std::to_string(i) + ending);
  }
  // Boards with three pyramid engines number the third one 4.
  if (name == "PYM" && files.size() == 3) {
    files[2] = std::string(kVpsFlowDir) + "pym4_src/loading";
  }
  return WithOptions(name, std::move(files), true, option);
}

bool BuildDdrConfig(const base::MonitorOption& option, MonitorConfig& config) {
  config = WithOptions("DDR", {}, false, option);
  config.frequency = 0;
  return true;
}

bool GenerateMonitorConfigs(const base::MonitorOption& option,
                            std::vector<MonitorConfig>& configs) {
  if (option.enable_list.empty()) {
    for (const auto& [name, generate] : g_gen_config_funcs) configs.push_back(generate(option));
    return true;
  }
  for (const auto& item : option.enable_list) {
    const GenConfigFunc* generate = g_gen_config_funcs.Find(ToUpper(item));
    if (generate == nullptr) {
      base::LogVerbose("%s not support\n", item.c_str());
      return false;
    }
    configs.push_back((*generate)(option));
  }
  return true;
}

}  // namespace kestro::zqp::monitor
