#include "zentra/repair/recordsteps.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "isam/base/current.h"
#include "zentra/repair/backed.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr int kFewShown = 10;  // records of a step that are named

}  // namespace

const BadRecord* RecordSteps::find(std::int32_t record) const {
  const auto at = std::ranges::lower_bound(bad_, record, {}, &BadRecord::record);
  return at == bad_.end() || at->record != record ? nullptr : &*at;
}

bool RecordSteps::is_told(std::int32_t record) const {
  return find(record) != nullptr || std::ranges::binary_search(spared_, record);
}

std::int64_t RecordSteps::tell(Why why, Fate fate, const char* code, const std::string& text) {
  const auto is_one = [&](const BadRecord& bad) { return bad.fate == fate && bad.why == why; };
  const std::int64_t count = std::ranges::count_if(bad_, is_one);
  if (count == 0) return 0;
  steps_.push_back({.kind = Entry::Kind::kStep,
                    .code = code,
                    .text = fmt::format("{} {}", count, text),
                    .fields = {{"found", count}, {"reason", std::string(code_of(why))}}});
  int shown = 0;
  for (const BadRecord& bad : bad_) {
    if (!is_one(bad)) continue;
    if (++shown > kFewShown) break;
    steps_.push_back(
        {.kind = Entry::Kind::kDetail, .code = code, .text = "record", .fields = fields_of(bad)});
  }
  return count;
}

Fields RecordSteps::fields_of(const BadRecord& bad) const {
  Fields fields{{"record", std::int64_t{bad.record}}};
  const auto at = std::ranges::find_if(keys_, [](const keydescr& k) { return k.nparts > 0; });
  std::vector<isam::Byte> fixed(static_cast<std::size_t>(isam::filep->geometry.reclen));
  if (at == keys_.end() || !read_slot(bad.record, fixed, {})) return fields;
  fields.emplace_back("key", key_of(*at, fixed));
  const auto same =
      std::ranges::lower_bound(same_keys_, bad.record, {}, &SameKeys::value_type::first);
  const bool has_same = same != same_keys_.end() && same->first == bad.record;
  if (bad.why == Why::kEqualKeys && has_same) {
    fields.emplace_back("same-key-as", std::int64_t{same->second});
  }
  if (bad.why == Why::kOddState) add_backing(bad.record, fixed, fields);
  return fields;
}

// How many indexes lead to the record with the key that its bytes have: with all of them it is
// whole but for its state.
void RecordSteps::add_backing(std::int32_t record, isam::ConstBytes fixed, Fields& fields) const {
  if (const auto backing = indexes_with_its_key(notes_, keys_, record, fixed)) {
    fields.emplace_back("indexes-with-its-key", *backing);
  }
}

std::int64_t RecordSteps::tell_unreached(int n) {
  const auto* const astray = notes_.astray(n);
  if (astray == nullptr) return 0;
  const std::int64_t count =
      std::ranges::count_if(astray->records, [&](std::int32_t record) { return !is_told(record); });
  if (count == 0) return 0;
  constexpr char kCode[] = "repair.unreached";
  steps_.push_back(
      {.kind = Entry::Kind::kStep,
       .code = kCode,
       .text = fmt::format("{} record(s) that indexes lead to are not in the data file: they are "
                           "lost, but for their keys in the index of before",
                           grouped(count)),
       .fields = {{"found", count}}});
  int shown = 0;
  for (const auto& [record, fields] : astray->details) {
    if (is_told(record)) continue;
    if (++shown > kFewShown) break;
    Entry detail{.kind = Entry::Kind::kDetail,
                 .code = kCode,
                 .text = "record",
                 .fields = {{"record", std::int64_t{record}}}};
    if (const FileBytes* const key = key_in(fields)) detail.fields.emplace_back("key", *key);
    steps_.push_back(std::move(detail));
  }
  return count;
}

std::int64_t RecordSteps::kept_of(int n) const {
  const auto* const astray = notes_.astray(n);
  if (astray == nullptr) return 0;
  return std::ranges::count_if(astray->records, [&](std::int32_t record) {
    const BadRecord* const bad = find(record);
    return bad != nullptr && (bad->fate == Fate::kEmptied || bad->fate == Fate::kPresented);
  });
}

}  // namespace zentra
