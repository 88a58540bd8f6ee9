// Applying images of records, and what gives way to them.
#include <algorithm>
#include <utility>

#include "isam/base/errors.h"
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

// What is held about a record and may stand: not what takes back what does not.
std::vector<HeldId> Replay::held_about(const Touch& touch, std::int32_t number) {
  std::vector<HeldId> found = held_.about_record(touch, number);
  std::erase_if(found, [this](HeldId id) { return passed_over_.contains(held_[id].offset); });
  return found;
}

// Of what others hold about the record of an image, adds what stands in the files: what leads from
// the record as it is here to the record as the writer of the image met it. The rest is done with:
// it was undone by a recovery since, or never made.
void Replay::add_standing(const Step& step, const Touch& touch, std::vector<HeldId>& found) {
  const auto image = step.record.image();
  if (!image) return;
  const std::vector<HeldId> held = held_about(touch, image->number);
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
  bool goes_back = false;  // what it refutes is undone after all: its key is in the way
  for (;;) {
    const int isfd = file_of(step);
    if (isfd < 0) return -1;
    if (!refuted) refuted = refuted_by(step, *image, isfd);
    const int result =
        refuted ? change_as_found(step, *image, isfd) : change_record(step, *image, isfd);
    if (result == 0) break;
    if (refuted && !goes_back) static_cast<void>(undo_doubted(*refuted, isfd));
    goes_back = refuted.has_value();
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

const Doubt* Replay::doubt_of_another(const Step& step, std::int32_t number,
                                      std::int64_t before) const {
  const Doubt* const doubt = doubts_.find(*step.file, number);
  const bool counts =
      doubt != nullptr && doubt->serial != step.writer->serial && doubt->offset < before;
  return counts ? doubt : nullptr;
}

// A change of a record whose old image the file does not have: the change before it, which had the
// same old image, was not made, and gives way. It need not be undone: its key may be somebody
// else's by now.
std::optional<Doubt> Replay::refuted_by(const Step& step, const Image& image, int isfd) {
  if (step.record.type() == LogType::kInsert) return std::nullopt;
  const Doubt* const doubt = doubt_of_another(step, image.number, step.offset);
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
// the image can be tried again, `kUnneeded` when what it was to put back was changed otherwise.
Replay::Way Replay::make_way(const Step& step, const Image& image, int isfd) {
  const KeepError keep;
  if (outlook_.opposite_of(step.offset) >= 0) return Way::kNone;  // it was refused then, too
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

// What was found to stand needs no images that were taken back before.
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

// Whether a held image was not made, as the next one of its record shows, which has the same old
// image.
bool Replay::is_refuted(const std::vector<HeldId>& held, std::size_t i, const Image& image) {
  if (i + 1 >= held.size() || !was_perhaps_not_made(held_[held[i]])) return false;
  const std::vector<Byte> old{image.old_image.begin(), image.old_image.end()};
  const LogRecord next = look_.isgetnext(held_[held[i + 1]].offset);
  const auto after = next.bytes().empty() ? std::nullopt : next.image();
  return after && next.type() != LogType::kInsert && std::ranges::equal(after->old_image, old);
}

// Somebody who has the key, perhaps the writer itself, has given it up before, in a transaction
// that is held.
Replay::Way Replay::apply_giving_up(const Step& step, const Clash& clash) {
  if (depth_ > kDeepest) return Way::kNone;
  const Touch touch{nullptr, step.offset, step.file, About::kRecord, false};
  std::vector<HeldId> found = held_about(touch, clash.owner);
  for (std::size_t i = 0; i < found.size() && !held_.is_exhausted(); ++i) {
    held_.count_look();
    const std::int64_t offset = held_[found[i]].offset;
    if (outlook_.was_taken_back(offset)) continue;
    const LogRecord record = look_.isgetnext(offset);
    const auto image = record.bytes().empty() ? std::nullopt : record.image();
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

// Whether the last change of a record was not made: only through it the record has the number, or
// the key, that somebody else was given afterwards.
bool Replay::give_way(const Step& step, std::int32_t number, int isfd, const Clash* clash) {
  // What has been put off stood until its transaction ended.
  const std::int64_t before = may_put_off_ ? step.offset : INT64_MAX;
  const Doubt* const doubt = doubt_of_another(step, number, before);
  if (doubt == nullptr || doubt->type == LogType::kDelete) return false;
  if (clash == nullptr && doubt->type != LogType::kInsert) return false;
  const LogRecord record = look_.isgetnext(doubt->offset);
  const auto doubted = record.bytes().empty() ? std::nullopt : record.image();
  if (!doubted) return false;
  const bool only_there = clash == nullptr || (clash->has_key(doubted->new_image) &&
                                               !clash->has_key(doubted->old_image));
  if (!only_there) return false;
  const Doubt giving_way = *doubt;
  const std::vector<Byte> old{doubted->old_image.begin(), doubted->old_image.end()};
  if (undo_doubted(giving_way, isfd) != 0) return change_instead(step, number, old);
  forget_doubted(*step.file, number, giving_way);
  return true;
}

// The record cannot be again what it was before a change that was not made, for somebody has that
// key: it was changed otherwise then, in a transaction that is held.
bool Replay::change_instead(const Step& step, std::int32_t number, ConstBytes before) {
  const std::vector<Byte> old{before.begin(), before.end()};
  const Touch touch{nullptr, step.offset, step.file, About::kRecord, false};
  for (const HeldId id : held_about(touch, number)) {
    held_.count_look();
    if (depth_ > kDeepest || held_.is_exhausted()) return false;
    const LogRecord record = look_.isgetnext(held_[id].offset);
    const auto image = record.bytes().empty() ? std::nullopt : record.image();
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
