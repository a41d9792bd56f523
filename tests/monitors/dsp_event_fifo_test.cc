#include "monitors/dsp_event_fifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "base/board_path.h"
#include "support/test_util.h"

namespace kestro::zqp {
namespace {

TEST(DspEventMsgTest, PidInLowWordSlotInHighWord) {
  const DSPEventMsg msg = MakeDspEventMsg(0x01020304u, 5u);
  EXPECT_EQ(msg, 0x0000000501020304ULL);
  EXPECT_EQ(DspEventPid(msg), 0x01020304u);
  EXPECT_EQ(DspEventSlot(msg), 5u);
  EXPECT_EQ(DspEventPid(kDspEventReadFailed), 0xFFFFFFFFu);
  EXPECT_EQ(DspEventSlot(kDspEventReadFailed), 0u);
}

TEST(DspEventMsgTest, ReadsLittleEndianBytesAndRejectsShortReads) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  const unsigned char bytes[8] = {0x10, 0x20, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00};
  ASSERT_EQ(write(fds[1], bytes, sizeof(bytes)), 8);
  EXPECT_EQ(ReadDspEventMsg(fds[0]), MakeDspEventMsg(0x2010u, 31u));
  ASSERT_EQ(write(fds[1], bytes, 3), 3);
  EXPECT_EQ(ReadDspEventMsg(fds[0]), kDspEventReadFailed);  // short
  EXPECT_EQ(ReadDspEventMsg(fds[0]), kDspEventReadFailed);  // nothing (EAGAIN)
  EXPECT_EQ(ReadDspEventMsg(0), kDspEventReadFailed);
  EXPECT_EQ(ReadDspEventMsg(-1), kDspEventReadFailed);
  close(fds[0]);
  close(fds[1]);
}

TEST(DspEventFifoTest, MakesOpensAndRemoves) {
  test_support::BoardRoot board;
  board.MakeDir("/var/run");
  const std::string real_path = BoardPath("/var/run/dsp_event");
  {
    DspEventFifo fifo("/var/run/dsp_event");
    EXPECT_EQ(fifo.read_fd(), -1);
    fifo.Make();
    EXPECT_GT(fifo.read_fd(), 0);
    EXPECT_GT(fifo.write_fd(), 0);
    struct stat st;
    ASSERT_EQ(stat(real_path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_NE(fcntl(fifo.read_fd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fifo.write_fd(), F_GETFL) & O_NONBLOCK, 0);
    // An existing fifo is reused.
    DspEventFifo second("/var/run/dsp_event");
    second.Make();
    EXPECT_GT(second.read_fd(), 0);
  }
  EXPECT_NE(access(real_path.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace kestro::zqp
