// The capture file: what a reader makes of whole, cut and damaged files.
#include "capture/capture_format.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "capture/capture_info.h"
#include "support/temp_tree.h"

namespace kestro::zqp::capture {
namespace {

std::string StartPayload() {
  PayloadWriter start;
  for (const std::uint64_t value : {1'700'000'000'000'000'000ull, 1000ull, 500ull}) {
    start.Varint(value);
  }
  for (const char* text : {"", "6.1.0", "aarch64"}) start.Bytes(text);
  return start.Text();
}

// A heap text large enough to be deflated, a process's command line, an end.
std::string FilePayload() {
  PayloadWriter file;
  file.Varint(1'500'000);
  file.Bytes("/sys/kernel/debug/ion/heaps/all_heap_info");
  file.Varint(1);
  file.Varint(0100444);
  std::string heap;
  for (int row = 0; row < 200; ++row)
    heap += "             cam              cam      101   4096 cma\n";
  file.Bytes(heap);
  return file.Text();
}

TEST(CaptureFormatTest, WholeCutAndDamagedFiles) {
  // A file record naming "/proc/comm" names no process (and crashed --info).
  PayloadWriter odd;
  odd.Varint(0);
  odd.Bytes("/proc/comm");
  odd.Varint(1);
  odd.Varint(0);
  odd.Bytes("x");
  const std::vector<std::pair<RecordKind, std::string>> records = {
      {RecordKind::kStart, StartPayload()},
      {RecordKind::kFile, FilePayload()},
      {RecordKind::kFile, odd.Text()},
      {RecordKind::kEnd, std::string("\x80\x89\x7a", 3)}};
  std::string whole = EncodeHeader();
  std::vector<std::size_t> offsets;
  for (const auto& [kind, payload] : records) {
    offsets.push_back(whole.size());
    whole += EncodeRecord(kind, payload);
  }
  // The heap text went in deflated: the file is far smaller than its text.
  ASSERT_LT(whole.size(), 1000u);

  std::string newer = whole;
  newer[8] = 2;
  std::string corrupt = whole;
  corrupt[offsets[1] + 20] ^= 0x40;
  const std::string at1 = std::to_string(offsets[1]);
  const std::string at3 = std::to_string(offsets[3]);
  struct Case {
    const char* name;
    std::string bytes;
    int status;           // of --info
    std::size_t records;  // read before the end or the stop
    std::string message;  // on stderr, after "FILE"; "-": not checked
  };
  const Case cases[] = {
      {"whole", whole, 0, 4, ""},
      {"empty", "", 1, 0, ": empty, not a capture\n"},
      {"foreign", "PK\x03\x04 not ours at all", 1, 0, ": not a capture\n"},
      {"header cut", whole.substr(0, 12), 1, 0, ": cut short inside its header\n"},
      {"newer", newer, 1, 0, ": capture format version 2 is newer than this program reads (1)\n"},
      {"killed mid-write", whole.substr(0, whole.size() - 2), 0, 3,
       ": cut short at byte " + at3 + ", inside a record; the records before it are described\n"},
      {"record header cut", whole.substr(0, offsets[3] + 5), 0, 3, "-"},
      {"power loss", whole.substr(0, offsets[3]) + std::string(300, '\0'), 0, 3,
       ": cut short at byte " + at3 +
           ", zeros from there on; the records before it are described\n"},
      {"corrupt", corrupt, 1, 1, ": record at byte " + at1 + " is corrupt: checksum mismatch\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test_support::TempTree tree;
    const std::string path = tree.Path() + "/run.kzc";
    ASSERT_TRUE(tree.WriteFile("run.kzc", c.bytes));

    CaptureReader reader;
    std::string error;
    std::size_t read = 0;
    if (reader.Open(path, error)) {
      CaptureReader::Record record;
      while (reader.Next(record, error) == CaptureReader::Status::kRecord) {
        EXPECT_EQ(record.kind, records[read].first);
        EXPECT_EQ(record.payload, records[read].second);
        EXPECT_EQ(record.offset, offsets[read]);
        ++read;
      }
    }
    EXPECT_EQ(read, c.records);

    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    EXPECT_EQ(DescribeCapture(path, out, err), c.status);
    std::string said(256, '\0');
    std::rewind(err);
    said.resize(std::fread(said.data(), 1, said.size(), err));
    if (c.message != "-") {
      EXPECT_EQ(said, c.message.empty() ? "" : path + c.message);
    }
    std::fclose(out);
    std::fclose(err);
  }
}

}  // namespace
}  // namespace kestro::zqp::capture
