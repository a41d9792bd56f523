#include "monitors/memory_usage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <string_view>

#include "base/board_path.h"
#include "base/decimal.h"
#include "monitors/heap_line_reader.h"
#include "monitors/text_fields.h"

namespace kestro::zqp::monitors {
namespace {

constexpr std::size_t kHeapReadSize = 64 * 1024;
constexpr std::size_t kNoColumn = std::numeric_limits<std::size_t>::max();

enum class SectionState { kSeekTotal, kClientRows, kAllocationHeader, kAllocationRows };

// Column positions of the allocation table, from its header line.
struct Columns {
  std::size_t client = kNoColumn;
  std::size_t tgid = kNoColumn;
  std::size_t size = kNoColumn;
  std::size_t type = kNoColumn;
  // The fields a row must have, and the most it needs split.
  std::size_t needed = 4;
};

// Splits of a line: a line of kHeapLineSize - 1 bytes has at most this many.
using LineFields = std::array<std::string_view, kHeapLineSize / 2>;

bool Contains(std::string_view line, std::string_view marker) {
  return line.find(marker) != std::string_view::npos;
}

// The line as a C string, for sscanf.
struct CLine {
  explicit CLine(std::string_view line) {
    std::memcpy(text, line.data(), line.size());
    text[line.size()] = '\0';
  }
  char text[kHeapLineSize];
};

void SetName(ProcessMemory& process, std::string_view name) {
  const std::size_t length = std::min(name.size(), sizeof(process.name) - 1);
  std::memcpy(process.name, name.data(), length);
  process.name[length] = '\0';
}

// Returns false when the header ends the section.
bool ReadHeader(std::span<const std::string_view> fields, std::string_view line, Columns& columns,
                bool& complete) {
  complete = false;
  Columns found;
  if (fields.size() >= 4) {
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (fields[i] == "client") found.client = i;
      if (fields[i] == "tgid") found.tgid = i;
      if (fields[i] == "size") found.size = i;
      if (fields[i] == "type") found.type = i;
    }
  }
  if (found.client == kNoColumn || found.size == kNoColumn || found.type == kNoColumn) {
    return !Contains(line, "total");
  }
  if (found.tgid == kNoColumn) return false;
  found.needed = std::max({found.needed, found.client + 1, found.tgid + 1, found.size + 1});
  columns = found;
  complete = true;
  return true;
}

}  // namespace

ProcessMemory& AddProcessMemory(MemoryUsage& usage, std::size_t heap_index, std::int32_t pid,
                                std::uint64_t size) {
  // operator[] value-initialises a new entry: rss_kb 0, empty name.
  ProcessMemory& process = usage.processes[pid];
  process.ion_bytes += size;
  usage.heap_used[heap_index] += size;
  return process;
}

void ParseHeapSection(std::size_t heap_index, HeapLineReader& lines, MemoryUsage& usage) {
  SectionState state = SectionState::kSeekTotal;
  Columns columns;
  LineFields fields;
  bool seen_good_row = false;
  bool done = false;
  std::string_view line;
  while (!done && lines.Next(line)) {
    if (line.starts_with('-') || line.starts_with('=')) continue;
    switch (state) {
      case SectionState::kSeekTotal: {
        const std::size_t total = line.find("heap total size");
        if (total == std::string_view::npos) break;
        std::sscanf(CLine(line.substr(total)).text, "heap total size %" SCNu64,
                    &usage.heap_total[heap_index]);
        usage.heap_used[heap_index] = 0;
        state = SectionState::kClientRows;
        break;
      }
      case SectionState::kClientRows: {
        char name[24];
        std::int32_t pid = 0;
        std::uint64_t size = 0;
        if (std::sscanf(CLine(line).text, "%*s %23s %" SCNd32 " %" SCNu64 "\n", name, &pid,
                        &size) == 3) {
          SetName(AddProcessMemory(usage, heap_index, pid, size), name);
        } else if (Contains(line, "allocations")) {
          state = SectionState::kAllocationHeader;
        }
        break;
      }
      case SectionState::kAllocationHeader: {
        bool complete = false;
        const std::size_t count = SplitFields(line, ' ', fields);
        if (!ReadHeader(std::span(fields.data(), count), line, columns, complete)) {
          done = true;
        } else if (complete) {
          state = SectionState::kAllocationRows;
        }
        break;
      }
      case SectionState::kAllocationRows: {
        // The columns after the last one read are not split.
        const bool shaped =
            SplitFields(line, ' ', std::span(fields.data(), columns.needed)) == columns.needed;
        const std::optional<std::int32_t> pid =
            shaped ? base::ParseDecimal<std::int32_t>(fields[columns.tgid]) : std::nullopt;
        const std::optional<std::uint64_t> size =
            pid ? base::ParseDigits(fields[columns.size]) : std::nullopt;
        if (!size) {
          done = seen_good_row || Contains(line, "total");
          break;
        }
        if (!seen_good_row) {
          // The table lists every holder of the heap, so the summary rows and
          // earlier heaps' processes are superseded.
          seen_good_row = true;
          usage.processes.clear();
          usage.heap_used[heap_index] = 0;
        }
        SetName(AddProcessMemory(usage, heap_index, *pid, *size), fields[columns.client]);
        break;
      }
    }
  }
  usage.heap_used[heap_index] = std::min(usage.heap_used[heap_index], usage.heap_total[heap_index]);
}

int CollectMemoryUsage(MemoryUsage& usage) {
  const int fd = open(base::BoardPath("/sys/kernel/debug/ion/heaps/all_heap_info").c_str(),
                      O_RDONLY | O_CLOEXEC);
  usage.heap_current.fill(false);
  if (fd < 0) return 0;
  // A heap text of thousands of allocation rows is hundreds of kilobytes: read
  // it in a few large reads rather than a page at a time, and split its rows
  // where they were read.
  HeapLineReader lines(fd, kHeapLineSize, kHeapReadSize);
  std::string_view line;
  while (lines.Next(line)) {
    if (line.starts_with('-')) continue;
    int id = 0;
    if (std::sscanf(CLine(line).text, "the heap id is %d\n", &id) != 1) continue;
    const auto heap = std::find(kHeapIds.begin(), kHeapIds.end(), id);
    if (heap == kHeapIds.end()) continue;
    usage.heap_current[static_cast<std::size_t>(heap - kHeapIds.begin())] = true;
    ParseHeapSection(static_cast<std::size_t>(heap - kHeapIds.begin()), lines, usage);
  }
  close(fd);

  for (auto it = usage.processes.begin(); it != usage.processes.end();) {
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/%d/%s", it->first, "status");
    std::FILE* status = std::fopen(base::BoardPath(path).c_str(), "re");
    bool found = false;
    if (status != nullptr) {
      char status_line[64];
      while (std::fgets(status_line, sizeof(status_line), status) != nullptr) {
        const char* rss = std::strstr(status_line, "VmRSS:");
        if (rss == nullptr) continue;
        found = std::sscanf(rss, "VmRSS: %" SCNu64, &it->second.rss_kb) == 1;
        break;
      }
      std::fclose(status);
    }
    it = found ? std::next(it) : usage.processes.erase(it);
  }
  return 0;
}

}  // namespace kestro::zqp::monitors
