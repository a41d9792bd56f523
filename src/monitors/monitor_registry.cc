#include "monitors/monitor_registry.h"

#include "base/log.h"
#include "monitors/dsp_monitor.h"
#include "monitors/dsp_node_reader.h"
#include "monitors/file_monitor.h"
#include "monitors/value_readers.h"
#include "monitors/ypu_monitor.h"

namespace kestro::zqp::monitors {
namespace {

template <typename Monitor, typename... Extra>
std::shared_ptr<monitor::MonitorBase> Create(const monitor::MonitorConfig& config,
                                             const std::shared_ptr<runner::WatchTaskRunner>& runner,
                                             Extra... extra) {
  if (!CheckMonitorConfig(config)) return nullptr;
  auto monitor = std::make_shared<Monitor>(config, runner, extra...);
  if (!monitor->IsReady()) return nullptr;
  return monitor;
}

MonitorFactory FileCreator(long (*reader)(float&, const char*)) {
  return [reader](const monitor::MonitorConfig& config,
                  const std::shared_ptr<runner::WatchTaskRunner>& runner) {
    return Create<FileMonitor>(config, runner, FileMonitor::Reader(reader));
  };
}

// The monitor owns the DSP event fifo and cleans up the nodes; a read-only
// program only reads them.
std::shared_ptr<monitor::MonitorBase> CreateDsp(
    const monitor::MonitorConfig& config, const std::shared_ptr<runner::WatchTaskRunner>& runner) {
  if (config.read_only) return Create<DspNodeReader>(config, runner);
  return Create<DSPMonitor>(config, runner);
}

}  // namespace

const std::unordered_map<std::string, MonitorFactory> MonitorCreator = {
    {"YPU", Create<YPUMonitor>},           {"DSP", CreateDsp},
    {"GDC", FileCreator(ReadSecondToken)}, {"STITCH", FileCreator(ReadSecondToken)},
    {"PYM", FileCreator(ReadSecondToken)}, {"ISP", FileCreator(ReadSecondToken)},
    {"JPU", FileCreator(ReadPlainNumber)}, {"VPU", FileCreator(ReadPlainNumber)},
};

bool CheckMonitorConfig(const monitor::MonitorConfig& config) {
  if (config.delay == 0) {
    base::LogError("sample time is 0 for %s\n", config.name.c_str());
    return false;
  }
  if ((config.name == "YPU" || config.name == "DSP") && config.frequency == 0) {
    base::LogError("sample frequency is 0 for %s\n", config.name.c_str());
    return false;
  }
  return true;
}

std::shared_ptr<monitor::MonitorBase> CreateMonitor(
    const monitor::MonitorConfig& config, const std::shared_ptr<runner::WatchTaskRunner>& runner) {
  auto it = MonitorCreator.find(config.name);
  if (it == MonitorCreator.end()) return nullptr;
  return it->second(config, runner);
}

}  // namespace kestro::zqp::monitors
