// What one report frame costs on this machine, without the board: the memory
// collector reads an ION heap text and /proc/<pid>/status files from a
// temporary tree (through the board-path seam), and the whole report is drawn
// into /dev/null. Each frame is timed on its own; the counters give the
// median and 99th percentile of those times in microseconds, by the wall clock
// and by the CPU clock.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/board_path.h"
#include "display/report.h"
#include "display/terminal_display.h"
#include "monitor/monitor_base.h"
#include "monitors/memory_usage.h"

namespace kestro::zqp {
namespace {

struct Heap {
  int id;
  std::uint64_t total;
  std::vector<std::pair<int, std::uint64_t>> summary;      // pid, bytes
  std::vector<std::pair<int, std::uint64_t>> allocations;  // pid, bytes
};

const std::string kRule(60, '-');
const std::string kRule2(60, '=');

std::string Name(int pid) {
  return "svc_" + std::to_string(pid);
}

// The layout the simulated board writes (sim/run-board), which follows the
// driver's: summary rows, then the allocation table with its header.
std::string HeapText(const std::vector<Heap>& heaps) {
  std::string out;
  char line[160];
  for (const Heap& heap : heaps) {
    std::snprintf(line, sizeof line, "%s\nthe heap id is %d\nheap total size %lu\n%s\n",
                  kRule2.c_str(), heap.id, heap.total, kRule.c_str());
    out += line;
    std::snprintf(line, sizeof line, "%10sclient%15spid%13ssize\n%s\n", "", "", "", kRule.c_str());
    out += line;
    for (const auto& [pid, size] : heap.summary) {
      std::snprintf(line, sizeof line, "client: %16s %16d %16lu\n", Name(pid).c_str(), pid, size);
      out += line;
    }
    out += kRule + "\nallocations (info is from last known client):\n";
    std::snprintf(line, sizeof line, "%16s %16s %8s %8s %12s %8s\n", "client", "process", "tgid",
                  "pid", "size", "type");
    out += line;
    std::uint64_t total = 0;
    for (const auto& [pid, size] : heap.allocations) {
      const std::string name = Name(pid);
      std::snprintf(line, sizeof line, "%16s %16s %8d %8d %12lu %8s\n", name.c_str(), name.c_str(),
                    pid, pid, size, "cma");
      out += line;
      total += size;
    }
    std::snprintf(line, sizeof line, "%s\n%16s %12lu\n\n", kRule.c_str(), "total", total);
    out += line;
  }
  return out;
}

// A status file laid out as the kernel writes it, VmRSS on its 22nd line.
std::string StatusText(int pid) {
  std::string out = "Name:\t" + Name(pid) + "\nUmask:\t0022\nState:\tS (sleeping)\n";
  for (const char* key : {"Tgid", "Ngid", "Pid", "PPid", "TracerPid"}) {
    out += std::string(key) + ":\t" + std::to_string(pid) + "\n";
  }
  out +=
      "Uid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\nFDSize:\t64\nGroups:\t\nNStgid:\t" +
      std::to_string(pid) + "\nNSpid:\t" + std::to_string(pid) +
      "\nNSpgid:\t1\nNSsid:\t1\nVmPeak:\t  120412 kB\nVmSize:\t  120412 kB\nVmLck:\t       0 kB\n"
      "VmPin:\t       0 kB\nVmHWM:\t    6212 kB\nVmRSS:\t    6144 kB\nRssAnon:\t    2048 kB\n"
      "RssFile:\t    4096 kB\nRssShmem:\t       0 kB\nVmData:\t   12340 kB\nVmStk:\t     132 kB\n"
      "VmExe:\t     812 kB\nVmLib:\t    6120 kB\nVmPTE:\t      84 kB\nVmSwap:\t       0 kB\n"
      "Threads:\t4\nSigQ:\t0/7345\nSigPnd:\t0000000000000000\nShdPnd:\t0000000000000000\n"
      "SigBlk:\t0000000000000000\nSigIgn:\t0000000000001000\nSigCgt:\t0000000180004002\n"
      "Cpus_allowed:\tf\nCpus_allowed_list:\t0-3\nvoluntary_ctxt_switches:\t812\n"
      "nonvoluntary_ctxt_switches:\t9\n";
  return out;
}

// The full scenario's heaps: six heaps, a handful of rows, three processes.
std::vector<Heap> SmallHeaps() {
  return {{6, 268435456, {{101, 12582912}}, {{101, 8388608}, {101, 4194304}}},
          {4, 134217728, {{102, 16777216}}, {{102, 16777216}}},
          {3, 1048576, {}, {{102, 4096}}},
          {2, 67108864, {{102, 4194304}}, {}},
          {10, 0, {}, {}},
          {5, 33554432, {{101, 1048576}}, {{102, 2097152}, {103, 524288}}}};
}

// rows allocations of varied page counts spread over eight processes in one
// heap, then the other heaps as in the small text.
std::vector<Heap> LargeHeaps(int rows) {
  std::vector<Heap> heaps = SmallHeaps();
  heaps[5].allocations.clear();
  for (int i = 0; i < rows; ++i) {
    heaps[5].allocations.emplace_back(101 + i % 8, 4096u * (1 + i * 7 % 13));
  }
  heaps[5].total = std::uint64_t{1} << 30;
  return heaps;
}

class BoardTree {
 public:
  explicit BoardTree(const std::vector<Heap>& heaps) {
    char pattern[] = "/tmp/kzm_bench_XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    root_ = pattern;
    Write("/sys/kernel/debug/ion/heaps/all_heap_info", HeapText(heaps));
    std::set<int> pids;
    for (const Heap& heap : heaps) {
      for (const auto& rows : {heap.summary, heap.allocations}) {
        for (const auto& row : rows) pids.insert(row.first);
      }
    }
    for (const int pid : pids) Write("/proc/" + std::to_string(pid) + "/status", StatusText(pid));
    base::SetBoardRootForTesting(root_);
  }
  ~BoardTree() {
    base::SetBoardRootForTesting("");
    std::filesystem::remove_all(root_);
  }

