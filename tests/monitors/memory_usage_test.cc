#include "monitors/memory_usage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

constexpr char kHeapFile[] = "/sys/kernel/debug/ion/heaps/all_heap_info";

// The layout the driver prints for one heap with a summary row and an
// allocation table.
constexpr char kExampleHeap[] =
    "the heap id is 6\n"
    "heap total size 1048576\n"
    "          client              pid             size\n"
    "----------------------------------------------------\n"
    "x cam 100 4096\n"
    "----------------------------------------------------\n"
    "allocations (info is from last known client):\n"
    "client tgid size type\n"
    "cam 100 8192 cma\n"
    "====================================================\n"
    "total 8192\n";

constexpr char kSummaryOnlyHeap[] =
    "the heap id is 6\n"
    "heap total size 1048576\n"
    "x cam 100 4096\n";

class MemoryUsageTest : public test_support::BoardRootTest {
 protected:
  void WriteHeaps(const std::string& text) { tree.WriteFile(kHeapFile, text); }
  void WriteStatus(int pid, const std::string& rss_line) {
    tree.WriteFile("/proc/" + std::to_string(pid) + "/status",
                   "Name:\tproc\nState:\tS (sleeping)\n" + rss_line + "Threads:\t1\n");
  }

  MemoryUsage usage_;
};

TEST_F(MemoryUsageTest, AllocationTableSupersedesSummaryRows) {
  WriteHeaps(kExampleHeap);
  WriteStatus(100, "VmRSS:   2048 kB\n");
  EXPECT_EQ(CollectMemoryUsage(usage_), 0);
  EXPECT_EQ(usage_.heap_total[0], 1048576u);
  EXPECT_EQ(usage_.heap_used[0], 8192u);
  ASSERT_EQ(usage_.processes.size(), 1u);
  const ProcessMemory& cam = usage_.processes.at(100);
  EXPECT_EQ(cam.ion_bytes, 8192u);
  EXPECT_STREQ(cam.name, "cam");
  EXPECT_EQ(cam.rss_kb, 2048u);
}

TEST_F(MemoryUsageTest, SummaryRowsAccumulateWhileMapIsKept) {
  WriteHeaps(kSummaryOnlyHeap);
  WriteStatus(100, "VmRSS:\t  512 kB\n");
  CollectMemoryUsage(usage_);
  EXPECT_EQ(usage_.heap_used[0], 4096u);
  EXPECT_EQ(usage_.processes.at(100).ion_bytes, 4096u);
  EXPECT_STREQ(usage_.processes.at(100).name, "cam");
  EXPECT_EQ(usage_.processes.at(100).rss_kb, 512u);
  CollectMemoryUsage(usage_);
  EXPECT_EQ(usage_.heap_used[0], 4096u);
  EXPECT_EQ(usage_.processes.at(100).ion_bytes, 8192u);
}

TEST_F(MemoryUsageTest, UsedIsCappedAtTotal) {
  WriteHeaps("the heap id is 4\nheap total size 1000\nx cam 100 4096\n");
  WriteStatus(100, "VmRSS: 1 kB\n");
  CollectMemoryUsage(usage_);
  EXPECT_EQ(usage_.heap_total[1], 1000u);
  EXPECT_EQ(usage_.heap_used[1], 1000u);
  EXPECT_EQ(usage_.processes.at(100).ion_bytes, 4096u);
}

TEST_F(MemoryUsageTest, HeaderWithoutTgidEndsSection) {
  WriteHeaps(
      "the heap id is 6\nheap total size 1048576\nx cam 100 4096\nallocations\n"
      "client pid size type\ncam 100 8192 cma\n"
      "the heap id is 4\nheap total size 2048\nx isp 7 1024\n");
  WriteStatus(100, "VmRSS: 1 kB\n");
  WriteStatus(7, "VmRSS: 2 kB\n");
  CollectMemoryUsage(usage_);
  // The row after the header is not counted; the next heap is parsed.
  EXPECT_EQ(usage_.heap_used[0], 4096u);
  EXPECT_EQ(usage_.processes.at(100).ion_bytes, 4096u);
  EXPECT_EQ(usage_.heap_total[1], 2048u);
  EXPECT_EQ(usage_.heap_used[1], 1024u);
  EXPECT_EQ(usage_.processes.at(7).ion_bytes, 1024u);
}

TEST_F(MemoryUsageTest, ProcessesWithoutStatusOrRssAreRemoved) {
  WriteHeaps(
      "the heap id is 6\nheap total size 1048576\nallocations\nclient tgid size type\n"
      "cam 100 10 cma\ngone 200 20 cma\nkthread 300 30 cma\nbadrss 400 40 cma\ntotal\n");
  WriteStatus(100, "VmRSS: 5 kB\n");
  WriteStatus(300, "");
  WriteStatus(400, "VmRSS: many kB\n");
  CollectMemoryUsage(usage_);
  ASSERT_EQ(usage_.processes.size(), 1u);
  EXPECT_EQ(usage_.processes.at(100).rss_kb, 5u);
  // The heap still counts what the departed processes held.
  EXPECT_EQ(usage_.heap_used[0], 100u);
}

