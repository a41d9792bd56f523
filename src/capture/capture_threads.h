// What the capture's threads share: the records they make for the main
// thread to write, and the flag that stops them at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "capture/capture_format.h"

namespace kestro::zqp::capture {

using Clock = std::chrono::steady_clock;

// Microseconds from start to now: the times a capture's records carry.
inline std::uint64_t MicrosSince(Clock::time_point start) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
}

// Records made on the sampling threads, written by the main thread.
class Pending {
 public:
  void Push(RecordKind kind, std::string_view payload) {
    std::string record = EncodeRecord(kind, payload);
    const std::lock_guard lock(mutex);
    records.push_back(std::move(record));
  }
  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex);
    return std::exchange(records, {});
  }

 private:
  std::mutex mutex;
  std::vector<std::string> records;
};

// Stops the threads at once, whatever they wait for.
class StopFlag {
 public:
  void Set() {
    {
      const std::lock_guard lock(mutex);
      stopped = true;
    }
    wake.notify_all();
  }
  // Waits until the deadline; true when stopped meanwhile.
  bool WaitUntil(Clock::time_point deadline) {
    std::unique_lock lock(mutex);
    return wake.wait_until(lock, deadline, [this] { return stopped; });
  }
  bool Stopped() {
    const std::lock_guard lock(mutex);
    return stopped;
  }

 private:
  std::mutex mutex;
  std::condition_variable wake;
  bool stopped = false;
};

}  // namespace kestro::zqp::capture
