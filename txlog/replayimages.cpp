// Applying images of records, and what gives way to them.
#include <algorithm>

#include "isam/errors.h"
#include "txlog/replay.h"

namespace isam::txlog {
namespace {

Contents contents_of(ConstBytes image) {
  return Contents{std::in_place, image.begin(), image.end()};
}

// What the record was before and after an image.
Contents before(const Image& image, LogType type) {
  return type == LogType::kInsert ? Contents{} : contents_of(image.old_image);
}
Contents after(const Image& image, LogType type) {
  return type == LogType::kDelete ? Contents{} : contents_of(image.new_image);
}

}  // namespace

// Of what others hold about the record of an image, adds what stands in the files: what leads from
// the record as it is here to the record as the writer of the image met it. The rest is done with:
// it was undone by a recovery since, or never made.
void Replay::add_standing(const Step& step, const Touch& touch, std::vector<HeldId>& found) {
  const auto image = step.record.image();
  if (!image) return;
  const std::vector<HeldId> held = held_.about_record(touch, image->number);
  // What takes an image back tells nothing about the record.
  if (held.empty() || outlook_.is_opposite(step.offset)) return;
  const int isfd = file_of(step);
  const Contents file = isfd < 0 ? Contents{} : lgread(isfd, image->number);
  choose_standing(held, file, before(*image, step.record.type()));
  for (const HeldId id : held) {
    if (!held_[id].passed) found.push_back(id);
  }
}

// Goes back from what the writer of an image met, `seen`, until it is what the file has. When the
// images do not lead there all of them are taken to stand.
void Replay::choose_standing(const std::vector<HeldId>& held, const Contents& file, Contents seen) {
  std::vector<HeldId> passed;
  std::size_t left = held.size();
  while (left > 0 && seen != file) {
    const Held& last = held_[held[--left]];
    const LogRecord record = look_.isgetnext(last.offset);
    const auto image = record.bytes().empty() ? std::nullopt : record.image();
    if (!image) return;
    const LogType type = record.type();
    if (after(*image, type) == seen) {
      seen = before(*image, type);
    } else if (before(*image, type) == seen && was_perhaps_not_made(last)) {
      passed.push_back(held[left]);
    } else {
      return;
    }
  }
  if (seen != file) return;
  passed.insert(passed.end(), held.begin(), held.begin() + static_cast<std::ptrdiff_t>(left));
  for (const HeldId id : passed) {
    held_.pass(id);
    const std::int64_t opposite = outlook_.opposite_of(held_[id].offset);
    if (opposite >= 0) passed_over_.insert(opposite);
  }
}

// Whether an image was the last record of its writer, or was taken back.
bool Replay::was_perhaps_not_made(const Held& held) {
  return held.writer->last == held.offset || outlook_.opposite_of(held.offset) >= 0;
}

int Replay::apply_image(const Step& step) {
  const auto image = step.record.image();
  if (!image) return failed(kBadLogRecord);
  std::optional<Doubt> refuted;
  for (;;) {
    const int isfd = file_of(step);
    if (isfd < 0) return -1;
    if (!refuted) refuted = refuted_by(step, *image, isfd);
    const int result =
        refuted ? change_as_found(step, *image, isfd) : change_record(step, *image, isfd);
    if (result == 0) break;
    const Way way = make_way(step, *image, isfd);
    if (way == Way::kMade) continue;
    const bool later = way == Way::kNone && put_off(step, image->number);
    if (refuted) static_cast<void>(undo_doubted(*refuted, isfd));
    return later ? kPutOff : -1;
  }
  const bool is_last = step.writer->serial != 0 && step.writer->last == step.offset;
  if (is_last) {
    doubts_.put(*step.writer, *step.file, image->number, step.record.type());
  } else {
    doubts_.forget(*step.file, image->number);
  }
  return 0;
}

int Replay::change_record(const Step& step, const Image& image, int isfd) {
  if (as_found_ != kNoHeld && as_found_ == in_hand_) return change_as_found(step, image, isfd);
  if (!put_off_.empty()) {
    const auto before = put_off_.find({step.file->id, image.number});
    if (before != put_off_.end()) {
      if (change_as_found(step, image, isfd) != 0) return -1;
      observer_.applied(look_.isgetnext(held_[before->second.id].offset));
      end_put_off({step.file->id, image.number});
      return 0;
    }
  }
  switch (step.record.type()) {
    case LogType::kInsert:
      return lginsert(isfd, image.number, image.new_image, How::kRedo);
    case LogType::kUpdate:
      return lgupdate(isfd, image.number, image.new_image);
    default:
      break;
  }
  bool absent = false;
  const int result = lgdelete(isfd, image.number, &absent);
  // What was not there is not to be put back by an opposite either.
  if (result == 0 && absent) static_cast<void>(pass_over(step));
  return result;
}

// Makes an image of a record that is not what its writer met: one before it was put off, or was not
// made.
int Replay::change_as_found(const Step& step, const Image& image, int isfd) {
  const bool present = lgread(isfd, image.number).has_value();
  if (step.record.type() != LogType::kDelete) {
    return present ? lgupdate(isfd, image.number, image.new_image)
                   : lginsert(isfd, image.number, image.new_image, How::kRedo);
  }
  return present ? lgdelete(isfd, image.number) : 0;
}

// A transaction may have used a key for a while that somebody else, who is applied already, got
// afterwards.
bool Replay::put_off(const Step& step, std::int32_t number) {
  if (iserrno != kDuplicate || in_hand_ == kNoHeld || !may_put_off_) return false;
  if (held_[in_hand_].offset != step.offset) return false;
  if (put_off_at_.size() < depth_) put_off_at_.resize(depth_);
  const RecordKey about{step.file->id, number};
  const bool again = put_off_.contains(about);
  end_put_off(about);
  put_off_[about] = {in_hand_, depth_ - 1, again};
  ++put_off_at_[depth_ - 1];
  clear_errors();
  return true;
}

const Doubt* Replay::doubt_of_another(const Step& step, std::int32_t number) const {
  const Doubt* const doubt = doubts_.find(*step.file, number);
  const bool counts =
      doubt != nullptr && doubt->serial != step.writer->serial && doubt->offset < step.offset;
  return counts ? doubt : nullptr;
}

// A change of a record whose old image the file does not have: the change before it, which had the
// same old image, was not made, and gives way. It need not be undone: its key may be somebody
// else's by now.
std::optional<Doubt> Replay::refuted_by(const Step& step, const Image& image, int isfd) {
  if (step.record.type() == LogType::kInsert) return std::nullopt;
  const Doubt* const doubt = doubt_of_another(step, image.number);
  if (doubt == nullptr || doubt->type == LogType::kInsert) return std::nullopt;
  const LogRecord record = look_.isgetnext(doubt->offset);
  const auto doubted = record.bytes().empty() ? std::nullopt : record.image();
  if (!doubted || !std::ranges::equal(doubted->old_image, image.old_image)) return std::nullopt;
  if (lgread(isfd, image.number) == contents_of(image.old_image)) return std::nullopt;
  const Doubt refuted = *doubt;
  forget_doubted(*step.file, image.number, refuted);
  return refuted;
}

// What stands in the way of an image that was refused: `kMade` when it is out of the way, so that
// the image can be tried again.
Replay::Way Replay::make_way(const Step& step, const Image& image, int isfd) {
  const KeepError keep;
  if (outlook_.opposite_of(step.offset) >= 0) return Way::kNone;  // it was refused then, too
  if (iserrno == kBadRecordNumber && step.record.type() == LogType::kInsert) {
    return give_way(step, image.number, isfd, nullptr) ? Way::kMade : Way::kNone;
  }
  if (iserrno != kDuplicate) return Way::kNone;
  for (const Clash& clash : lgclashes(isfd, image.number, image.new_image)) {
    const Way way = apply_giving_up(step, clash);
    if (way != Way::kNone) return way;
    if (give_way(step, clash.owner, isfd, &clash)) return Way::kMade;
  }
  return Way::kNone;
}

// Somebody who has the key, perhaps the writer itself, has given it up before, in a transaction
// that is held.
Replay::Way Replay::apply_giving_up(const Step& step, const Clash& clash) {
  if (depth_ > kDeepest) return Way::kNone;
  const Touch touch{nullptr, step.offset, step.file, About::kRecord, false};
  std::vector<HeldId> found = held_.about_record(touch, clash.owner);
  for (std::size_t i = 0; i < found.size() && !held_.is_exhausted(); ++i) {
    held_.count_look();
    const LogRecord record = look_.isgetnext(held_[found[i]].offset);
    const auto image = record.bytes().empty() ? std::nullopt : record.image();
    if (!image || !clash.has_key(image->old_image) || clash.has_key(image->new_image)) continue;
    found.resize(i + 1);
    held_.complete(found);
    const bool applied =
        redo_all(found) == 0 && redo_put_off({step.file->id, step.record.image()->number}) == 0;
    return applied ? Way::kMade : Way::kFailed;
  }
  return Way::kNone;
}

// Whether the last change of a record was not made: only through it the record has the number, or
// the key, that somebody else was given afterwards.
bool Replay::give_way(const Step& step, std::int32_t number, int isfd, const Clash* clash) {
  const Doubt* const doubt = doubt_of_another(step, number);
  if (doubt == nullptr || doubt->type == LogType::kDelete) return false;
  if (clash == nullptr && doubt->type != LogType::kInsert) return false;
  const LogRecord record = look_.isgetnext(doubt->offset);
  const auto doubted = record.bytes().empty() ? std::nullopt : record.image();
  if (!doubted) return false;
  const bool only_there = clash == nullptr || (clash->has_key(doubted->new_image) &&
                                               !clash->has_key(doubted->old_image));
  if (!only_there) return false;
  const Doubt giving_way = *doubt;
  if (undo_doubted(giving_way, isfd) != 0) return false;
  forget_doubted(*step.file, number, giving_way);
  return true;
}

int Replay::undo_doubted(const Doubt& doubt, int isfd) {
  const KeepError keep;
  clear_errors();
  const LogRecord record = look_.isgetnext(doubt.offset);
  const auto image = record.bytes().empty() ? std::nullopt : record.image();
  if (!image) return -1;
  if (doubt.type == LogType::kInsert) return lgdelete(isfd, image->number);
  return doubt.type == LogType::kDelete
             ? lginsert(isfd, image->number, image->old_image, How::kRedo)
             : lgupdate(isfd, image->number, image->old_image);
}

// A change gave way; what may take it back is not applied either.
void Replay::forget_doubted(const ReplayFile& file, std::int32_t number, const Doubt& doubt) {
  observer_.gave_way(look_.isgetnext(doubt.offset));
  doubts_.forget(file, number);
  const std::int64_t opposite = outlook_.opposite_of(doubt.offset);
  if (opposite >= 0) passed_over_.insert(opposite);
}

}  // namespace isam::txlog
