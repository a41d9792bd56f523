#include "capture/capture_format.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>

#include <cerrno>
#include <cstring>

namespace kestro::zqp::capture {
namespace {

// Below this a payload is stored as it is: zlib's own header and checksum
// would eat what it saves.
constexpr std::size_t kDeflateFrom = 96;

void PutU32(std::string& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

std::uint32_t GetU32(const unsigned char* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint32_t Crc(std::uint32_t crc, std::string_view bytes) {
  return static_cast<std::uint32_t>(
      crc32_z(crc, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

// A 4 KiB window and a small hash table: the capture runs beside the
// workload, and zlib's defaults take some 270 KiB per stream for little gain
// on records that repeat within a few rows.
constexpr int kWindowBits = 12;
constexpr int kMemLevel = 5;

std::optional<std::string> Deflate(std::string_view plain) {
  z_stream stream{};
  if (deflateInit2(&stream, 6, Z_DEFLATED, kWindowBits, kMemLevel, Z_DEFAULT_STRATEGY) != Z_OK) {
    return std::nullopt;
  }
  std::string out(deflateBound(&stream, static_cast<uLong>(plain.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int status = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (status != Z_STREAM_END) return std::nullopt;
  return out;
}

}  // namespace

void PayloadWriter::Varint(std::uint64_t value) {
  while (value >= 0x80) {
    text.push_back(static_cast<char>(value | 0x80));
    value >>= 7;
  }
  text.push_back(static_cast<char>(value));
}

void PayloadWriter::Bytes(std::string_view bytes) {
  Varint(bytes.size());
  text.append(bytes);
}

std::uint64_t PayloadReader::Varint() {
  std::uint64_t value = 0;
  for (int shift = 0; shift < 64; shift += 7) {
    if (rest.empty()) break;
    const auto byte = static_cast<unsigned char>(rest.front());
    rest.remove_prefix(1);
    // The tenth byte may carry only the 64th bit.
    if (shift == 63 && (byte & 0x7e) != 0) break;
    value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) return value;
  }
  good = false;
  rest = {};
  return 0;
}

std::string_view PayloadReader::Bytes() {
  const std::uint64_t size = Varint();
  if (!good || size > rest.size()) {
    good = false;
    rest = {};
    return {};
  }
  const std::string_view bytes = rest.substr(0, size);
  rest.remove_prefix(size);
  return bytes;
}

std::string EncodeHeader() {
  std::string out(kMagic, sizeof kMagic);
  PutU32(out, kFormatVersion);
  PutU32(out, 0);
  return out;
}

std::string EncodeRecord(RecordKind kind, std::string_view payload) {
  std::string stored;
  std::uint8_t flags = 0;
  if (payload.size() >= kDeflateFrom) {
    if (const std::optional<std::string> deflated = Deflate(payload)) {
      PayloadWriter packed;
      packed.Varint(payload.size());
      if (packed.Text().size() + deflated->size() < payload.size()) {
        stored = packed.Text() + *deflated;
        flags = kDeflated;
      }
    }
  }
  if (flags == 0) stored.assign(payload);
  std::string out;
  PutU32(out, static_cast<std::uint32_t>(stored.size()));
  out.push_back(static_cast<char>(kind));
  out.push_back(static_cast<char>(flags));
  out.append(2, '\0');
  PutU32(out, Crc(Crc(0, out), stored));
  out += stored;
  return out;
}

CaptureReader::~CaptureReader() {
  if (file != nullptr) std::fclose(file);
}

bool CaptureReader::Open(const std::string& path, std::string& error) {
  shown = path;
  file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  unsigned char header[kHeaderSize];
  const std::size_t got = std::fread(header, 1, sizeof header, file);
  if (got == 0) {
    error = path + (std::ferror(file) ? std::string(": ") + std::strerror(errno)
                                      : std::string(": empty, not a capture"));
    return false;
  }
  if (std::memcmp(header, kMagic, std::min(got, sizeof kMagic)) != 0) {
    error = path + ": not a capture";
    return false;
  }
  if (got < sizeof header) {
    error = path + ": cut short inside its header";
    return false;
  }
  version = GetU32(header + 8);
  if (version == 0 || version > kFormatVersion) {
    error = path + ": capture format version " + std::to_string(version) +
            " is newer than this program reads (" + std::to_string(kFormatVersion) + ")";
    if (version == 0) error = path + ": not a capture (format version 0)";
    return false;
  }
  offset = sizeof header;
  return true;
}

bool CaptureReader::ZerosToTheEnd() {
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) {
    if (std::any_of(chunk, chunk + got, [](char byte) { return byte != 0; })) return false;
  }
  return !std::ferror(file);
}

CaptureReader::Status CaptureReader::Next(Record& record, std::string& error) {
  unsigned char head[kRecordHeaderSize];
  const std::size_t got = std::fread(head, 1, sizeof head, file);
  const std::string at = std::to_string(offset);
  if (got == 0 && !std::ferror(file)) return Status::kEnd;
  if (got < sizeof head) {
    error = shown + ": cut short at byte " + at + ", inside a record";
    return Status::kCutShort;
  }
  if (std::all_of(head, head + sizeof head, [](unsigned char byte) { return byte == 0; }) &&
      ZerosToTheEnd()) {
    // What a power loss leaves of blocks the file system had allotted: no
    // record has an all-zero header (kind 0 is none, and its checksum is not 0).
    error = shown + ": cut short at byte " + at + ", zeros from there on";
    return Status::kCutShort;
  }
  const std::uint32_t size = GetU32(head);
  const std::uint8_t kind = head[4];
  const std::uint8_t flags = head[5];
  if (size > kMaxPayload) {
    error = shown + ": record at byte " + at + " is corrupt: size " + std::to_string(size);
    return Status::kCorrupt;
  }
  // Checked before allocating: a damaged size could ask for 64 MiB.
  struct stat info {};
  const bool known = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
  if (known && static_cast<std::uint64_t>(info.st_size) < offset + sizeof head + size) {
    error = shown + ": cut short at byte " + at + ", inside a record";
    return Status::kCutShort;
  }
  std::string stored(size, '\0');
  if (std::fread(stored.data(), 1, size, file) != size) {
    error = shown + ": cut short at byte " + at + ", inside a record";
    return Status::kCutShort;
  }
  const std::string_view head_view(reinterpret_cast<const char*>(head), 8);
  if (Crc(Crc(0, head_view), stored) != GetU32(head + 8)) {
    error = shown + ": record at byte " + at + " is corrupt: checksum mismatch";
    return Status::kCorrupt;
  }
  record.kind = static_cast<RecordKind>(kind);
  record.offset = offset;
  if ((flags & kDeflated) == 0) {
    record.payload = std::move(stored);
  } else {
    PayloadReader packed(stored);
    const std::uint64_t plain = packed.Varint();
    const std::string_view deflated = packed.Rest();
    uLongf out_size = static_cast<uLongf>(plain);
    if (!packed.ok() || plain > kMaxPayload) {
      error = shown + ": record at byte " + at + " is corrupt: bad size";
      return Status::kCorrupt;
    }
    record.payload.assign(plain, '\0');
    if (uncompress(reinterpret_cast<Bytef*>(record.payload.data()), &out_size,
                   reinterpret_cast<const Bytef*>(deflated.data()),
                   static_cast<uLong>(deflated.size())) != Z_OK ||
        out_size != plain) {
      error = shown + ": record at byte " + at + " is corrupt: does not inflate";
      return Status::kCorrupt;
    }
  }
  offset += sizeof head + size;
  return Status::kRecord;
}

}  // namespace kestro::zqp::capture
