// messages: what kestro prints besides findings and questions (checker/findings), in one table.
//
// %d takes a number and %s a text, in the order in which they are given. No message ends its line:
// behind one that ends in a blank, more is printed or typed on the same line; behind others
// print_line() or pnewline() ends it.
#pragma once

#include <cstddef>

namespace checker {

enum class Message : std::size_t {
  // The program.
  kHeader,
  kNotice,
  kIllegalOption,
  kUsage,
  kUsageI,  // by option letter
  kUsageL,
  kUsageN,
  kUsageY,
  kUsageQ,
  kUsageS,
  kFile,
  kAnswerYesOrNo,  // after an answer that is neither
  kLibraryError,
  kSystemError,       // the number; the system's own text ends the line
  kSystemErrorPlace,  // operation and kind of file, when known: behind the number, before that text
  kUnknownCode,
  // Collation.
  kFileCollation,
  // Dictionary and sizes.
  kCheckingDictionary,
  kNodeSize,         // of the pair checked
  kCurrentNodeSize,  // which a new pair would get, whatever the pair checked has
  // Data records.
  kCheckingData,
  kMustCheckData,  // although -i was given
  // Indexes.
  kCheckingIndexes,
  kIndexHeading,
  kDuplicates,  // the text in the heading of an index with duplicates,
  kUniqueKey,   // ... and of one without
  kKeyPart,
  kNodesUsed,
  kLevelsUsed,
  kListNode,     // before a node's items,
  kListHeading,  // ... over their columns,
  kListLevel,    // ... and when the listing comes back to a node from one below it
  // Repair of indexes.
  kDeletingIndex,
  kRecreatingIndex,
  // Free lists.
  kCheckingFreeLists,
  kRecreatingIndexList,
  kRecreatingDataList,
  // Variable-length storage.
  kStoragePages,  // printed with the summary
  kStorageFree,
  // Node size change.
  kOldNodeSize,
  kKeyNodeSize,  // bytes in use of the node of key descriptions
  // Summary.
  kNodeSummary,
  kRecordSummary,

  kCount
};

[[nodiscard]] const char* text_of(Message message);

}  // namespace checker
