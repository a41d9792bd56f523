#include "record/history.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestro::zqp::record {
namespace {

Record At(std::int64_t elapsed_ms) {
  Record record;
  record.wall_ms = 1'700'000'000'000 + elapsed_ms;
  record.elapsed_ms = elapsed_ms;
  record.loading = {{"YPU", 0, 12.5f}};
  record.processes = {{7, "a", 1, 10}, {8, "b", 1, 30}, {9, "c", 1, 20}};
  return record;
}

// The elapsed times of the records an answer holds.
std::string Times(const std::string& json) {
  std::string out;
  for (std::size_t at = 0; (at = json.find("\"elapsed_s\":", at)) != std::string::npos; ++at)
    out += json.substr(at + 12, json.find(',', at) - at - 12) + " ";
  return out;
}

TEST(HistoryTest, KeepsTheLatestRecordsWithinItsBound) {
  History history(1000, 4500, 2);
  EXPECT_EQ(history.Capacity(), 5u);
  EXPECT_EQ(history.Since(std::nullopt),
            "{\"interval_ms\":1000,\"history_ms\":5000,\"latest_elapsed_ms\":0,\"records\":[]}\n");
  history.Add(At(1000));
  // The two largest ION holders, largest first.
  EXPECT_EQ(history.Since(0),
            "{\"interval_ms\":1000,\"history_ms\":5000,\"latest_elapsed_ms\":1000,\"records\":[{"
            "\"time\":\"2023-11-14T22:13:21.000Z\",\"elapsed_s\":1.000,\"loading\":[{\"label\":"
            "\"YPU0\",\"engine\":\"YPU\",\"core\":0,\"percent\":12.5}],\"ddr\":null,\"heaps\":[],"
            "\"processes\":[{\"pid\":8,\"name\":\"b\",\"rss_bytes\":1,\"ion_bytes\":30},{\"pid\":9,"
            "\"name\":\"c\",\"rss_bytes\":1,\"ion_bytes\":20}]}]}\n");
  std::size_t bytes = 0;
  for (std::int64_t ms = 10000; ms <= 40000; ms += 1000) {
    history.Add(At(ms));
    if (ms == 20000) bytes = history.Bytes();
  }
  EXPECT_EQ(history.Size(), 5u);
  EXPECT_EQ(history.Bytes(), bytes);  // full long since: nothing grows
  const std::vector<std::pair<std::optional<std::int64_t>, std::string>> cases = {
      {std::nullopt, "36.000 37.000 38.000 39.000 40.000 "},
      {0, "36.000 37.000 38.000 39.000 40.000 "},
      {37999, "38.000 39.000 40.000 "},
      {38000, "39.000 40.000 "},
      {40000, ""},
  };
  for (const auto& [since, times] : cases) EXPECT_EQ(Times(history.Since(since)), times);
  // An hour at 100 ms is more than the ring takes: it holds six minutes.
  EXPECT_EQ(History(100, 3'600'000, 0).Since(0).substr(0, 39),
            "{\"interval_ms\":100,\"history_ms\":360000,");
}

}  // namespace
}  // namespace kestro::zqp::record
