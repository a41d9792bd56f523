// Component tests of the DSP monitor with real objects: shared-memory nodes,
// lock files and the event fifo in a temporary board root, forked children for
// the tracked pids and for other holders of a lock file, and a real
// WatchTaskRunner looping on a thread of its own. While the loop runs the test
// thread only reads what is atomic, locked or kernel state.
#include "monitors/dsp_monitor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include <gtest/gtest.h>

#include "base/board_path.h"
#include "base/log.h"
#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using test_support::CountOpenFds;
using test_support::WaitFor;

constexpr char kFifo[] = "/var/run/dsp_event";
const std::string kLockPath = "/var/run/dsp_loading_flock_";
constexpr pid_t kNoSuchPid = 0x3FFFFFFF;  // above any pid_max

// A child that lives until killed (60 s at most), so its pidfd and its exit
// are real; given a lock file, it first takes its lockf lock.
struct Child {
  explicit Child(const char* lock_path = nullptr) : pid(fork()) {
    if (pid != 0) return;
    if (lock_path != nullptr && lockf(open(lock_path, O_RDWR), F_LOCK, 0) != 0) _exit(1);
    sleep(60);
    _exit(0);
  }
  ~Child() { Kill(); }
  void Kill() {
    if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    pid = -1;
  }
  pid_t pid;
};

// Whether another process could take core's lock file right now.
bool LockFree(std::uint32_t core) {
  const std::string path = base::BoardPath(kLockPath + std::to_string(core));
  const pid_t pid = fork();
  if (pid == 0) _exit(lockf(open(path.c_str(), O_RDWR), F_TLOCK, 0) == 0 ? 0 : 1);
  int status = -1;
  return waitpid(pid, &status, 0) == pid && status == 0;
}

// The first size bytes of the runtime's message {pid, slot 0}.
void SendEvent(pid_t pid, std::size_t size = sizeof(DSPEventMsg)) {
  const DSPEventMsg msg = MakeDspEventMsg(static_cast<std::uint32_t>(pid), 0);
  std::ofstream(base::BoardPath(kFifo), std::ios::binary)
      .write(reinterpret_cast<const char*>(&msg), size);
}

int CountNodeMappings() {
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);)
    count += line.find("kzm_test_node_") != line.npos;
  return count;
}

DspLoadingNode* Hold(DspLoadingNode* node, std::uint32_t slot, pid_t pid) {
  node->pids[slot] = static_cast<std::uint32_t>(pid);
  node->free_mask &= ~(1u << slot);
  return node;
}

class DspMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe2(quit_, O_CLOEXEC), 0);
    runner_->AddTask(quit_[0], [this](int) { runner_->Stop(); });
    board_.MakeDir("/var/run");
  }
  void TearDown() override {
    Destroy();
    for (const std::string& name : names_) shm_unlink(name.c_str());
    for (const int fd : quit_) close(fd);
  }

  // A loading node with every slot free, of the given size (a negative one
  // removes the object), for the next core.
  DspLoadingNode* AddCore(off_t size = kDspLoadingNodeSize, bool lock_file = true) {
    const std::string core = std::to_string(names_.size());
    names_.push_back("/kzm_test_node_" + std::to_string(getpid()) + "_" + core);
    const int fd = shm_open(names_.back().c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    EXPECT_EQ(ftruncate(fd, kDspLoadingNodeSize), 0);
    auto* node = static_cast<DspLoadingNode*>(
        mmap(nullptr, kDspLoadingNodeSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    *node = {kDspNodeMagic, 0, ~0u, 0, {}};
    EXPECT_EQ(size < 0 ? shm_unlink(names_.back().c_str()) : ftruncate(fd, size), 0);
    close(fd);
    if (lock_file) board_.WriteFile(kLockPath + core, "");
    return node;
  }

  // Constructs and starts the monitor as the application does (with an
  // interval no test reaches, so the worker publishes nothing), then runs the
  // loop until Destroy. Returns what construction printed at that log level.
  std::string Create(bool batch = true, int level = 1) {
    base::SetLogLevel(level);
    const std::string printed = test_support::CaptureStderr([&] {
      monitor_ = std::make_unique<DSPMonitor>(
          monitor::MonitorConfig{
              .name = "DSP", .frequency = 500, .delay = 1000000, .batch = batch, .files = names_},
          runner_);
      monitor_->Start();
    });
    loop_ = std::thread([this] { runner_->Run(); });
    return printed;
  }
  void Destroy() {
    if (loop_.joinable()) {
      EXPECT_EQ(write(quit_[1], "q", 1), 1);
      loop_.join();
    }
    if (monitor_) monitor_->Stop();
    monitor_.reset();
  }

  // Descriptors with a watch, up to beyond the highest one open.
  int Watched() {
    int count = 0;
    for (int fd = 0, end = CountOpenFds() + 256; fd < end; ++fd)
      count += runner_->GetTask(fd) ? 1 : 0;
    return count;
  }
  bool Sampling() { return !monitor_->IsStopped() && Workers() == 1; }
  // The exit callback unwatches its pidfd last, after stopping and unmapping.
  bool Idle() {
    return monitor_->IsStopped() && monitor_->TrackedProcessCount() == 0 && Watched() == 2 &&
           Workers() == 0;
  }
  int Workers() { return test_support::CountThreadsNamed("DSP_loading"); }

  test_support::BoardRoot board_;
  std::vector<std::string> names_;
  std::shared_ptr<runner::WatchTaskRunner> runner_ = std::make_shared<runner::WatchTaskRunner>();
  int quit_[2] = {-1, -1};
  std::thread loop_;
  std::unique_ptr<DSPMonitor> monitor_;
};

enum Setup { kNoNode, kMissingFiles, kWrongMagic, kUnsized, kStaleFile, kNoRunDir };
const std::string kNone = "No dsp node found, not start dsp monitor\n";
// setup, batch, log level, what construction prints
using Unusable = std::tuple<Setup, bool, int, std::string>;
const Unusable kUnusable[] = {
    {kNoNode, true, 0, "No loading node found for DSP\n" + kNone},
    {kNoNode, true, 1, ""},
    {kMissingFiles, true, 0,
     "dsp0 loading flock open failed, No such file or directory\nshm open failed\n" + kNone},
    {kMissingFiles, false, 0, kNone},
    {kMissingFiles, true, 1, ""},
    {kWrongMagic, true, 1,
     "wrong dsp node, please check whether monitor version match zqp version\n"},
    {kWrongMagic, false, 1, ""},
    // A node the runtime has made but not yet sized would raise SIGBUS.
    {kUnsized, true, 1, "mmap node addr failed\n"},
    {kUnsized, false, 1, ""},
    // Anything else at the path would be readable for ever; it is not ours.
    {kStaleFile, true, 1, "open /var/run/dsp_event failed, error:not a fifo\n\n"},
    {kNoRunDir, true, 1, "mkfifo /var/run/dsp_event failed, 2 error:No such file or directory\n\n"},
};

class DspUnusableTest : public DspMonitorTest, public ::testing::WithParamInterface<Unusable> {};
INSTANTIATE_TEST_SUITE_P(Cases, DspUnusableTest, ::testing::ValuesIn(kUnusable));

TEST_P(DspUnusableTest, PrintsGatedMessagesStaysIdleAndLeaksNothing) {
  const auto& [setup, batch, level, printed] = GetParam();
  if (setup == kMissingFiles) AddCore(kDspLoadingNodeSize, /*lock_file=*/false);
  if (setup == kMissingFiles) AddCore(-1);
  if (setup == kWrongMagic) Hold(AddCore(), 0, getpid())->magic = 0x1122334455667788ULL;
  if (setup == kUnsized) AddCore(0);
  if (setup == kStaleFile) board_.WriteFile(kFifo, "");
  if (setup == kNoRunDir) std::filesystem::remove_all(base::BoardPath("/var/run"));
  const int fds = CountOpenFds();
  EXPECT_EQ(Create(batch, level), printed);
  // Always ready, never started, and a rejected node contributes no process.
  EXPECT_TRUE(monitor_->IsReady() && monitor_->IsStopped() && !monitor_->HasProcess());
  // Every failed scan unlocks the core's lock file.
  EXPECT_TRUE(names_.empty() || LockFree(names_.size() - 1));
  Destroy();
  // Only the fifo's write end outlives the monitor, and only a fifo is removed.
  EXPECT_EQ(CountOpenFds() - fds, setup == kStaleFile || setup == kNoRunDir ? 0 : 1);
  EXPECT_EQ(access(base::BoardPath(kFifo).c_str(), F_OK) == 0, setup == kStaleFile);
}

TEST_F(DspMonitorTest, ProcessLifetimesReleaseSlotsUnderTheLockAndLeakOnlyWhatIsKept) {
  DspLoadingNode* node0 = AddCore();
  DspLoadingNode* node1 = AddCore();
  // A free slot naming a live process and a held slot of a gone one count for
  // nothing. A fifo left by an earlier run is reused.
  node0->pids[2] = static_cast<std::uint32_t>(getpid());
  Hold(node0, 4, kNoSuchPid);
  mkfifo(base::BoardPath(kFifo).c_str(), 0600);
  const int fds = CountOpenFds(), maps = CountNodeMappings();
  EXPECT_EQ(Create(true, 0), kNone);
  // Core 0 runs work of a and b, core 1 only of a.
  Child a, b;
  Hold(Hold(node0, 3, a.pid), 31, b.pid);
  node0->running_mask = (1u << 3) | (1u << 31);
  node1->running_mask = 1u << 3;
  // While idle the content does not matter: even a short read rescans.
  SendEvent(a.pid, 4);
  ASSERT_TRUE(WaitFor([&] { return Sampling() && monitor_->TrackedProcessCount() == 2; }));
  SendEvent(getpid(), 4);  // while sampling a short read names nobody
  for (const std::uint32_t core : {0u, 1u}) monitor_->SetLoading(core, 55.0f);

  // a exits while another process holds core 0's lock file.
  Child locker((base::BoardPath(kLockPath) + "0").c_str());
  ASSERT_TRUE(WaitFor([] { return !LockFree(0); }));
  a.Kill();
  EXPECT_TRUE(WaitFor([&] { return std::atomic_ref(node0->running_mask).load() == 1u << 31; }));
  EXPECT_FALSE(
      WaitFor([&] { return (node0->free_mask & 1u << 3) != 0; }, std::chrono::milliseconds(300)));
  locker.Kill();
  ASSERT_TRUE(WaitFor([&] { return monitor_->TrackedProcessCount() == 1 && Watched() == 3; }));
  EXPECT_EQ(node0->free_mask, ~(1u << 4 | 1u << 31));
  EXPECT_TRUE(LockFree(0) && LockFree(1));
  // Core 1 has no running bit left: forced to zero at once.
  EXPECT_EQ(monitor_->LoadingSnapshot(), (std::vector<float>{55.0f, 0.0f}));

  b.Kill();
  ASSERT_TRUE(WaitFor([&] { return Idle(); }));
  // The gone holder's slot is freed only by a scan of a watched core.
  EXPECT_EQ(node0->free_mask, ~(1u << 4));

  // Once a process was found, any message while idle restarts sampling; from
  // then on each lifetime is tracked twice: by the rescan (or, the first time,
  // the message) and by a second message while sampling.
  SendEvent(kNoSuchPid);
  ASSERT_TRUE(WaitFor([&] { return Sampling(); }));
  constexpr int kLifetimes = 20;
  std::vector<int> open_while_tracked;
  for (int i = 0; i <= kLifetimes; ++i) {
    Child child;
    Hold(node0, 0, child.pid);
    SendEvent(child.pid);
    ASSERT_TRUE(WaitFor([&] { return Sampling() && monitor_->TrackedProcessCount() == 1; }));
    if (i == kLifetimes) {  // destroyed while tracked
      Destroy();
      break;
    }
    SendEvent(child.pid);
    ASSERT_TRUE(WaitFor([&] { return Watched() == 4; }));
    open_while_tracked.push_back(CountOpenFds());
    child.Kill();
    ASSERT_TRUE(WaitFor([&] { return Idle(); }));
  }
  // Each lifetime keeps exactly its two process descriptors, on purpose;
  // the nodes' descriptors of each rescan go again when it ends.
  for (std::size_t i = 1; i < open_while_tracked.size(); ++i) {
    EXPECT_EQ(open_while_tracked[i] - open_while_tracked[i - 1], 2) << i;
  }
  // Destruction unwatches the tracked descriptor and the fifo's read end and
  // unmaps every node. Kept on purpose: the mappings of the first scan, which
  // the first rescan maps over.
  EXPECT_EQ(Watched(), 1);
  EXPECT_GT(CountOpenFds(), fds);
  EXPECT_EQ(CountNodeMappings() - maps, 2);
}

}  // namespace
}  // namespace kestro::zqp::monitors
