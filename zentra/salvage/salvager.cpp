#include "zentra/salvage/salvager.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/format.h"
#include "isam/files/files.h"
#include "zentra/repair/losses.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::Byte;
using isam::ConstBytes;

constexpr std::int64_t kMostFree = std::int64_t{16} << 20;  // numbers
constexpr std::int64_t kLooks = 1 << 16;                    // records that tell how they look

bool has_bytes(ConstBytes bytes) {
  return std::ranges::any_of(bytes, [](Byte byte) { return byte != 0; });
}

}  // namespace

DoubtWords words_of(Doubt doubt) {
  constexpr std::array<DoubtWords, 16> kWords = {
      {{"record.state", "slot(s) with a state that is none: lost"},
       {"salvage.unread", "slot(s) that the disk does not give: lost"},
       {"pieces.data-end", "end(s) of slots that are no whole one: lost"},
       {"record.unreadable", "record(s) whose variable part is lost"},
       {"index.keys-equal", "record(s) with a key that another one has: lost"},
       {"storage.pieces-unused", "variable part(s) that no record names: lost"},
       {"salvage.taken", "record(s) taken by their look, with a state that is none: doubtful"},
       {"salvage.unlike", "record(s) among damaged slots, and unlike others: doubtful"},
       {"salvage.found-again", "variable part(s) joined by their length: doubtful"},
       {"storage.piece-shared", "piece(s) of variable parts that several records name: doubtful"},
       {"salvage.step", "place(s) where slots go on out of step: records there are doubtful"},
       {"salvage.missing",
        "record number(s) in use by the index file, of which nothing is there: lost"},
       {"salvage.descriptions", "index file that does not tell all of its indexes"},
       {"salvage.other-storage",
        "record(s) whose variable parts the index "
        "file has not: it is another data file's"},
       {"salvage.numbers", "last number: too many are free, so that records get new ones"},
       {"salvage.source-changed", "source file(s) that changed meanwhile: begin anew"}}};
  return kWords.at(static_cast<std::size_t>(doubt));
}

Salvager::Salvager(const SalvageOptions& options, SalvagePlan& plan)
    : options_(options),
      plan_(plan),
      look_(plan.slots.length),
      losses_(losses_of(options.to)),
      deleted_(options.to + ".deleted.jsonl") {
  if (plan.slots.varies) {
    parts_.emplace(plan.index, std::max(0, plan.pair.greatest - plan.pair.least));
  }
}

bool Salvager::fail(std::string why) {
  why_ = std::move(why);
  return false;
}

bool Salvager::fail_by_errno(const std::string& path) {
  return fail(fmt::format("{}: {}", shown(path), std::strerror(errno)));
}

bool Salvager::is_free() {
  for (const std::string& path : {isam::mkidxname(options_.to), isam::mkdatname(options_.to),
                                  losses_.path(), deleted_.path()}) {
    if (common::name_exists(path)) return fail(fmt::format("{} is there already", shown(path)));
  }
  return true;
}

SlotWalk Salvager::walk() { return SlotWalk{plan_.data, plan_.slots, options_.takes_all}; }

Byte Salvager::state_of(const SourceSlot& slot) const {
  return slot.is_whole(plan_.slots) ? slot.state(plan_.slots) : Byte{0};
}

// What there is, so that judge() has something to judge by.
bool Salvager::survey() {
  checker::Progress progress("Looking at the data file", plan_.data.size());
  const std::int64_t step =
      std::max<std::int64_t>(1, plan_.data.size() / plan_.slots.size() / kLooks);
  const auto& dictionary = plan_.index.header();
  const std::int64_t highest = dictionary ? dictionary->d_nextdata() : 0;
  SlotWalk slots = walk();
  for (SourceSlot slot; slots.next(slot);) {
    progress.at(slot.offset);
    const bool is_there = slot.is_unread || state_of(slot) != isam::kRecordAbsent ||
                          (!slot.is_whole(plan_.slots) && has_bytes(slot.bytes));
    found_ += is_there && slot.number <= highest ? 1 : 0;
    if (!slot.is_whole(plan_.slots) || slot.is_unread) continue;
    const Byte state = slot.state(plan_.slots);
    const bool is_present = state == isam::kRecordPresent;
    if (is_present) {
      if (taken_++ % step == 0) look_.note(slot.record(plan_.slots));
      last_ = slot.number;
    }
    has_odd_ = has_odd_ || !is_state(state);
    if (!parts_ || state == isam::kRecordAbsent) continue;
    const ConstBytes trailer = slot.trailer(plan_.slots);
    if (is_present) {
      greatest_part_ =
          std::max<int>(greatest_part_, common::ldword(trailer.data() + isam::kTrailerLength));
    }
    if (parts_->note(slot.number, trailer, is_present) != 0) return fail_by_errno("sorting");
  }
  if (slots.steps() > 0) doubts_[Doubt::kStep] = slots.steps();
  if (slots.steps() == 0) count_missing();
  if (!parts_) return true;
  if (parts_->settle() != 0) return fail_by_errno("sorting");
  if (parts_->shared() > 0) doubts_[Doubt::kShared] = parts_->shared();
  if (parts_->is_foreign()) doubts_[Doubt::kForeign] = parts_->astray();
  if (plan_.pair.greatest == 0) {
    plan_.pair.greatest =
        std::min(isam::kMaxRecordLength, plan_.pair.least + std::max(1, greatest_part_));
  }
  return true;
}

