// The capture file: what kvt_zqp_capture wrote of a board's inputs, read back
// by --info and by the simulated board's replay.
//
// Layout (little-endian):
//   header   8 bytes magic "\x89KZC\r\n\x1a\n", u32 format version, u32 zero
//   records  u32 size of the stored payload, u8 kind, u8 flags, u16 zero,
//            u32 CRC-32 of the eight bytes before it and the stored payload,
//            then the payload
// A stored payload with flag kDeflated is a varint of the plain size and the
// zlib stream of the plain payload. The magic's high byte, carriage return
// and end-of-file byte make a text-mode copy or a 7-bit transfer fail at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace kestro::zqp::capture {

inline constexpr char kMagic[8] = {'\x89', 'K', 'Z', 'C', '\r', '\n', '\x1a', '\n'};
inline constexpr std::uint32_t kFormatVersion = 1;
inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kRecordHeaderSize = 12;
// No record of a sane capture comes near this; a larger size is damage.
inline constexpr std::uint32_t kMaxPayload = 64u << 20;

enum class RecordKind : std::uint8_t {
  kStart = 1,    // once, first: when, the options, the kernel
  kList = 2,     // a folder's entries as discovery listed them
  kFile = 3,     // a file's presence, mode and content, when they changed
  kEngine = 4,   // an engine that came up, and its cores or files
  kYpu = 5,      // the accelerator library's answers that changed, in a batch
  kDsp = 6,      // a DSP loading node's bytes, when they changed
  kDdr = 7,      // a line of the DDR tool, as it arrived
  kEnd = 8,      // a capture that ended cleanly: its length
  kDdrExit = 9,  // the DDR tool ended by itself: when, and its wait status
};

inline constexpr std::uint8_t kDeflated = 1;

// Appends the pieces of a payload.
class PayloadWriter {
 public:
  void Varint(std::uint64_t value);
  void Bytes(std::string_view bytes);  // a varint length, then the bytes
  const std::string& Text() const { return text; }

 private:
  std::string text;
};

// Reads the pieces back; after a read past the end, ok() is false and every
// further read gives 0 or an empty view.
class PayloadReader {
 public:
  explicit PayloadReader(std::string_view payload) : rest(payload) {}
  std::uint64_t Varint();
  std::string_view Bytes();
  bool ok() const { return good; }
  // What is left unread.
  std::string_view Rest() const { return rest; }

 private:
  std::string_view rest;
  bool good = true;
};

// The bytes of one record as it goes to the file: deflated when that is
// shorter and the payload is worth it.
std::string EncodeRecord(RecordKind kind, std::string_view payload);
// The file header.
std::string EncodeHeader();

// A capture file read one record at a time.
class CaptureReader {
 public:
  enum class Status {
    kRecord,    // record holds the next record
    kEnd,       // the file ended after a whole record
    kCutShort,  // the file ends inside a record (a capture killed mid-write)
    kCorrupt,   // a record fails its checksum or does not inflate
  };
  struct Record {
    RecordKind kind{};
    std::string payload;       // inflated
    std::uint64_t offset = 0;  // of its record header in the file
  };

  CaptureReader() = default;
  CaptureReader(const CaptureReader&) = delete;
  CaptureReader& operator=(const CaptureReader&) = delete;
  ~CaptureReader();

  // Opens path and checks the header. False with error set: "cannot read
  // FILE: reason", "FILE: empty, not a capture", "FILE: not a capture",
  // "FILE: cut short inside its header", "FILE: capture format version N is
  // newer than this program reads (1)".
  bool Open(const std::string& path, std::string& error);
  // The next record. On kCutShort and kCorrupt, error says where ("FILE: cut
  // short at byte N, inside a record", "FILE: cut short at byte N, zeros from
  // there on" when only zero bytes follow, as a power loss may leave them /
  // "FILE: record at byte N is corrupt: why"); reading stops there.
  Status Next(Record& record, std::string& error);
  std::uint32_t Version() const { return version; }

 private:
  // Reads the rest of the file: true when it holds nothing but zero bytes.
  bool ZerosToTheEnd();

  std::FILE* file = nullptr;
  std::string shown;
  std::uint32_t version = 0;
  std::uint64_t offset = 0;
};

}  // namespace kestro::zqp::capture
