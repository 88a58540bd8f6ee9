// messages: every text that the checker prints, in one numbered table.
//
// The checks name a message; its wording stands here alone. %d takes a number and %s a text.
#pragma once

#include <array>
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
  kCannotOpen,
  kNoMemory,
  kAnswerYesOrNo,
  kLibraryError,
  kSystemError,
  kSystemErrorPlace,
  kUnknownCode,
  // Collation.
  kLocaleMismatch,
  kFileCollation,
  // Dictionary and sizes.
  kCheckingDictionary,
  kBadMagic,
  kNodeSize,
  kCurrentNodeSize,
  kBadNodeSize,
  kForceLockMethod,
  kLockMethodDisagrees,
  kBadRecordSize,
  kBadMaximumSize,
  kBadKeyNode,
  kDuplicateKeyNode,
  // Data records.
  kCheckingData,
  kMustCheckData,
  kBadRecord,
  kBadFreeDataFormat,
  // Indexes.
  kCheckingIndexes,
  kBadIndexCount,
  kFixNumber,
  kBadKeyFormat,
  kIndexHeading,
  kDuplicates,
  kUniqueKey,
  kKeyPart,
  kNodesUsed,
  kLevelsUsed,
  kBadNodePointers,
  kDuplicateNodePointers,
  kBadRecordPointers,
  kDuplicateRecordPointers,
  kMissingRecordPointers,
  kOutOfOrder,
  kDeleteIndex,
  kRemakeIndex,
  kIndexReadError,
  kBadTreeNode,
  kListNode,
  kListHeading,
  kListLevel,
  // Repair of indexes.
  kDeletingIndex,
  kRecreatingIndex,
  kNoKeyForIndex,
  kDuplicateKey,
  // Free lists.
  kCheckingFreeLists,
  kBadListNode,
  kDuplicateListNode,
  kBadDataListFormat,
  kFixDataList,
  kBadIndexListFormat,
  kMissingNodePointers,
  kFixIndexList,
  kRecreatingIndexList,
  kRecreatingDataList,
  // Variable-length storage.
  kStoragePages,
  kStorageFree,
  kCorruptPage,
  kFixStorageLists,
  kPageReadFailed,
  kPageFilingFailed,
  // Node size change.
  kResizeLinkFailed,
  kResizeOpenFailed,
  kResizeVariable,
  kOldNodeSize,
  kKeyNodeSize,
  kKeyNodeTooBig,
  kResizeRemoveFailed,
  kResizeCreateFailed,
  kProtectionUnknown,
  kProtectionDiffers,
  kOwnerDiffers,
  // Summary.
  kNodeSummary,
  kRecordSummary,

  kCount
};

struct MessageText {
  Message number;
  const char* text;
};

