#include "monitors/memory_usage.h"

#include <stdio_ext.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/board_path.h"
#include "base/decimal.h"
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

bool Contains(const HeapLineBuffer& line, const char* marker) {
  return std::strstr(line.data(), marker) != nullptr;
}

void SetName(ProcessMemory& process, std::string_view name) {
  const std::size_t length = std::min(name.size(), sizeof(process.name) - 1);
  std::memcpy(process.name, name.data(), length);
  process.name[length] = '\0';
}

// Returns false when the header ends the section.
bool ReadHeader(const std::vector<std::string_view>& fields, const HeapLineBuffer& line,
                Columns& columns, bool& complete) {
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

void ParseHeapSection(std::size_t heap_index, HeapLineBuffer& line, std::FILE* file,
                      MemoryUsage& usage) {
  SectionState state = SectionState::kSeekTotal;
  Columns columns;
  // Kept across rows: an allocation table has thousands of them.
  std::vector<std::string_view> fields;
  bool seen_good_row = false;
  bool done = false;
  while (!done && std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
    if (line[0] == '-' || line[0] == '=') continue;
    switch (state) {
      case SectionState::kSeekTotal: {
        const char* total = std::strstr(line.data(), "heap total size");
        if (total == nullptr) break;
        std::sscanf(total, "heap total size %" SCNu64, &usage.heap_total[heap_index]);
        usage.heap_used[heap_index] = 0;
        state = SectionState::kClientRows;
        break;
      }
      case SectionState::kClientRows: {
        char name[24];
        std::int32_t pid = 0;
        std::uint64_t size = 0;
        if (std::sscanf(line.data(), "%*s %23s %" SCNd32 " %" SCNu64 "\n", name, &pid, &size) ==
            3) {
          SetName(AddProcessMemory(usage, heap_index, pid, size), name);
        } else if (Contains(line, "allocations")) {
          state = SectionState::kAllocationHeader;
        }
        break;
      }
      case SectionState::kAllocationHeader: {
        bool complete = false;
        SplitFields(line.data(), ' ', fields);
        if (!ReadHeader(fields, line, columns, complete)) {
          done = true;
        } else if (complete) {
          state = SectionState::kAllocationRows;
        }
        break;
      }
      case SectionState::kAllocationRows: {
        // The columns after the last one read are not split.
        SplitFields(line.data(), ' ', fields, columns.needed);
        const bool shaped = fields.size() == columns.needed;
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
  std::FILE* file =
      std::fopen(base::BoardPath("/sys/kernel/debug/ion/heaps/all_heap_info").c_str(), "re");
  usage.heap_current.fill(false);
  if (file == nullptr) return 0;
  // A heap text of thousands of allocation rows is hundreds of kilobytes: read
  // it in a few large reads rather than a page at a time, and line by line
  // without stdio's lock (the stream is this function's own).
  const std::unique_ptr<char[]> buffer(new char[kHeapReadSize]);
  std::setvbuf(file, buffer.get(), _IOFBF, kHeapReadSize);
  __fsetlocking(file, FSETLOCKING_BYCALLER);
  HeapLineBuffer line{};
  while (std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
    if (line[0] == '-') continue;
    int id = 0;
    if (std::sscanf(line.data(), "the heap id is %d\n", &id) != 1) continue;
    const auto heap = std::find(kHeapIds.begin(), kHeapIds.end(), id);
    if (heap == kHeapIds.end()) continue;
    usage.heap_current[static_cast<std::size_t>(heap - kHeapIds.begin())] = true;
    ParseHeapSection(static_cast<std::size_t>(heap - kHeapIds.begin()), line, file, usage);
  }
  std::fclose(file);

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
