// messages: what kestro prints besides findings and questions (checker/findings), in one numbered
// table. %d takes a number and %s a text.
#pragma once

#include <cstddef>

namespace checker {

enum class Message : std::size_t {
  // The program.
  kHeader,
  kNotice,
  kIllegalOption,
  kUsage,
  kUsageI,
  kUsageL,
  kUsageN,
  kUsageY,
  kUsageQ,
  kUsageS,
  kFile,
  kAnswerYesOrNo,
  kLibraryError,
  kSystemError,
  kSystemErrorPlace,
  kUnknownCode,
  // Collation.
  kFileCollation,
  // Dictionary and sizes.
  kCheckingDictionary,
  kNodeSize,
  kCurrentNodeSize,
  // Data records.
  kCheckingData,
  kMustCheckData,
  // Indexes.
  kCheckingIndexes,
  kIndexHeading,
  kDuplicates,
  kUniqueKey,
  kKeyPart,
  kNodesUsed,
  kLevelsUsed,
  kListNode,
  kListHeading,
  kListLevel,
  // Repair of indexes.
  kDeletingIndex,
  kRecreatingIndex,
  // Free lists.
  kCheckingFreeLists,
  kRecreatingIndexList,
  kRecreatingDataList,
  // Variable-length storage.
  kStoragePages,
  kStorageFree,
  // Node size change.
  kOldNodeSize,
  kKeyNodeSize,
  // Summary.
  kNodeSummary,
  kRecordSummary,

  kCount
};

[[nodiscard]] const char* text_of(Message message);

}  // namespace checker
