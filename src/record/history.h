// The recent records of a recorder that listens, for the live page and for
// scripts: a ring of each record's JSON line (the jsonl format), at most the
// records of the last few minutes, oldest dropped first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "record/record.h"

namespace kestro::zqp::record {

class History {
 public:
  // The most records kept, whatever the minutes asked: an hour at 1 s, six
  // minutes at 100 ms. A record of a full board is about 1.5 KiB, with ten
  // ION holders 2 KiB: 7.5 MiB at most.
  static constexpr std::size_t kMaxRecords = 3600;

  // Keeps the records of history_ms at one per interval_ms: at least one, at
  // most kMaxRecords, and history_ms is then shortened to fit.
  History(std::int64_t interval_ms, std::int64_t history_ms, std::size_t processes);

  // Adds a record, dropping the oldest when full; keeps only its `processes`
  // largest ION holders. Any thread.
  void Add(const Record& record);
  // {"interval_ms":..,"history_ms":.. (as kept),"latest_elapsed_ms":..,"records":[..]}
  // with the records whose elapsed_ms is above since_ms, oldest first; every
  // record when since_ms is empty. latest_elapsed_ms is 0 before the first
  // (records come after it), so that it can always be the next since.
  std::string Since(std::optional<std::int64_t> since_ms) const;

  std::size_t Capacity() const { return slots_.size(); }
  std::size_t Size() const;
  // Bytes held by the records' texts and the slots.
  std::size_t Bytes() const;

 private:
  struct Slot {
    std::int64_t elapsed_ms = -1;
    std::string json;
  };
  const std::int64_t interval_ms_;
  const std::int64_t history_ms_;
  const std::size_t processes_;
  mutable std::mutex mutex_;
  std::vector<Slot> slots_;  // fixed size; under mutex_ from here on
  std::size_t next_ = 0;     // the slot the next record goes to
  std::size_t size_ = 0;
};

// The value of a request's since parameter: a decimal count of milliseconds
// from 0 to 10^15 (about 31700 years); none when absent.
// False when malformed.
bool ParseSince(const char* text, std::optional<std::int64_t>& since_ms);

}  // namespace kestro::zqp::record
