// libFuzzer targets for the parsers of what other programs write or send, and
// of the recorder's listen address. CMake builds
// this file once per target as fuzz_<name>, defining KZM_FUZZ_<NAME> and
// KZM_FUZZ_NAME. Trees, files and monitors are set up once; an input only
// rewrites what the parser reads and runs it.
#include <fcntl.h>
#include <getopt.h>
#include <sanitizer/common_interface_defs.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "app/option_parser.h"
#include "base/board_path.h"
#include "base/decimal.h"
#include "base/log.h"
#include "capture/capture_format.h"
#include "capture/capture_info.h"
#include "monitors/ddr_monitor.h"
#include "monitors/dsp_monitor.h"
#include "monitors/file_monitor.h"
#include "monitors/memory_usage.h"
#include "monitors/text_fields.h"
#include "monitors/value_readers.h"
#include "serve/metrics_server.h"

namespace kestro::zqp {
namespace {

// The board root, on tmpfs where there is one. Never destroyed: the removal at
// exit runs after the static destructors.
const std::string& Root() {
  static const std::string* const root = [] {
    auto* dir = new std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    if (mkdtemp((*dir += "/kzm_fuzz_XXXXXX").data()) == nullptr) std::abort();
    base::SetBoardRootForTesting(*dir);
    std::atexit([] { std::filesystem::remove_all(Root()); });
    return dir;
  }();
  return *root;
}

bool WriteBoardFile(const std::string& path, std::string_view text) {
  const std::filesystem::path file = Root() + path;
  std::filesystem::create_directories(file.parent_path());
  if (!std::ofstream(file, std::ios::binary).write(text.data(), std::ssize(text))) std::abort();
  return true;
}

// The heap file names pid 100, which has a status file; fuzz_heap_text and
// fuzz_proc_status replace one of them per input.
constexpr char kHeapFile[] = "/sys/kernel/debug/ion/heaps/all_heap_info";
const bool kBoardMade = WriteBoardFile(kHeapFile,
                                       "the heap id is 6\nheap total size 1048576\nallocations\n"
                                       "client tgid size type\ncam 100 4096 cma\n") &&
                        WriteBoardFile("/proc/100/status", "VmRSS:\t 1000 kB\n");

// One report frame's collection, and what the report relies on afterwards.
[[maybe_unused]] void Collect() {
  monitors::MemoryUsage usage;
  monitors::CollectMemoryUsage(usage);
  for (std::size_t i = 0; i < monitors::kHeapCount; ++i)
    if (usage.heap_used[i] > usage.heap_total[i]) std::abort();
  for (const auto& entry : usage.processes)
    if (std::memchr(entry.second.name, '\0', sizeof entry.second.name) == nullptr) std::abort();
}

#ifdef KZM_FUZZ_OPTIONS
// The parser's short options (src/app/option_parser.cc), for a first getopt
// pass that skips inputs reaching -h, -V or a getopt error, on which
// ParseOptions ends the process. Long options are errors to this pass, so
// inputs with them are skipped too: they reach the same cases of the parser.
constexpr char kShortOptions[] = "hvbVd:f:n:t:e:";
#endif

// The sampler is left out: Start only marks the monitor running (it has never
// run while no process was found), so an input starts and joins no thread.
class [[maybe_unused]] Dsp : public monitors::DSPMonitor {
 public:
  using monitors::DSPMonitor::DSPMonitor;
  using monitors::DSPMonitor::OnDspEvent;
  using monitors::DSPMonitor::OnProcessExit;
  void Start() override { stop.store(!HasProcess()); }
};

}  // namespace
}  // namespace kestro::zqp

using namespace kestro::zqp;

#ifdef KZM_FUZZ_WRITERS
// Any bytes as a process name and a loading label: each format's escaping,
// read back by a strict reader of that format, gives the bytes again (the
// exposition's label values: the bytes with what UTF-8 forbids there replaced).
#include <algorithm>
#include <charconv>
#include <optional>

