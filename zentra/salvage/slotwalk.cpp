#include "zentra/salvage/slotwalk.h"

#include <algorithm>
#include <utility>

namespace zentra {
namespace {

constexpr int kRun = 16;         // slots that tell whether slots stand there
constexpr int kFewestInRun = 3;  // at the end of the file
constexpr std::size_t kBuffer = std::size_t{1} << 20;
constexpr std::int64_t kAskEach = std::int64_t{1} << 20;  // bytes between looks for a hole

}  // namespace

SlotWalk::SlotWalk(RescueFile& file, const SlotShape& shape, bool finds_steps)
    : file_(file),
      shape_(shape),
      finds_steps_(finds_steps),
      size_(shape.size()),
      // So that a run behind any byte of a slot is in it.
      buffer_(std::max(kBuffer, static_cast<std::size_t>((kRun + 2) * shape.size()))) {}

isam::ConstBytes SlotWalk::view(std::int64_t offset, std::size_t length) {
  const std::int64_t end = offset + static_cast<std::int64_t>(length);
  const std::int64_t known = begin_ + static_cast<std::int64_t>(got_);
  const bool is_there = offset >= begin_ && (end <= known || known >= file_.size());
  if (!is_there) {
    begin_ = offset;
    got_ = file_.read(buffer_, offset);
  }
  const auto from = static_cast<std::size_t>(offset - begin_);
  if (from >= got_) return {};
  return isam::ConstBytes{buffer_}.subspan(from, std::min(length, got_ - from));
}

bool SlotWalk::is_unread(std::int64_t begin, std::int64_t end) const {
  return std::ranges::any_of(file_.unread(), [&](const RescueFile::Range& range) {
    return range.begin < end && begin < range.end;
  });
}

void SlotWalk::pass_hole() {
  if (at_ < asks_at_) return;
  const std::int64_t slots = (file_.next_data(at_) - at_) / size_;
  at_ += slots * size_;
  asks_at_ = at_ + kAskEach;
  number_ += slots;
  if (slots > 0) was_odd_ = false;
}

bool SlotWalk::is_odd_at(std::int64_t offset) {
  const isam::ConstBytes state = view(offset + shape_.length, 1);
  return !state.empty() && !is_state(state[0]);
}

// Its state is odd, or it is that of an absent record, of which hardly ever anything is left.
bool SlotWalk::is_unlikely_at(std::int64_t offset) {
  if (is_odd_at(offset)) return true;
  const isam::ConstBytes slot = view(offset, static_cast<std::size_t>(shape_.length) + 1);
  return std::cmp_greater(slot.size(), shape_.length) && slot.back() == isam::kRecordAbsent &&
         std::ranges::any_of(slot, [](isam::Byte byte) { return byte != 0; });
}

bool SlotWalk::is_out_of_step(std::int64_t offset) {
  int odd = 0;
  for (int i = 0; i < kRun / 2; ++i) odd += is_unlikely_at(offset + i * size_) ? 1 : 0;
  return odd >= kRun / 4 || (odd > 0 && offset + kFewestInRun * size_ >= file_.size());
}

// How many records are present in the slots from `offset` on; 0: these are no slots.
int SlotWalk::present_in_run(std::int64_t offset) {
  int slots = 0;
  int present = 0;
  for (; slots < kRun; ++slots) {
    const isam::ConstBytes state = view(offset + slots * size_ + shape_.length, 1);
    if (state.empty()) break;
    if (!is_state(state[0])) return 0;
    present += state[0] == isam::kRecordPresent ? 1 : 0;
  }
  return slots >= kFewestInRun && present >= std::max(2, slots / 4) ? present : 0;
}

// How many bytes further slots go on, less than a slot; 0: nowhere.
std::int64_t SlotWalk::step_from(std::int64_t offset) {
  static_cast<void>(view(offset, static_cast<std::size_t>((kRun + 2) * size_)));
  int most = 0;
  std::int64_t best = 0;
  for (std::int64_t step = 1; step < size_; ++step) {
    const int present = present_in_run(offset + step);
    if (present <= most) continue;
    most = present;
    best = step;
  }
  return best;
}

bool SlotWalk::next(SourceSlot& slot) {
  pass_hole();
  if (at_ >= file_.size()) return false;
  static_cast<void>(view(at_, static_cast<std::size_t>(2 * size_)));  // with the next one
  auto length = static_cast<std::size_t>(size_);
  bool is_odd = is_odd_at(at_);
  if (finds_steps_ && is_unlikely_at(at_) && is_out_of_step(at_)) {
    if (const std::int64_t step = step_from(at_); step > 0) {
      length = static_cast<std::size_t>(step);
      ++steps_;
      is_odd = false;
    }
  }
  const bool is_before_odd = length == static_cast<std::size_t>(size_) && is_odd_at(at_ + size_);
  slot.bytes = view(at_, length);
  if (slot.bytes.empty()) return false;
  slot.offset = at_;
  slot.number = number_;
  slot.is_beside_odd = was_odd_ || is_before_odd;
  slot.is_unread = is_unread(at_, at_ + static_cast<std::int64_t>(length));
  was_odd_ = is_odd;
  at_ += static_cast<std::int64_t>(length);
  ++number_;
  return true;
}

}  // namespace zentra
