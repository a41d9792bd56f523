// The processes that use a DSP, each with the process descriptor that tells
// when it exits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kestro::zqp::monitors {

// pid -> process descriptor (pidfd). Every operation holds the table's mutex
// for its whole run and takes no other lock.
class DspProcessTable {
 public:
  DspProcessTable() = default;
  DspProcessTable(const DspProcessTable&) = delete;
  DspProcessTable& operator=(const DspProcessTable&) = delete;
  // Same as Clear.
  ~DspProcessTable();

  // Opens a process descriptor for pid and stores it, replacing the one a
  // known pid had. The replaced descriptor is deliberately neither closed nor
  // unwatched: the caller keeps it open and watched. False (table unchanged)
  // when pid is negative or the process is gone.
  bool AddOrRefresh(std::int32_t pid);
  // The stored descriptor, or -1 when pid is absent.
  int Lookup(std::int32_t pid);
  // Forgets pid without closing its descriptor; nothing when absent.
  void Erase(std::int32_t pid);
  bool Empty();
  std::size_t Size();
  // Every stored descriptor, in no particular order.
  std::vector<int> Descriptors();
  // Closes every stored descriptor greater than 0, then forgets them all.
  void Clear();

 private:
  std::mutex mutex_;
  std::unordered_map<std::int32_t, int> pidfds_;
};

}  // namespace kestro::zqp::monitors
