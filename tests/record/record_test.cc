// What the simulated board cannot show: the escaping of every byte a process
// name may hold, RFC 4180 quoting, the exact text of each format, and the
// output cut back to its last complete record after a failed write.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

#include "base/version.h"
#include "record/metric_catalogue.h"
#include "record/output_file.h"
#include "record/writers.h"
#include "support/temp_tree.h"
#include "support/test_util.h"

namespace kestro::zqp::record {
namespace {

TEST(EscapingTest, SequencesInJsonPrometheusAndCsv) {
  struct Case {
    std::string bytes, json, label;
  };
  const std::string fffd = "\xef\xbf\xbd";
  const Case cases[] = {
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"",
       "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      // Overlong forms, a surrogate, above U+10FFFF, a lone continuation.
      {"\xc0\x80", "\"\\udcc0\\udc80\"", fffd + fffd},
      {"\xe0\x80\xaf", "\"\\udce0\\udc80\\udcaf\"", fffd + fffd + fffd},
      {"\xed\xa0\x80", "\"\\udced\\udca0\\udc80\"", fffd + fffd + fffd},
      {"\xf4\x90\x80\x80", "\"\\udcf4\\udc90\\udc80\\udc80\"", fffd + fffd + fffd + fffd},
      {"a\x80"
       "b",
       "\"a\\udc80b\"", "a" + fffd + "b"},
      // A name cut in the middle of a character (the driver keeps 23 bytes).
      {"cam\xe2\x82", "\"cam\\udce2\\udc82\"", "cam" + fffd + fffd},
      {"a\"b\\c\nd\te\x7f", "\"a\\\"b\\\\c\\u000ad\\u0009e\\u007f\"",
       "a\\\"b\\\\c\\nd" + fffd + "e" + fffd},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(JsonString(c.bytes), c.json);
    EXPECT_EQ(PrometheusLabelValue(c.bytes), c.label);
  }
  const std::pair<std::string, std::string> csv[] = {
      {"YPU0", "YPU0"},
      {"", ""},
      {"a,b", "\"a,b\""},
      {"say \"hi\"", "\"say \"\"hi\"\"\""},
      {"two\nlines", "\"two\nlines\""},
      {"cr\r", "\"cr\r\""},
      {" spaced ", " spaced "},
  };
  for (const auto& [field, want] : csv) EXPECT_EQ(CsvField(field), want);
}

Record Sample() {
  Record record;
  record.wall_ms = 1714564800123;  // 2024-05-01T12:00:00.123Z
  record.elapsed_ms = 2005;
  record.loading = {{"YPU", 0, 29.6f}, {"YPU", 1, 100.0f}, {"GDC", 0, 0.125f}};
  record.ddr_ready = true;
  record.ddr_read_bytes_per_s = 1234ull << 20;
  record.ddr_write_bytes_per_s = 567ull << 20;
  record.heaps = {{0, 1u << 28, 12u << 20}, {4, 1u << 25, 0}};
  record.processes = {{25, "media_svc", 4u << 20, 2u << 20}};
  return record;
}

TEST(WritersTest, EachFormatOfOneRecord) {
  Record record = Sample();
  const CsvLayout layout = LayoutOf(record);
  EXPECT_EQ(CsvHeader(layout),
            "time,elapsed_s,YPU0,YPU1,GDC0,ddr_read_bytes_per_second,ddr_write_bytes_per_second,"
            "cma_reserved_total_bytes,cma_reserved_used_bytes,cma_reserved_free_bytes,"
            "custom_total_bytes,custom_used_bytes,custom_free_bytes\r\n");
  EXPECT_EQ(CsvRow(layout, record),
            "2024-05-01T12:00:00.123Z,2.005,29.6,100,0.13,1293942784,594542592,"
            "268435456,12582912,255852544,33554432,0,33554432\r\n");
  EXPECT_EQ(JsonLine(record),
            "{\"time\":\"2024-05-01T12:00:00.123Z\",\"elapsed_s\":2.005,\"loading\":["
            "{\"label\":\"YPU0\",\"engine\":\"YPU\",\"core\":0,\"percent\":29.6},"
            "{\"label\":\"YPU1\",\"engine\":\"YPU\",\"core\":1,\"percent\":100},"
            "{\"label\":\"GDC0\",\"engine\":\"GDC\",\"core\":0,\"percent\":0.13}],"
            "\"ddr\":{\"read_bytes_per_second\":1293942784,\"write_bytes_per_second\":594542592},"
            "\"heaps\":[{\"name\":\"cma_reserved\",\"total_bytes\":268435456,\"used_bytes\":"
            "12582912,\"free_bytes\":255852544},{\"name\":\"custom\",\"total_bytes\":33554432,"
            "\"used_bytes\":0,\"free_bytes\":33554432}],\"processes\":[{\"pid\":25,\"name\":"
            "\"media_svc\",\"rss_bytes\":4194304,\"ion_bytes\":2097152}]}\n");
  const std::string prom = PrometheusText(record, 1);
  for (const std::string& line : std::vector<std::string>{
           "# kvt_zqp_record sample at 2024-05-01T12:00:00.123Z\n",
           "\n# TYPE kvt_zqp_build_info gauge\nkvt_zqp_build_info{version=\"" + base::GetVersion() +
               "\"} 1\n",
           "\n# TYPE kvt_zqp_loading_ratio gauge\nkvt_zqp_loading_ratio{engine=\"YPU\","
           "core=\"0\"} 0.296\n",
           "\nkvt_zqp_loading_ratio{engine=\"GDC\",core=\"0\"} 0.0013\n",
           "\nkvt_zqp_heap_free_bytes{heap=\"custom\"} 33554432\n",
           "\nkvt_zqp_process_ion_bytes{pid=\"25\",name=\"media_svc\"} 2097152\n"}) {
    EXPECT_NE(prom.find(line), prom.npos) << line << prom;
  }
  // Later: the DDR tool failed, a heap and a core of the layout are gone, a
  // figure is missing (no window ended, a driver published "nan").
  record.ddr_ready = false;
  record.heaps.erase(record.heaps.begin());
  record.loading.pop_back();
  record.loading[1].percent = std::nanf("");
  EXPECT_EQ(CsvRow(layout, record),
            "2024-05-01T12:00:00.123Z,2.005,29.6,,,,,,,,33554432,0,33554432\r\n");
  EXPECT_NE(JsonLine(record).find("\"percent\":null}],\"ddr\":null,"), std::string::npos);
  EXPECT_EQ(PrometheusText(record, 1).find("ddr_bandwidth"), std::string::npos);
  EXPECT_NE(PrometheusText(record, 1).find("\nkvt_zqp_ddr_figures_live 0\n"), std::string::npos);
  EXPECT_EQ(PrometheusText(record, 1).find("core=\"1\""), std::string::npos);
  EXPECT_EQ(PrometheusText(record, 0).find("process"), std::string::npos);
}

// Leap days of 2000 and 2024 and none in 2100; the milliseconds kept.
TEST(WritersTest, Rfc3339Stamps) {
  for (const auto& [ms, text] : std::vector<std::pair<std::int64_t, std::string>>{
           {0, "1970-01-01T00:00:00.000Z"},
           {951782400001, "2000-02-29T00:00:00.001Z"},
           {1709251199999, "2024-02-29T23:59:59.999Z"},
           {4107542400000, "2100-03-01T00:00:00.000Z"}}) {
    EXPECT_EQ(Rfc3339(ms), text);
  }
}

// Figures the recorder cannot vouch for stay out of a record: the DDR figures
// of a tool that is not answering, the heaps of a heap text that could not
// be read (which the report keeps showing).
TEST(RecordTest, LeavesOutWhatIsNotCurrent) {
  test_support::BoardRoot board;
  const std::string heaps = "/sys/kernel/debug/ion/heaps/all_heap_info";
  board.WriteFile(heaps, "the heap id is 6\nheap total size 4096\n");
  monitors::MemoryUsage memory;
  LoadingIntervals intervals;
  for (const bool live : {true, false}) {
    const Record record = TakeRecord({}, {true, live, 3, 4}, memory, 0, 0, intervals);
    EXPECT_EQ(record.ddr_ready, live);
    EXPECT_EQ(record.ddr_read_bytes_per_s, 3u << 20);
    EXPECT_EQ(record.heaps.size(), 1u);
  }
  std::filesystem::remove(board.Path() + heaps);
  EXPECT_TRUE(TakeRecord({}, {true, true, 3, 4}, memory, 0, 0, intervals).heaps.empty());
  EXPECT_EQ(memory.heap_total[0], 4096u);
}

// A file-size limit makes a write fail part-way, as a full disk does: the
// record in hand is cut off again (appending), or never replaces the file.
TEST(OutputFileTest, FailedWriteLeavesTheLastCompleteRecord) {
  test_support::TempTree tree;
  const std::string first(100, 'a');
  const std::string second(3000, 'b');
  for (const bool replace : {false, true}) {
    const std::string name = replace ? "run.prom" : "run.csv";
    const std::string path = tree.Path() + "/" + name;
    OutputFile output;
    std::string error;
    ASSERT_TRUE(output.Open(path, replace, false, error)) << error;
    ASSERT_TRUE(output.Write(first, error)) << error;
    ASSERT_TRUE(output.Write(first, error)) << error;
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit old_limit{};
    getrlimit(RLIMIT_FSIZE, &old_limit);
    rlimit limit = old_limit;
    limit.rlim_cur = 1024;
    setrlimit(RLIMIT_FSIZE, &limit);
    const bool written = output.Write(second, error);
    setrlimit(RLIMIT_FSIZE, &old_limit);
    signal(SIGXFSZ, old_handler);
    EXPECT_FALSE(written);
    EXPECT_EQ(error, "cannot write " + path + ": File too large");
    EXPECT_EQ(tree.ReadFile(name), replace ? first : first + first);
  }
  // No temporary file is left behind.
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(tree.Path())) {
    names.insert(entry.path().filename());
  }
  EXPECT_EQ(names, (std::set<std::string>{"run.csv", "run.prom"}));
}

TEST(OutputFileTest, UnwritablePlaces) {
  for (const bool replace : {false, true}) {
    OutputFile output;
    std::string error;
    EXPECT_FALSE(output.Open("/nonexistent/run.csv", replace, false, error));
    EXPECT_EQ(error, "cannot write /nonexistent/run.csv: No such file or directory");
  }
  OutputFile full;
  std::string error;
  ASSERT_TRUE(full.Open("/dev/full", false, false, error));
  EXPECT_FALSE(full.Write("x\n", error));
  EXPECT_EQ(error, "cannot write /dev/full: No space left on device");
}

}  // namespace
}  // namespace kestro::zqp::record
