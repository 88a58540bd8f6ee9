#include "zentra/repair/notes.h"

#include <algorithm>
#include <string_view>

#include "checker/findings.h"
#include "zentra/repair/badrecords.h"

namespace zentra {
namespace {

std::int64_t number_in(const Fields& fields, std::string_view name) {
  const auto at = std::ranges::find_if(fields, [&](const auto& f) { return f.first == name; });
  const auto* const number = at == fields.end() ? nullptr : std::get_if<std::int64_t>(&at->second);
  return number == nullptr ? 0 : *number;
}

}  // namespace

void Notes::entry(const Entry& entry) {
  if (to_ != nullptr) to_->entry(entry);
  if (entry.kind == Entry::Kind::kDetail) note_astray(entry);
  if (entry.kind != Entry::Kind::kFinding) return;
  if (first_.empty()) first_ = entry.text;
  counts_[{entry.code, entry.key}] += std::max<std::int64_t>(1, number_in(entry.fields, "found"));
  last_[entry.code] = entry;
  // Of no other code records are asked for.
  if (entry.code != code_of(Why::kShared)) return;
  records_[entry.code].insert(static_cast<std::int32_t>(number_in(entry.fields, "record")));
}

// The details are few; the numbers take no more room than the items have in the file.
void Notes::note_astray(const Entry& entry) {
  constexpr std::size_t kMostDetails = 1000;
  if (entry.code != checker::text_of(checker::Code::kIndexRecordBad).code) return;
  Astray& astray = astray_[entry.key];
  const auto record = static_cast<std::int32_t>(number_in(entry.fields, "record"));
  astray.records.push_back(record);
  if (astray.details.size() < kMostDetails) astray.details.emplace_back(record, entry.fields);
}

const Astray* Notes::astray(int key) const {
  const auto at = astray_.find(key);
  return at == astray_.end() ? nullptr : &at->second;
}

bool Notes::has(const std::string& code) const { return last_.contains(code); }

bool Notes::has_any(const std::string& beginning, int key) const {
  return std::ranges::any_of(counts_, [&](const auto& counted) {
    return counted.first.second == key && counted.first.first.starts_with(beginning);
  });
}

std::int64_t Notes::count(const std::string& code, int key) const {
  const auto at = counts_.find({code, key});
  return at == counts_.end() ? 0 : at->second;
}

std::int64_t Notes::value(const std::string& code, const char* field) const {
  const auto at = last_.find(code);
  return at == last_.end() ? 0 : number_in(at->second.fields, field);
}

Status Notes::status(const std::string& code) const {
  const auto at = last_.find(code);
  return at == last_.end() ? Status::kSound : at->second.status;
}

std::string Notes::text(const std::string& code) const {
  const auto at = last_.find(code);
  return at == last_.end() ? "" : at->second.text;
}

const std::set<std::int32_t>& Notes::records(const std::string& code) const {
  static const std::set<std::int32_t> none;
  const auto at = records_.find(code);
  return at == records_.end() ? none : at->second;
}

}  // namespace zentra
