// Component tests of the DSP monitor with real objects: shared-memory nodes,
// lock files and the event fifo in a temporary board root, forked children
// for the tracked pids, and a real WatchTaskRunner running on its own thread.
// Everything that touches the monitor runs on the runner's thread (through
// RunnerThread::Call), as it does in the program.
#include "monitors/dsp_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/board_path.h"
#include "base/log.h"
#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using std::chrono::milliseconds;
using test_support::BoardRoot;
using test_support::CaptureStderr;
using test_support::CountOpenFds;

constexpr char kVersionMismatch[] =
    "wrong dsp node, please check whether monitor version match zqp version\n";

// The runtime makes the lock files; the monitor only opens them.
void CreateLockFile(std::uint32_t core) {
  const std::string path = BoardPath("/var/run/dsp_loading_flock_" + std::to_string(core));
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_GE(fd, 0);
  close(fd);
}

// One shared-memory loading node under a unique name, as the runtime makes it.
class TestNode {
 public:
  TestNode() {
    static std::atomic<int> counter{0};
    name_ = "/kzm_test_node_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
    const int fd = shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ftruncate(fd, kDspLoadingNodeSize), 0);
    void* addr = mmap(nullptr, kDspLoadingNodeSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    EXPECT_NE(addr, MAP_FAILED);
    close(fd);
    node_ = static_cast<DspLoadingNode*>(addr);
    node_->magic = kDspNodeMagic;
    node_->free_mask = 0xFFFFFFFFu;
    node_->running_mask = 0;
  }
  ~TestNode() {
    munmap(node_, kDspLoadingNodeSize);
    shm_unlink(name_.c_str());
  }
  const std::string& name() const { return name_; }
  DspLoadingNode* node() { return node_; }

  void Hold(std::uint32_t slot, pid_t pid) {
    node_->pids[slot] = static_cast<std::uint32_t>(pid);
    node_->free_mask &= ~(1u << slot);
  }
  std::atomic_ref<std::uint32_t> Running() { return std::atomic_ref(node_->running_mask); }

 private:
  std::string name_;
  DspLoadingNode* node_ = nullptr;
};

// The program's event loop on a thread of its own. Call runs a function on
// that thread (woken through a pipe task) and waits for its result.
class RunnerThread {
 public:
  RunnerThread() : runner_(std::make_shared<WatchTaskRunner>()) {
    EXPECT_EQ(pipe2(wake_, O_CLOEXEC | O_NONBLOCK), 0);
    runner_->AddTask(wake_[0], [this](int fd) { RunQueued(fd); });
    thread_ = std::thread([this] { runner_->Run(); });
  }
  ~RunnerThread() {
    Call([this] { runner_->Stop(); });
    thread_.join();
    runner_->RemoveTask(wake_[0]);
    close(wake_[0]);
    close(wake_[1]);
  }
  const std::shared_ptr<WatchTaskRunner>& runner() const { return runner_; }

  template <typename F>
  auto Call(F f) -> decltype(f()) {
    auto task = std::make_shared<std::packaged_task<decltype(f())()>>(std::move(f));
    auto result = task->get_future();
    {
      std::lock_guard<std::mutex> guard(mutex_);
      queue_.push_back([task] { (*task)(); });
    }
    EXPECT_EQ(write(wake_[1], "x", 1), 1);
    return result.get();
  }

  // Evaluates pred on the runner's thread until it holds or timeout passes.
  bool WaitUntil(const std::function<bool()>& pred, milliseconds timeout = milliseconds(20000)) {
    return test_support::WaitFor([&] { return Call(pred); }, timeout);
  }

 private:
  void RunQueued(int fd) {
    char buffer[64];
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
    std::deque<std::function<void()>> queue;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      queue.swap(queue_);
    }
    for (auto& task : queue) task();
  }

  std::shared_ptr<WatchTaskRunner> runner_;
  int wake_[2] = {-1, -1};
  std::mutex mutex_;
  std::deque<std::function<void()>> queue_;
  std::thread thread_;
};

