#include "record/history.h"

#include <algorithm>
#include <utility>

#include "base/decimal.h"
#include "record/json_writer.h"

namespace kestro::zqp::record {
namespace {

constexpr std::int64_t kMaxSinceMs = 1'000'000'000'000'000;

std::size_t SlotsFor(std::int64_t interval_ms, std::int64_t history_ms) {
  const std::int64_t records =
      (history_ms + interval_ms - 1) / std::max<std::int64_t>(1, interval_ms);
  return static_cast<std::size_t>(
      std::clamp<std::int64_t>(records, 1, static_cast<std::int64_t>(History::kMaxRecords)));
}

}  // namespace

History::History(std::int64_t interval_ms, std::int64_t history_ms, std::size_t processes)
    : interval_ms_(interval_ms),
      history_ms_(static_cast<std::int64_t>(SlotsFor(interval_ms, history_ms)) * interval_ms),
      processes_(processes),
      slots_(SlotsFor(interval_ms, history_ms)) {}

void History::Add(const Record& record) {
  Record kept = record;
  // The holders the page charts, not the whole table of a busy board.
  const std::size_t holders = std::min(processes_, kept.processes.size());
  std::partial_sort(
      kept.processes.begin(), kept.processes.begin() + holders, kept.processes.end(),
      [](const ProcessFigure& a, const ProcessFigure& b) { return a.ion_bytes > b.ion_bytes; });
  kept.processes.resize(holders);
  std::string json = JsonLine(kept);
  json.pop_back();  // the line's newline
  const std::lock_guard<std::mutex> hold(mutex_);
  Slot& slot = slots_[next_];
  slot.elapsed_ms = record.elapsed_ms;
  slot.json = std::move(json);
  // A shorter text reuses the slot's buffer; a much shorter one gives it back.
  if (slot.json.capacity() > 2 * slot.json.size() + 64) slot.json.shrink_to_fit();
  next_ = (next_ + 1) % slots_.size();
  size_ = std::min(size_ + 1, slots_.size());
}

std::size_t History::Size() const {
  const std::lock_guard<std::mutex> hold(mutex_);
  return size_;
}

std::size_t History::Bytes() const {
  const std::lock_guard<std::mutex> hold(mutex_);
  std::size_t bytes = slots_.capacity() * sizeof(Slot);
  for (const Slot& slot : slots_) bytes += slot.json.capacity();
  return bytes;
}

std::string History::Since(std::optional<std::int64_t> since_ms) const {
  std::string out = "{\"interval_ms\":" + std::to_string(interval_ms_) +
                    ",\"history_ms\":" + std::to_string(history_ms_) + ",\"latest_elapsed_ms\":";
  const std::lock_guard<std::mutex> hold(mutex_);
  const std::size_t oldest = (next_ + slots_.size() - size_) % slots_.size();
  const std::size_t latest = (next_ + slots_.size() - 1) % slots_.size();
  out += std::to_string(size_ == 0 ? 0 : slots_[latest].elapsed_ms) + ",\"records\":[";
  bool first = true;
  for (std::size_t i = 0; i < size_; ++i) {
    const Slot& slot = slots_[(oldest + i) % slots_.size()];
    if (since_ms && slot.elapsed_ms <= *since_ms) continue;
    if (!first) out += ',';
    out += slot.json;
    first = false;
  }
  return out + "]}\n";
}

bool ParseSince(const char* text, std::optional<std::int64_t>& since_ms) {
  since_ms.reset();
  if (text == nullptr) return true;
  since_ms = base::ParseDecimal(text, std::int64_t{0}, kMaxSinceMs);
  return since_ms.has_value();
}

}  // namespace kestro::zqp::record
