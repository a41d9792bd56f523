// The records of a capture that describe the board and its files: what
// discovery lists, the files read at start, the engines, and a file's or a
// process's content at a moment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/monitor_option.h"

namespace kestro::zqp::capture {

inline constexpr char kHeapPath[] = "/sys/kernel/debug/ion/heaps/all_heap_info";
// Files read once at start: what discovery and the DDR monitor look at.
inline constexpr const char* kStartFiles[] = {
    "/sys/class/boardinfo/soc_name", "/sys/devices/system/ypu/core_num",
    "/sys/devices/system/ypu/ratio", "/var/run/dsp_event"};
// A file the monitor reads through a 64-byte buffer gives at most 63 bytes.
inline constexpr std::size_t kLoadingReadSize = 63;

// The content of a board file (at most 16 MiB; a FIFO or device is neither
// opened nor read: empty content, its mode given); nullopt when it is not
// there. Never blocks.
std::optional<std::string> ReadWhole(const std::string& path, std::uint32_t* mode = nullptr);

// A file record's payload: time, path, present, mode, content.
std::string FilePayload(std::uint64_t time_us, std::string_view path,
                        const std::optional<std::string>& content, std::uint32_t mode);
// The start record's payload: wall clock, -d, -f, -e, kernel release and machine.
std::string StartPayload(const base::MonitorOption& option);
// The listing records' payloads: the names of /dev and of the vps flow folder
// that discovery counts.
std::vector<std::string> ListPayloads();
// An engine record's payload: name, cores (or nodes, or files), the files.
std::string EnginePayload(const std::string& name, std::uint32_t cores,
                          const std::vector<std::string>& files);
// What the monitor reads of a process's status: the Name and VmRSS lines
// only; nullopt when it is gone.
std::optional<std::string> StatusFields(std::int32_t pid);

}  // namespace kestro::zqp::capture
