#include "record/json_writer.h"

#include <cstdio>

#include "monitors/memory_usage.h"
#include "record/figure_text.h"

namespace kestro::zqp::record {
namespace {

void AppendHex(std::string& out, const char* prefix, unsigned char byte) {
  char text[16];
  std::snprintf(text, sizeof text, "%s%02x", prefix, byte);
  out += text;
}

// A figure's text, or what the format writes for a figure that is no number
// (a driver may publish "nan", which sscanf reads).
std::string Otherwise(std::string text, const char* otherwise) {
  return text.empty() ? otherwise : text;
}

}  // namespace

std::string JsonString(std::string_view bytes) {
  std::string out = "\"";
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = Utf8SequenceLength(bytes, at);
    const auto byte = static_cast<unsigned char>(bytes[at]);
    if (length == 0) {
      AppendHex(out, "\\udc", byte);
      ++at;
      continue;
    }
    if (byte == '"' || byte == '\\') {
      out += '\\';
      out += bytes[at];
    } else if (IsControl(byte)) {
      AppendHex(out, "\\u00", byte);
    } else {
      out.append(bytes.substr(at, length));
    }
    at += length;
  }
  return out + "\"";
}

std::string JsonLine(const Record& record) {
  std::string out = "{\"time\":\"" + Rfc3339(record.wall_ms) +
                    "\",\"elapsed_s\":" + Seconds(record.elapsed_ms) + ",\"loading\":[";
  for (std::size_t i = 0; i < record.loading.size(); ++i) {
    const LoadingFigure& figure = record.loading[i];
    out += std::string(i ? "," : "") + "{\"label\":" + JsonString(Label(figure)) +
           ",\"engine\":" + JsonString(figure.engine) + ",\"core\":" + std::to_string(figure.core) +
           ",\"percent\":" + Otherwise(Percent(figure.percent), "null") + "}";
  }
  out += "],\"ddr\":";
  out += record.ddr_ready
             ? "{\"read_bytes_per_second\":" + std::to_string(record.ddr_read_bytes_per_s) +
                   ",\"write_bytes_per_second\":" + std::to_string(record.ddr_write_bytes_per_s) +
                   "}"
             : "null";
  out += ",\"heaps\":[";
  for (std::size_t i = 0; i < record.heaps.size(); ++i) {
    const HeapFigure& heap = record.heaps[i];
    out += std::string(i ? "," : "") + "{\"name\":\"" + kHeapNames[heap.index] +
           "\",\"total_bytes\":" + std::to_string(heap.total_bytes) +
           ",\"used_bytes\":" + std::to_string(heap.used_bytes) +
           ",\"free_bytes\":" + std::to_string(heap.total_bytes - heap.used_bytes) + "}";
  }
  out += "],\"processes\":[";
  for (std::size_t i = 0; i < record.processes.size(); ++i) {
    const ProcessFigure& process = record.processes[i];
    out += std::string(i ? "," : "") + "{\"pid\":" + std::to_string(process.pid) +
           ",\"name\":" + JsonString(process.name) +
           ",\"rss_bytes\":" + std::to_string(process.rss_bytes) +
           ",\"ion_bytes\":" + std::to_string(process.ion_bytes) + "}";
  }
  return out + "]}\n";
}

}  // namespace kestro::zqp::record
