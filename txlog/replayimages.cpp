// Applying images of data records, and what gives way to them.
//
// A record that look_ has read, and every image in it, holds until look_ reads the next one: bytes
// that are needed longer are copied.
#include <algorithm>
#include <utility>

#include "isam/base/errors.h"
#include "txlog/replay.h"

namespace isam::txlog {
namespace {

Contents contents_of(ConstBytes image) {
  return Contents{std::in_place, image.begin(), image.end()};
}

// The bytes of a data record before and after the change that an image tells; none while there is
// no such record.
Contents before(const Image& image, LogType type) {
  return type == LogType::kInsert ? Contents{} : contents_of(image.old_image);
}
Contents after(const Image& image, LogType type) {
  return type == LogType::kDelete ? Contents{} : contents_of(image.new_image);
}

}  // namespace

// The held images of a data record that may stand in the files. The opposites of images that were
// not applied are left out: they are passed over, too.
std::vector<HeldId> Replay::held_about(const Touch& touch, std::int32_t number) {
  std::vector<HeldId> found = held_.about_record(touch, number);
  std::erase_if(found, [this](HeldId id) { return passed_over_.contains(held_[id].offset); });
  return found;
}

// Adds to `found` the held images of other writers that stood in the files when this image was
// made: those that lead from the data record as it is here to what the writer of this image met.
// The others are never applied: a recovery has undone them since, or they were never made.
void Replay::add_standing(const Step& step, const Touch& touch, std::vector<HeldId>& found) {
  const auto image = step.record.image();
  if (!image) return;
  const std::vector<HeldId> held = held_about(touch, image->number);
  // An opposite shows what its own writer had made of the record, not what that writer met.
  if (held.empty() || outlook_.is_opposite(step.offset)) return;
  const int isfd = isfd_of(step);
  const Contents in_file = isfd < 0 ? Contents{} : lgread(isfd, image->number);
  choose_standing(held, in_file, before(*image, step.record.type()));
  for (const HeldId id : held) {
    if (!held_[id].passed) found.push_back(id);
  }
}

// Decides which held images of a data record stand, and passes the others and their opposites. Goes
// back from what the writer of an image met, `seen`, image by image, until the record is what the
// file has: images on the way stand, but earlier ones and those that fit only as not made do not.
// When the images do not lead to what the file has, all of them are taken to stand.
void Replay::choose_standing(const std::vector<HeldId>& held, const Contents& file, Contents seen) {
  std::vector<HeldId> passed;
  std::size_t left = held.size();
  while (left > 0 && seen != file) {
    const Held& latest = held_[held[--left]];
    const LogRecord record = look_.isgetnext(latest.offset);
    const auto image = record.image();
    if (!image) return;
    const LogType type = record.type();
    if (after(*image, type) == seen) {
      seen = before(*image, type);
    } else if (before(*image, type) == seen && was_perhaps_not_made(latest)) {
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

// Whether a held image may never have been made: a writer that was killed may have logged its last
// record only, and a writer takes back an image that it could not make.
bool Replay::was_perhaps_not_made(const Held& held) {
  return held.writer->last == held.offset || outlook_.opposite_of(held.offset) >= 0;
}

// Applies an image, and where it is refused first makes way for it, until it is applied or nothing
// more can be done. 0, kPutOff when it is not to be applied now (or at all), -1 with iserrno.
//
// An applied image confirms the change of its data record before it, and is in doubt itself as long
// as it is the last record of its writer.
int Replay::apply_image(const Step& step) {
  const auto image = step.record.image();
  if (!image) return failed(kBadLogRecord);
  std::optional<Doubt> refuted;
  bool undid_refuted = false;
  for (;;) {
    const int isfd = isfd_of(step);
    if (isfd < 0) return -1;
    if (!refuted) refuted = refuted_by(step, *image, isfd);
    const int result =
        refuted ? change_as_found(step, *image, isfd) : change_record(step, *image, isfd);
    if (result == 0) break;
    // Perhaps a key of the refuted change is in the way: it is undone after all, once.
    if (refuted && !undid_refuted) static_cast<void>(undo_doubted(*refuted, isfd));
    undid_refuted = refuted.has_value();
    const Way way = make_way(step, *image, isfd);
    if (way == Way::kMade) continue;
    if (way == Way::kUnneeded) return kPutOff;
    return way == Way::kNone && put_off(step, image->number) ? kPutOff : -1;
  }
  const bool is_last = step.writer->serial != 0 && step.writer->last == step.offset;
  if (is_last) {
    doubts_.put(*step.writer, *step.file, image->number, step.record.type());
  } else {
    doubts_.forget(*step.file, image->number);
  }
  return 0;
}

// Applies an image as its writer did. When an earlier image of the data record was put off, this
// one is applied in place of both. 0, or -1 with iserrno when it is refused.
int Replay::change_record(const Step& step, const Image& image, int isfd) {
  if (as_found_ != kNoHeld && as_found_ == in_hand_) return change_as_found(step, image, isfd);
  if (!put_off_.empty()) {
    const auto earlier = put_off_.find({step.file->id, image.number});
    if (earlier != put_off_.end()) {
      if (change_as_found(step, image, isfd) != 0) return -1;
      observer_.applied(look_.isgetnext(held_[earlier->second.id].offset));
      end_put_off({step.file->id, image.number});
      return 0;
    }
  }
  switch (step.record.type()) {
    case LogType::kInsert:
      return lginsert(isfd, image.number, image.new_image, skippable_numbers_);
    case LogType::kUpdate:
      return lgupdate(isfd, image.number, image.new_image);
    default:
      break;
  }
  bool absent = false;
  const int result = lgdelete(isfd, image.number, &absent);
  // The opposite of this deletion, if there is one, would put back a record that was not there.
  if (result == 0 && absent) static_cast<void>(pass_if_taken_back(step));
  return result;
}

// Applies an image whatever the data record is now. It is not what the writer of the image met,
// because an earlier image of it was put off or was not made.
int Replay::change_as_found(const Step& step, const Image& image, int isfd) {
  const bool present = lgread(isfd, image.number).has_value();
  if (step.record.type() != LogType::kDelete) {
    return present ? lgupdate(isfd, image.number, image.new_image)
                   : lginsert(isfd, image.number, image.new_image, skippable_numbers_);
  }
  return present ? lgdelete(isfd, image.number) : 0;
}

// Puts the image of the held record in hand off, when it was refused for a key in use: true then.
// Its transaction may have had the key for a while, and another writer, whose image is applied
// already, may have got it afterwards. redo_put_off() comes back to it.
bool Replay::put_off(const Step& step, std::int32_t number) {
  if (iserrno != kDuplicate || in_hand_ == kNoHeld || !may_put_off_) return false;
  if (held_[in_hand_].offset != step.offset) return false;
  if (put_off_at_.size() < depth_) put_off_at_.resize(depth_);
  const RecordKey about{step.file->id, number};
  const bool stands_for_more = put_off_.contains(about);
  end_put_off(about);
  put_off_[about] = {in_hand_, depth_ - 1, stands_for_more};
  ++put_off_at_[depth_ - 1];
  clear_errors();
  return true;
}

// The change of a data record that is in doubt, if another writer logged it before the place
// `before` in the log; else null.
const Doubt* Replay::doubt_of_another(const Step& step, std::int32_t number,
                                      std::int64_t before) const {
  const Doubt* const doubt = doubts_.find(*step.file, number);
  const bool counts =
      doubt != nullptr && doubt->serial != step.writer->serial && doubt->offset < before;
  return counts ? doubt : nullptr;
}

// The change in doubt that an image refutes; none when it refutes none. Both have the same old
// image, so the writer of this one met the record as it was before the change in doubt: that change
// was not made, although it was applied here, and is forgotten. It is not undone: this image
// replaces it, and the old record's key may be somebody else's by now.
std::optional<Doubt> Replay::refuted_by(const Step& step, const Image& image, int isfd) {
  if (step.record.type() == LogType::kInsert) return std::nullopt;
  const Doubt* const doubt = doubt_of_another(step, image.number, step.offset);
  if (doubt == nullptr || doubt->type == LogType::kInsert) return std::nullopt;
  const LogRecord record = look_.isgetnext(doubt->offset);
  const auto doubted = record.image();
  if (!doubted || !std::ranges::equal(doubted->old_image, image.old_image)) return std::nullopt;
  if (lgread(isfd, image.number) == contents_of(image.old_image)) return std::nullopt;
  const Doubt refuted = *doubt;
  forget_doubted(*step.file, image.number, refuted);
  return refuted;
}

// Removes what an image was refused for, as iserrno tells. kMade: the image can be tried again.
// kUnneeded: it is an opposite, and its record was changed otherwise instead of put back.
// kNone: nothing can be removed. kFailed: what would remove it could not be applied.
Replay::Way Replay::make_way(const Step& step, const Image& image, int isfd) {
  const KeepError keep;
  if (outlook_.opposite_of(step.offset) >= 0) return Way::kNone;  // its writer failed, too
  if (iserrno == kBadRecordNumber && step.record.type() == LogType::kInsert) {
    return give_way(step, image.number, isfd, nullptr) ? Way::kMade : Way::kNone;
  }
  if (iserrno != kDuplicate) return Way::kNone;
  const bool takes_back = outlook_.is_opposite(step.offset);
  if (takes_back && change_instead(step, image.number, image.new_image)) return Way::kUnneeded;
  for (const Clash& clash : lgclashes(isfd, image.number, image.new_image)) {
    const Way way = apply_giving_up(step, clash);
    if (way != Way::kNone) return way;
    if (give_way(step, clash.owner, isfd, &clash)) return Way::kMade;
  }
  return Way::kNone;
}

// Passes the held images in `found` that were taken back before its last one, and their opposites:
// without both the last one finds the same.
void Replay::pass_taken_back(std::vector<HeldId>& found) {
  const std::int64_t last = held_[found.back()].offset;
  for (const HeldId id : found) {
    const std::int64_t opposite = outlook_.opposite_of(held_[id].offset);
    if (opposite < 0 || opposite > last) continue;
    held_.pass(id);
    passed_over_.insert(opposite);
  }
  std::erase_if(found, [this](HeldId id) {
    return held_[id].passed || passed_over_.contains(held_[id].offset);
  });
}

// Whether held image `i` was not made: its writer perhaps did not, and the next held image of the
// same data record has the same old image. `image` no longer holds afterwards.
bool Replay::is_refuted(const std::vector<HeldId>& held, std::size_t i, const Image& image) {
  if (i + 1 >= held.size() || !was_perhaps_not_made(held_[held[i]])) return false;
  const std::vector<Byte> old{image.old_image.begin(), image.old_image.end()};
  const LogRecord next = look_.isgetnext(held_[held[i + 1]].offset);
  const auto next_image = next.image();
  return next_image && next.type() != LogType::kInsert &&
         std::ranges::equal(next_image->old_image, old);
}

// Applies what gave up the key that an image clashes with. The data record that has the key here
// was changed to another key before the image was logged, in a transaction that is held, perhaps of
// the image's own writer: the held images of that record up to this change are applied.
Replay::Way Replay::apply_giving_up(const Step& step, const Clash& clash) {
  if (depth_ > kDeepest) return Way::kNone;
  const Touch touch{nullptr, step.offset, step.file, About::kRecord, false};
  std::vector<HeldId> found = held_about(touch, clash.owner);
  for (std::size_t i = 0; i < found.size() && !held_.is_exhausted(); ++i) {
    held_.count_look();
    const std::int64_t offset = held_[found[i]].offset;
    if (outlook_.was_taken_back(offset)) continue;
    const LogRecord record = look_.isgetnext(offset);
    const auto image = record.image();
    if (!image || !clash.has_key(image->old_image) || clash.has_key(image->new_image)) continue;
    if (is_refuted(found, i, *image)) continue;
    found.resize(i + 1);
    pass_taken_back(found);
    held_.complete(found, outlook_);
    const bool applied =
        redo_all(found) == 0 && redo_put_off({step.file->id, step.record.image()->number}) == 0;
    return applied ? Way::kMade : Way::kFailed;
  }
  return Way::kNone;
}

// Removes the change in doubt of data record `number`: true when that clears the way. Only through
// this change the record has the number (no `clash`) or the key that the image's writer was given
// afterwards, so it was not made.
bool Replay::give_way(const Step& step, std::int32_t number, int isfd, const Clash* clash) {
  // An image that was put off stood until its transaction ended: a change logged behind it gives
  // way to it as well.
  const std::int64_t before = may_put_off_ ? step.offset : INT64_MAX;
  const Doubt* const doubt = doubt_of_another(step, number, before);
  if (doubt == nullptr || doubt->type == LogType::kDelete) return false;
  if (clash == nullptr && doubt->type != LogType::kInsert) return false;
  const LogRecord record = look_.isgetnext(doubt->offset);
  const auto doubted = record.image();
  if (!doubted) return false;
  const bool only_through_it = clash == nullptr || (clash->has_key(doubted->new_image) &&
                                                    !clash->has_key(doubted->old_image));
  if (!only_through_it) return false;
  const Doubt giving_way = *doubt;
  const std::vector<Byte> old{doubted->old_image.begin(), doubted->old_image.end()};
  if (undo_doubted(giving_way, isfd) != 0) return change_instead(step, number, old);
  forget_doubted(*step.file, number, giving_way);
  return true;
}

// Applies what a data record became instead: true when it was found and applied. A change was not
// made, but the record cannot be put back to what it was `before` it, for another record has that
// key. So it was changed otherwise, by a held image with the same old image.
bool Replay::change_instead(const Step& step, std::int32_t number, ConstBytes before) {
  const std::vector<Byte> old{before.begin(), before.end()};
  const Touch touch{nullptr, step.offset, step.file, About::kRecord, false};
  for (const HeldId id : held_about(touch, number)) {
    held_.count_look();
    if (depth_ > kDeepest || held_.is_exhausted()) return false;
    const LogRecord record = look_.isgetnext(held_[id].offset);
    const auto image = record.image();
    const bool instead = image && record.type() != LogType::kInsert &&
                         std::ranges::equal(image->old_image, old) &&
                         !outlook_.was_taken_back(held_[id].offset);
    if (!instead) continue;
    std::vector<HeldId> found{id};
    held_.complete(found, outlook_);
    const HeldId outer = std::exchange(as_found_, id);
    const int result = redo_all(found);
    as_found_ = outer;
    return result == 0;
  }
  return false;
}

// Undoes a change that was in doubt: 0, or -1. iserrno stays what it was.
int Replay::undo_doubted(const Doubt& doubt, int isfd) {
  const KeepError keep;
  clear_errors();
  const LogRecord record = look_.isgetnext(doubt.offset);
  const auto image = record.image();
  if (!image) return -1;
  if (doubt.type == LogType::kInsert) return lgdelete(isfd, image->number);
  return doubt.type == LogType::kDelete
             ? lginsert(isfd, image->number, image->old_image, skippable_numbers_)
             : lgupdate(isfd, image->number, image->old_image);
}

// A change in doubt has given way: it is told and forgotten, and its opposite, if there is one, is
// not applied either.
void Replay::forget_doubted(const ReplayFile& file, std::int32_t number, const Doubt& doubt) {
  observer_.gave_way(look_.isgetnext(doubt.offset));
  doubts_.forget(file, number);
  const std::int64_t opposite = outlook_.opposite_of(doubt.offset);
  if (opposite >= 0) passed_over_.insert(opposite);
}

}  // namespace isam::txlog