#include "record/metric_catalogue.h"
#include "record/writers.h"

namespace {

using namespace kestro::zqp::record;

void Check(bool ok) {
  if (!ok) std::abort();
}

bool IsValidUtf8(std::string_view bytes) {
  for (std::size_t at = 0, length; at < bytes.size(); at += length) {
    if ((length = Utf8SequenceLength(bytes, at)) == 0) return false;
  }
  return true;
}

// A JSON string starting at text[at] as RFC 8259 has it (no raw control byte,
// only its escapes), its \udcXX escapes read as the byte XX; at ends past it.
std::optional<std::string> ReadJsonString(std::string_view text, std::size_t& at) {
  if (at >= text.size() || text[at++] != '"') return std::nullopt;
  std::string out;
  while (at < text.size() && text[at] != '"') {
    const std::size_t length = Utf8SequenceLength(text, at);
    if (length == 0 || static_cast<unsigned char>(text[at]) < 0x20) return std::nullopt;
    if (text[at] != '\\') {
      out.append(text.substr(at, length));
      at += length;
    } else if (at + 1 < text.size() && (text[at + 1] == '"' || text[at + 1] == '\\')) {
      out += text[at + 1];
      at += 2;
    } else {
      unsigned unit = 0;
      const char* const digits = text.data() + at + 2;
      if (at + 6 > text.size() || text[at + 1] != 'u' ||
          std::from_chars(digits, digits + 4, unit, 16).ptr != digits + 4 ||
          !(unit < 0x80 || (unit >= 0xdc80 && unit <= 0xdcff)))
        return std::nullopt;
      out += static_cast<char>(unit & 0xff);
      at += 6;
    }
  }
  if (at++ >= text.size()) return std::nullopt;
  return out;
}

// An exposition label value (without its quotes): only \\, \" and \n escaped,
// no raw quote or line end.
std::optional<std::string> ReadLabelValue(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"' || text[at] == '\n') return std::nullopt;
    if (text[at] != '\\') {
      out += text[at];
      continue;
    }
    if (++at == text.size()) return std::nullopt;
    if (text[at] != '\\' && text[at] != '"' && text[at] != 'n') return std::nullopt;
    out += text[at] == 'n' ? '\n' : text[at];
  }
  return out;
}

// One RFC 4180 field, quotes undone; nullopt when it breaks the grammar.
std::optional<std::string> ReadCsvField(std::string_view field) {
  if (!field.starts_with('"'))
    return field.find_first_of("\",\r\n") == field.npos ? std::optional(std::string(field))
                                                        : std::nullopt;
  if (field.size() < 2 || !field.ends_with('"')) return std::nullopt;
  std::string out;
  for (std::size_t at = 1; at + 1 < field.size(); ++at) {
    if (field[at] == '"' && (at + 2 >= field.size() || field[++at] != '"')) return std::nullopt;
    out += field[at];
  }
  return out;
}

