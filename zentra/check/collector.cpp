#include "zentra/check/collector.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "checker/check.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/records/datafile.h"
#include "isam/tree/items.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using checker::Code;

constexpr char kFailure[] = "library.error";

// Of one of those that a finding counts.
std::string in_words(const checker::Detail& detail) {
  std::string words = checker::wording_of(detail.code);
  for (const std::string_view left_out : {"%d ", "(s)"}) {
    if (const auto at = words.find(left_out); at != words.npos) words.erase(at, left_out.size());
  }
  return words;
}

// Whether a run of kestro that is answered yes leaves nothing of it. It gives the number of a bad
// record free.
bool is_healed(Code code) {
  if (code == Code::kBadRecord) return !isam::filep->geometry.varlen;
  return checker::text_of(code).question != checker::Question::kNone;
}

bool is_about_descriptions(std::string_view code) {
  constexpr std::array kCodes = {Code::kKeyNodeBad, Code::kKeyNodeDuplicate,
                                 Code::kBadKeyDescription, Code::kNoKeyDescription};
  return std::ranges::any_of(kCodes, [&](Code one) { return code == checker::text_of(one).code; });
}

// The key that a record should have in an index; empty when it cannot be read.
Fields key_of_record(std::int32_t record, const keydescr& k) {
  const isam::KeepError keep;
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(isam::filep->geometry.maxreclen) + 1);
  if (isam::dataread(record, bytes) <= 0) return {};
  isam::Item item;
  isam::itmake(bytes.data(), item, k);
  return {{"key", key_value(k, item.key)}};
}

}  // namespace

std::string temporary_folder() {
  const char* const named = std::getenv("TMPDIR");
  return named != nullptr && *named != '\0' ? named : "/var/tmp";
}

Value key_value(const keydescr& k, const isam::Byte* value) {
  const std::string bytes{as_text({value, static_cast<std::size_t>(k.keylen)})};
  return FileBytes{.bytes = bytes, .shown = shown_key(k, bytes)};
}

void Collector::add(const Entry& entry, bool heals) {
  if (entry.kind == Entry::Kind::kFinding) {
    if (!heals) beyond_.insert(entry.code);
    if (entry.status == Status::kNeedsSalvage) {
      (is_about_descriptions(entry.code) ? lacks_descriptions_ : needs_more_) = true;
    }
    has_failed_ = has_failed_ || entry.code == kFailure;
    ++findings_;
    status_ = worse(status_, entry.status);
  }
  report_.entry(entry);
}

void Collector::found(const checker::Finding& finding) {
  if (finding.code == Code::kRecordListMissing) misses_records_ = true;
  if (finding.code == Code::kIndexRecordMissing && is_unique_) lacks_unique_ = true;
  if (finding.code == Code::kBadRecord) has_bad_records_ = true;
  if (finding.code == Code::kIndexRecordBad) ++indexes_astray_;
  add(checker::entry_of(finding), is_healed(finding.code));
}

void Collector::failed(std::int32_t code, std::int32_t place) {
  is_unfinished_ = is_unfinished_ || checker::is_of_system(code);
  add(checker::entry_of_failure(code, place));
}

void Collector::unfinished(std::int32_t system_error) {
  if (!is_unfinished_) failed(system_error, 0);
}

void Collector::pass_over_error() {
  if (checker::is_of_system(iserrno)) unfinished(iserrno);
  isam::clear_errors();
}

void Collector::detail(const checker::Detail& detail) {
  Entry entry{.kind = Entry::Kind::kDetail,
              .code = checker::text_of(detail.code).code,
              .key = detail.key,
              .text = in_words(detail)};
  const auto field = [&](const char* name, std::int64_t value) {
    entry.fields.emplace_back(name, value);
  };
  if (detail.record != 0) field("record", detail.record);
  if (detail.node != 0) field("node", detail.node);
  if (detail.slot >= 0) field("slot", detail.slot);
  if (detail.last != 0) field("last", detail.last);
  if (detail.pointer != 0) field("leads-to", detail.pointer);
  if (detail.value != nullptr) {
    entry.fields.emplace_back("key", key_value(*detail.described, detail.value));
  } else if (detail.code == Code::kIndexRecordMissing) {
    Fields key = key_of_record(detail.record, *detail.described);
    std::ranges::move(key, std::back_inserter(entry.fields));
  }
  if (detail.before != nullptr) {
    entry.fields.emplace_back("behind", key_value(*detail.described, detail.before));
  }
  add(entry);
}

void Collector::kept_back(std::int32_t record) {
  if (const auto* range = locks_.find(record)) ++kept_[range->process];
}

// A transaction of a killed program keeps numbers back that its indexes do not lead to; what other
// damage has taken from the list is no sign of one.
void Collector::tell_kept() {
  const bool is_damage = has_bad_records_ || indexes_astray_ > 0 || has_failed_;
  if (misses_records_ && !is_damage) {
    add({.kind = Entry::Kind::kNote,
         .code = "transaction.dead",
         .text = "if a program was killed in a transaction, apply the log first (isrecover)"});
  }
  for (const auto& [process, count] : kept_) {
    add({.kind = Entry::Kind::kNote,
         .code = "transaction.keeps",
         .text = fmt::format("{} deleted record(s) kept back by an open transaction of {}", count,
                             process_text(process)),
         .fields = {{"found", count}, {"process", std::int64_t{process}}}});
  }
  kept_.clear();
}

}  // namespace zentra
