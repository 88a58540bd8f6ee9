#include "zentra/repair/repairplan.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "isam/tree/items.h"
#include "zentra/check/collector.h"
#include "zentra/check/deep.h"
#include "zentra/keys/newkeys.h"
#include "zentra/repair/backed.h"
#include "zentra/repair/recordsteps.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

constexpr int kMostLost = 10;  // one in so many
constexpr char kTimes[] = "pieces.times";
constexpr int kAllTheSame = 2;  // checks that a repair makes besides, of the copy and of its result

// Codes that say how little is known of the pair, in whose face nothing can be made.
using checker::Code;
constexpr std::array kHopeless = {
    Code::kOtherCollation, Code::kBadMagic,        Code::kBadNodeSize,    Code::kBadRecordSize,
    Code::kBadMaximumSize, Code::kMaximumTooSmall, Code::kOtherLockMethod};

class Planner {
 public:
  Planner(const checker::Check& check, const Notes& notes, const PlanOptions& options, bool whole)
      : check_(check), notes_(notes), options_(options), whole_(whole) {}

  Plan make(double seconds) {
    find_hopeless();
    if (options_.system_error != 0) not_planned(options_.system_error);
    if (!plan_.hopeless.empty()) return std::move(plan_);
    plan_geometry();
    plan_descriptions();
    if (!plan_.hopeless.empty()) return std::move(plan_);
    plan_dictionary();
    read_keys();
    plan_records();
    const bool is_strange = !whole_ && hardly_has_records();
    if (is_strange) plan_.hopeless = "hardly a slot of the data file has the state of a record";
    if (is_strange || plan_.system_error != 0) {
      plan_.steps.clear();
      return std::move(plan_);
    }
    weigh_losses();
    plan_indexes();
    plan_lists();
    if (const auto seen = see(filep->index.fd)) plan_.seen = *seen;
    if (plan_.hopeless.empty() && plan_.steps.empty()) {
      plan_.hopeless = "nothing is known to help: " + notes_.first();
    }
    estimate(seconds);
    return std::move(plan_);
  }

 private:
  Entry& step(const char* code, std::string text, int key = 0) {
    return plan_.steps.emplace_back(
        Entry{.kind = Entry::Kind::kStep, .code = code, .key = key, .text = std::move(text)});
  }
  void not_planned(int system_error) {
    plan_.system_error = system_error;
    plan_.hopeless = std::strerror(system_error);
  }
  void implausible(std::string why) { plan_.implausible.push_back(std::move(why)); }

  // Where no index tells it: then records may have another length or format than the dictionary
  // says.
  [[nodiscard]] bool hardly_has_records() const {
    constexpr std::int64_t kFew = 10;  // for so many slots without a state one record
    const std::int64_t odd = std::ranges::count(plan_.bad, Why::kOddState, &BadRecord::why);
    return odd >= kFew && odd > kFew * check_.datmap.cntmap();
  }

  // Of each bad record a line goes to the losses, all its bytes in hexadecimal, and what changes of
  // it to the note for undoing.
  void estimate(double seconds) {
    constexpr double kSecondsPerRecord = 10e-6;
    constexpr std::int64_t kLine = 200;  // what both lines have besides bytes
    const auto bad = static_cast<std::int64_t>(plan_.bad.size());
    const std::int64_t part = filep->geometry.maxreclen - filep->geometry.reclen;
    const std::int64_t lost = 2 * (filep->geometry.reclen + std::max<std::int64_t>(part, 0));
    plan_.seconds = seconds * (kAllTheSame + 1) + kSecondsPerRecord * static_cast<double>(bad);
    plan_.bytes = 2 * common::file_size(filep->index.fd) +
                  bad * (lost + std::int64_t{4} * trailer_size() + kLine);
  }

  void find_hopeless() {
    for (const Code code : kHopeless) {
      const char* const name = checker::text_of(code).code;
      if (notes_.has(name)) plan_.hopeless = notes_.text(name);
    }
    const bool goes_on = check_.sized && (whole_ || descriptions_are_lost(notes_));
    if (!goes_on && plan_.hopeless.empty()) plan_.hopeless = notes_.first();
    if (notes_.has(kRecordLength)) plan_.hopeless = notes_.text(kRecordLength);
    // The record length or format may be another one, and these bytes no records at all.
    if (notes_.status(kTimes) == Status::kNeedsSalvage) plan_.hopeless = notes_.text(kTimes);
  }