void FuzzWriters(const std::string& name) {
  Record record;
  record.loading = {{name, 0, 50.0f}};
  record.processes = {{1, name, 2, 3}};

  const std::string json = JsonLine(record);
  constexpr std::string_view kKey = "\"processes\":[{\"pid\":1,\"name\":";
  const std::size_t key = json.find(kKey);
  Check(key != std::string::npos);
  std::size_t at = key + kKey.size();
  Check(ReadJsonString(json, at) == name &&
        json.substr(at) == ",\"rss_bytes\":2,\"ion_bytes\":3}]}\n");

  const std::optional<std::string> label = ReadLabelValue(PrometheusLabelValue(name));
  Check(label && IsValidUtf8(*label));
  bool clean = IsValidUtf8(name);
  for (const char c : name)
    clean = clean && (static_cast<unsigned char>(c) >= 0x20 || c == '\n') && c != 0x7f;
  Check(!clean || label == name);
  // A name never adds or breaks a line of the exposition.
  record.processes[0].name = "x";
  const auto lines = [](const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
  };
  const std::ptrdiff_t plain = lines(PrometheusText(record, 1));
  record.processes[0].name = name;
  Check(lines(PrometheusText(record, 1)) == plain);

  const std::string header = CsvHeader(LayoutOf(record));
  constexpr std::string_view kHead = "time,elapsed_s,";
  constexpr std::string_view kTail = ",ddr_read_bytes_per_second,ddr_write_bytes_per_second\r\n";
  Check(header.starts_with(kHead) && header.ends_with(kTail));
  const std::string_view field =
      std::string_view(header).substr(kHead.size(), header.size() - kHead.size() - kTail.size());
  Check(ReadCsvField(field) == name + "0");
}

}  // namespace
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
#if defined(KZM_FUZZ_HEAP_TEXT) || defined(KZM_FUZZ_PROC_STATUS)
  WriteBoardFile(std::string_view(KZM_FUZZ_NAME) == "heap_text" ? kHeapFile : "/proc/100/status",
                 text);
  Collect();
#elif defined(KZM_FUZZ_DDR_LINE)
  // In batch mode with -v a bad row is printed too. Each '\n'-ended line, of
  // any length, is parsed, then the whole input as one line.
  static monitors::DDRMonitor* const monitor =
      (base::SetLogLevel(0), new monitors::DDRMonitor({.name = "DDR", .batch = true}));
  for (std::size_t start = 0, end; start < size; start = end + 1) {
    end = std::min(text.find('\n', start), size - 1);
    monitor->ParseLine(text.substr(start, end - start + 1).c_str());
  }
  monitor->ParseLine(text.c_str());
#elif defined(KZM_FUZZ_SECOND_TOKEN) || defined(KZM_FUZZ_PLAIN_NUMBER)
  // The input is the driver's file as the monitor reads it, through its
  // 64-byte buffer, then the whole text as any caller may pass it.
  constexpr auto reader = std::string_view(KZM_FUZZ_NAME) == "second_token"
                              ? monitors::ReadSecondToken
                              : monitors::ReadPlainNumber;
  static const int fd = memfd_create("kzm_fuzz_loading", MFD_CLOEXEC);
  static monitors::FileMonitor monitor(
      {.name = "GDC", .delay = 1000, .task_per_file = true, .batch = true}, nullptr, reader);
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
    std::abort();
  char buffer[64] = {};
  monitor.ReadLoading(fd, buffer, sizeof buffer);
  if (buffer[sizeof buffer - 1] != '\0') std::abort();  // the readers need the text ended
  float value = 0.0f;
  reader(value, text.c_str());
#elif defined(KZM_FUZZ_TEXT_FIELDS)
  // The first byte is the delimiter; each field is also read as a number.
  // ASan sees a view that strays out of the input when it is read.
  // Both must agree with the plain byte-at-a-time split and std::from_chars.
  if (size == 0) return 0;
  const std::string_view rest = std::string_view(text).substr(1);
  std::vector<std::string_view> plain;
  const auto add = [&plain](std::string_view piece) {
    std::string_view trimmed = piece;
    while (!trimmed.empty() && std::isspace(static_cast<unsigned char>(trimmed.front())))
      trimmed.remove_prefix(1);
    while (!trimmed.empty() && std::isspace(static_cast<unsigned char>(trimmed.back())))
      trimmed.remove_suffix(1);
    plain.push_back(trimmed.empty() ? piece : trimmed);
  };
  std::size_t start = 0;
  for (std::size_t at = 0; at < rest.size(); ++at) {
    if (rest[at] != text[0]) continue;
    if (at != start) add(rest.substr(start, at - start));
    start = at + 1;
  }
  add(rest.substr(start));
  if (monitors::SplitFields(rest, text[0]) != plain) std::abort();
  // A limited split is the whole split's first fields.
  std::array<std::string_view, 7> first;
  const std::size_t count = monitors::SplitFields(rest, text[0], std::span(first.data(), size % 7));
  if (!std::equal(first.begin(), first.begin() + count, plain.begin(),
                  plain.begin() + std::min(size % 7, plain.size())))
    std::abort();
  for (const std::string_view field : plain) {
    std::uint64_t want = 0;
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), want);
    const bool ok = error == std::errc() && end == field.data() + field.size();
    if (base::ParseDigits(field) != (ok ? std::optional(want) : std::nullopt)) std::abort();
  }
