#include "checker/messages.h"

#include <array>

namespace checker {
namespace {

struct MessageText {
  Message message;  // equals its place in the table, as is asserted below
  const char* text;
};

constexpr std::array<MessageText, static_cast<std::size_t>(Message::kCount)> kMessages = {{
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
    {Message::kAnswerYesOrNo, "Answer yes or no ? "},
    {Message::kLibraryError, "Zentra ERROR %d: %s"},
    {Message::kSystemError, "SYSTEM ERROR %d: "},
    {Message::kSystemErrorPlace, "%s(%s): "},
    {Message::kUnknownCode, "unknown error code"},
    {Message::kFileCollation, "ISAM file collation is %s."},
    {Message::kCheckingDictionary, "Checking dictionary and file sizes."},
    {Message::kNodeSize, "Index file node size = %d"},
    {Message::kCurrentNodeSize, "Current Zentra index file node size = %d"},
    {Message::kCheckingData, "Checking data file records."},
    {Message::kMustCheckData, "File has variable length records; must check data file."},
    {Message::kCheckingIndexes, "Checking indexes and key descriptions."},
    {Message::kIndexHeading, "Index %d = %s  "},
    {Message::kDuplicates, "duplicates"},
    {Message::kUniqueKey, "unique key"},
    {Message::kKeyPart, "(%d,%d,%d) "},
    {Message::kNodesUsed, "    %d index node(s) used -- "},
    {Message::kLevelsUsed, "%d index b-tree level(s) used"},
    {Message::kListNode, "btree level: %d, node: %d, used: %d"},
    {Message::kListHeading, "flag totln keyln dupnm recptr  leadc tailc key"},
    {Message::kListLevel, "btree level: %d"},
    {Message::kDeletingIndex, "Deleting index %d."},
    {Message::kRecreatingIndex, "Recreating index %d."},
    {Message::kCheckingFreeLists, "Checking data record and index node free lists."},
    {Message::kRecreatingIndexList, "Recreating index node free list."},
    {Message::kRecreatingDataList, "Recreating data record free list."},
    {Message::kStoragePages, "%d index pages are used for variable length record storage."},
    {Message::kStorageFree, "%d bytes are free in those pages, an average of %d bytes per page."},
    {Message::kOldNodeSize, "Old index node size = %d"},
    {Message::kKeyNodeSize, "Key node size = %d"},
    {Message::kNodeSummary, "%d index node(s) used, %d free -- "},
    {Message::kRecordSummary, "%d data record(s) used, %d free."},
}};

// The table is looked up by position: each entry stands at its own number.
static_assert([] {
  for (std::size_t i = 0; i < kMessages.size(); ++i) {
    if (static_cast<std::size_t>(kMessages[i].message) != i) return false;
  }
  return true;
}());

}  // namespace

const char* text_of(Message message) { return kMessages[static_cast<std::size_t>(message)].text; }

}  // namespace checker
