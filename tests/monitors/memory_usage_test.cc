#include "monitors/memory_usage.h"

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <tuple>

#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

// Heap 6: summary row superseded by the allocation table, a malformed first
// row, pids without a status file or a readable VmRSS. Heap 3: not collected.
// Heap 4: summary only, beyond its total; the header without tgid ends it.
// Heap 2: summary only.
constexpr char kHeaps[] =
    "the heap id is 6\nheap total size 1048576\n"
    "          client              pid             size\n"
    "----------------------------------------------------\nx cam 100 4096\n"
    "allocations (info is from last known client):\nclient tgid size type\nbad x 5 cma\n"
    "cam 100 8192 cma\ncam 100 4096 cma\ngone 200 20 cma\nnorss 300 30 cma\nbadrss 400 40 cma\n"
    "====================================================\ntotal 12378\n"
    "the heap id is 3\nheap total size 999\nx cam 100 1\nthe heap id is 4\nheap total size 1000\n"
    "x cam 100 4096\nallocations\nclient pid size type\ncam 100 8192 cma\n"
    "the heap id is 2\nheap total size 2048\nx cam 100 1024\n";

// A second collection into the same record (as every frame does, after the
// report empties the process table) starts each heap's used figure again
// from its total line.
TEST(MemoryUsageTest, CollectsHeapsAndTheMemoryOfLiveHolders) {
  test_support::BoardRoot board;
  board.WriteFile("/sys/kernel/debug/ion/heaps/all_heap_info", kHeaps);
  board.WriteFile("/proc/100/status", "Name:\tcam\nVmPeak:\t9 kB\nVmRSS:\t  1000 kB\nThreads: 1\n");
  board.WriteFile("/proc/300/status", "Name:\tnorss\n");
  board.WriteFile("/proc/400/status", "VmRSS: many kB\n");
  MemoryUsage usage;
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass);
    usage.processes.clear();
    EXPECT_EQ(CollectMemoryUsage(usage), 0);
    EXPECT_EQ(usage.heap_total, (std::array<std::uint64_t, kHeapCount>{1048576, 1000, 2048, 0, 0}));
    EXPECT_EQ(usage.heap_used, (std::array<std::uint64_t, kHeapCount>{12378, 1000, 1024, 0, 0}));
    ASSERT_EQ(usage.processes.size(), 1u);
    const ProcessMemory& cam = usage.processes.at(100);
    EXPECT_EQ(cam.rss_kb, 1000u);
    EXPECT_EQ(cam.ion_bytes, 17408u);  // 8192 + 4096 of heap 6's table, 4096 and 1024 summaries
    EXPECT_STREQ(cam.name, "cam");
    EXPECT_EQ(usage.heap_current, (std::array<bool, kHeapCount>{true, true, true, false, false}));
  }
  // Unreadable: the figures stay for the report, marked as not current.
  std::remove((board.Path() + "/sys/kernel/debug/ion/heaps/all_heap_info").c_str());
  CollectMemoryUsage(usage);
  EXPECT_EQ(usage.heap_total[0], 1048576u);
  EXPECT_EQ(usage.heap_current, (std::array<bool, kHeapCount>{}));
}

// Parses heap 0 of one allocation table: its header, then rows.
MemoryUsage ParseTable(const std::string& table) {
  const std::string text = "heap total size 1000000\nallocations\n" + table + "total\n";
  const int fd = memfd_create("heap", MFD_CLOEXEC);
  EXPECT_EQ(pwrite(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  MemoryUsage usage;
  HeapLineReader lines(fd, kHeapLineSize, 64);
  ParseHeapSection(0, lines, usage);
  close(fd);
  return usage;
}

TEST(MemoryUsageTest, AllocationRowsNeedAnInt32PidAndAWholeSizeInTheirHeadersColumns) {
  // Row, pid and size when it counts (size 0: the row is skipped).
  const std::tuple<const char*, std::int32_t, std::uint64_t> rows[] = {
      {"cam 2147483647 16 cma\n", 2147483647, 16},
      {"cam -2147483648 16 cma\n", -2147483647 - 1, 16},
      {"cam 2147483648 16 cma\n", 0, 0},
      {"cam -2147483649 16 cma\n", 0, 0},
      {"cam +5 16 cma\n", 0, 0},
      {"cam 100 8.5 cma\n", 0, 0},
      {"cam 100 18446744073709551616 cma\n", 0, 0},
      {"cam 100 8192\n", 0, 0},
      {"cam 100\t8192 cma x\n", 0, 0}};
  for (const auto& [row, pid, size] : rows) {
    const MemoryUsage usage = ParseTable(std::string("client tgid size type\n") + row);
    EXPECT_EQ(usage.heap_used[0], size) << row;
    EXPECT_EQ(size != 0 ? usage.processes.at(pid).ion_bytes : usage.processes.size(), size) << row;
  }
  // Columns are found by name; names are cut to 23 characters.
  const MemoryUsage usage =
      ParseTable("type  size tgid client\ncma 16 9 a_client_of_30_characters__\n");
  ASSERT_EQ(usage.processes.count(9), 1u);
  EXPECT_EQ(usage.processes.at(9).ion_bytes, 16u);
  EXPECT_STREQ(usage.processes.at(9).name, "a_client_of_30_characte");
}

}  // namespace
}  // namespace kestro::zqp::monitors
