#include "zentra/salvage/salvageplan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "checker/driver.h"
#include "common/io.h"
#include "common/number.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "zentra/command/arguments.h"
#include "zentra/keys/keysfile.h"
#include "zentra/keys/newkeys.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/text.h"
#include "zentra/salvage/recordlength.h"

namespace zentra {
namespace {

constexpr int kLeastByStates = 11;  // shorter records are not taken for such by their states alone
constexpr std::int64_t kFarMore = 2;  // times as many records

class Planner {
 public:
  Planner(const SalvageOptions& options, Report& report, SalvagePlan& plan)
      : options_(options), report_(report), plan_(plan) {}

  void run() {
    if (open_files() && find_shape() && find_keys()) take_numbers();
  }

 private:
  bool refuse(Status status, std::string why) {
    plan_.status = status;
    plan_.why = std::move(why);
    return false;
  }
  void note(const char* code, std::string text, Fields fields) {
    report_.entry({.kind = Entry::Kind::kNote,
                   .code = code,
                   .text = std::move(text),
                   .fields = std::move(fields)});
  }

  [[nodiscard]] bool open_files();
  [[nodiscard]] bool find_shape();
  [[nodiscard]] ShapeFit fit_of(const RecordLength& states, const SlotShape& shape) const;
  [[nodiscard]] std::optional<RecordLength::Found> best_of(const RecordLength& states) const;
  void take_length(const RecordLength& states);
  [[nodiscard]] bool take_like(const RecordLength& states);
  [[nodiscard]] bool take_dictionary(const RecordLength& states);
  [[nodiscard]] bool take_states(const RecordLength& states);
  [[nodiscard]] bool find_keys();
  [[nodiscard]] bool take_old_keys();
  void tell_keys(const char* from);
  void take_numbers();

