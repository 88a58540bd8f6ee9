#include "zentra/check/deep.h"

#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <span>

#include "checker/driver.h"

namespace zentra {
namespace {

constexpr char kOddLevels[] = "index.levels";
constexpr std::int64_t kFewAstray = 10;
constexpr int kShareAstray = 10;  // one in so many

}  // namespace

void DeepCollector::found(const checker::Finding& finding) {
  if (finding.code == checker::Code::kIndexRecordBad) {
    Leads& leads = leads_[static_cast<int>(finding.numbers.key)];
    leads.astray += finding.numbers.found;
    leads.gone += finding.numbers.found;
  }
  Collector::found(finding);
}

void DeepCollector::detail(const checker::Detail& detail) {
  const bool is_astray = detail.code == checker::Code::kIndexRecordBad && check_ != nullptr;
  if (is_astray && detail.record > check_->datreal) ++leads_[detail.key].behind;
  Collector::detail(detail);
}

void DeepCollector::odd_level(int n, std::int32_t node, int found, int expected) {
  ++odd_levels_;
  add({.kind = Entry::Kind::kDetail,
       .code = kOddLevels,
       .key = n,
       .text = "node with another level",
       .fields = {{"node", std::int64_t{node}},
                  {"found", std::int64_t{found}},
                  {"expected", std::int64_t{expected}}}});
}

void DeepCollector::index_begins(int n, const keydescr& k) {
  Collector::index_begins(n, k);
  walked_ = k.nparts > 0 ? n : 0;
  for (const keypart& part : std::span{k.part, static_cast<std::size_t>(k.nparts)}) {
    keys_end_ = std::max(keys_end_, part.start + part.length);
  }
  if (walked_ == 0) return;
  look_at_root(n, k.rootnode);
  keys_.begins(n, k);
}

// Two indexes that are described alike, too, may lead to one tree.
void DeepCollector::look_at_root(int n, std::int32_t root) {
  const auto [at, is_first] = roots_.try_emplace(root, n);
  if (is_first) return;
  add({.code = "index.root-shared",
       .status = Status::kDamaged,
       .key = n,
       .text = fmt::format("its root, node {}, is that of index {}", root, at->second),
       .fields = {{"node", std::int64_t{root}}, {"other", std::int64_t{at->second}}}});
}

void DeepCollector::index_walked(std::int32_t /*nodes*/, int /*levels*/) {
  if (walked_ == 0) return;
  const bool may_be_node = check_ != nullptr && audit_node_ >= 1 && audit_node_ <= check_->idxlast;
  if (may_be_node && check_->idxmap2.tstbit(audit_node_)) audit_is_tree_node_ = true;
  if (odd_levels_ > 0) {
    add({.code = kOddLevels,
         .status = Status::kDamaged,
         .key = walked_,
         .text = fmt::format("{} node(s) that are not on the level where they stand in the tree",
                             odd_levels_),
         .fields = {{"found", odd_levels_}}});
    odd_levels_ = 0;
  }
  keys_.ends();
  leads_[walked_].astray += keys_.differing();
  leads_[walked_].right += keys_.items() - keys_.differing();
}

bool DeepCollector::is_of_another_time() const {
  const auto leads_astray = [](const auto& index) {
    const Leads& leads = index.second;
    const std::int64_t astray = leads.astray - leads.behind;
    return astray >= kFewAstray && astray > leads.right / (kShareAstray - 1);
  };
  return !leads_.empty() && std::ranges::all_of(leads_, leads_astray);
}

bool DeepCollector::are_records_gone() const {
  const auto leads_nowhere = [](const auto& index) {
    const Leads& leads = index.second;
    return leads.astray >= kFewAstray &&
           leads.gone > (leads.right + leads.astray) / kShareAstray * (kShareAstray - 1);
  };
  return !leads_.empty() && std::ranges::all_of(leads_, leads_nowhere);
}

std::int64_t DeepCollector::most_items() const {
  std::int64_t most = 0;
  for (const auto& [n, leads] : leads_) most = std::max(most, leads.right + leads.astray);
  return most;
}

namespace {

bool run_all(checker::Check& check, DeepCollector* deep, const std::function<void()>& lets_go) {
  if (deep != nullptr) deep->hears(check);
  if (!checker::run_checks(check)) return false;
  checker::tell_why_refused(check);
  if (deep == nullptr) return true;
  check_marks(check, *deep);
  check_storage(check, *deep);
  if (deep->findings() > 0) {
    lets_go();
    check_fit(check, *deep);
  }
  return true;
}

}  // namespace

// What the system did not let the checks read counts neither as sound nor as damaged.
bool check_whole(checker::Check& check, Collector& collector, DeepCollector* deep,
                 const std::function<void()>& lets_go) {
  try {
    const bool whole = run_all(check, deep, lets_go);
    if (!whole) check.prterr();  // no finding says it where the system or the library refused
    if (deep != nullptr && check.sized) check_index_end(check, collector);
    if (check.system_error != 0) collector.unfinished(check.system_error);
    return whole;
  } catch (const std::bad_alloc&) {
    check.found(checker::Code::kNoMemory);
    return false;
  }
}

}  // namespace zentra