  void plan_geometry() {
    plan_.record_length = options_.record_length;
    if (plan_.record_length != 0) {
      step("repair.record-length",
           fmt::format("the record length becomes {} instead of {}, as the data file shows it",
                       plan_.record_length, options_.wrong_length));
      implausible("the dictionary has another record length than the data file");
    }
    if (notes_.has("pieces.data-end")) implausible("the data file ends too early");
    if (notes_.has(kTimes)) implausible("the two files are not of the same time");
  }

  void plan_descriptions() {
    const bool unreadable = descriptions_are_lost(notes_);
    if (!options_.keys.empty()) {
      take_given_keys();
      const bool are_whole = !unreadable && !notes_.has("descriptions.count");
      if (are_whole) implausible("the pair has descriptions that can be read");
      return;
    }
    if (unreadable) {  // what the dictionary counts does not matter: others replace them
      plan_.hopeless = "its descriptions of indexes cannot be read; --keys or --like gives others";
      if (options_.has_proposal) plan_.hopeless += ", --force takes those proposed";
      return;
    }
    const std::int64_t told = notes_.value("descriptions.count", "found");
    const std::int64_t counted = notes_.value("descriptions.count", "expected");
    if (!notes_.has("descriptions.count")) return;
    step("repair.index-count",
         fmt::format("the dictionary counts {} index(es) instead of {}", counted, told));
    if (counted < told) implausible(fmt::format("{} description(s) are gone", told - counted));
  }

  void take_given_keys() {
    plan_.keys = options_.keys;
    if (const int unfit = make_legal(plan_.keys)) {
      plan_.hopeless = fmt::format("the description of index {} does not suit the pair", unfit);
      return;
    }
    const char* const from = options_.are_proposed ? "found in the trees" : "given";
    step("repair.descriptions",
         fmt::format("the descriptions of {} index(es) that were {} are written", plan_.keys.size(),
                     from));
    if (counted_indexes() > plan_.keys.size()) {
      implausible(fmt::format("the dictionary counts {} indexes, and {} are {}", counted_indexes(),
                              plan_.keys.size(), from));
    }
  }

  void plan_dictionary() {
    constexpr int kNarrow = 2;
    constexpr int kWidth = 4;
    // A check that stopped early may not have told of it.
    if (dictp->d_dupsize() != kNarrow && dictp->d_dupsize() != kWidth) {
      plan_.duplicate_width = kWidth;
      step("repair.duplicate-width", fmt::format("duplicate numbers become {} bytes wide", kWidth));
    }
    if (notes_.has(kKeyNodeMarks) && plan_.keys.empty()) {
      plan_.marks_key_nodes = true;
      step("repair.description-marks",
           "the nodes of key descriptions get the marks that they lack");
    }
    if (notes_.has("audit.node")) {
      plan_.ends_audit = true;
      step("repair.audit-trail",
           "the audit trail, whose name is lost, is switched off and named no more");
    }
    if (notes_.has("pair.unfinished")) {
      step("repair.mark",
           "the mark of unfinished changes goes, since both files are made to agree");
    }
  }

  // The descriptions that the repaired pair has, as far as they are known.
  void read_keys() {
    keys_ = plan_.keys;
    if (!keys_.empty()) return;
    isam::KeyChain chain;
    keydescr k{};
    while (chain.next(k) == isam::KeyChain::Step::kFound) {
      if (k.nparts > 0 && isam::kylegal(k, filep->geometry.reclen) != 0) break;
      keys_.push_back(k);
    }
    isam::clear_errors();
  }

  [[nodiscard]] bool has_tree(std::size_t at) const { return keys_[at].nparts > 0; }
  [[nodiscard]] bool is_faulty(std::size_t at) const {
    return plan_.remakes_all() || notes_.has_any("index.", static_cast<int>(at) + 1);
  }

