// The parsers under the DDR, memory and file monitors.
#include "monitors/text_fields.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "monitors/file_monitor.h"
#include "monitors/value_readers.h"

namespace kestro::zqp::monitors {
namespace {

using Fields = std::vector<std::string_view>;

TEST(TextFieldsTest, SplitFieldsDropsEmptyPiecesButTheLastAndTrimsAllButBlankOnes) {
  EXPECT_EQ(SplitFields("", '|'), Fields{""});
  EXPECT_EQ(SplitFields("|a||\t b \r\n| |c|", '|'), (Fields{"a", "b", " ", "c", ""}));
  EXPECT_EQ(SplitFields("Read|x|\r\n", '|'), (Fields{"Read", "x", "\r\n"}));
  EXPECT_EQ(SplitFields("client tgid  size type\n", ' '),
            (Fields{"client", "tgid", "size", "type"}));
}

TEST(ValueReadersTest, EachReaderConvertsOnlyItsDriversLayout) {
  // Text, then result and value of ReadSecondToken and of ReadPlainNumber (-1: untouched).
  const std::tuple<const char*, long, float, long, float> cases[] = {
      {"loading 37.5 %", 1, 37.5f, 0, -1}, {"37.5 %\n", 0, -1, 1, 37.5f}, {"", -1, -1, -1, -1}};
  for (const auto& [text, second_result, second, plain_result, plain] : cases) {
    float value = -1;
    EXPECT_EQ(ReadSecondToken(value, text), second_result) << text;
    EXPECT_EQ(value, second) << text;
    value = -1;
    EXPECT_EQ(ReadPlainNumber(value, text), plain_result) << text;
    EXPECT_EQ(value, plain) << text;
  }
}

// One read of at most 63 bytes, then the reader; 0.0 unless both worked.
TEST(ValueReadersTest, ReadLoadingPublishesOnlyASingleConversionOfOneShortRead) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  char buffer[64] = {};
  const auto load = [&](const std::string& text, FileMonitor::Reader reader) {
    EXPECT_EQ(text.empty() ? 0 : write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    FileMonitor monitor(monitor::MonitorConfig{}, nullptr, std::move(reader));
    const float value = monitor.ReadLoading(ends[0], buffer, sizeof buffer);
    for (char drain[256]; read(ends[0], drain, sizeof drain) > 0;) {
    }
    return value;
  };
  // Figures are published as the driver gives them, neither scaled nor clamped.
  EXPECT_EQ(load("loading 250.5 %\n", ReadSecondToken), 250.5f);
  EXPECT_EQ(load("-3\n", ReadPlainNumber), -3.0f);
  EXPECT_EQ(load("garbage\n", ReadPlainNumber), 0.0f);
  EXPECT_EQ(load("", ReadPlainNumber), 0.0f);  // nothing to read yet
  EXPECT_EQ(load("7" + std::string(99, ' '), ReadPlainNumber), 7.0f);
  EXPECT_EQ(buffer[63], '\0');
  close(ends[1]);
  EXPECT_EQ(load("", ReadPlainNumber), 0.0f);  // end of file: the old text is not read again
  close(ends[0]);
}

}  // namespace
}  // namespace kestro::zqp::monitors