TEST_F(MemoryUsageTest, UnknownHeapIdIsSkipped) {
  WriteHeaps(
      "the heap id is 3\nheap total size 999\nx cam 100 1\n"
      "the heap id is 2\nheap total size 4096\nx cam 100 64\n");
  WriteStatus(100, "VmRSS: 1 kB\n");
  CollectMemoryUsage(usage_);
  EXPECT_EQ(usage_.heap_total[2], 4096u);
  EXPECT_EQ(usage_.heap_used[2], 64u);
  EXPECT_EQ(usage_.processes.at(100).ion_bytes, 64u);
  for (std::size_t i : {0u, 1u, 3u, 4u}) EXPECT_EQ(usage_.heap_total[i], 0u) << i;
}

// Parses one allocation row of heap 0 through an in-memory file.
MemoryUsage ParseRow(const std::string& row) {
  const std::string text =
      "heap total size 1000000\nallocations\nclient tgid size type\n" + row + "total\n";
  std::FILE* file = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  MemoryUsage usage;
  HeapLineBuffer line{};
  ParseHeapSection(0, line, file, usage);
  std::fclose(file);
  return usage;
}

struct RowCase {
  const char* row;
  bool good;
  std::int32_t pid;
  std::uint64_t size;
};

class AllocationRowTest : public ::testing::TestWithParam<RowCase> {};

TEST_P(AllocationRowTest, CountsOnlyGoodRows) {
  const RowCase& c = GetParam();
  const MemoryUsage usage = ParseRow(c.row);
  if (!c.good) {
    EXPECT_TRUE(usage.processes.empty()) << c.row;
    EXPECT_EQ(usage.heap_used[0], 0u) << c.row;
    return;
  }
  ASSERT_EQ(usage.processes.count(c.pid), 1u) << c.row;
  EXPECT_EQ(usage.processes.at(c.pid).ion_bytes, c.size) << c.row;
  EXPECT_EQ(usage.heap_used[0], c.size) << c.row;
}

INSTANTIATE_TEST_SUITE_P(Table, AllocationRowTest,
                         ::testing::Values(RowCase{"  cam   100  8192   cma  \n", true, 100, 8192},
                                           RowCase{"cam -1 16 cma\n", true, -1, 16},
                                           RowCase{"cam 2147483647 16 cma\n", true, 2147483647, 16},
                                           RowCase{"cam 2147483648 16 cma\n", false, 0, 0},
                                           RowCase{"cam +5 16 cma\n", false, 0, 0},
                                           RowCase{"cam 100 8.5 cma\n", false, 0, 0},
                                           // Fewer than four fields.
                                           RowCase{"cam 100 8192\n", false, 0, 0},
                                           // A tab is not a separator: "100\t8192" is one field.
                                           RowCase{"cam 100\t8192 cma x\n", false, 0, 0}));

// Random and truncated heap files must not crash or overrun (run under ASan),
// and used stays within total for the parsed heap.
TEST(HeapParserFuzzTest, RandomLinesKeepInvariants) {
  std::vector<std::string> vocabulary = {"heap total size ",
                                         "allocations",
                                         "client",
                                         "tgid",
                                         "size",
                                         "type",
                                         "total",
                                         "cam",
                                         "-",
                                         "=",
                                         " ",
                                         "\t",
                                         "100",
                                         "-7",
                                         "18446744073709551615",
                                         "99999999999999999999",
                                         "4096",
                                         "\n",
                                         "\n"};
  vocabulary.push_back(std::string(300, 'a'));
  std::mt19937 rng(2024);
  for (int round = 0; round < 1500; ++round) {
    std::string text;
    const int pieces = static_cast<int>(rng() % 60);
    for (int i = 0; i < pieces; ++i) text += vocabulary[rng() % vocabulary.size()];
    text.resize(rng() % (text.size() + 1));
    if (text.empty()) text = "\n";
    std::FILE* file = fmemopen(text.data(), text.size(), "r");
    ASSERT_NE(file, nullptr);
    MemoryUsage usage;
    HeapLineBuffer line{};
    const std::size_t heap = rng() % kHeapCount;
    ParseHeapSection(heap, line, file, usage);
    std::fclose(file);
    ASSERT_LE(usage.heap_used[heap], usage.heap_total[heap]);
    for (const auto& [pid, process] : usage.processes) {
      ASSERT_LT(std::strlen(process.name), sizeof(process.name));
    }
  }
}

}  // namespace
}  // namespace kestro::zqp
