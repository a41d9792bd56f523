// Small helpers shared by the monitor tests: a temporary board tree, stderr
// capture and the names of this process's threads.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "app/log.h"
#include "monitor/board_path.h"

namespace kestro::zqp::testing {

// A fresh directory that is the board root while the object lives.
class BoardTree {
 public:
  BoardTree() {
    char pattern[] = "/tmp/kzm_monitors_XXXXXX";
    root_ = mkdtemp(pattern);
    SetBoardRootForTesting(root_);
  }
  ~BoardTree() {
    SetBoardRootForTesting("");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  BoardTree(const BoardTree&) = delete;
  BoardTree& operator=(const BoardTree&) = delete;

  // Real path of a logical board path.
  std::string Real(const std::string& logical) const { return root_ + logical; }
  void Write(const std::string& logical, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(Real(logical)).parent_path());
    std::ofstream(Real(logical), std::ios::binary | std::ios::trunc) << text;
  }
  std::string Read(const std::string& logical) const {
    std::ifstream in(Real(logical), std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

 private:
  std::string root_;
};

// Runs body with stderr redirected to a file and returns what was written.
inline std::string CaptureStderr(const std::function<void()>& body) {
  char path[] = "/tmp/kzm_stderr_XXXXXX";
  const int file = mkstemp(path);
  std::fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  dup2(file, STDERR_FILENO);
  body();
  std::fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(file);
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  unlink(path);
  return out.str();
}

// Log level 0 (as with -v) for the object's lifetime.
struct VerboseScope {
  VerboseScope() { SetLogLevel(0); }
  ~VerboseScope() { SetLogLevel(1); }
};

inline int CountThreadsNamed(const std::string& name) {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  closedir(dir);
  return count;
}

// Polls predicate every 10 ms until it holds or timeout passes.
inline bool WaitFor(const std::function<bool()>& predicate,
                    std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (predicate()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return predicate();
}

}  // namespace kestro::zqp::testing
