// Helpers shared by every unit test: a temporary board root, stderr capture,
// polling, and counts of this process's descriptors and named threads.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

#include "support/temp_tree.h"

namespace kestro::zqp::test_support {

// A TempTree that is the board root while it lives; the log level is back at
// its default (1) afterwards.
class BoardRoot : public TempTree {
 public:
  BoardRoot();
  ~BoardRoot();
};

// Log level `level` (0 is -v) for the object's lifetime, then the default.
struct ScopedLogLevel {
  explicit ScopedLogLevel(int level);
  ~ScopedLogLevel();
};

// What body wrote to descriptor 2, from any thread.
std::string CaptureStderr(const std::function<void()>& body);

// Polls predicate every 5 ms until it holds or timeout passes.
bool WaitFor(const std::function<bool()>& predicate,
             std::chrono::milliseconds timeout = std::chrono::seconds(20));

int CountOpenFds();

// Threads of this process whose /proc/self/task/*/comm is name.
int CountThreadsNamed(const std::string& name);

}  // namespace kestro::zqp::test_support