// What the data file has lost without a trace: its end, or blocks that are zero bytes now.
void Salvager::count_missing() {
  const auto in_use = plan_.index ? plan_.index.records_in_use() : std::nullopt;
  if (!in_use || *in_use <= found_) return;
  doubts_[Doubt::kMissing] = *in_use - found_;
  lost_ += *in_use - found_;
}

// Counts those that are taken by their look, too.
void Salvager::count() {
  taken_ = 0;
  checker::Progress progress("Counting records", plan_.data.size());
  SlotWalk slots = walk();
  for (SourceSlot slot; slots.next(slot);) {
    progress.at(slot.offset);
    if (judge(slot).fate != Fate::kTaken) continue;
    ++taken_;
    last_ = slot.number;
  }
}

// Numbers stay unless hardly one of them would be a record's.
bool Salvager::settle() {
  if (options_.takes_all && has_odd_) count();
  keeps_numbers_ = last_ - taken_ <= kMostFree && last_ < INT32_MAX;
  if (!keeps_numbers_) doubts_[Doubt::kNotKept] = last_;
  return taken_ < INT32_MAX || fail("more records than a pair can have");
}

Salvager::Verdict Salvager::judge(const SourceSlot& slot) const {
  const SlotShape& shape = plan_.slots;
  if (slot.is_unread) return {Fate::kLost, Doubt::kUnread};
  if (!slot.is_whole(shape)) {
    return has_bytes(slot.bytes) ? Verdict{Fate::kLost, Doubt::kEnd} : Verdict{};
  }
  const Byte state = slot.state(shape);
  if (state == isam::kRecordPresent) {
    const bool is_odd = slot.is_beside_odd && !look_.fits(slot.record(shape));
    return is_odd ? Verdict{Fate::kTaken, Doubt::kBesideOdd} : Verdict{Fate::kTaken};
  }
  if (state != isam::kRecordAbsent) {
    const bool is_taken = options_.takes_all && look_.fits(slot.record(shape));
    return is_taken ? Verdict{Fate::kTaken, Doubt::kTaken} : Verdict{Fate::kLost, Doubt::kOddState};
  }
  const bool is_left = options_.takes_deleted && has_bytes(slot.bytes);
  return is_left ? Verdict{Fate::kDeleted} : Verdict{};
}

bool Salvager::lose(const SourceSlot& slot, LineFile& to, const char* reason) {
  std::string variable;
  const bool has_part = parts_ && slot.is_whole(plan_.slots);
  if (has_part) variable = parts_->part_of(slot.number, slot.trailer(plan_.slots)).bytes;
  const LostRecord lost{.record = slot.number,
                        .state = state_of(slot),
                        .fixed = as_text(slot.record(plan_.slots)),
                        .variable = variable,
                        .reason = reason};
  return to.add(line_of(lost)) || fail_by_errno(to.path());
}

// With its variable part, or what becomes of it without.
bool Salvager::take(const SourceSlot& slot, Loader& loader) {
  const ConstBytes fixed = slot.record(plan_.slots);
  std::vector<Byte> record{fixed.begin(), fixed.end()};
  if (parts_) {
    const OldParts::Part part = parts_->part_of(slot.number, slot.trailer(plan_.slots));
    const auto room = static_cast<std::size_t>(plan_.pair.greatest - plan_.pair.least);
    const bool is_broken = part.how == OldParts::How::kBroken || part.bytes.size() > room;
    if (part.how == OldParts::How::kFoundAgain) {
      ++doubts_[Doubt::kFoundAgain];
      ++doubtful_;
    }
    const auto* const from = reinterpret_cast<const Byte*>(part.bytes.data());
    const bool is_kept = options_.variable == "keep";
    if (!is_broken || (is_kept && options_.takes_all)) {
      record.insert(record.end(), from, from + std::min(room, part.bytes.size()));
    }
    if (is_broken) {
      ++doubts_[Doubt::kVariable];
      const LostRecord lost{.record = slot.number,
                            .state = slot.state(plan_.slots),
                            .fixed = as_text(fixed),
                            .variable = part.bytes,
                            .is_kept = is_kept,
                            .reason = words_of(Doubt::kVariable).code};
      if (!losses_.add(line_of(lost))) return fail_by_errno(losses_.path());
      if (!is_kept) {
        ++lost_;
        ++dropped_;
        return true;
      }
    }
  }
  const auto number = keeps_numbers_ ? static_cast<std::int32_t>(slot.number) : 0;
  return loader.add(record, number) || fail(loader.why());
}