inline constexpr std::array<MessageText, static_cast<std::size_t>(Message::kCount)> kMessages = {{
    {Message::kHeader, "KESTRO  Zentra B-tree Checker version %s"},
    {Message::kNotice, "Checks and repairs Zentra indexed files."},
    {Message::kIllegalOption, "ERROR: illegal option -%s"},
    {Message::kUsage, "usage: kestro -ilnyqs zentrafiles ..."},
    {Message::kUsageI, "      -i   check index file only"},
    {Message::kUsageL, "      -l   list entries in b-trees"},
    {Message::kUsageN, "      -n   answer no to all questions"},
    {Message::kUsageY, "      -y   answer yes to all questions"},
    {Message::kUsageQ, "      -q   no program header"},
    {Message::kUsageS, "      -s   resize the index file node size"},
    {Message::kFile, "Zentra File: %s"},
    {Message::kCannotOpen, "cannot open Zentra file"},
    {Message::kNoMemory, "cannot allocate main memory"},
    {Message::kAnswerYesOrNo, "Answer yes or no ? "},
    {Message::kLibraryError, "Zentra ERROR %d: %s"},
    {Message::kSystemError, "SYSTEM ERROR %d: "},
    {Message::kSystemErrorPlace, "%s(%s): "},
    {Message::kUnknownCode, "unknown error code"},
    {Message::kLocaleMismatch, "CLIENT_LOCALE does not match ISAM file collation."},
    {Message::kFileCollation, "ISAM file collation is %s."},
    {Message::kCheckingDictionary, "Checking dictionary and file sizes."},
    {Message::kBadMagic, "bad magic number"},
    {Message::kNodeSize, "Index file node size = %d"},
    {Message::kCurrentNodeSize, "Current Zentra index file node size = %d"},
    {Message::kBadNodeSize, "bad index record size"},
    {Message::kForceLockMethod, "force locking method to agree ? "},
    {Message::kLockMethodDisagrees,
     "locking method used by the file disagrees with current method."},
    {Message::kBadRecordSize, "bad data record size"},
    {Message::kBadMaximumSize, "bad data record maximum size"},
    {Message::kBadKeyNode, "bad index node in key descriptors"},
    {Message::kDuplicateKeyNode, "duplicate index node in key descriptors"},
    {Message::kCheckingData, "Checking data file records."},
    {Message::kMustCheckData, "File has variable length records; must check data file."},
    {Message::kBadRecord, "bad data record"},
    {Message::kBadFreeDataFormat, "bad data free list format"},
    {Message::kCheckingIndexes, "Checking indexes and key descriptions."},
    {Message::kBadIndexCount, "bad number of indexes"},
    {Message::kFixNumber, "Fix number ? "},
    {Message::kBadKeyFormat, "bad key description format"},
    {Message::kIndexHeading, "Index %d = %s  "},
    {Message::kDuplicates, "duplicates"},
    {Message::kUniqueKey, "unique key"},
    {Message::kKeyPart, "(%d,%d,%d) "},
    {Message::kNodesUsed, "    %d index node(s) used -- "},
    {Message::kLevelsUsed, "%d index b-tree level(s) used"},
    {Message::kBadNodePointers, "%d bad index node pointer(s)"},
    {Message::kDuplicateNodePointers, "%d duplicate index node pointer(s)"},
    {Message::kBadRecordPointers, "%d bad data record pointer(s)"},
    {Message::kDuplicateRecordPointers, "%d duplicate data record pointer(s)"},
    {Message::kMissingRecordPointers, "%d missing data record pointer(s)"},
    {Message::kOutOfOrder, "index out of order"},
    {Message::kDeleteIndex, "Delete index ? "},
    {Message::kRemakeIndex, "Remake index ? "},
    {Message::kIndexReadError, "Error in reading index file"},
    {Message::kBadTreeNode, "bad b-tree node (%d) format"},
    {Message::kListNode, "btree level: %d, node: %d, used: %d"},
    {Message::kListHeading, "flag totln keyln dupnm recptr  leadc tailc key"},
    {Message::kListLevel, "btree level: %d"},
    {Message::kDeletingIndex, "Deleting index %d."},
    {Message::kRecreatingIndex, "Recreating index %d."},
    {Message::kNoKeyForIndex, "cannot find key for index"},
    {Message::kDuplicateKey, "duplicate key value, record %d"},
    {Message::kCheckingFreeLists, "Checking data record and index node free lists."},
    {Message::kBadListNode, "bad index node"},
    {Message::kDuplicateListNode, "duplicate index node"},
    {Message::kBadDataListFormat, "bad data record free list format"},
    {Message::kFixDataList, "Fix data record free list ? "},
    {Message::kBadIndexListFormat, "bad index free list format"},
    {Message::kMissingNodePointers, "%d missing index node pointer(s)"},
    {Message::kFixIndexList, "Fix index node free list ? "},
    {Message::kRecreatingIndexList, "Recreating index node free list."},
    {Message::kRecreatingDataList, "Recreating data record free list."},
    {Message::kStoragePages, "%d index pages are used for variable length record storage."},
    {Message::kStorageFree, "%d bytes are free in those pages, an average of %d bytes per page."},
    {Message::kCorruptPage, "Corrupt variable length record storage page, index node %d"},
    {Message::kFixStorageLists, "Fix variable length storage free lists ? "},
    {Message::kPageReadFailed,
     "Rpage read failed while making variable length storage free lists."},
    {Message::kPageFilingFailed,
     "Addition failed while making variable length storage free lists."},
    {Message::kResizeLinkFailed, "Error in linking .idx to .IDX"},
    {Message::kResizeOpenFailed, "Error in opening .IDX file"},
    {Message::kResizeVariable, "File has variable length records; cannot resize."},
    {Message::kOldNodeSize, "Old index node size = %d"},
    {Message::kKeyNodeSize, "Key node size = %d"},
    {Message::kKeyNodeTooBig, "Key node is too big to allow re-sizing"},
    {Message::kResizeRemoveFailed, "Error in removing .idx file"},
    {Message::kResizeCreateFailed, "Error in creating new .idx file"},
    {Message::kProtectionUnknown,
     "warning: the protection and ownership of the new index may be different"},
    {Message::kProtectionDiffers,
     "warning: the protection of the new index is different than the old protection"},
    {Message::kOwnerDiffers,
     "warning: the group and user ids of the new index are different than the original"},
    {Message::kNodeSummary, "%d index node(s) used, %d free -- "},
    {Message::kRecordSummary, "%d data record(s) used, %d free."},
}};

// The table is looked up by position: each entry stands at its own number.
static_assert([] {
  for (std::size_t i = 0; i < kMessages.size(); ++i) {
    if (static_cast<std::size_t>(kMessages[i].number) != i) return false;
  }
  return true;
}());

[[nodiscard]] constexpr const char* text_of(Message message) {
  return kMessages[static_cast<std::size_t>(message)].text;
}

}  // namespace checker
