#include "zentra/records.h"

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
      piece_(std::max(kPiece / slot_, std::size_t{1}) * slot_),
      single_(slot_),
      tail_(static_cast<std::size_t>(isam::filep->geometry.maxreclen) - length_) {}

// Reads the piece of the next record: false where that cannot be.
bool Records::read_piece() {
  const bool is_single = at_ < single_until_;
  const std::size_t size = is_single ? slot_ : piece_.size();
  const ssize_t got = common::read_at(isam::filep->data.fd, isam::Bytes{piece_}.first(size),
                                      std::int64_t{at_ - 1} * isam::slot_size());
  const auto slots =
      static_cast<std::int32_t>(static_cast<std::size_t>(std::max<ssize_t>(got, 0)) / slot_);
  piece_first_ = at_;
  piece_end_ = at_ + slots;
  if (slots > 0) return true;
  if (!is_single && got < 0) {
    single_until_ = at_ + static_cast<std::int32_t>(piece_.size() / slot_);
    return read_piece();
  }
  return false;
}

bool Records::next(Record& to, const checker::UsageMap* done) {
  for (; at_ <= last_; ++at_) {
    if (done != nullptr && done->tstbit(at_)) continue;
    const bool is_there = (at_ >= piece_first_ && at_ < piece_end_) || read_piece();
    if (!is_there) {
      tell_(at_, Fault::kUnreadable);
      continue;
    }
    const std::size_t offset = static_cast<std::size_t>(at_ - piece_first_) * slot_;
    if (!take(at_, piece_.data() + offset, to)) continue;
    ++at_;
    return true;
  }
  return false;
}

bool Records::find(std::int32_t number, Record& to) {
  if (number < 1 || number > last_) return false;
  const std::int64_t offset = std::int64_t{number - 1} * isam::slot_size();
  if (!isam::bfcopy_data(offset, single_, {}) &&
      common::read_at(isam::filep->data.fd, single_, offset) !=
          static_cast<ssize_t>(single_.size())) {
    return false;
  }
  return take(number, single_.data(), to);
}

// False for a record that is not present.
bool Records::take(std::int32_t number, const isam::Byte* slot, Record& to) {
  const isam::Byte* const trailer = slot + length_;
  if (trailer[0] != isam::kRecordPresent) return false;
  to = {.number = number, .fixed = {slot, length_}, .tail = {}};
  if (isam::filep->geometry.varlen && !read_tail(trailer, to.tail)) {
    tell_(number, Fault::kTailLost);
  }
  return true;
}

bool Records::read_tail(const isam::Byte* trailer, isam::ConstBytes& tail) {
  const int length = common::ldshort(trailer + isam::kTrailerLength);
  const std::int32_t reference = common::ldlong(trailer + isam::kTrailerReference);
  if (length == 0) return true;
  if (length < 0 || static_cast<std::size_t>(length) > tail_.size() || reference == 0) return false;
  const isam::KeepError keep;
  const isam::Bytes to = isam::Bytes{tail_}.first(static_cast<std::size_t>(length));
  if (isam::rprread(reference, to) != length) return false;
  tail = to;
  return true;
}

}  // namespace zentra