bool Salvager::fill(NewPair& pair) {
  Loader loader{pair.handle(), plan_.pair,
                keeps_numbers_ ? Loader::Numbers::kKept : Loader::Numbers::kFollowing};
  if (!loader.begin()) return fail(loader.why());
  checker::Progress progress("Gathering records", plan_.data.size());
  SlotWalk slots = walk();
  for (SourceSlot slot; slots.next(slot);) {
    progress.at(slot.offset);
    const Verdict verdict = judge(slot);
    if (verdict.doubt) ++doubts_[*verdict.doubt];
    if (verdict.fate == Fate::kTaken) {
      doubtful_ += verdict.doubt ? 1 : 0;
      if (!take(slot, loader)) return false;
    }
    if (verdict.fate == Fate::kDeleted && !lose(slot, deleted_, "record.deleted")) return false;
    if (verdict.fate != Fate::kLost) continue;
    ++lost_;
    if (has_bytes(slot.bytes) && !lose(slot, losses_, words_of(*verdict.doubt).code)) return false;
  }
  if (!loader.finish()) return fail(loader.why());
  records_ = loader.added() - std::ssize(loader.refused());
  return lose_refused(loader.refused()) && lose_unused();
}

// Whether the record got a number in fill().
bool Salvager::is_taken_whole(const SourceSlot& slot) {
  if (judge(slot).fate != Fate::kTaken) return false;
  if (!parts_ || options_.variable == "keep") return true;
  const OldParts::Part part = parts_->part_of(slot.number, slot.trailer(plan_.slots));
  const auto room = static_cast<std::size_t>(plan_.pair.greatest - plan_.pair.least);
  return part.how != OldParts::How::kBroken && part.bytes.size() <= room;
}

bool Salvager::lose_refused(std::span<const std::int32_t> refused) {
  if (refused.empty()) return true;
  doubts_[Doubt::kEqualKeys] = std::ssize(refused);
  lost_ += std::ssize(refused);
  SlotWalk slots = walk();
  std::int64_t place = 0;
  for (SourceSlot slot; !refused.empty() && slots.next(slot);) {
    if (!is_taken_whole(slot)) continue;
    ++place;
    if ((keeps_numbers_ ? slot.number : place) != refused.front()) continue;
    refused = refused.subspan(1);
    if (!lose(slot, losses_, words_of(Doubt::kEqualKeys).code)) return false;
  }
  return refused.empty() || fail("the data file has changed meanwhile");
}

bool Salvager::lose_unused() {
  if (!parts_ || parts_->is_foreign()) return true;
  bool is_written = true;
  parts_->each_unused([&](std::string_view bytes) {
    ++doubts_[Doubt::kUnused];
    const LostRecord lost{.variable = bytes, .reason = words_of(Doubt::kUnused).code};
    is_written = is_written && losses_.add(line_of(lost));
  });
  return is_written || fail_by_errno(losses_.path());
}

bool Salvager::run() {
  const checker::Interrupt interrupt("zentra: interrupted; nothing is made\n");
  if (!is_free() || !survey() || !settle()) return false;
  NewPair pair{options_.to};
  if (!pair.make(plan_.pair)) return fail(pair.why());
  if (!fill(pair)) return false;
  const int changed =
      (plan_.data.has_changed() ? 1 : 0) + (plan_.index && plan_.index.has_changed() ? 1 : 0);
  if (changed > 0) doubts_[Doubt::kChanged] = changed;
  if (plan_.lacks_keys) doubts_[Doubt::kNoKeys] = 1;
  if (!pair.check()) return fail(pair.why());
  if (S_ISREG(plan_.data.opened().st_mode)) pair.make_like(plan_.data.fd());
  if (!losses_.sync()) return fail_by_errno(losses_.path());
  if (!deleted_.sync()) return fail_by_errno(deleted_.path());
  const checker::SignalBlock block;  // the pair and its losses stay together
  if (!pair.publish()) return fail(pair.why());
  checker::Interrupt::say("zentra: interrupted; the new pair is made\n");
  losses_.keep();
  deleted_.keep();
  return true;
}

}  // namespace zentra
