// Whether the two files fit each other: the record length the data file, the data file's end the
// dictionary, the indexes the records.
#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "common/io.h"
#include "isam/base/current.h"
#include "zentra/deep.h"
#include "zentra/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

constexpr int kFewMisfits = 10;  // one slot in so many may lack a state

bool is_state(isam::Byte byte) {
  return byte == isam::kRecordPresent || byte == isam::kRecordAbsent;
}

struct Fit {
  std::int64_t slots = 0;
  std::int64_t fitting = 0;
  std::int64_t present = 0;

  [[nodiscard]] bool fits_all() const { return fitting == slots && present > 0; }
};

// The state bytes of the data file, if its records were of another length.
class States {
 public:
  States() : size_(common::file_size(filep->data.fd)), trailer_(isam::slot_size() - length()) {}

  [[nodiscard]] static int length() { return filep->geometry.reclen; }

  // Looks at every slot.
  [[nodiscard]] Fit count(int length) {
    Fit fit;
    for (std::int64_t at = length; at < size_; at += length + trailer_) take(fit, byte_at(at));
    return fit;
  }
  // Whether the length fits slots here and there in the file.
  [[nodiscard]] bool may_fit(int length) {
    constexpr std::int64_t kLooks = 256;
    const std::int64_t slot = length + trailer_;
    const std::int64_t slots = (size_ - length - 1) / slot + 1;
    const std::int64_t step = std::max<std::int64_t>(1, slots / kLooks);
    Fit fit;
    for (std::int64_t i = 0; i < slots; i += step) {
      isam::Byte byte = 0;
      if (common::read_at(filep->data.fd, {&byte, 1}, i * slot + length) != 1) return false;
      if (!is_state(byte)) return false;
      take(fit, byte);
    }
    return fit.fits_all();
  }
  // The shortest other length that fits all slots and gives about as many records as an index
  // leads to; 0 for none.
  [[nodiscard]] int better_length(std::int64_t items) {
    for (int other = 1; other <= INT16_MAX && other < size_; ++other) {
      if (other == length() || !may_fit(other)) continue;
      const Fit fit = count(other);
      if (fit.fits_all() && fit.present >= items / 2) return other;
    }
    return 0;
  }

 private:
  static void take(Fit& fit, isam::Byte byte) {
    ++fit.slots;
    fit.fitting += is_state(byte) ? 1 : 0;
    fit.present += byte == isam::kRecordPresent ? 1 : 0;
  }
  // A byte that can be any when it cannot be read.
  [[nodiscard]] isam::Byte byte_at(std::int64_t offset) {
    constexpr std::size_t kPiece = 1 << 20;
    if (offset < begin_ || offset >= begin_ + static_cast<std::int64_t>(piece_.size())) {
      piece_.resize(kPiece);
      begin_ = offset;
      const ssize_t got = common::read_at(filep->data.fd, piece_, offset);
      piece_.resize(got > 0 ? static_cast<std::size_t>(got) : 1);
    }
    return piece_[static_cast<std::size_t>(offset - begin_)];
  }

  std::int64_t size_;
  int trailer_;  // bytes behind a record in its slot
  std::vector<isam::Byte> piece_;
  std::int64_t begin_ = 0;
};

void check_length(DeepCollector& collector) {
  States states;
  const Fit fit = states.count(States::length());
  if (fit.slots - fit.fitting <= fit.slots / kFewMisfits) return;
  const int better = states.better_length(collector.most_items());
  if (better == 0) return;
  collector.add(
      {.code = "pieces.record-length",
       .status = Status::kNeedsSalvage,
       .text = fmt::format("record length {} fits {} of {} slots, {} fits all", States::length(),
                           grouped(fit.fitting), grouped(fit.slots), better),
       .fields = {{"found", std::int64_t{States::length()}},
                  {"fits", fit.fitting},
                  {"slots", fit.slots},
                  {"expected", std::int64_t{better}}}});
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

// What does not fit leads to faults of other kinds: a pair without any needs no look.
void check_fit(const checker::Check& check, DeepCollector& collector) {
  if (collector.findings() == 0) return;
  check_length(collector);
  check_end(check, collector);
  if (!collector.is_of_another_time()) return;
  collector.add({.code = "pieces.times",
                 .status = Status::kDamaged,
                 .text = "every index leads to records that are not there or have other keys: the "
                         "two files are not of the same time"});
}

}  // namespace zentra