  void plan_records() {
    const Fate fate = options_.lost_part == LostPart::kDrop ? Fate::kDropped : Fate::kEmptied;
    if (const int failed =
            find_bad_records(check_, notes_.records(code_of(Why::kShared)), fate, plan_.bad)) {
      return not_planned(failed);
    }
    spare_mendable(check_, plan_.bad, plan_.lost_pages, spared_);
    drop_behind_end();
    const std::int64_t backed = keep_backed();
    const bool adds_records =
        !spared_.empty() ||
        std::ranges::any_of(plan_.bad, [&](const BadRecord& bad) { return adds(bad); });
    for (std::size_t at = 0; at < keys_.size(); ++at) {
      const bool unique = has_tree(at) && (keys_[at].flags & KF_DUPS) == 0;
      if (!unique || !(is_faulty(at) || adds_records)) continue;
      if (const int failed = find_equal_keys(check_, keys_[at], plan_.bad, plan_.same_keys)) {
        return not_planned(failed);
      }
    }
    std::string dropped = "record(s) are dropped: their state is neither present nor absent";
    if (backed > 0 && !options_.keeps_backed) {
      dropped += fmt::format("; --state=keep keeps {} to which all indexes lead", grouped(backed));
    }
    record_steps_.tell(Why::kOddState, Fate::kDropped, "repair.drop", dropped);
    record_steps_.tell(Why::kOddState, Fate::kPresented, "repair.keep",
                       "record(s) become present again: all indexes lead to them, by their keys");
    record_steps_.tell(Why::kTorn, Fate::kDropped, "repair.drop",
                       "record(s) are dropped: the data file ends within");
    record_steps_.tell(
        Why::kEqualKeys, Fate::kDropped, "repair.drop",
        "record(s) are dropped: each has a key of another in an index without duplicates");
    for (const Why why : {Why::kUnreadable, Why::kShared}) {
      const char* const lost =
          why == Why::kShared ? "belongs to another one too" : "cannot be read";
      record_steps_.tell(why, Fate::kDropped, "repair.drop",
                         fmt::format("record(s) are dropped whose variable part {}", lost));
      const std::int64_t emptied =
          record_steps_.tell(why, Fate::kEmptied, "repair.empty",
                             fmt::format("record(s) lose a variable part that {}", lost));
      if (emptied > 0 && options_.lost_part == LostPart::kNotSaid) plan_.needs_choice = true;
    }
    record_steps_.tell(Why::kReferenceLeft, Fate::kCleared, "repair.clear",
                       "absent record(s) stop referring to variable parts");
    if (plan_.needs_choice) {
      plan_.hopeless =
          "variable parts are lost; --variable=keep keeps those records without them, "
          "--variable=drop drops them";
    }
  }

  // Whether the repair makes a record of what the check could not read.
  [[nodiscard]] bool adds(const BadRecord& bad) const {
    const bool stays = bad.fate == Fate::kEmptied || bad.fate == Fate::kPresented;
    return stays && !check_.datmap.tstbit(bad.record);
  }

  // Whether no index made anew has the record, even if it is not dropped.
  [[nodiscard]] static bool was_absent(Why why) {
    return why == Why::kOddState || why == Why::kTorn;
  }

  // How many records are whole but for their state; they stay if that is asked for.
  std::int64_t keep_backed() {
    std::vector<std::int32_t> backed;
    if (const int failed = find_backed(check_, notes_, keys_, plan_.bad, backed)) {
      not_planned(failed);
      return 0;
    }
    for (BadRecord& bad : plan_.bad) {
      if (options_.keeps_backed && std::ranges::binary_search(backed, bad.record)) {
        bad.fate = Fate::kPresented;
      }
    }
    return std::ssize(backed);
  }

  // What looks like a record behind the last one, cannot be read, and has no index leading to it,
  // is none: it goes whatever becomes of others.
  void drop_behind_end() {
    for (std::size_t at = 0; at < keys_.size(); ++at) {
      if (has_tree(at) && count_astray(static_cast<int>(at) + 1) > 0) return;
    }
    for (BadRecord& bad : plan_.bad) {
      if (adds(bad) && bad.record > dictp->d_nextdata()) bad.fate = Fate::kDropped;
    }
  }

  [[nodiscard]] std::int64_t count_dropped() const {
    return std::ranges::count(plan_.bad, Fate::kDropped, &BadRecord::fate);
  }

  // Items of an index that lead to no record.
  [[nodiscard]] std::int64_t count_astray(int n) const {
    const auto astray = notes_.count(checker::text_of(checker::Code::kIndexRecordBad).code, n);
    return std::max<std::int64_t>(0, astray - std::ssize(spared_));
  }

