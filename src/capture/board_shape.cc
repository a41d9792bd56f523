#include "capture/board_shape.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "base/board_path.h"
#include "capture/capture_format.h"

namespace kestro::zqp::capture {
namespace {

// The folders discovery lists, and the entry prefixes it counts there.
struct Listing {
  const char* dir;
  std::vector<const char*> prefixes;
};
const Listing kListings[] = {{"/dev/", {"vdsp", "jpu", "vpu"}},
                             {"/sys/devices/virtual/vps/flow/", {"gdc", "stitch", "pym", "isp"}}};
constexpr std::size_t kMaxFileSize = 16u << 20;

std::string ListPayload(const Listing& listing) {
  PayloadWriter payload;
  payload.Varint(0);
  payload.Bytes(listing.dir);
  std::vector<std::string> names;
  DIR* dir = opendir(base::BoardPath(listing.dir).c_str());
  payload.Varint(dir != nullptr ? 1 : 0);
  if (dir != nullptr) {
    while (const dirent* entry = readdir(dir)) {
      const std::string_view name = entry->d_name;
      for (const char* prefix : listing.prefixes) {
        if (name.starts_with(prefix)) names.emplace_back(name);
      }
    }
    closedir(dir);
  }
  // readdir's order, which discovery keeps, does not matter: it counts.
  payload.Varint(names.size());
  for (const std::string& name : names) payload.Bytes(name);
  return payload.Text();
}

}  // namespace

std::optional<std::string> ReadWhole(const std::string& path, std::uint32_t* mode) {
  // Looked at before it is opened: opening the DSP runtime's event FIFO for
  // reading, even for a moment, would let a client's write succeed and then
  // meet a closed pipe. Only a regular file is opened, and through the handle
  // that was looked at, so nothing can be swapped in between.
  const int handle = open(base::BoardPath(path).c_str(), O_PATH | O_CLOEXEC);
  if (handle < 0) return std::nullopt;
  struct stat info {};
  const bool regular = fstat(handle, &info) == 0 && S_ISREG(info.st_mode);
  if (mode != nullptr) *mode = info.st_mode;
  char self[32];
  std::snprintf(self, sizeof self, "/proc/self/fd/%d", handle);
  const int fd = regular ? open(self, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
  close(handle);
  std::string text;
  if (fd < 0) return text;
  char buffer[65536];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || text.size() + static_cast<std::size_t>(got) > kMaxFileSize) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  close(fd);
  return text;
}

std::string FilePayload(std::uint64_t time_us, std::string_view path,
                        const std::optional<std::string>& content, std::uint32_t mode) {
  PayloadWriter payload;
  payload.Varint(time_us);
  payload.Bytes(path);
  payload.Varint(content ? 1 : 0);
  payload.Varint(content ? mode : 0);
  payload.Bytes(content ? *content : std::string_view());
  return payload.Text();
}

std::vector<std::string> ListPayloads() {
  std::vector<std::string> payloads;
  for (const Listing& listing : kListings) payloads.push_back(ListPayload(listing));
  return payloads;
}

std::string StartPayload(const base::MonitorOption& option) {
  PayloadWriter payload;
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  payload.Varint(static_cast<std::uint64_t>(wall.tv_sec) * 1'000'000'000u +
                 static_cast<std::uint64_t>(wall.tv_nsec));
  payload.Varint(option.delay_ms);
  payload.Varint(option.frequency);
  std::string engines;
  for (const std::string& item : option.enable_list) {
    engines += (engines.empty() ? "" : ",") + item;
  }
  payload.Bytes(engines);
  utsname name{};
  uname(&name);
  payload.Bytes(name.release);
  payload.Bytes(name.machine);
  return payload.Text();
}

std::string EnginePayload(const std::string& name, std::uint32_t cores,
                          const std::vector<std::string>& files) {
  PayloadWriter payload;
  payload.Bytes(name);
  payload.Varint(cores);
  payload.Varint(files.size());
  for (const std::string& file : files) payload.Bytes(file);
  return payload.Text();
}

// The monitor reads a process's resident size from status; its name goes to
// a replay's stand-in. The other lines say more than a capture needs.
std::optional<std::string> StatusFields(std::int32_t pid) {
  std::optional<std::string> status = ReadWhole("/proc/" + std::to_string(pid) + "/status");
  if (!status) return std::nullopt;
  std::string kept;
  std::size_t at = 0;
  while (at < status->size()) {
    std::size_t end = status->find('\n', at);
    end = end == std::string::npos ? status->size() : end + 1;
    const std::string_view line(status->data() + at, end - at);
    if (line.starts_with("Name:") || line.starts_with("VmRSS:")) kept.append(line);
    at = end;
  }
  return kept;
}

}  // namespace kestro::zqp::capture
