// Wire formats shared with the DSP runtime: the per-core loading node in
// POSIX shared memory and the 8-byte message of the event fifo.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace kestro::zqp::monitors {

// Any other value in DspLoadingNode::magic means the runtime's node layout does
// not match this monitor.
inline constexpr std::uint64_t kDspNodeMagic = 0xAFAF3B8A40992FD3ULL;
// Number of slots (processes) one node can hold; slot k is bit k of the masks.
inline constexpr std::uint32_t kDspSlotCount = 32;

// One DSP core's record, 152 bytes, little-endian, mapped read-write and
// shared with the runtime.
//  - free_mask: bit k set means slot k is free; clear means pids[k] holds it.
//    Changed only while holding the core's lockf lock file.
//  - running_mask: bit k set while the process of slot k has work running on
//    the core. Accessed only through std::atomic_ref (seq_cst).
struct DspLoadingNode {
  std::uint64_t magic;
  std::uint64_t reserved;  // the runtime's; never read or written here
  std::uint32_t free_mask;
  std::uint32_t running_mask;
  std::uint32_t pids[kDspSlotCount];
};

inline constexpr std::size_t kDspLoadingNodeSize = 152;

static_assert(std::endian::native == std::endian::little,
              "the node and the fifo message are read in place as little-endian");
static_assert(offsetof(DspLoadingNode, magic) == 0);
static_assert(offsetof(DspLoadingNode, reserved) == 8);
static_assert(offsetof(DspLoadingNode, free_mask) == 16);
static_assert(offsetof(DspLoadingNode, running_mask) == 20);
static_assert(offsetof(DspLoadingNode, pids) == 24);
static_assert(sizeof(DspLoadingNode) == kDspLoadingNodeSize);
static_assert(std::atomic_ref<std::uint32_t>::required_alignment <= alignof(std::uint32_t));
static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free,
              "running_mask is shared with other processes");

// The fifo message as one 64-bit value: pid in the low word (bytes 0-3), slot
// in the high word (bytes 4-7).
using DSPEventMsg = std::uint64_t;

// What a failed or short fifo read yields: pid all ones (-1 as signed, so it
// never names a process), slot 0.
inline constexpr DSPEventMsg kDspEventReadFailed = 0x00000000FFFFFFFFULL;

constexpr std::uint32_t DspEventPid(DSPEventMsg msg) {
  return static_cast<std::uint32_t>(msg);
}
constexpr std::uint32_t DspEventSlot(DSPEventMsg msg) {
  return static_cast<std::uint32_t>(msg >> 32);
}
constexpr DSPEventMsg MakeDspEventMsg(std::uint32_t pid, std::uint32_t slot) {
  return (static_cast<DSPEventMsg>(slot) << 32) | pid;
}

}  // namespace kestro::zqp::monitors