// A child process that lives until released (or 60 s pass), so its pidfd and
// its exit are real. Given a node, it meanwhile sets running bit `slot` for
// `on_ms` of every 10 ms.
class WaitingChild {
 public:
  explicit WaitingChild(DspLoadingNode* node = nullptr, std::uint32_t slot = 0, int on_ms = 0) {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(fds[1]);
      // Released by a byte rather than end-of-file: later siblings inherit
      // this pipe's write end.
      pollfd entry{fds[0], POLLIN, 0};
      if (node == nullptr) _exit(poll(&entry, 1, 60000) < 0);
      std::atomic_ref<std::uint32_t> running(node->running_mask);
      auto next = std::chrono::steady_clock::now();
      for (int cycle = 0; cycle < 6000 && poll(&entry, 1, 0) == 0; ++cycle) {
        running.fetch_or(1u << slot);
        std::this_thread::sleep_until(next += milliseconds(on_ms));
        running.fetch_and(~(1u << slot));
        std::this_thread::sleep_until(next += milliseconds(10 - on_ms));
      }
      _exit(0);
    }
    close(fds[0]);
    release_fd_ = fds[1];
  }
  ~WaitingChild() { Release(); }
  pid_t pid() const { return pid_; }

  void Release() {
    if (release_fd_ >= 0) {
      EXPECT_EQ(write(release_fd_, "x", 1), 1);
      close(release_fd_);
      release_fd_ = -1;
    }
    if (pid_ > 0) {
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
  int release_fd_ = -1;
};

// The pid of a child that has already exited and been reaped.
pid_t DeadPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

void WriteFifo(const void* data, std::size_t size) {
  const int fd = open(BoardPath("/var/run/dsp_event").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(write(fd, data, size), static_cast<ssize_t>(size));
  close(fd);
}

void SendEvent(pid_t pid, std::uint32_t slot) {
  const DSPEventMsg msg = MakeDspEventMsg(static_cast<std::uint32_t>(pid), slot);
  WriteFifo(&msg, sizeof(msg));
}

class DspMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override { board_.MakeDir("/var/run"); }
  void TearDown() override {
    DestroyMonitor();
    runner_.reset();
  }

  // Nodes and lock files for `cores` cores.
  void MakeCores(std::uint32_t cores) {
    for (std::uint32_t core = 0; core < cores; ++core) {
      nodes_.push_back(std::make_unique<TestNode>());
      CreateLockFile(core);
    }
  }

  MonitorConfig Config(bool batch = true, std::uint32_t delay = 200) const {
    MonitorConfig config;
    config.name = "DSP";
    config.frequency = 500;
    config.delay = delay;
    config.batch = batch;
    for (const auto& node : nodes_) config.files.push_back(node->name());
    return config;
  }

  // Constructs (and starts, as the application does) on the runner's thread;
  // returns what the construction printed.
  std::string CreateMonitor(const MonitorConfig& config) {
    return CaptureStderr([&] {
      runner_->Call([&] {
        monitor_ = std::make_unique<DSPMonitor>(config, runner_->runner());
        monitor_->Start();
      });
    });
  }

  void DestroyMonitor() {
    if (!monitor_ || !runner_) return;
    runner_->Call([&] {
      monitor_->Stop();
      monitor_.reset();
    });
  }

  bool Sampling() { return !monitor_->IsStopped() && monitor_->HasWorkerThreads(); }
  bool Idle() {
    if (!monitor_->IsStopped() || monitor_->HasWorkerThreads()) return false;
    for (std::uint32_t core = 0; core < monitor_->CoreCount(); ++core) {
      if (monitor_->CoreEntry(core).node != nullptr) return false;
    }
    return monitor_->TrackedProcessCount() == 0;
  }

  BoardRoot board_;
  std::vector<std::unique_ptr<TestNode>> nodes_;
  std::unique_ptr<RunnerThread> runner_ = std::make_unique<RunnerThread>();
  std::unique_ptr<DSPMonitor> monitor_;
};

TEST_F(DspMonitorTest, WrongMagicPrintsVersionMismatchAndTracksNobody) {
  MakeCores(1);
  WaitingChild child;
  nodes_[0]->Hold(0, child.pid());
  nodes_[0]->node()->magic = 0x1122334455667788ULL;

  EXPECT_EQ(CreateMonitor(Config(/*batch=*/true)), kVersionMismatch);
  runner_->Call([&] {
    EXPECT_FALSE(monitor_->HasProcess());
    EXPECT_EQ(monitor_->TrackedProcessCount(), 0u);
    EXPECT_EQ(monitor_->CoreEntry(0).running, nullptr);
    // Rejected but still mapped until the next unmap.
    EXPECT_NE(monitor_->CoreEntry(0).node, nullptr);
    EXPECT_TRUE(monitor_->IsReady());
    EXPECT_TRUE(monitor_->IsStopped());
  });
  DestroyMonitor();
  EXPECT_EQ(CreateMonitor(Config(/*batch=*/false)), "");  // silent outside batch mode
}

TEST_F(DspMonitorTest, FreeSlotSkippedAndDeadHolderNotCounted) {
  MakeCores(1);
  WaitingChild child;
  DspLoadingNode* node = nodes_[0]->node();
  // Slot 2 is free although it names a live process; slot 4 is held by a
  // process that is gone.
  node->pids[2] = static_cast<std::uint32_t>(child.pid());
  nodes_[0]->Hold(4, DeadPid());

  SetLogLevel(0);
  EXPECT_EQ(CreateMonitor(Config()), "No dsp node found, not start dsp monitor\n");
  runner_->Call([&] {
    EXPECT_FALSE(monitor_->HasProcess());
    EXPECT_EQ(monitor_->TrackedProcessCount(), 0u);
    EXPECT_TRUE(monitor_->IsStopped());
    // Not watched yet, so the stale slot is left as it was.
    EXPECT_EQ(node->free_mask & (1u << 4), 0u);
  });
}

TEST_F(DspMonitorTest, FifoMessageWhileIdleRescansAndStartsSampling) {
  MakeCores(2);
  CreateMonitor(Config());
  runner_->Call([&] {
    EXPECT_FALSE(monitor_->HasProcess());
    EXPECT_TRUE(monitor_->IsStopped());
  });

  WaitingChild child;
  nodes_[1]->Hold(7, child.pid());
  SendEvent(child.pid(), 7);
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  runner_->Call([&] {
    EXPECT_TRUE(monitor_->HasProcess());
    EXPECT_EQ(monitor_->TrackedProcessCount(), 1u);
    // A core is watched only when the has-process flag was already set when
    // its scan ended: core 0 was scanned before the process on core 1 was
    // found, so it stays unwatched until the next rescan.
    EXPECT_EQ(monitor_->CoreEntry(0).running, nullptr);
    EXPECT_NE(monitor_->CoreEntry(1).running, nullptr);
  });

  child.Release();
  ASSERT_TRUE(runner_->WaitUntil([&] { return Idle(); }));
  EXPECT_NE(nodes_[1]->node()->free_mask & (1u << 7), 0u);
}

TEST_F(DspMonitorTest, ShortReadWhileIdleStillRescans) {
  MakeCores(1);
  CreateMonitor(Config());
  WaitingChild child;
  nodes_[0]->Hold(0, child.pid());
  const std::uint32_t half = 12345;
  WriteFifo(&half, sizeof(half));
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  runner_->Call([&] { EXPECT_EQ(monitor_->TrackedProcessCount(), 1u); });
}

TEST_F(DspMonitorTest, FirstOfTwoExitsReleasesItsSlotEverywhere) {
  MakeCores(2);
  WaitingChild first;
  WaitingChild second;
  // Core 0 runs work of both processes; core 1 only of the first.
  nodes_[0]->Hold(3, first.pid());
  nodes_[0]->Hold(5, second.pid());
  nodes_[0]->Running().store((1u << 3) | (1u << 5));
  nodes_[1]->Running().store(1u << 3);
  // A long interval: the worker publishes nothing during the test, so every
  // change of the loading below comes from the exit handling.
  CreateMonitor(Config(/*batch=*/true, /*delay=*/1000000));
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  runner_->Call([&] {
    EXPECT_EQ(monitor_->TrackedProcessCount(), 2u);
    monitor_->SetLoading(0, 55.0f);
    monitor_->SetLoading(1, 55.0f);
  });

  first.Release();
  ASSERT_TRUE(runner_->WaitUntil([&] { return monitor_->TrackedProcessCount() == 1; }));
  runner_->Call([&] {
    for (auto& node : nodes_) {
      EXPECT_EQ(node->Running().load() & (1u << 3), 0u);
      EXPECT_NE(node->node()->free_mask & (1u << 3), 0u);
    }
    EXPECT_EQ(nodes_[0]->Running().load(), 1u << 5);
    EXPECT_EQ(nodes_[0]->node()->free_mask & (1u << 5), 0u);
    EXPECT_EQ(monitor_->GetLoading(0), 55.0f);  // bit 5 still running
    EXPECT_EQ(monitor_->GetLoading(1), 0.0f);   // nothing left: forced to zero
    EXPECT_TRUE(Sampling());
  });

  second.Release();
  ASSERT_TRUE(runner_->WaitUntil([&] { return Idle(); }));
  runner_->Call([&] {
    EXPECT_EQ(monitor_->GetLoading(0), 0.0f);
    EXPECT_EQ(monitor_->GetLoading(1), 0.0f);
  });
  EXPECT_EQ(nodes_[0]->Running().load(), 0u);
  EXPECT_EQ(nodes_[0]->node()->free_mask, 0xFFFFFFFFu);
}

TEST_F(DspMonitorTest, LastExitJoinsAndUnmapsAndNextMessageMapsAgain) {
  MakeCores(2);
  WaitingChild child;
  nodes_[0]->Hold(0, child.pid());
  nodes_[0]->Running().store(1u);
  nodes_[1]->Running().store(1u);
  CreateMonitor(Config());
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  // Both cores count as busy while the bit is held.
  ASSERT_TRUE(runner_->WaitUntil(
      [&] { return monitor_->GetLoading(0) == 100.0f && monitor_->GetLoading(1) == 100.0f; }));

  // A message naming a process that has gone changes nothing while sampling.
  SendEvent(DeadPid(), 9);
  ASSERT_FALSE(
      runner_->WaitUntil([&] { return monitor_->TrackedProcessCount() != 1; }, milliseconds(200)));
  runner_->Call([&] { EXPECT_TRUE(Sampling()); });

  child.Release();
  ASSERT_TRUE(runner_->WaitUntil([&] { return Idle(); }));
  runner_->Call([&] {
    EXPECT_EQ(monitor_->GetLoading(0), 0.0f);
    EXPECT_EQ(monitor_->GetLoading(1), 0.0f);
    for (std::uint32_t core = 0; core < 2; ++core) {
      EXPECT_EQ(monitor_->CoreEntry(core).running, nullptr);
      EXPECT_EQ(monitor_->CoreEntry(core).shm_fd, -1);
    }
  });

  // The has-process flag stays set: the next message maps every node again
  // and restarts sampling even though nobody holds a slot.
  SendEvent(DeadPid(), 0);
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  runner_->Call([&] {
    for (std::uint32_t core = 0; core < 2; ++core) {
      EXPECT_NE(monitor_->CoreEntry(core).node, nullptr);
      EXPECT_NE(monitor_->CoreEntry(core).running, nullptr);
      EXPECT_GT(monitor_->CoreEntry(core).shm_fd, 0);
      EXPECT_GT(monitor_->CoreEntry(core).lock_fd, 0);
    }
    EXPECT_EQ(monitor_->TrackedProcessCount(), 0u);
  });
}

TEST_F(DspMonitorTest, NoConfiguredNodeNeverStarts) {
  EXPECT_EQ(CreateMonitor(Config()), "");  // the message is verbose only
  DestroyMonitor();
  SetLogLevel(0);
  EXPECT_EQ(CreateMonitor(Config()),
            "No loading node found for DSP\nNo dsp node found, not start dsp monitor\n");
  runner_->Call([&] {
    EXPECT_EQ(monitor_->LoadingCount(), 0u);
    EXPECT_TRUE(monitor_->IsReady());
    EXPECT_TRUE(monitor_->IsStopped());
  });
  WaitingChild child;
  SendEvent(child.pid(), 0);
  EXPECT_FALSE(runner_->WaitUntil([&] { return !monitor_->IsStopped(); }, milliseconds(300)));
}

TEST_F(DspMonitorTest, BatchVerboseMessagesForMissingLockFileAndObject) {
  SetLogLevel(0);
  nodes_.push_back(std::make_unique<TestNode>());  // core 0: no lock file
  MonitorConfig config = Config();
  config.files.push_back("/kzm_test_node_missing_" + std::to_string(getpid()));
  CreateLockFile(1);  // core 1: lock file but no object
  EXPECT_EQ(CreateMonitor(config),
            "dsp0 loading flock open failed, No such file or directory\n"
            "shm open failed\n"
            "No dsp node found, not start dsp monitor\n");
  SetLogLevel(1);
  DestroyMonitor();
  EXPECT_EQ(CreateMonitor(config), "");
}

TEST_F(DspMonitorTest, FifoCannotBeMade) {
  std::filesystem::remove_all(BoardPath("/var/run"));
  EXPECT_EQ(CreateMonitor(Config()),
            "mkfifo /var/run/dsp_event failed, 2 error:No such file or directory\n\n");
  runner_->Call([&] {
    EXPECT_EQ(monitor_->EventFifo().read_fd(), -1);
    EXPECT_EQ(monitor_->EventFifo().write_fd(), -1);
  });
}

// A node the runtime has created but not yet sized would raise SIGBUS on the
// first access to its mapping.
TEST_F(DspMonitorTest, NodeNotYetSizedIsRefusedLikeAFailedMapping) {
  MakeCores(1);
  const int fd = shm_open(nodes_[0]->name().c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 0), 0);
  close(fd);
  EXPECT_EQ(CreateMonitor(Config(/*batch=*/true)), "mmap node addr failed\n");
  runner_->Call([&] {
    EXPECT_EQ(monitor_->CoreEntry(0).node, nullptr);
    EXPECT_EQ(monitor_->CoreEntry(0).shm_fd, -1);
  });
}

