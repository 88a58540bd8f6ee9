#include "zentra/transfer/records.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/records/varlen.h"

namespace zentra {
namespace {

constexpr std::size_t kPiece = std::size_t{128} << 10;
constexpr std::size_t kTails = std::size_t{256} << 10;  // of a batch

// A device has room for more than the pair; of a file's slots the dictionary may know too few.
std::int32_t last_slot(std::int32_t highest) {
  struct stat status {};
  const int fd = isam::filep->data.fd;
  const bool is_regular = common::system_calls().fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  const std::int64_t most = is_regular ? INT32_MAX - 1 : highest;
  return static_cast<std::int32_t>(std::min(most, common::file_size(fd) / isam::slot_size()));
}

}  // namespace

Records::Records(Tell tell)
    : tell_(std::move(tell)),
      length_(static_cast<std::size_t>(isam::filep->geometry.reclen)),
      slot_(static_cast<std::size_t>(isam::slot_size())),
      highest_(std::max(isam::dictp->d_nextdata(), 0)),
      last_(last_slot(highest_)),
      greatest_tail_(static_cast<std::size_t>(isam::filep->geometry.maxreclen) - length_),
      single_(slot_),
      tail_(greatest_tail_) {}

// Reads slots from the next one on: how many. Where a piece cannot be read its slots are read one
// by one.
std::int32_t Records::read_slots(isam::Bytes to) {
  const bool is_single = at_ < single_until_;
  const ssize_t got = common::read_at(isam::filep->data.fd, is_single ? to.first(slot_) : to,
                                      std::int64_t{at_ - 1} * isam::slot_size());
  const auto slots =
      static_cast<std::int32_t>(static_cast<std::size_t>(std::max<ssize_t>(got, 0)) / slot_);
  if (slots > 0 || is_single || got >= 0) return slots;
  single_until_ = at_ + static_cast<std::int32_t>(to.size() / slot_);
  return read_slots(to);
}

bool Records::next(Batch& to, const checker::UsageMap& done) {
  to.slots_.resize(std::max(kPiece / slot_, std::size_t{1}) * slot_);
  if (greatest_tail_ > 0) to.tails_.resize(std::max(kTails, greatest_tail_));
  to.records_.clear();
  to.tails_end_ = 0;
  while (to.records_.empty()) {
    while (at_ <= last_ && done.tstbit(at_)) ++at_;
    if (at_ > last_) return false;
    const std::int32_t slots = read_slots(to.slots_);
    if (slots > 0) {
      fill(to, slots, done);
    } else {
      tell_(at_++, Fault::kUnreadable);
    }
  }
  return true;
}

// Takes the records of slots that have been read, as long as there is room for a variable part.
void Records::fill(Batch& to, std::int32_t slots, const checker::UsageMap& done) {
  const std::int32_t first = at_;
  const std::int32_t last = std::min(last_, first + (slots - 1));
  for (; at_ <= last && to.tails_.size() - to.tails_end_ >= greatest_tail_; ++at_) {
    if (done.tstbit(at_)) continue;
    Record record;
    const isam::Byte* const slot = &to.slots_[static_cast<std::size_t>(at_ - first) * slot_];
    if (!take(at_, slot, isam::Bytes{to.tails_}.subspan(to.tails_end_), record)) continue;
    to.tails_end_ += record.tail.size();
    to.records_.push_back(record);
  }
}

bool Records::find(std::int32_t number, Record& to) {
  if (number < 1 || number > last_) return false;
  const std::int64_t offset = std::int64_t{number - 1} * isam::slot_size();
  if (!isam::bfcopy_data(offset, single_, {}) &&
      common::read_at(isam::filep->data.fd, single_, offset) !=
          static_cast<ssize_t>(single_.size())) {
    return false;
  }
  return take(number, single_.data(), tail_, to);
}

// False for a record that is not present.
bool Records::take(std::int32_t number, const isam::Byte* slot, isam::Bytes room, Record& to) {
  const isam::Byte* const trailer = slot + length_;
  if (trailer[0] != isam::kRecordPresent) return false;
  to = {.number = number, .fixed = {slot, length_}, .tail = {}};
  if (isam::filep->geometry.varlen && !read_tail(trailer, room, to.tail)) {
    tell_(number, Fault::kTailLost);
  }
  return true;
}

bool Records::read_tail(const isam::Byte* trailer, isam::Bytes room, isam::ConstBytes& tail) {
  const int length = common::ldshort(trailer + isam::kTrailerLength);
  const std::int32_t reference = common::ldlong(trailer + isam::kTrailerReference);
  if (length == 0) return true;
  if (length < 0 || static_cast<std::size_t>(length) > greatest_tail_ || reference == 0) {
    return false;
  }
  const isam::KeepError keep;
  const isam::Bytes to = room.first(static_cast<std::size_t>(length));
  if (isam::rprread(reference, to) != length) return false;
  tail = to;
  return true;
}

}  // namespace zentra
