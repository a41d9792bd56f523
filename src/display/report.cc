#include "display/report.h"

#include <cstdio>

#include "base/version.h"
#include "display/format_size.h"

namespace kestro::zqp::display {
namespace {

constexpr char kRule[] = "|------------------------------------------------|";
constexpr char kBorder[] = "+------------------------------------------------+";

HumanSize Scaled(std::uint64_t bytes) {
  HumanSize size{};
  FormatSize(bytes, size);
  return size;
}

}  // namespace

void DrawHeader(TerminalDisplay& terminal) {
  terminal.PrintLine("%s", kBorder);
  terminal.PrintLine("| Monitor %s %33s|", base::GetVersion().c_str(), " ");
  terminal.PrintLine("%s", kRule);
}

void DrawLoadingTable(TerminalDisplay& terminal,
                      const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors) {
  terminal.Print("|");
  terminal.PrintHighlighted("%14s %19s %13s", "IP", "%LOADING", " ");
  terminal.PrintLine("|");
  if (monitors.empty()) {
    terminal.PrintLine("%s", kRule);
    return;
  }
  for (const auto& monitor : monitors) {
    const std::vector<float> values = monitor->LoadingSnapshot();
    for (std::size_t i = 0; i < values.size(); ++i) {
      char label[64];
      std::snprintf(label, sizeof label, "%s%zu", monitor->Name().c_str(), i);
      terminal.PrintLine("|%11s%-8s%13.1f %16s", " ", label, static_cast<double>(values[i]), "|");
    }
  }
  terminal.PrintLine("%s", kRule);
}

void DrawDdrTable(TerminalDisplay& terminal, const monitors::DdrFigures& ddr) {
  if (!ddr.ready) return;
  terminal.PrintLine("| DDR Bandwidth %33s|", " ");
  terminal.PrintLine("%s", kRule);
  terminal.Print("|");
  terminal.PrintHighlighted("%18s %13s %15s", "Perf(MiB/s)", "All", " ");
  terminal.PrintLine("|");
  terminal.PrintLine("|%10s%-8s%13u %17s", " ", "Read", ddr.read, "|");
  terminal.PrintLine("|%10s%-8s%13u %17s", " ", "Write", ddr.write, "|");
  terminal.PrintLine("%s", kRule);
}

void DrawMemoryTables(TerminalDisplay& terminal, monitors::MemoryUsage& memory) {
  monitors::CollectMemoryUsage(memory);
  terminal.PrintLine("| ION Info %37s |", "");
  terminal.PrintLine("%s", kRule);
  terminal.Print("|");
  terminal.PrintHighlighted("%23s %8s %8s%7s", "total", "used", "free", " ");
  terminal.PrintLine("|");
  for (std::size_t heap = 0; heap < monitors::kHeapCount; ++heap) {
    if (memory.heap_total[heap] == 0) continue;
    const HumanSize total = Scaled(memory.heap_total[heap]);
    const HumanSize used = Scaled(memory.heap_used[heap]);
    const HumanSize free = Scaled(memory.heap_total[heap] - memory.heap_used[heap]);
    terminal.PrintLine("|%1s%-14s%5lu.%u%c  %4lu.%u%c  %4lu.%u%c %7s", " ",
                       monitors::kHeapNames[heap], total.value, total.tenth, total.unit, used.value,
                       used.tenth, used.unit, free.value, free.tenth, free.unit, "|");
  }
  terminal.PrintLine("%s", kRule);
  terminal.PrintLine("| Process Mem Info %29s |", "");
  terminal.PrintLine("%s", kRule);
  terminal.Print("|");
  terminal.PrintHighlighted("%10s %5s %19s %8s%3s", "PID", "PROC", "RSS", "VZMEM", " ");
  terminal.PrintLine("|");
  for (const auto& [pid, process] : memory.processes) {
    const HumanSize rss = Scaled(process.rss_kb << 10);
    const HumanSize ion = Scaled(process.ion_bytes);
    terminal.PrintLine("|%10d%2s%-18.18s%4lu.%u%c %4lu.%u%c %3s", pid, " ", process.name, rss.value,
                       rss.tenth, rss.unit, ion.value, ion.tenth, ion.unit, "|");
  }
  terminal.PrintLine("%s", kBorder);
  memory.processes.clear();
}

int DrawFrame(TerminalDisplay& terminal,
              const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors,
              const monitors::DdrFigures& ddr, monitors::MemoryUsage& memory) {
  DrawHeader(terminal);
  DrawLoadingTable(terminal, monitors);
  DrawDdrTable(terminal, ddr);
  DrawMemoryTables(terminal, memory);
  terminal.EraseRest();
  terminal.CursorUp(terminal.Line());
  return terminal.Flush();
}

}  // namespace kestro::zqp::display
