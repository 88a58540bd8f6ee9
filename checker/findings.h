// findings: everything that a check can find and ask, in one table each.
//
// The checks name a code and give the numbers that belong to it. Wordings stand in the tables
// alone: `kestro` prints them, other programs may show the codes, which are permanent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace checker {

enum class Code : std::size_t {
  // The pair as a whole.
  kCannotOpen,
  kNoMemory,
  kOtherCollation,
  // Dictionary and sizes.
  kBadMagic,
  kBadNodeSize,
  kOtherLockMethod,
  kBadRecordSize,
  kBadMaximumSize,
  kMaximumTooSmall,
  kBadDuplicateWidth,
  kKeyNodeBad,
  kKeyNodeDuplicate,
  // Data records.
  kBadRecord,
  kFreeRecordsUnknown,
  // Indexes.
  kBadIndexCount,
  kBadKeyDescription,
  kNoKeyDescription,
  kIndexNodeBad,
  kIndexNodeDuplicate,
  kIndexRecordBad,
  kIndexRecordDuplicate,
  kIndexRecordMissing,
  kIndexOutOfOrder,
  kIndexNodeMalformed,
  kIndexNodeUnreadable,
  kIndexKeyMissing,
  kIndexKeyDuplicate,
  // Free lists.
  kRecordListNodeBad,
  kRecordListNodeDuplicate,
  kRecordListMalformed,
  kRecordListBad,
  kRecordListDuplicate,
  kRecordListMissing,
  kNodeListMalformed,
  kNodeListBad,
  kNodeListDuplicate,
  kNodeListMissing,
  // Variable-length storage.
  kStoragePageBad,
  kStorageListBad,
  kStoragePageUnread,
  kStoragePageUnfiled,
  // Node size change.
  kResizeNotLinked,
  kResizeNotOpened,
  kResizeVariable,
  kResizeKeyNodeTooBig,
  kResizeNotRemoved,
  kResizeNotCreated,
  kResizeProtectionUnknown,
  kResizeProtectionDiffers,
  kResizeOwnerDiffers,

  kCount
};

// What the operator decides. The answer where the input ends is no, to all of them.
enum class Question : std::size_t {
  kLockMethod,
  kIndexCount,
  kDeleteIndex,
  kRemakeIndex,
  kRecordList,
  kNodeList,
  kStorageLists,

  kCount,
  kNone
};

inline constexpr std::int64_t kNotCarried = INT64_MIN;

// The numbers that a finding carries; its code tells which.
struct Numbers {
  std::int64_t record = kNotCarried;
  std::int64_t node = kNotCarried;
  std::int64_t key = kNotCarried;       // number of the index, from 1
  std::int64_t found = kNotCarried;     // what stands there, or how many were met
  std::int64_t expected = kNotCarried;  // what should stand there
};
using Number = std::int64_t Numbers::*;  // which of them
using CarriedNumbers = std::array<Number, 2>;

struct Finding {
  Code code;
  Numbers numbers{};
  std::string_view name{};  // the collation that the file asks for
};

// How kestro says it.
enum class Saying {
  kError,      // behind "ERROR: "
  kLine,       // a line of the report
  kRemark,     // on standard error
  kCollation,  // with a line that names what the file asks for
  kNothing     // the question says it
};

struct FindingText {
  Code number;          // also the place of the entry in the table
  const char* code;     // the permanent code as a text
  const char* wording;  // %d stands for the first of `numbers`
  Saying saying = Saying::kError;
  Question question = Question::kNone;  // that it leads to
  CarriedNumbers numbers{};             // that it carries; null: no more
};

struct QuestionText {
  Question number;   // also the place of the entry in the table
  const char* code;  // the permanent code as a text
  const char* wording;
  bool by_default;  // what counts when the input has ended
  const char* yes;  // what this answer does,
  const char* no;   // ... and this one
};

[[nodiscard]] std::span<const FindingText> finding_texts();
[[nodiscard]] std::span<const QuestionText> question_texts();
[[nodiscard]] const FindingText& text_of(Code code);
[[nodiscard]] const QuestionText& text_of(Question question);

}  // namespace checker