  const SalvageOptions& options_;
  Report& report_;
  SalvagePlan& plan_;
  std::optional<PairShape> like_;
  bool is_indexed_ = false;  // the index file is this data file's, for all that is known
};

bool Planner::open_files() {
  if (!plan_.data.open(options_.data)) {
    return refuse(plan_.data.status(), plan_.data.why());
  }
  std::string index = options_.index;
  if (index.empty()) {
    std::string base = options_.data;
    checker::cut_suffix(base);
    index = base + ".idx";
    if (base == options_.data || !common::name_exists(index)) return true;
  }
  if (!plan_.index.open(index)) note("salvage.no-index", plan_.index.why(), {});
  return true;
}

void Planner::take_length(const RecordLength& states) {
  const auto [least, greatest] = *lengths_in(options_.length);
  const auto present = [&states, least = least](bool varies) {
    return states.fit_of({least, varies}).present;
  };
  plan_.slots = {least, greatest > 0 || present(true) > present(false)};
  plan_.pair.greatest = greatest;
}

bool Planner::take_like(const RecordLength& states) {
  plan_.slots = {like_->least, like_->is_variable()};
  plan_.pair.greatest = like_->is_variable() ? like_->greatest : 0;
  if (fit_of(states, plan_.slots).may_be()) return true;
  return refuse(Status::kNeedsSalvage,
                fmt::format("its slots are not those of records of {} bytes, "
                            "which {} has; --length "
                            "tells another length",
                            like_->least, shown(options_.like)));
}

// Of a shape that somebody tells, from the first byte on; or, where all is taken, anywhere.
ShapeFit Planner::fit_of(const RecordLength& states, const SlotShape& shape) const {
  ShapeFit fit = states.fit_of(shape);
  if (!fit.may_be() && shape.varies) fit = states.fit_of_states(shape);
  return options_.takes_all && !fit.may_be() ? states.fit_anywhere(shape) : fit;
}

std::optional<RecordLength::Found> Planner::best_of(const RecordLength& states) const {
  const auto best = states.best();
  if (!options_.takes_all) return best;
  const auto other = states.best_anywhere();
  return !best || (other && other->fit.present > kFarMore * best->fit.present) ? other : best;
}

// Where the states tell of far more records by another shape, the dictionary is another file's.
bool Planner::take_dictionary(const RecordLength& states) {
  if (!plan_.index.header()) return false;
  const isam::Dictionary& dictionary = *plan_.index.header();
  const SlotShape told{dictionary.d_recsize(), dictionary.d_maxrecsize() != 0};
  const ShapeFit fit = fit_of(states, told);
  const auto best = best_of(states);
  if (!fit.may_be() || (best && best->fit.present > kFarMore * fit.present)) return false;
  plan_.slots = told;
  return true;
}

bool Planner::take_states(const RecordLength& states) {
  const auto best = best_of(states);
  if (!best) {
    return refuse(Status::kNeedsSalvage, options_.takes_all
                                             ? "no data file: no record length fits its bytes "
                                               "(--length tells one)"
                                             : "no data file: no record length fits its bytes from "
                                               "their first on "
                                               "(--length tells one, --take-all looks farther)");
  }
  if (best->shape.length < kLeastByStates) {
    return refuse(Status::kNeedsSalvage,
                  fmt::format("its states tell of records of {} bytes, which zero bytes may do as "
                              "well (--length tells that it is so, or another length)",
                              best->shape.length));
  }
  plan_.slots = best->shape;
  return true;
}

bool Planner::find_shape() {
  const RecordLength states{plan_.data};
  const char* from = "as the states in the data file tell";
  if (!options_.like.empty()) {
    std::string base = options_.like;
    checker::cut_suffix(base);
    ReadPair pair;
    LikeShape like = shape_like(pair, base, as_time(options_.wait));
    if (!like.shape) return refuse(like.status, like.why);
    like_ = std::move(like.shape);
  }
  if (!options_.length.empty()) {
    from = "as --length tells";
    take_length(states);
  } else if (like_) {
    from = "as the pair of --like has";
    if (!take_like(states)) return false;
  } else if (take_dictionary(states)) {
    from = "as the index file tells";
  } else if (!take_states(states)) {
    return false;
  }
  const auto& dictionary = plan_.index.header();
  is_indexed_ = plan_.index && (!dictionary || dictionary->d_recsize() == plan_.slots.length);
  if (plan_.index && !is_indexed_) {
    note("salvage.other-index",
         fmt::format("the index file tells of records of {} bytes: nothing of "
                     "it is taken",
                     dictionary->d_recsize()),
         {{"found", std::int64_t{dictionary->d_recsize()}},
          {"expected", std::int64_t{plan_.slots.length}}});
    plan_.index = {};
  }
  plan_.pair.least = plan_.slots.length;
  if (plan_.slots.varies && plan_.pair.greatest == 0 && is_indexed_ && dictionary) {
    const int told = dictionary->d_maxrecsize();
    if (told > plan_.pair.least && told <= isam::kMaxRecordLength) plan_.pair.greatest = told;
  }
  if (!plan_.slots.varies) plan_.pair.greatest = plan_.pair.least;
  note("salvage.records",
       fmt::format("records of {} bytes{}, {}", plan_.slots.length,
                   plan_.slots.varies ? " and a variable part" : "", from),
       {{"length", std::int64_t{plan_.slots.length}}, {"variable", plan_.slots.varies}});
  return true;
}

void Planner::tell_keys(const char* from) {
  report_.entry({.kind = Entry::Kind::kNote,
                 .code = "salvage.keys",
                 .text = fmt::format("{} index(es), {}", plan_.pair.keys.size(), from),
                 .fields = {{"found", static_cast<std::int64_t>(plan_.pair.keys.size())}}});
}

bool Planner::take_old_keys() {
  if (!is_indexed_) return false;
  OldIndex::Keys old = plan_.index.keys(plan_.slots.length);
  plan_.lacks_keys = !old.are_all;
  if (old.keys.empty()) return false;
  plan_.pair.keys = std::move(old.keys);
  if (plan_.index.header() && plan_.index.header()->d_collate()) {
    const char* const name = plan_.index.header()->d_collname();
    plan_.pair.collation.assign(name, ::strnlen(name, isam::kCollationNameSize));
    plan_.pair.collation.erase(plan_.pair.collation.find_last_not_of(' ') + 1);
  }
  tell_keys("as the index file describes them");
  return true;
}

bool Planner::find_keys() {
  if (!options_.keys_file.empty()) {
    NewKeys keys = keys_of_file(options_.keys_file);
    if (!keys.why.empty()) return refuse(keys.status, keys.why);
    plan_.pair.keys = std::move(keys.keys);
    tell_keys("as the file of --keys describes them");
  } else if (!options_.keys.empty()) {
    for (const std::string& words : options_.keys) {
      KeyOfLine key = key_of_line(words);
      if (!key.why.empty()) return refuse(Status::kUnfinished, "--key: " + key.why);
      plan_.pair.keys.push_back(key.key);
    }
    tell_keys("as --key describes them");
  } else if (like_) {
    plan_.pair.keys = like_->keys;
    plan_.pair.collation = like_->collation;
    tell_keys("as the pair of --like has them");
  } else if (!take_old_keys()) {
    plan_.pair.keys.push_back({});
    note("salvage.no-keys",
         "no index: a pair in the order of record numbers; --key, --keys and "
         "--like describe some",
         {});
  }
  const std::string fault = shape_fault(plan_.pair);
  return fault.empty() || refuse(Status::kUnfinished, fault);
}

// What the dictionary tells besides.
void Planner::take_numbers() {
  const auto& dictionary = plan_.index.header();
  if (like_) {
    plan_.pair.duplicate_width = like_->duplicate_width;
    plan_.pair.node_size = like_->node_size;
  }
  if (!is_indexed_ || !dictionary) return;
  if (!like_) plan_.pair.node_size = dictionary->d_idxsize() + 1;
  plan_.pair.unique = std::max(dictionary->d_uniqid(), 1);
  if (dictionary->d_dupsize() == 2) plan_.pair.duplicate_width = 2;
}

}  // namespace

std::optional<std::pair<int, int>> lengths_in(std::string_view text) {
  const std::size_t dash = std::min(text.find('-'), text.size());
  const auto least = common::number_within(text.substr(0, dash), 1, isam::kMaxRecordLength);
  if (!least) return {};
  const auto first = static_cast<int>(*least);
  if (dash == text.size()) return std::pair{first, 0};
  const auto greatest =
      common::number_within(text.substr(dash + 1), first + 1, isam::kMaxRecordLength);
  if (!greatest) return {};
  return std::pair{first, static_cast<int>(*greatest)};
}

void make_salvage_plan(const SalvageOptions& options, Report& report, SalvagePlan& plan) {
  Planner{options, report, plan}.run();
}

}  // namespace zentra