  void plan_indexes() {
    // A record whose variable part was lost comes into the indexes again.
    const bool changes_indexed = std::ranges::any_of(plan_.bad, [&](const BadRecord& bad) {
      return adds(bad) || (bad.fate == Fate::kDropped && !was_absent(bad.why));
    });
    for (std::size_t at = 0; at < keys_.size(); ++at) {
      const int n = static_cast<int>(at) + 1;
      if (!has_tree(at) || !(is_faulty(at) || changes_indexed)) continue;
      plan_.indexes.insert(n);
      std::string text = "is made anew from the records";
      const std::int64_t astray = count_astray(n) - record_steps_.kept_of(n);
      if (astray > 0) {
        text += fmt::format(", without {} item(s) that lead to no record", grouped(astray));
      }
      step("repair.index", std::move(text), n).fields = {{"astray", astray}};
    }
  }

  void plan_lists() {
    const bool remakes = !plan_.indexes.empty() || plan_.remakes_all();
    const bool drops = count_dropped() > 0;
    // A failure that does not tell where it happened was met in a list. A node that cannot be read
    // is cut off from what names it when the list of nodes is made anew. Nor are lists looked at by
    // a check that stopped early.
    const bool has_failed = notes_.has("library.error") || !whole_;
    plan_.record_list = notes_.has_any("record-list.", 0) || drops || has_failed;
    plan_.node_list = notes_.has_any("node-list.", 0) || remakes || plan_.record_list;
    plan_.storage_lists = notes_.has_any("storage.", 0) || !plan_.lost_pages.empty() ||
                          (filep->geometry.varlen && (!plan_.bad.empty() || has_failed));
    if (!plan_.lost_pages.empty()) {
      step("repair.lost-pages",
           fmt::format(
               "{} storage page(s) of which damage has made something else become that again",
               plan_.lost_pages.size()));
    }
    if (plan_.storage_lists) {
      step("repair.storage-lists", "storage pages are put in order and their lists made anew");
    }
    if (plan_.record_list) {
      step("repair.record-list", "the list of free records is made anew");
    }
    if (plan_.node_list) step("repair.node-list", "the list of free nodes is made anew");
  }

  // The index with the fewest items that lead to no record: what is there by it is known to all.
  // 0 where none tells.
  [[nodiscard]] int least_astray() const {
    int least = 0;
    for (std::size_t at = 0; whole_ && at < keys_.size(); ++at) {
      const int n = static_cast<int>(at) + 1;
      if (has_tree(at) && (least == 0 || count_astray(n) < count_astray(least))) least = n;
    }
    return least;
  }

  // A record that only loses its variable part is not lost.
  void weigh_losses() {
    const int n = least_astray();
    const std::int64_t unreached = record_steps_.tell_unreached(n);
    plan_.unreached = unreached;
    const std::int64_t lost = unreached + count_dropped();
    const std::int64_t unseen = std::ranges::count_if(plan_.bad, [&](const BadRecord& bad) {
      return bad.fate != Fate::kCleared && !check_.datmap.tstbit(bad.record);
    });
    const std::int64_t present = check_.datmap.cntmap() + unreached + unseen + std::ssize(spared_);
    if (lost == 0 || lost * kMostLost <= present) return;
    implausible(fmt::format("{} of {} records would be lost", grouped(lost), grouped(present)));
  }

  const checker::Check& check_;
  const Notes& notes_;
  const PlanOptions& options_;
  bool whole_;
  std::vector<std::int32_t> spared_;  // records that can be read when big pages are mended
  std::vector<keydescr> keys_;
  Plan plan_;
  RecordSteps record_steps_{notes_, keys_, plan_.bad, plan_.same_keys, spared_, plan_.steps};
};

}  // namespace

bool descriptions_are_lost(const Notes& notes) {
  constexpr std::array kLost = {Code::kKeyNodeBad, Code::kKeyNodeDuplicate,
                                Code::kBadKeyDescription, Code::kNoKeyDescription};
  return std::ranges::any_of(kLost,
                             [&](Code code) { return notes.has(checker::text_of(code).code); });
}

Plan make_plan(const checker::Check& check, const Notes& notes, const PlanOptions& options,
               bool whole, double seconds) {
  return Planner{check, notes, options, whole}.make(seconds);
}

}  // namespace zentra
