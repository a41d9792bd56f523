// The read-only DSP reader against real shared-memory nodes and real
// processes: which running bits count, and which process descriptors it
// holds as clients come, leave their slots and die.
#include "monitors/dsp_node_reader.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using test_support::CountOpenFds;

constexpr pid_t kNoSuchPid = 0x3FFFFFFF;  // above any pid_max

pid_t Sleeper() {
  const pid_t pid = fork();
  if (pid == 0) {
    sleep(60);
    _exit(0);
  }
  return pid;
}

void Reap(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

class DspNodeReaderTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& name : names_) shm_unlink(name.c_str());
  }

  DspLoadingNode* AddNode(std::uint64_t magic = kDspNodeMagic) {
    names_.push_back("/kzm_reader_node_" + std::to_string(getpid()) + "_" +
                     std::to_string(names_.size()));
    const int fd = shm_open(names_.back().c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    EXPECT_EQ(ftruncate(fd, kDspLoadingNodeSize), 0);
    auto* node = static_cast<DspLoadingNode*>(
        mmap(nullptr, kDspLoadingNodeSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    *node = {magic, 0, ~0u, 0, {}};
    return node;
  }

  monitor::MonitorConfig Config() const {
    return {.name = "DSP", .frequency = 500, .delay = 1000, .files = names_, .read_only = true};
  }

  std::vector<std::string> names_;
};

void Hold(DspLoadingNode* node, std::uint32_t slot, pid_t pid, bool running) {
  node->pids[slot] = static_cast<std::uint32_t>(pid);
  node->free_mask &= ~(1u << slot);
  if (running) node->running_mask |= 1u << slot;
}

TEST_F(DspNodeReaderTest, CountsLiveHoldersOnlyWithOneDescriptorEach) {
  DspLoadingNode* core0 = AddNode();
  DspLoadingNode* core1 = AddNode();
  DspLoadingNode* stranger = AddNode(0x1234);
  names_.push_back("/kzm_reader_node_absent");
  const int fds_before = CountOpenFds();
  const pid_t both = Sleeper();
  const pid_t leaver = Sleeper();
  {
    DspNodeReader reader(Config(), nullptr);
    ASSERT_TRUE(reader.IsReady());
    // No window has ended: nothing to vouch for yet.
    EXPECT_TRUE(std::isnan(reader.GetLoading(0)));

    Hold(core0, 3, both, false);
    Hold(core1, 3, both, true);
    Hold(core0, 5, kNoSuchPid, true);  // died with work running
    Hold(core1, 7, leaver, false);
    Hold(stranger, 1, both, true);
    reader.Refresh();
    // One descriptor for a process however many slots it holds.
    EXPECT_EQ(reader.WatchedProcessCount(), 2u);
    EXPECT_EQ(reader.LiveSlots(0), 1u << 3);
    EXPECT_EQ(reader.LiveSlots(1), (1u << 3) | (1u << 7));
    EXPECT_FALSE(reader.IsCoreBusy(0));  // only the dead holder's bit is set
    EXPECT_TRUE(reader.IsCoreBusy(1));
    EXPECT_FALSE(reader.IsCoreBusy(2));  // wrong magic: not mapped
    EXPECT_FALSE(reader.IsCoreBusy(3));  // no object

    // A process that leaves its slots is no longer watched.
    core1->free_mask |= 1u << 7;
    reader.Refresh();
    EXPECT_EQ(reader.WatchedProcessCount(), 1u);

    // Its running bit left behind by a death no longer counts, and the
    // ended process's descriptor is closed.
    Reap(both);
    reader.Refresh();
    EXPECT_EQ(reader.WatchedProcessCount(), 0u);
    EXPECT_EQ(reader.LiveSlots(1), 0u);
    EXPECT_FALSE(reader.IsCoreBusy(1));
    // Never reopened while the slot still names the dead process.
    reader.Refresh();
    EXPECT_EQ(reader.WatchedProcessCount(), 0u);
    // The reader wrote nothing.
    EXPECT_EQ(core1->free_mask, ~0u & ~(1u << 3));
    EXPECT_EQ(core1->running_mask, 1u << 3);
  }
  Reap(leaver);
  EXPECT_EQ(CountOpenFds(), fds_before);
}

}  // namespace
}  // namespace kestro::zqp::monitors
