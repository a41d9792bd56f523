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

void JsonWriter::Separate() {
  if (!out_.empty() && out_.back() != '{' && out_.back() != '[' && out_.back() != ':') out_ += ',';
}

JsonWriter& JsonWriter::Open(char bracket) {
  Separate();
  out_ += bracket;
  return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
  out_ += bracket;
  return *this;
}

JsonWriter& JsonWriter::Key(std::string_view name) {
  String(name);
  out_ += ':';
  return *this;
}

JsonWriter& JsonWriter::String(std::string_view bytes) {
  Separate();
  out_ += JsonString(bytes);
  return *this;
}

JsonWriter& JsonWriter::Number(std::string_view text) {
  Separate();
  // A figure that is no number (a driver may publish "nan", which sscanf
  // reads) is null.
  out_ += text.empty() ? std::string_view("null") : text;
  return *this;
}

std::string JsonLine(const Record& record) {
  JsonWriter json;
  json.Open('{').Key("time").String(Rfc3339(record.wall_ms));
  json.Key("elapsed_s").Number(Seconds(record.elapsed_ms)).Key("loading").Open('[');
  for (const LoadingFigure& figure : record.loading) {
    json.Open('{').Key("label").String(Label(figure)).Key("engine").String(figure.engine);
    json.Key("core").Number(figure.core).Key("percent").Number(Percent(figure.percent));
    json.Close('}');
  }
  json.Close(']').Key("ddr");
  if (record.ddr_ready) {
    json.Open('{').Key("read_bytes_per_second").Number(record.ddr_read_bytes_per_s);
    json.Key("write_bytes_per_second").Number(record.ddr_write_bytes_per_s).Close('}');
  } else {
    json.Null();
  }
  json.Key("heaps").Open('[');
  for (const HeapFigure& heap : record.heaps) {
    json.Open('{').Key("name").String(monitors::kHeapNames[heap.index]);
    json.Key("total_bytes").Number(heap.total_bytes).Key("used_bytes").Number(heap.used_bytes);
    json.Key("free_bytes").Number(heap.total_bytes - heap.used_bytes).Close('}');
  }
  json.Close(']').Key("processes").Open('[');
  for (const ProcessFigure& process : record.processes) {
    json.Open('{').Key("pid").Number(process.pid).Key("name").String(process.name);
    json.Key("rss_bytes").Number(process.rss_bytes).Key("ion_bytes").Number(process.ion_bytes);
    json.Close('}');
  }
  return json.Close(']').Close('}').Line();
}

}  // namespace kestro::zqp::record
