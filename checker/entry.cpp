#include "checker/entry.h"

#include <cstring>
#include <string_view>

#include "checker/check.h"
#include "common/io.h"
#include "common/printable.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace checker {
namespace {

struct NamedNumber {
  Number number;
  const char* name;
};
constexpr std::array<NamedNumber, 4> kNumbers = {{{&Numbers::record, "record"},
                                                  {&Numbers::node, "node"},
                                                  {&Numbers::found, "found"},
                                                  {&Numbers::expected, "expected"}}};

// What kestro tells by the line before.
const char* place_of(std::string_view code) {
  if (code.starts_with("record-list.")) return "list of free records: ";
  if (code.starts_with("node-list.")) return "list of free nodes: ";
  return "";
}

std::string in_words(const Finding& finding) {
  std::string words = wording_of(finding.code);
  if (finding.code == Code::kOtherCollation) {
    words += " The file asks for " + common::shown(finding.name);
  }
  if (finding.code == Code::kBadIndexCount) {
    return words + ": the dictionary tells of " + std::to_string(finding.numbers.found) + ", " +
           std::to_string(finding.numbers.expected) + " can be read";
  }
  const Number first = text_of(finding.code).numbers[0];
  if (const auto at = words.find("%d"); at != words.npos && first != nullptr) {
    return words.replace(at, 2, std::to_string(finding.numbers.*first));
  }
  for (const auto& [number, name] : kNumbers) {
    const std::int64_t value = finding.numbers.*number;
    if (value != kNotCarried) words += std::string(", ") + name + ' ' + std::to_string(value);
  }
  return words;
}

}  // namespace

const char* name_of(Entry::Kind kind) {
  switch (kind) {
    case Entry::Kind::kFinding:
      return "finding";
    case Entry::Kind::kDetail:
      return "detail";
    case Entry::Kind::kStep:
      return "step";
    default:
      return "note";
  }
}

Status weight_of(Code code) {
  switch (code) {
    case Code::kResizeProtectionUnknown:
    case Code::kResizeProtectionDiffers:
    case Code::kResizeOwnerDiffers:
      return Status::kSound;
    case Code::kCannotOpen:
    case Code::kNoMemory:
    case Code::kOtherCollation:
    case Code::kResizeNotLinked:
    case Code::kResizeNotOpened:
    case Code::kResizeVariable:
    case Code::kResizeKeyNodeTooBig:
    case Code::kResizeNotRemoved:
    case Code::kResizeNotCreated:
      return Status::kUnfinished;
    case Code::kBadMagic:
    case Code::kBadNodeSize:
    case Code::kOtherLockMethod:
    case Code::kBadRecordSize:
    case Code::kBadMaximumSize:
    case Code::kMaximumTooSmall:
    case Code::kBadDuplicateWidth:
    case Code::kKeyNodeBad:
    case Code::kKeyNodeDuplicate:
    case Code::kBadKeyDescription:
    case Code::kNoKeyDescription:
      return Status::kNeedsSalvage;
    default:
      return Status::kDamaged;
  }
}

std::string wording_of(Code code) {
  const FindingText& text = text_of(code);
  if (code == Code::kStorageListBad) return "faulty list of storage pages at node %d";
  return place_of(text.code) + std::string(text.wording);
}

std::string error_text(std::int32_t code) {
  if (code < isam::kDuplicate) return std::strerror(code);
  return ("error " + std::to_string(code) + ": ").append(isam::is_errlist(code));
}

std::string dictionary_error_text(std::int32_t code) {
  const std::int64_t size = common::file_size(isam::filep->index.fd);
  const bool is_cut = code == isam::kCorrupted && size < isam::kDictionarySize;
  return "no dictionary: " +
         (is_cut ? "the index file ends at byte " + std::to_string(size) : error_text(code));
}

Entry entry_of(const Finding& finding) {
  Entry entry{.code = text_of(finding.code).code,
              .status = weight_of(finding.code),
              .text = in_words(finding)};
  // The client may have another locale; but no locale has such a name.
  const bool no_locale = finding.name.empty() || !common::is_printable(finding.name);
  if (finding.code == Code::kOtherCollation && no_locale) entry.status = Status::kNeedsSalvage;
  for (const auto& [number, name] : kNumbers) {
    const std::int64_t value = finding.numbers.*number;
    if (value != kNotCarried) entry.fields.emplace_back(name, value);
  }
  if (finding.numbers.key != kNotCarried) entry.key = static_cast<int>(finding.numbers.key);
  if (!finding.name.empty()) {
    entry.fields.emplace_back("collation", FileBytes{.bytes = std::string(finding.name)});
  }
  return entry;
}

Entry entry_of_failure(std::int32_t code, std::int32_t place) {
  const bool of_system = is_of_system(code);
  return {.code = of_system ? "system.error" : "library.error",
          .status = of_system ? Status::kUnfinished : Status::kDamaged,
          .text = error_text(code),
          .fields = {{"error", std::int64_t{code}}, {"place", std::int64_t{place}}}};
}

void Tally::add(Status status, std::int64_t findings) {
  worst_ = worse(worst_, status);
  findings_ += findings;
  ++counts_[static_cast<std::size_t>(status)];
}

Fields Tally::fields(const char* good) const {
  std::int64_t pairs = 0;
  for (const std::int64_t count : counts_) pairs += count;
  Fields fields{{"pairs", pairs}};
  for (std::size_t i = 0; i < kStatuses; ++i) {
    fields.emplace_back(verdict_of(static_cast<Status>(i), good), counts_[i]);
  }
  fields.emplace_back("findings", findings_);
  return fields;
}

}  // namespace checker