#elif defined(KZM_FUZZ_ACCEPT)
  // A scraper's Accept header. Whatever follows, a first range of the text
  // format wins every tie, and a first range of OpenMetrics at q=1 cannot be
  // outranked; without OpenMetrics named, the text format is served.
  const bool open_metrics = serve::PrefersOpenMetrics(text);
  if (serve::PrefersOpenMetrics("text/plain," + text) ||
      !serve::PrefersOpenMetrics("application/openmetrics-text," + text))
    std::abort();
  std::string lower = text;
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  if (open_metrics && lower.find("application/openmetrics-text") == std::string::npos) std::abort();
#elif defined(KZM_FUZZ_LISTEN_ADDRESS)
  // An argument of --listen, a C string. An address accepted, written back
  // as the server shows it, parses to itself; one refused says why.
  const char* const argument = text.c_str();
  serve::ListenAddress address, again;
  std::string error;
  if (!serve::ParseListenAddress(argument, address, error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  const std::string shown =
      (address.host.find(':') == std::string::npos ? address.host : "[" + address.host + "]") +
      ":" + std::to_string(address.port);
  if (!serve::ParseListenAddress(shown, again, error) || again.host != address.host ||
      again.port != address.port)
    std::abort();
#elif defined(KZM_FUZZ_OPTIONS)
  // Each line of the input is one word of argv.
  std::string words = text;
  std::vector<char*> argv = {const_cast<char*>("kvt_zqp_monitor")};
  for (std::size_t start = 0, end; start < words.size(); start = end + 1) {
    end = std::min(words.find('\n', start), words.size());
    argv.push_back(words.data() + start);
    if (end < words.size()) words[end] = '\0';
  }
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  std::vector<char*> probe = argv;
  opterr = optind = 0;
  for (int code; (code = getopt_long(argc, probe.data(), kShortOptions, nullptr, nullptr)) != -1;)
    if (code == 'h' || code == 'V' || code == '?') return 0;
  opterr = 1, optind = 0;
  const base::MonitorOption option = app::ParseOptions(argc, argv.data());
  base::SetLogLevel(1);
  if (option.valid &&
      (option.delay_ms < 100 || option.delay_ms > 10000 || option.frequency < 10 ||
       option.frequency > 1000 || option.iterations == 0 ||
       (!option.enable_list.empty() && !app::ValidateEnableList(option.enable_list))))
    std::abort();
#elif defined(KZM_FUZZ_DSP)
  // Input: the lengths of nodes 0 and 1, their bytes (node 2 is never made),
  // then up to 16 records of a control byte and a fifo message: control % 9
  // bytes of it are written (a runtime's write may come short) and read as one
  // event; with bit 7 set the message's process then exits.
  static std::vector<std::string> names;
  static int fds[2];
  static std::vector<std::pair<unsigned, unsigned> > spare;  // descriptors free at the start
  if (names.empty()) {
    for (int core = 0; core < 3; ++core) {
      names.push_back("/kzm_fuzz_" + std::to_string(getpid()) + "_" + std::to_string(core));
      WriteBoardFile("/var/run/dsp_loading_flock_" + std::to_string(core), "");
      if (core < 2) fds[core] = shm_open(names[core].c_str(), O_CREAT | O_RDWR, 0600);
    }
    std::atexit([] { shm_unlink(names[0].c_str()), shm_unlink(names[1].c_str()); });
    // The sanitizer's symbolizer, started on first use, keeps pipes open:
    // started now, they are not among the spare descriptors.
    char symbol[256];
    __sanitizer_symbolize_pc(__builtin_return_address(0), "%F %L", symbol, sizeof symbol);
    for (unsigned fd = 3, from = 3; fd <= 1024; ++fd)
      if (fd == 1024 || fcntl(static_cast<int>(fd), F_GETFD) != -1)
        spare.emplace_back(from, fd - 1), from = fd + 1;
  }
  if (size < 2) return 0;
  std::size_t pos = 2;
  for (int core = 0; core < 2; ++core) {
    const auto length = static_cast<ssize_t>(std::min<std::size_t>(data[core], size - pos));
    if (ftruncate(fds[core], 0) != 0 || pwrite(fds[core], data + pos, length, 0) != length)
      std::abort();
    pos += length;
  }
  {
    Dsp monitor({.name = "DSP", .frequency = 500, .delay = 1000, .batch = true, .files = names},
                nullptr);
    monitor.Start();
    for (int events = 0; pos + 9 <= size && events < 16; pos += 9, ++events) {
      monitors::DSPEventMsg msg = 0;
      std::memcpy(&msg, data + pos + 1, sizeof msg);
      static_cast<void>(write(monitor.EventFifo().write_fd(), data + pos + 1, data[pos] % 9));
      // A rescan while idle maps each node again over its last mapping, which
      // then stays for good; released here, or millions of inputs would run
      // out of mappings.
      monitors::DspLoadingNode* before[3] = {};
      for (std::uint32_t core = 0; core < 3 && monitor.IsStopped(); ++core)
        before[core] = monitor.CoreEntry(core).node;
      monitor.OnDspEvent(monitor.EventFifo().read_fd());
      for (std::uint32_t core = 0; core < 3; ++core) {
        if (before[core] != nullptr && before[core] != monitor.CoreEntry(core).node)
          munmap(before[core], monitors::kDspLoadingNodeSize);
        monitor.IsCoreBusy(core);
      }
      if (data[pos] & 0x80) monitor.OnProcessExit(msg);
    }
    monitor.Stop();
  }
  // What the monitor keeps open on purpose: stale lock and object descriptors,
  // untracked process descriptors, the fifo's write end.
  for (const auto& [first, last] : spare) close_range(first, last, 0);
#elif defined(KZM_FUZZ_WRITERS)
  FuzzWriters(text);
#elif defined(KZM_FUZZ_CAPTURE)
  // A capture file of any bytes: --info ends with 0 or 1, and the records a
  // reader takes from it come back the same when written again and read.
  static const int fd = memfd_create("capture", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  static std::FILE* const sink = std::fopen("/dev/null", "w");
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  const int status = capture::DescribeCapture(path, sink, sink);
  if (status != 0 && status != 1) std::abort();
  std::vector<capture::CaptureReader::Record> records;
  {
    capture::CaptureReader reader;
    std::string error;
    capture::CaptureReader::Record record;
    if (reader.Open(path, error)) {
      while (reader.Next(record, error) == capture::CaptureReader::Status::kRecord) {
        records.push_back(record);
      }
    }
  }
  if (records.empty()) return 0;
  std::string again = capture::EncodeHeader();
  for (const auto& record : records) again += capture::EncodeRecord(record.kind, record.payload);
  if (ftruncate(fd, 0) != 0 ||
      pwrite(fd, again.data(), again.size(), 0) != static_cast<ssize_t>(again.size())) {
    std::abort();
  }
  capture::CaptureReader reader;
  std::string error;
  capture::CaptureReader::Record record;
  if (!reader.Open(path, error)) std::abort();
  for (const auto& want : records) {
    if (reader.Next(record, error) != capture::CaptureReader::Status::kRecord ||
        record.kind != want.kind || record.payload != want.payload) {
      std::abort();
    }
  }
  if (reader.Next(record, error) != capture::CaptureReader::Status::kEnd) std::abort();
#endif
  return 0;
}
