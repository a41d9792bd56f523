#include "monitors/text_fields.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using Fields = std::vector<std::string>;

Fields Split(std::string_view text, char delimiter) {
  Fields out;
  for (std::string_view f : SplitFields(text, delimiter)) out.emplace_back(f);
  return out;
}

struct SplitCase {
  const char* text;
  char delimiter;
  Fields expected;
};

class SplitFieldsTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitFieldsTest, Splits) {
  const SplitCase& c = GetParam();
  EXPECT_EQ(Split(c.text, c.delimiter), c.expected) << "text: \"" << c.text << "\"";
}

INSTANTIATE_TEST_SUITE_P(
    Table, SplitFieldsTest,
    ::testing::Values(
        SplitCase{"", '|', {""}}, SplitCase{"abc", '|', {"abc"}},
        SplitCase{"  abc \t", '|', {"abc"}},
        // Leading delimiter: the empty piece before it is dropped.
        SplitCase{"|Read|x|250", '|', {"Read", "x", "250"}},
        // Trailing delimiter: a final empty piece.
        SplitCase{"Read|x|", '|', {"Read", "x", ""}},
        // Runs of delimiters drop the empty pieces between them.
        SplitCase{"a||b|||c", '|', {"a", "b", "c"}},
        SplitCase{" Read | x | 250 \r\n", '|', {"Read", "x", "250"}},
        // A pseudo-terminal line ending in the delimiter keeps its blank end untrimmed.
        SplitCase{"Read|x|\r\n", '|', {"Read", "x", "\r\n"}},
        // Blank pieces ended by a delimiter are kept as they stand.
        SplitCase{"a| |b", '|', {"a", " ", "b"}}, SplitCase{"a|\t\t|b", '|', {"a", "\t\t", "b"}},
        SplitCase{"  ", '|', {"  "}},
        SplitCase{"client tgid  size type\n", ' ', {"client", "tgid", "size", "type"}},
        SplitCase{"a b \n", ' ', {"a", "b", "\n"}}, SplitCase{"|", '|', {""}},
        SplitCase{"||", '|', {""}}));

struct ParseCase {
  const char* text;
  bool ok;
  bool stored;
  std::uint64_t value;
};

class ParseUnsignedTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ParseUnsignedTest, Parses) {
  const ParseCase& c = GetParam();
  constexpr std::uint64_t kSentinel = 0xdeadbeef;
  std::uint64_t value = kSentinel;
  EXPECT_EQ(ParseUnsigned(c.text, value), c.ok) << c.text;
  EXPECT_EQ(value, c.stored ? c.value : kSentinel) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseUnsignedTest,
    ::testing::Values(ParseCase{"0", true, true, 0}, ParseCase{"250", true, true, 250},
                      ParseCase{"007", true, true, 7},
                      ParseCase{"18446744073709551615", true, true, 18446744073709551615ull},
                      ParseCase{"18446744073709551616", false, false, 0},
                      ParseCase{"99999999999999999999", false, false, 0},
                      // Overflow in the leading digits fails even with a tail.
                      ParseCase{"18446744073709551616x", false, false, 0},
                      ParseCase{"25.5", false, true, 25}, ParseCase{"12 ", false, true, 12},
                      ParseCase{"12\r\n", false, true, 12}, ParseCase{"", false, false, 0},
                      ParseCase{" 12", false, false, 0}, ParseCase{"+12", false, false, 0},
                      ParseCase{"-12", false, false, 0}, ParseCase{"x12", false, false, 0},
                      ParseCase{"\n", false, false, 0}));

TEST(ParseUnsignedTest, ReadsOnlyTheView) {
  const std::string text = "12345";
  std::uint64_t value = 0;
  EXPECT_TRUE(ParseUnsigned(std::string_view(text).substr(0, 3), value));
  EXPECT_EQ(value, 123u);
}

// Random and truncated inputs must neither crash nor read outside the view
// (run under ASan); the invariants below hold for every input.
TEST(TextFieldsFuzzTest, RandomInputsKeepInvariants) {
  std::mt19937 rng(12345);
  const std::string alphabet = "0123456789 |\t\r\n-+.xa";
  for (int round = 0; round < 2000; ++round) {
    const std::size_t length = rng() % 40;
    std::string owned;
    for (std::size_t i = 0; i < length; ++i) owned.push_back(alphabet[rng() % alphabet.size()]);
    // Exact-size heap copy so that a read one past the end is caught.
    std::unique_ptr<char[]> exact(new char[length == 0 ? 1 : length]);
    owned.copy(exact.get(), length);
    const std::string_view text(exact.get(), length);
    const char delimiter = (round % 2) != 0 ? '|' : ' ';
    const auto fields = SplitFields(text, delimiter);
    ASSERT_FALSE(fields.empty());
    for (std::string_view f : fields) {
      ASSERT_GE(f.data(), text.data());
      ASSERT_LE(f.data() + f.size(), text.data() + text.size());
      if (!f.empty()) {
        ASSERT_EQ(f.find(delimiter), std::string_view::npos);
      }
    }
    std::uint64_t value = 0;
    const bool ok = ParseUnsigned(text, value);
    if (ok) {
      ASSERT_EQ(text.find_first_not_of("0123456789"), std::string_view::npos);
      ASSERT_EQ(value, std::strtoull(owned.c_str(), nullptr, 10));
    }
  }
}

class ProcessRunningTest : public test_support::BoardRootTest {};

TEST_F(ProcessRunningTest, MatchesBaseNameOfFirstArgumentByPrefix) {
  tree.WriteFile("proc/12/cmdline", std::string("/usr/bin/camera_daemon\0--name\0dsp", 34));
  tree.WriteFile("proc/self/cmdline", std::string("/bin/dspd\0", 10));
  tree.WriteFile("proc/40/cmdline", std::string("plain\0", 6));
  tree.MakeDir("proc/41");  // no cmdline: skipped
  EXPECT_TRUE(IsProcessRunning("camera"));
  EXPECT_TRUE(IsProcessRunning("camera_daemon"));
  EXPECT_TRUE(IsProcessRunning("plain"));
  EXPECT_FALSE(IsProcessRunning("camera_daemonX"));
  EXPECT_FALSE(IsProcessRunning("usr"));
  // Only the first argument counts, and only entries named by a digit.
  EXPECT_FALSE(IsProcessRunning("dsp"));
  EXPECT_FALSE(IsProcessRunning("dspd"));
  test_support::BoardRoot without_proc;
  EXPECT_FALSE(IsProcessRunning("camera"));
}

}  // namespace
}  // namespace kestro::zqp