 private:
  void Write(const std::string& path, const std::string& text) {
    const std::filesystem::path file = root_ + path;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
  }
  std::string root_;
};

// The report goes to stdout; while frames are drawn it goes to /dev/null.
class StdoutToNull {
 public:
  StdoutToNull() : saved_(dup(1)) {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, 1);
    close(null);
  }
  ~StdoutToNull() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }
  StdoutToNull(const StdoutToNull&) = delete;
  StdoutToNull& operator=(const StdoutToNull&) = delete;

 private:
  int saved_;
};

// The engines of the full scenario with their core counts: 14 loading rows.
std::vector<std::shared_ptr<monitor::MonitorBase>> Monitors() {
  static constexpr std::pair<const char*, std::uint32_t> kEngines[] = {
      {"YPU", 2}, {"DSP", 2}, {"GDC", 2},    {"ISP", 1},
      {"JPU", 2}, {"PYM", 2}, {"STITCH", 1}, {"VPU", 2}};
  std::vector<std::shared_ptr<monitor::MonitorBase>> monitors;
  for (const auto& [name, cores] : kEngines) {
    monitor::MonitorConfig config;
    config.name = name;
    auto monitor = std::make_shared<monitor::MonitorBase>(config, nullptr);
    monitor->SetLoadingNum(cores);
    for (std::uint32_t core = 0; core < cores; ++core) monitor->SetLoading(core, 12.5f * core);
    monitors.push_back(monitor);
  }
  return monitors;
}

double Percentile(std::vector<double> times, double share) {
  std::sort(times.begin(), times.end());
  return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
}

// Microseconds of CPU time of the process, whose one thread draws the frames:
// unlike the wall clock, it leaves out the time other processes of a shared
// machine held the core. glibc counts it in whole microseconds.
double CpuMicros() {
  return static_cast<double>(std::clock()) * 1e6 / CLOCKS_PER_SEC;
}

// range(0): allocation rows in the heap text; 0 stands for the small text.
void BM_Frame(benchmark::State& state) {
  const int rows = static_cast<int>(state.range(0));
  const std::vector<Heap> heaps = rows == 0 ? SmallHeaps() : LargeHeaps(rows);
  BoardTree tree(heaps);
  monitors::MemoryUsage memory;
  monitors::CollectMemoryUsage(memory);
  // Measure nothing but a collector that sees the whole text: the last heap
  // (id 5, index 4) holds the table whose rows are counted.
  std::uint64_t want = 0;
  for (const auto& [pid, size] : heaps.back().allocations) want += size;
  if (heaps.back().id != monitors::kHeapIds[4] || memory.heap_used[4] != want ||
      memory.processes.empty()) {
    state.SkipWithError("the collector does not see the generated heap text");
    return;
  }
  memory.processes.clear();
  const auto monitors = Monitors();
  const monitors::DdrFigures ddr{.ready = true, .live = true, .read = 1234, .write = 567};
  std::vector<double> wall;
  std::vector<double> cpu;
  {
    StdoutToNull quiet;
    display::TerminalDisplay terminal(true);
    for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      const double cpu_start = CpuMicros();
      display::DrawFrame(terminal, monitors, ddr, memory);
      cpu.push_back(CpuMicros() - cpu_start);
      wall.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
              .count());
    }
  }
  state.counters["median_us"] = Percentile(wall, 0.5);
  state.counters["p99_us"] = Percentile(wall, 0.99);
  state.counters["cpu_median_us"] = Percentile(cpu, 0.5);
  state.counters["cpu_p99_us"] = Percentile(cpu, 0.99);
}

BENCHMARK(BM_Frame)->Arg(0)->Arg(5000)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace
}  // namespace kestro::zqp

BENCHMARK_MAIN();
