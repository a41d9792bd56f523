#include "monitors/value_readers.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "monitors/file_monitor.h"

namespace kestro::zqp {
namespace {

TEST(ValueReadersTest, ConvertOnlyTheirOwnLayout) {
  const struct {
    const char* text;
    long second_result;
    float second_value;
    long plain_result;
    float plain_value;
  } cases[] = {
      {"loading 37.5 %", 1, 37.5f, 0, -1.0f},
      {"loading 37.5", 1, 37.5f, 0, -1.0f},
      {"  gdc0\t80\n%\n", 1, 80.0f, 0, -1.0f},
      {"37.5", -1, -1.0f, 1, 37.5f},
      {"37.5 %\n", 0, -1.0f, 1, 37.5f},
      {"\n 12abc", -1, -1.0f, 1, 12.0f},
      {"", -1, -1.0f, -1, -1.0f},
      {"garbage", -1, -1.0f, 0, -1.0f},
      {"load x %", 0, -1.0f, 0, -1.0f},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    float value = -1.0f;
    EXPECT_EQ(ReadSecondToken(value, c.text), c.second_result);
    EXPECT_EQ(value, c.second_value);
    value = -1.0f;
    EXPECT_EQ(ReadPlainNumber(value, c.text), c.plain_result);
    EXPECT_EQ(value, c.plain_value);
  }
}

class ReadLoadingTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0); }
  void TearDown() override {
    close(ends[0]);
    close(ends[1]);
  }
  // What a file monitor without files reads from the pipe; 0.0 when empty.
  float Read(const std::string& text, FileMonitor::Reader reader) {
    if (!text.empty()) {
      EXPECT_EQ(write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    }
    MonitorConfig config;
    config.name = "VPU";
    FileMonitor monitor(config, nullptr, std::move(reader));
    const float value = monitor.ReadLoading(ends[0], buffer, sizeof buffer);
    char drain[256];
    while (read(ends[0], drain, sizeof drain) > 0) {
    }
    return value;
  }

  int ends[2] = {-1, -1};
  char buffer[64] = {};
};

TEST_F(ReadLoadingTest, PublishesOnlyASingleConversion) {
  EXPECT_EQ(Read("loading 37.5 %\n", ReadSecondToken), 37.5f);
  EXPECT_EQ(Read("37.5\n", ReadPlainNumber), 37.5f);
  // Nothing in the non-blocking pipe: the read fails with EAGAIN.
  EXPECT_EQ(Read("", ReadPlainNumber), 0.0f);
  EXPECT_EQ(Read("garbage\n", ReadPlainNumber), 0.0f);
  EXPECT_EQ(Read("x",
                 [](float& v, const char*) {
                   v = 5.0f;
                   return 2L;
                 }),
            0.0f);
  // No scaling or clamping: the driver's figure is published as it is.
  EXPECT_EQ(Read("250.5\n", ReadPlainNumber), 250.5f);
  EXPECT_EQ(Read("-3\n", ReadPlainNumber), -3.0f);
}

// Random and truncated driver-like texts must never crash or overrun.
TEST_F(ReadLoadingTest, SurvivesRandomTexts) {
  std::mt19937 random(20240611);
  const std::string alphabet = "0123456789.-+eEinfa %\t\n xyz";
  const std::string samples[] = {"loading 37.5 %\n", "37.5\n", "gdc0 1e38 %", "nan", "-inf 5"};
  MonitorConfig config;
  FileMonitor second(config, nullptr, ReadSecondToken);
  FileMonitor plain(config, nullptr, ReadPlainNumber);
  for (int i = 0; i < 2000; ++i) {
    std::string text;
    switch (random() % 3) {
      case 0: {
        const std::string& sample = samples[random() % std::size(samples)];
        text = sample.substr(0, random() % (sample.size() + 1));
        break;
      }
      case 1:
        for (unsigned n = random() % 90; n > 0; --n) text += alphabet[random() % alphabet.size()];
        break;
      default:
        for (unsigned n = random() % 90; n > 0; --n) text += static_cast<char>(1 + random() % 255);
        break;
    }
    float value = 0.0f;
    ReadSecondToken(value, text.c_str());
    ReadPlainNumber(value, text.c_str());
    if (!text.empty()) {
      ASSERT_GT(write(ends[1], text.data(), text.size()), 0);
    }
    FileMonitor& monitor = i % 2 == 0 ? second : plain;
    const float loaded = monitor.ReadLoading(ends[0], buffer, sizeof buffer);
    if (text.empty()) {
      EXPECT_EQ(loaded, 0.0f);
    }
    ASSERT_EQ(buffer[63], '\0');
    char drain[256];
    while (read(ends[0], drain, sizeof drain) > 0) {
    }
  }
}

}  // namespace
}  // namespace kestro::zqp
