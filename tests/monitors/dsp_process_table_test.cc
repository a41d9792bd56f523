#include "monitors/dsp_process_table.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace kestro::zqp {
namespace {

TEST(DspProcessTableTest, TracksLiveProcessesOnly) {
  DspProcessTable table;
  EXPECT_TRUE(table.Empty());
  EXPECT_FALSE(table.AddOrRefresh(-1));

  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  EXPECT_FALSE(table.AddOrRefresh(dead));
  EXPECT_EQ(table.Lookup(dead), -1);

  ASSERT_TRUE(table.AddOrRefresh(getpid()));
  const int first = table.Lookup(getpid());
  EXPECT_GT(first, 0);
  ASSERT_TRUE(table.AddOrRefresh(getpid()));
  const int second = table.Lookup(getpid());
  EXPECT_NE(second, first);
  // The replaced descriptor is left open on purpose.
  EXPECT_NE(fcntl(first, F_GETFD), -1);
  EXPECT_EQ(table.Size(), 1u);

  table.Erase(getpid());
  EXPECT_TRUE(table.Empty());
  EXPECT_NE(fcntl(second, F_GETFD), -1);  // erasing does not close
  close(first);
  close(second);

  ASSERT_TRUE(table.AddOrRefresh(getpid()));
  const int third = table.Lookup(getpid());
  table.Clear();
  EXPECT_TRUE(table.Empty());
  EXPECT_EQ(fcntl(third, F_GETFD), -1);  // clearing closes
}

}  // namespace
}  // namespace kestro::zqp
