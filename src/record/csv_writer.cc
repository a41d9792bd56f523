#include "record/csv_writer.h"

#include <cstdint>

#include "monitors/memory_usage.h"
#include "record/figure_text.h"

namespace kestro::zqp::record {
namespace {

const LoadingFigure* FindLoading(const Record& record, const std::string& label) {
  for (const LoadingFigure& figure : record.loading) {
    if (Label(figure) == label) return &figure;
  }
  return nullptr;
}

const HeapFigure* FindHeap(const Record& record, std::size_t index) {
  for (const HeapFigure& heap : record.heaps) {
    if (heap.index == index) return &heap;
  }
  return nullptr;
}

}  // namespace

std::string CsvField(std::string_view field) {
  if (field.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(field);
  std::string out = "\"";
  for (const char c : field) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

CsvLayout LayoutOf(const Record& record) {
  CsvLayout layout;
  for (const LoadingFigure& figure : record.loading) layout.labels.push_back(Label(figure));
  for (const HeapFigure& heap : record.heaps) layout.heaps.push_back(heap.index);
  return layout;
}

std::string CsvHeader(const CsvLayout& layout) {
  std::string out = "time,elapsed_s";
  for (const std::string& label : layout.labels) out += "," + CsvField(label);
  out += ",ddr_read_bytes_per_second,ddr_write_bytes_per_second";
  for (const std::size_t heap : layout.heaps) {
    for (const char* figure : {"total", "used", "free"}) {
      out += std::string(",") + monitors::kHeapNames[heap] + "_" + figure + "_bytes";
    }
  }
  return out + "\r\n";
}

std::string CsvRow(const CsvLayout& layout, const Record& record) {
  std::string out = Rfc3339(record.wall_ms) + "," + Seconds(record.elapsed_ms);
  for (const std::string& label : layout.labels) {
    const LoadingFigure* figure = FindLoading(record, label);
    out += "," + (figure ? Percent(figure->percent) : "");
  }
  for (const std::uint64_t bytes : {record.ddr_read_bytes_per_s, record.ddr_write_bytes_per_s}) {
    out += "," + (record.ddr_ready ? std::to_string(bytes) : "");
  }
  for (const std::size_t index : layout.heaps) {
    const HeapFigure* heap = FindHeap(record, index);
    if (heap == nullptr) {
      out += ",,,";
      continue;
    }
    for (const std::uint64_t bytes :
         {heap->total_bytes, heap->used_bytes, heap->total_bytes - heap->used_bytes}) {
      out += "," + std::to_string(bytes);
    }
  }
  return out + "\r\n";
}

}  // namespace kestro::zqp::record
