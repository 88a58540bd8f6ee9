#include "checker/findings.h"

#include <array>

namespace checker {
namespace {

// The numbers that a finding can carry.
constexpr Number kRecord = &Numbers::record;
constexpr Number kNode = &Numbers::node;
constexpr Number kKey = &Numbers::key;
constexpr Number kFound = &Numbers::found;
constexpr Number kExpected = &Numbers::expected;

// The question that a finding leads to.
constexpr auto kAskIndex = Question::kDeleteIndex;
constexpr auto kAskRecords = Question::kRecordList;
constexpr auto kAskNodes = Question::kNodeList;
constexpr auto kAskPages = Question::kStorageLists;
constexpr auto kNone = Question::kNone;

// Each makes an entry of the table, and is named after the way in which kestro says the finding
// (Saying). `name` is the permanent code as a text. In the wording of an error() %d stands for the
// first of `numbers`; kestro prints no other of them.
constexpr FindingText error(Code code, const char* name, const char* wording,
                            Question question = kNone, CarriedNumbers numbers = {}) {
  return {code, name, wording, Saying::kError, question, numbers};
}
constexpr FindingText line(Code code, const char* name, const char* wording,
                           Question question = kNone, CarriedNumbers numbers = {}) {
  return {code, name, wording, Saying::kLine, question, numbers};
}
constexpr FindingText remark(Code code, const char* name, const char* wording,
                             CarriedNumbers numbers = {}) {
  return {code, name, wording, Saying::kRemark, kNone, numbers};
}

constexpr std::array<FindingText, static_cast<std::size_t>(Code::kCount)> kFindings = {{
    error(Code::kCannotOpen, "pair.cannot-open", "cannot open Zentra file"),
    error(Code::kNoMemory, "check.no-memory", "cannot allocate main memory"),
    {Code::kOtherCollation, "pair.other-collation",
     "CLIENT_LOCALE does not match ISAM file collation.", Saying::kCollation},
    error(Code::kBadMagic, "dictionary.magic", "bad magic number", kNone, {kFound, kExpected}),
    error(Code::kBadNodeSize, "dictionary.node-size", "bad index record size", kNone, {kFound}),
    error(Code::kOtherLockMethod, "dictionary.lock-method",
          "locking method used by the file disagrees with current method.", Question::kLockMethod,
          {kFound, kExpected}),
    error(Code::kBadRecordSize, "dictionary.record-size", "bad data record size", kNone, {kFound}),
    error(Code::kBadMaximumSize, "dictionary.maximum-size", "bad data record maximum size", kNone,
          {kFound}),
    remark(Code::kMaximumTooSmall, "dictionary.maximum-below-minimum",
           "maximum record size below the record size: programs cannot open the pair",
           {kFound, kExpected}),
    remark(Code::kBadDuplicateWidth, "dictionary.duplicate-width",
           "bad width of duplicate numbers in the dictionary: programs cannot open the pair",
           {kFound}),
    error(Code::kKeyNodeBad, "descriptions.node-bad", "bad index node in key descriptors", kNone,
          {kNode}),
    error(Code::kKeyNodeDuplicate, "descriptions.node-duplicate",
          "duplicate index node in key descriptors", kNone, {kNode}),
    error(Code::kBadRecord, "record.bad", "bad data record", kNone, {kRecord}),
    error(Code::kFreeRecordsUnknown, "record.free-list-malformed", "bad data free list format",
          kNone, {kNode}),
    error(Code::kBadIndexCount, "descriptions.count", "bad number of indexes",
          Question::kIndexCount, {kFound, kExpected}),
    error(Code::kBadKeyDescription, "descriptions.malformed", "bad key description format", kNone,
          {kKey}),
    remark(Code::kNoKeyDescription, "descriptions.none",
           "no key description is left: programs cannot open the pair; restore the index file"),
    error(Code::kIndexNodeBad, "index.node-bad", "%d bad index node pointer(s)", kAskIndex,
          {kFound, kKey}),
    error(Code::kIndexNodeDuplicate, "index.node-duplicate", "%d duplicate index node pointer(s)",
          kAskIndex, {kFound, kKey}),
    error(Code::kIndexRecordBad, "index.record-bad", "%d bad data record pointer(s)", kAskIndex,
          {kFound, kKey}),
    error(Code::kIndexRecordDuplicate, "index.record-duplicate",
          "%d duplicate data record pointer(s)", kAskIndex, {kFound, kKey}),
    error(Code::kIndexRecordMissing, "index.record-missing", "%d missing data record pointer(s)",
          kAskIndex, {kFound, kKey}),
    error(Code::kIndexOutOfOrder, "index.out-of-order", "index out of order", kAskIndex, {kKey}),
    error(Code::kIndexNodeMalformed, "index.node-malformed", "bad b-tree node (%d) format",
          kAskIndex, {kNode, kKey}),
    line(Code::kIndexNodeUnreadable, "index.node-unreadable", "Error in reading index file",
         kAskIndex, {kNode, kKey}),
    error(Code::kIndexKeyMissing, "index.description-missing", "cannot find key for index", kNone,
          {kKey}),
    error(Code::kIndexKeyDuplicate, "index.key-duplicate", "duplicate key value, record %d", kNone,
          {kRecord, kKey}),
    error(Code::kRecordListNodeBad, "record-list.node-bad", "bad index node", kAskRecords, {kNode}),
    error(Code::kRecordListNodeDuplicate, "record-list.node-duplicate", "duplicate index node",
          kAskRecords, {kNode}),
    error(Code::kRecordListMalformed, "record-list.node-malformed",
          "bad data record free list format", kAskRecords, {kNode}),
    error(Code::kRecordListBad, "record-list.record-bad", "%d bad data record pointer(s)",
          kAskRecords, {kFound}),
    error(Code::kRecordListDuplicate, "record-list.record-duplicate",
          "%d duplicate data record pointer(s)", kAskRecords, {kFound}),
    error(Code::kRecordListMissing, "record-list.record-missing",
          "%d missing data record pointer(s)", kAskRecords, {kFound}),
    error(Code::kNodeListMalformed, "node-list.node-malformed", "bad index free list format",
          kAskNodes, {kNode}),
    error(Code::kNodeListBad, "node-list.node-bad", "%d bad index node pointer(s)", kAskNodes,
          {kFound}),
    error(Code::kNodeListDuplicate, "node-list.node-duplicate",
          "%d duplicate index node pointer(s)", kAskNodes, {kFound}),
    error(Code::kNodeListMissing, "node-list.node-missing", "%d missing index node pointer(s)",
          kAskNodes, {kFound}),
    error(Code::kStoragePageBad, "storage.page-bad",
          "Corrupt variable length record storage page, index node %d", kNone, {kNode}),
    {Code::kStorageListBad, "storage.list-bad", "", Saying::kNothing, kAskPages, {kNode}},
    error(Code::kStoragePageUnread, "storage.page-unread",
          "Rpage read failed while making variable length storage free lists.", kNone, {kNode}),
    error(Code::kStoragePageUnfiled, "storage.page-unfiled",
          "Addition failed while making variable length storage free lists.", kNone, {kNode}),
    line(Code::kResizeNotLinked, "resize.not-linked", "Error in linking .idx to .IDX"),
    line(Code::kResizeNotOpened, "resize.not-opened", "Error in opening .IDX file"),
    line(Code::kResizeVariable, "resize.variable-length",
         "File has variable length records; cannot resize."),
    line(Code::kResizeKeyNodeTooBig, "resize.descriptions-too-big",
         "Key node is too big to allow re-sizing", kNone, {kFound}),
    line(Code::kResizeNotRemoved, "resize.not-removed", "Error in removing .idx file"),
    line(Code::kResizeNotCreated, "resize.not-created", "Error in creating new .idx file"),
    line(Code::kResizeProtectionUnknown, "resize.protection-unknown",
         "warning: the protection and ownership of the new index may be different"),
    line(Code::kResizeProtectionDiffers, "resize.protection-differs",
         "warning: the protection of the new index is different than the old protection"),
    line(Code::kResizeOwnerDiffers, "resize.owner-differs",
         "warning: the group and user ids of the new index are different than the original"),
}};

// The `false` in each entry is its by_default: where the input ends, the answer is no.
constexpr std::array<QuestionText, static_cast<std::size_t>(Question::kCount)> kQuestions = {{
    {Question::kLockMethod, "force-lock-method", "force locking method to agree ? ", false,
     "sets the present one", "ends the check of this pair"},
    {Question::kIndexCount, "fix-index-count", "Fix number ? ", false, "sets it to what was found",
     "leaves it as it is"},
    {Question::kDeleteIndex, "delete-index", "Delete index ? ", false, "leads to the next question",
     "leaves it as it is"},
    {Question::kRemakeIndex, "remake-index", "Remake index ? ", false,
     "empties the index and fills it from the records",
     "removes the index and its key description for good"},
    {Question::kRecordList, "fix-record-list", "Fix data record free list ? ", false,
     "builds the list anew from what was found in use", "leaves it as it is"},
    {Question::kNodeList, "fix-node-list", "Fix index node free list ? ", false,
     "builds the list anew from what was found in use", "leaves it as it is"},
    {Question::kStorageLists, "fix-storage-lists", "Fix variable length storage free lists ? ",
     false, "builds the list anew from what was found in use", "leaves it as it is"},
}};

// Whether each entry of a table stands at the place that its code or question counts: text_of()
// looks an entry up by its place.
template <typename Table>
constexpr bool is_in_order(const Table& table) {
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (static_cast<std::size_t>(table[i].number) != i) return false;
  }
  return true;
}
static_assert(is_in_order(kFindings) && is_in_order(kQuestions));

}  // namespace

std::span<const FindingText> finding_texts() { return kFindings; }
std::span<const QuestionText> question_texts() { return kQuestions; }
const FindingText& text_of(Code code) { return kFindings[static_cast<std::size_t>(code)]; }
const QuestionText& text_of(Question question) {
  return kQuestions[static_cast<std::size_t>(question)];
}

}  // namespace checker