// A stale regular file at the fifo's path would be readable for ever.
TEST_F(DspMonitorTest, SomethingElseAtTheFifoPathIsRefusedAndKept) {
  const std::string path = BoardPath("/var/run/dsp_event");
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(CreateMonitor(Config()), "open /var/run/dsp_event failed, error:not a fifo\n\n");
  runner_->Call([&] {
    EXPECT_EQ(monitor_->EventFifo().read_fd(), -1);
    EXPECT_EQ(monitor_->EventFifo().write_fd(), -1);
  });
  DestroyMonitor();
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(DspMonitorTest, LoadingFollowsADutyCycle) {
  MakeCores(1);
  WaitingChild child(nodes_[0]->node(), 6, /*on_ms=*/4);
  nodes_[0]->Hold(6, child.pid());
  CreateMonitor(Config(/*batch=*/true, /*delay=*/200));
  ASSERT_TRUE(runner_->WaitUntil([&] { return Sampling(); }));
  std::this_thread::sleep_for(milliseconds(500));
  float sum = 0.0f;
  constexpr int kIntervals = 10;
  for (int i = 0; i < kIntervals; ++i) {
    std::this_thread::sleep_for(milliseconds(200));
    sum += monitor_->GetLoading(0);  // atomic load, as the report does
  }
  const float average = sum / kIntervals;
  RecordProperty("average_loading", std::to_string(average));
  EXPECT_NEAR(average, 40.0f, 5.0f);
}

TEST_F(DspMonitorTest, DescriptorGrowthOver200ProcessLifetimes) {
  MakeCores(2);
  const int before = CountOpenFds();
  CreateMonitor(Config());
  for (int i = 0; i < 200; ++i) {
    WaitingChild child;
    nodes_[0]->Hold(0, child.pid());
    SendEvent(child.pid(), 0);
    ASSERT_TRUE(runner_->WaitUntil([&] {
      return Sampling() && monitor_->TrackedProcessCount() == 1;
    })) << "lifetime "
        << i;
    child.Release();
    ASSERT_TRUE(runner_->WaitUntil([&] { return Idle(); })) << "lifetime " << i;
  }
  const int alive = CountOpenFds();
  DestroyMonitor();
  const int after = CountOpenFds();
  RecordProperty("fd_growth_monitor_alive", alive - before);
  RecordProperty("fd_growth_after_destruction", after - before);
  // Only the deliberately kept descriptors grow: one pidfd per lifetime, the
  // fifo's write end, and the lock file and object of the first (idle) scan
  // that the first rescan maps over.
  EXPECT_LE(after - before, 200 + 8);
  EXPECT_LE(alive - before, 200 + 8);
}

}  // namespace
}  // namespace kestro::zqp
