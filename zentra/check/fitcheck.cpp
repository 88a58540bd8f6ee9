// Whether the two files fit each other: the record length the data file, the data file's end the
// dictionary, the indexes the records.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "zentra/check/deep.h"
#include "zentra/pair/trailer.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

using std::chrono::steady_clock;

constexpr int kFewMisfits = 10;  // one slot in so many may lack a state
constexpr int kFewRecords = 10;  // one in so many items of an index

struct Fit {
  std::int64_t slots = 0;
  std::int64_t fitting = 0;
  std::int64_t present = 0;

  [[nodiscard]] bool fits_all() const { return fitting == slots && present > 0; }
  [[nodiscard]] bool has_many_misfits() const { return slots - fitting > slots / kFewMisfits; }
};

// The state bytes of the data file, if its records were of another length.
class States {
 public:
  States() : size_(common::file_size(filep->data.fd)), trailer_(isam::slot_size() - length()) {
    filep->data.map.look_again(filep->data.fd);
  }

  [[nodiscard]] static int length() { return filep->geometry.reclen; }

  // Looks at every slot.
  [[nodiscard]] Fit count(int length) {
    Fit fit;
    for (std::int64_t at = length; at < size_ && system_error_ == 0; at += length + trailer_) {
      take(fit, byte_at(at));
    }
    return fit;
  }
  // 0 as long as all could be read.
  [[nodiscard]] int system_error() const { return system_error_; }
  // The other length, from `first` on, that fits all slots and gives the most records, at least
  // `most`; of several the longest, since zero bytes in records look like states. 0 when none is
  // found in time.
  [[nodiscard]] int better_length(int first, std::int64_t most) {
    constexpr auto kLongest = std::chrono::seconds(5);
    until_ = steady_clock::now() + kLongest;
    checker::Progress progress("Looking for the record length", INT16_MAX);
    int best = 0;
    for (int other = first; other <= INT16_MAX && other < size_ && !is_late(); ++other) {
      progress.at(other);
      if (other == length() || !may_fit(other)) continue;
      const std::int64_t present = present_by(other);
      if (present < most) continue;
      most = present;
      best = other;
    }
    return best;
  }

 private:
  [[nodiscard]] bool is_late() const { return steady_clock::now() >= until_; }
  // Whether the length fits slots here and there in the file.
  [[nodiscard]] bool may_fit(int length) const {
    constexpr std::int64_t kLooks = 64;
    const std::int64_t slot = length + trailer_;
    const std::int64_t slots = (size_ - length - 1) / slot + 1;
    const std::int64_t step = std::max<std::int64_t>(1, slots / kLooks);
    Fit fit;
    for (std::int64_t i = 0; i < slots; i += step) {
      isam::Byte byte = 0;
      if (filep->data.map.read(filep->data.fd, {&byte, 1}, i * slot + length) != 1) return false;
      if (!is_state(byte)) return false;
      take(fit, byte);
    }
    return fit.fits_all();
  }
  // How many records there are by this length; -1 where a slot does not fit.
  [[nodiscard]] std::int64_t present_by(int length) {
    constexpr std::int64_t kBetween = 1 << 16;
    Fit fit;
    for (std::int64_t at = length; at < size_; at += length + trailer_) {
      take(fit, byte_at(at));
      if (fit.fitting != fit.slots || (fit.slots % kBetween == 0 && is_late())) return -1;
      if (system_error_ != 0) return -1;
    }
    return fit.present;
  }
  static void take(Fit& fit, isam::Byte byte) {
    ++fit.slots;
    fit.fitting += is_state(byte) ? 1 : 0;
    fit.present += byte == isam::kRecordPresent ? 1 : 0;
  }
  // Zero where it cannot be read.
  [[nodiscard]] isam::Byte byte_at(std::int64_t offset) {
    constexpr std::size_t kPiece = 1 << 20;
    if (offset < begin_ || offset >= begin_ + static_cast<std::int64_t>(piece_.size())) {
      piece_.resize(kPiece);
      begin_ = offset;
      const ssize_t got = common::read_at(filep->data.fd, piece_, offset);
      if (got < 0 && system_error_ == 0) system_error_ = errno;
      piece_.resize(got > 0 ? static_cast<std::size_t>(got) : 1);
      if (got <= 0) piece_[0] = 0;
    }
    return piece_[static_cast<std::size_t>(offset - begin_)];
  }

