#include "zentra/newpair/loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "isam.h"
#include "isam/base/errors.h"
#include "isam/calls/bulkload.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::size_t kBatch = 256;  // records
constexpr std::size_t kBatchBytes = std::size_t{1} << 20;
// Numbers without a record: a text may claim any.
constexpr std::int64_t kMostGaps = std::int64_t{16} << 20;
constexpr std::int64_t kGapsARecord = 4;

}  // namespace

Loader::Loader(int isfd, const PairShape& shape, Numbers numbers)
    : isfd_(isfd),
      is_variable_(shape.is_variable()),
      numbers_(numbers),
      room_(static_cast<std::size_t>(shape.greatest)) {
  const std::size_t batch = std::clamp(kBatchBytes / room_, std::size_t{1}, kBatch);
  records_.resize(batch * room_);
  given_.resize(batch);
  lengths_.resize(batch);
}

bool Loader::fail() {
  code_ = iserrno;
  why_ = ::isexplain();
  isam::clear_errors();
  return false;
}

bool Loader::begin() { return ::isloadbegin(isfd_) == 0 || fail(); }

bool Loader::add(isam::ConstBytes bytes, std::int32_t number) {
  if (numbers_ == Numbers::kKept && number != 0) {
    if (number > next_ && !leave_gap(number)) return false;
    next_ = std::int64_t{number} + 1;
  }
  std::memcpy(&records_[count_ * room_], bytes.data(), bytes.size());
  lengths_[count_] = static_cast<std::int32_t>(bytes.size());
  ++count_;
  ++added_;
  return count_ < given_.size() || flush();
}

bool Loader::leave_gap(std::int32_t number) {
  const std::int64_t gap = number - next_;
  gaps_ += gap;
  if (gaps_ > kMostGaps + kGapsARecord * added_) {
    why_ = fmt::format("{} numbers without a record before number {}", grouped(gaps_),
                       grouped(number));
    return false;
  }
  if (!flush()) return false;
  return isam::skip_numbers(isfd_, static_cast<std::int32_t>(gap)) == 0 || fail();
}

bool Loader::flush() {
  if (count_ == 0) return true;
  recordset set{.count = static_cast<std::int32_t>(count_),
                .records = records_.data(),
                .size = records_.size(),
                .numbers = given_.data(),
                .lengths = is_variable_ ? lengths_.data() : nullptr};
  if (::isload(isfd_, &set) != set.count) return fail();
  if (first_ == 0) first_ = given_.front();
  count_ = 0;
  return true;
}

// Memory for the numbers is touched only as far as there are some.
bool Loader::finish() {
  if (!flush()) return false;
  const auto room = static_cast<std::int32_t>(added_);
  refused_ = std::make_unique_for_overwrite<std::int32_t[]>(static_cast<std::size_t>(room));
  const int count = ::isloadend(isfd_, refused_.get(), room);
  if (count < 0) return fail();
  refused_count_ = static_cast<std::size_t>(count);
  return true;
}

}  // namespace zentra
