// ION heap sizes and the memory of the processes that hold ION memory,
// collected from debugfs and /proc once per report frame on the display thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "monitors/heap_line_reader.h"

namespace kestro::zqp::monitors {

inline constexpr std::size_t kHeapCount = 5;

// The ION driver's heap ids, by heap index; any other id is not collected.
inline constexpr std::array<std::int32_t, kHeapCount> kHeapIds = {6, 4, 2, 10, 5};

// The names under which the report lists the heaps, by heap index.
inline constexpr std::array<const char*, kHeapCount> kHeapNames = {
    "cma_reserved", "ion_cma", "carveout", "ion_uncache", "custom"};

// The heap file is read line by line as into a buffer of this size: longer
// lines are seen as several lines.
inline constexpr std::size_t kHeapLineSize = 256;

struct ProcessMemory {
  std::uint64_t rss_kb = 0;     // VmRSS of /proc/<pid>/status, in kB
  std::uint64_t ion_bytes = 0;  // ION memory counted for the process
  char name[24] = {};           // client name, at most 23 characters, NUL-terminated
};

// One record lives as long as the application. Heap figures persist between
// collections (a heap absent from the file keeps its last figures); the
// renderer empties `processes` after every frame.
struct MemoryUsage {
  std::array<std::uint64_t, kHeapCount> heap_total{};  // bytes, as the driver reports
  std::array<std::uint64_t, kHeapCount> heap_used{};   // bytes, <= heap_total once parsed
  // Which heaps the last collection found in the heap file (all false when
  // the file did not open): the others hold figures of an earlier read.
  std::array<bool, kHeapCount> heap_current{};
  std::unordered_map<std::int32_t, ProcessMemory> processes;
};

// Parses "/sys/kernel/debug/ion/heaps/all_heap_info", then fills rss_kb of
// every pid in processes from "/proc/<pid>/status", erasing pids whose status
// file cannot be opened or has no readable "VmRSS:" line. Always returns 0;
// when the heap file does not open nothing changes but heap_current, which
// is then all false. Prints nothing.
int CollectMemoryUsage(MemoryUsage& usage);

// Reads from lines the lines of heap heap_index (0..kHeapCount-1) that follow
// its "the heap id is" line: the total, the client summary rows,
// the allocation table. Stops after the line that ends the table, or at end of
// file; heap_used[heap_index] is then capped at heap_total[heap_index].
// Malformed lines are skipped; never fails.
void ParseHeapSection(std::size_t heap_index, HeapLineReader& lines, MemoryUsage& usage);

// Counts one allocation of size bytes of heap heap_index for pid: adds it to
// the pid's ion_bytes (inserting the pid with rss_kb 0 and an empty name when
// absent) and to heap_used[heap_index]. Returns the pid's entry.
ProcessMemory& AddProcessMemory(MemoryUsage& usage, std::size_t heap_index, std::int32_t pid,
                                std::uint64_t size);

}  // namespace kestro::zqp::monitors