  std::int64_t size_;
  int trailer_;  // bytes behind a record in its slot
  std::vector<isam::Byte> piece_;
  std::int64_t begin_ = 0;
  int system_error_ = 0;  // the first, as an errno
  steady_clock::time_point until_{};
};

// Whether another length fits the data file, and far better than the dictionary's. Records that are
// mostly zero bytes look absent by any length.
bool check_length(DeepCollector& collector, States& states, const Fit& fit) {
  if (!fit.has_many_misfits() && fit.present >= collector.most_items() / 2) return false;
  // A length by which there are fewer records is none: by twice the length of a slot every other
  // one would go.
  const std::int64_t items = collector.most_items();
  const std::int64_t most = std::max({std::int64_t{1}, items - items / kFewRecords, fit.present});
  const int better = states.better_length(std::max(1, collector.keys_end()), most);
  if (better == 0) return false;
  collector.add(
      {.code = kRecordLength,
       .status = Status::kNeedsSalvage,
       .text = fmt::format("record length {} fits {} of {} slots, {} fits all", States::length(),
                           grouped(fit.fitting), grouped(fit.slots), better),
       .fields = {{"found", std::int64_t{States::length()}},
                  {"fits", fit.fitting},
                  {"slots", fit.slots},
                  {"expected", std::int64_t{better}}}});
  return true;
}

void check_end(const checker::Check& check, Collector& collector) {
  if (check.datreal >= dictp->d_nextdata()) return;
  collector.add({.code = "pieces.data-end",
                 .status = Status::kDamaged,
                 .text = fmt::format("data ends at record {} of {}", grouped(check.datreal),
                                     grouped(dictp->d_nextdata())),
                 .fields = {{"found", std::int64_t{check.datreal}},
                            {"expected", std::int64_t{dictp->d_nextdata()}}}});
}

}  // namespace

// A program that was killed may have given out nodes that it had not written: of a sound pair that
// is none of anybody's business.
void check_index_end(const checker::Check& check, Collector& collector) {
  if (collector.findings() == 0 || check.idxreal >= dictp->d_nextnode()) return;
  const std::int64_t size = common::file_size(filep->index.fd);
  const std::int64_t told = std::int64_t{dictp->d_nextnode()} * isam::node_size();
  collector.add({.code = kIndexEnd,
                 .status = Status::kDamaged,
                 .text = fmt::format("the index file ends at byte {}, its dictionary tells of {}",
                                     grouped(size), grouped(told)),
                 .fields = {{"found", size}, {"expected", told}}});
}

// What does not fit leads to faults of other kinds.
void check_fit(const checker::Check& check, DeepCollector& collector) {
  States states;
  const Fit fit = states.count(States::length());
  if (states.system_error() != 0) return collector.unfinished(states.system_error());
  const bool has_other_length = check_length(collector, states, fit);
  check_end(check, collector);
  if (has_other_length) return;  // which is why no index fits
  const bool is_other = collector.is_of_another_time();
  // What would be made of so few records would be next to nothing.
  const bool are_few = is_other && fit.present < collector.most_items() / kFewRecords;
  const bool are_gone = are_few || collector.are_records_gone();
  if (!is_other && !are_gone) return;
  collector.add(
      {.code = "pieces.times",
       .status = are_gone ? Status::kNeedsSalvage : Status::kDamaged,
       .text = fmt::format(
           "every index leads to records that are not there or have other "
           "keys: {}",
           are_gone ? "hardly a record is there" : "the two files are not of the same time")});
}

}  // namespace zentra
