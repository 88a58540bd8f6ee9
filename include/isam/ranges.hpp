// ranges: loops over the records of a file in the order of a key. Part of isam.hpp.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include "isam.h"
#include "isam/file.hpp"

namespace zentra {

// The records of a file in the order of a key, each read when the loop comes to it:
//
//   for (auto record : file.by(key))                       all
//   for (auto record : file.by(key).from("M"))             key values greater or equal
//   for (auto record : file.by(key).equal("Meier"))        key values equal
//   for (auto record : file.by(key).from("M").backwards()) values less or equal, the last first
//   for (auto record : file.by(key).bulk(64))              all, read 64 at a time
//
// Fewer values than the key has parts stand for the first parts. The loop may add, update and
// remove records; moving the file's position meanwhile ends it with std::logic_error. File and
// range must stay where they are in memory. A record that is locked (Locking::kAutomatic) throws
// Error.
class Range {
 public:
  class Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;

    explicit Iterator(Range& range) : range_(&range) {}
    const Record& operator*() const { return *range_->record_; }
    const Record* operator->() const { return &*range_->record_; }
    Iterator& operator++() {
      range_->advance();
      return *this;
    }
    void operator++(int) { range_->advance(); }
    bool operator==(std::default_sentinel_t /*end*/) const { return !range_->record_; }

   private:
    Range* range_;
  };

  // Only records from these key values on: upwards, or downwards if the range goes backwards.
  template <typename... V>
  requires(sizeof...(V) > 0) [[nodiscard]] Range from(const V&... values) const {
    return limited(false, std::array{KeyValue(values)...});
  }
  // Only records with these key values.
  template <typename... V>
  requires(sizeof...(V) > 0) [[nodiscard]] Range equal(const V&... values) const {
    return limited(true, std::array{KeyValue(values)...});
  }
  // The last record first.
  [[nodiscard]] Range backwards() const {
    Range range = *this;
    range.step_ = Move::kPrevious;
    return range;
  }

  // Reads so many records in one call, in two thirds of the instructions of single steps (which are
  // answered from copies, too). It is asked for, since the loop may notice: it sees records as they
  // were when the first of them was read, the position is that of the last of them, and with
  // Locking::kAutomatic none but that one is locked.
  [[nodiscard]] Range bulk(int records) const {
    if (records < 1) throw std::invalid_argument("zentra: so many records cannot be read");
    Range range = *this;
    range.ahead_.count = records;
    return range;
  }

  // Positions the file and reads the first record.
  [[nodiscard]] Iterator begin() {
    const bool found = start();
    moves_ = file_->moves_;
    ahead_.got = ahead_.taken = 0;
    record_.reset();
    if (found) advance();
    return Iterator(*this);
  }
  [[nodiscard]] static std::default_sentinel_t end() { return {}; }

 private:
  friend class File;

  Range(File& file, const Key& key) : file_(&file), key_(key), wanted_(file.blank()) {}

  [[nodiscard]] Range limited(bool equal, std::span<const KeyValue> values) const {
    Range range = *this;
    range.length_ = File::store(range.wanted_, key_, values);
    range.parts_ = values.size();
    range.equal_ = equal;
    return range;
  }

  bool start_at(Move move) {
    keydescr description = key_.description();
    ++file_->moves_;
    const int started = isstart(file_->isfd_, &description, length_, wanted_.bytes().data(),
                                static_cast<int>(move));
    return File::outcome_of(started, "isstart") == Outcome::kDone;
  }

  // Positions the file so that a step gives the range's first record: false when there is none.
  bool start() {
    const bool back = step_ == Move::kPrevious;
    if (parts_ == 0) return start_at(back ? Move::kLast : Move::kFirst);
    if (!back) return start_at(equal_ ? Move::kEqual : Move::kGreaterOrEqual);
    // A step back from the first record beyond the values, or without one from the end, gives it.
    return start_at(Move::kGreater) || start_at(Move::kLast);
  }

  void advance() {
    if (moves_ != file_->moves_) {
      record_.reset();
      throw std::logic_error("zentra: the file was positioned elsewhere in a loop over it");
    }
    record_ = ahead_.count > 0 ? take_ahead() : file_->read_or_none(step_);
    moves_ = file_->moves_;
    if (record_ && equal_ && !has_wanted_key(*record_)) record_.reset();
  }

  // The next of the records read in one call; none behind the last one.
  std::optional<Record> take_ahead() {
    if (ahead_.taken == ahead_.got) {
      ahead_.got =
          file_->read_many(ahead_.records, ahead_.numbers, ahead_.lengths, ahead_.count, step_);
      ahead_.taken = 0;
      if (ahead_.got == 0) return std::nullopt;
    }
    const auto at = static_cast<std::size_t>(ahead_.taken++);
    return file_->record_from(ahead_.records, at, ahead_.numbers[at], ahead_.lengths[at]);
  }

  [[nodiscard]] bool has_wanted_key(const Record& record) const {
    const auto parts = key_.parts().first(parts_);
    return std::all_of(parts.begin(), parts.end(), [&](const keypart& part) {
      const char* a = wanted_.bytes().data() + part.start;
      const char* b = record.bytes().data() + part.start;
      switch (part.type & ~KT_DESC) {
        case KT_DOUBLE:
          return lddbl(a) == lddbl(b);
        case KT_FLOAT:
          return ldfloat(a) == ldfloat(b);
        default:
          return std::memcmp(a, b, static_cast<std::size_t>(part.length)) == 0;
      }
    });
  }

  File* file_;
  Key key_;
  Record wanted_;
  int length_ = 0;
  std::size_t parts_ = 0;  // parts of the key that have a value in wanted_
  bool equal_ = false;
  Move step_ = Move::kNext;
  std::optional<Record> record_;  // the one that the loop has come to; none at the end
  std::size_t moves_ = 0;         // of the file, when this range moved it last
  struct Ahead {
    int count = 0;  // records of one call; 0: each is read by itself
    int got = 0;    // by the last one
    int taken = 0;  // ... and given to the loop
    std::vector<char> records;
    std::vector<std::int32_t> numbers;
    std::vector<std::int32_t> lengths;
  };
  Ahead ahead_;
};

inline Range File::by(const Key& key) { return {*this, key}; }

}  // namespace zentra
