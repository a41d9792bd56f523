// One frame of the report: title, per-core loading, DDR bandwidth, ION heaps
// and the memory of the processes that hold ION memory, each a boxed
// 50-column table written through the terminal's clipped printing.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "display/terminal_display.h"
#include "monitor/monitor_base.h"
#include "monitors/ddr_monitor.h"
#include "monitors/memory_usage.h"

namespace kestro::zqp::display {

void DrawHeader(TerminalDisplay& terminal);
void DrawLoadingTable(TerminalDisplay& terminal,
                      const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors);
void DrawDdrTable(TerminalDisplay& terminal, const monitors::DdrFigures& ddr);
// Collects the ION figures first, and empties the process table afterwards, so
// every frame starts from an empty table.
void DrawMemoryTables(TerminalDisplay& terminal, monitors::MemoryUsage& memory);

// Draws the four sections, erases what a longer previous frame left below,
// moves the cursor back to the frame's top and flushes; returns the flush's
// result.
int DrawFrame(TerminalDisplay& terminal,
              const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors,
              const monitors::DdrFigures& ddr, monitors::MemoryUsage& memory);

}  // namespace kestro::zqp::display
