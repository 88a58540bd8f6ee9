// format: where everything stands on disk, said once.
//
// A pair is an index file of nodes of one size, numbered from 1, and a data file of record slots.
// Integers are big-endian two's complement. docs/format.md draws the same layouts.
//
// Gives   named offsets, sizes, marks and limits, and views over the raw bytes
// Never   reads a file or checks a number against one
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/bytes.h"

namespace isam {

using common::Byte;
using common::Bytes;
using common::ConstBytes;

inline constexpr int kPageSize = 1024;          // a data block, and an index node of a new file
inline constexpr int kMinStoredNodeSize = 127;  // d_idxsize is the node size minus one
inline constexpr int kMaxStoredNodeSize = 1024;
inline constexpr int kMaxNodeSize = kMaxStoredNodeSize + 1;
inline constexpr int kMaxRecordLength = 32511;  // bytes, the variable part among them

// The dictionary: the first 117 bytes of node 1.
inline constexpr int kDictionarySize = 117;
inline constexpr int kDictionaryMagic = 0xFE53;
inline constexpr int kLockMethod = 8;
inline constexpr int kRpageClasses = 5;
inline constexpr int kCollationNameSize = 36;
inline constexpr int kStampOffset = 41;
inline constexpr int kStampSize = 4;

// The number behind this one, of a record or a node; the greatest is its own.
[[nodiscard]] inline std::int32_t number_behind(std::int32_t number) {
  return number == INT32_MAX ? number : number + 1;
}

struct Dictionary {
  Byte raw[kDictionarySize];

  [[nodiscard]] int d_magic() const { return common::ldword(raw); }
  // Whether the bytes are right that are the same in every dictionary.
  [[nodiscard]] bool fixed_bytes_match() const {
    return raw[2] == 2 && raw[3] == 2 && raw[4] == 4 && raw[5] == 4;
  }
  // The size of a node minus one.
  [[nodiscard]] int d_idxsize() const { return common::ldword(raw + 6); }
  [[nodiscard]] int d_nkeys() const { return common::ldshort(raw + 8); }
  // Compression flags that an index may have, shifted right by one.
  [[nodiscard]] int d_compression() const { return raw[10]; }
  [[nodiscard]] int d_dupsize() const { return raw[11]; }
  [[nodiscard]] int d_recsize() const { return common::ldshort(raw + 13); }
  [[nodiscard]] std::int32_t d_keysnode() const { return common::ldlong(raw + 15); }
  [[nodiscard]] bool d_collate() const { return raw[19] != 0; }
  [[nodiscard]] std::int32_t d_freedata() const { return common::ldlong(raw + 25); }
  [[nodiscard]] std::int32_t d_freenode() const { return common::ldlong(raw + 29); }
  // The highest numbers in use, not the next ones.
  [[nodiscard]] std::int32_t d_nextdata() const { return common::ldlong(raw + 33); }
  [[nodiscard]] std::int32_t d_nextnode() const { return common::ldlong(raw + 37); }
  // The change stamp: raised by every call that changed a page.
  [[nodiscard]] std::uint32_t d_modcount() const {
    return static_cast<std::uint32_t>(common::ldlong(raw + kStampOffset));
  }
  // The next unique id.
  [[nodiscard]] std::int32_t d_uniqid() const { return common::ldlong(raw + 45); }
  // The node of the audit-trail record without the flag in the top bit; 0 for none.
  [[nodiscard]] std::int32_t d_auditnode() const { return common::ldlong(raw + 49) & 0x7FFFFFFF; }
  [[nodiscard]] int d_lockmethod() const { return common::ldword(raw + 53); }
  [[nodiscard]] std::int32_t d_altcount() const { return common::ldlong(raw + 55); }
  [[nodiscard]] int d_maxrecsize() const { return common::ldshort(raw + 59); }
  // Head of the list of storage pages of a class from 0 to 4.
  [[nodiscard]] std::int32_t d_varfree(int rpage_class) const {
    return common::ldlong(&raw[61 + 4 * rpage_class]);
  }
  [[nodiscard]] const char* d_collname() const { return reinterpret_cast<const char*>(raw + 81); }

  // What every dictionary starts with, and all else zero.
  void reset() {
    std::memset(raw, 0, sizeof raw);
    common::stword(kDictionaryMagic, raw);
    raw[2] = raw[3] = 2;
    raw[4] = raw[5] = 4;
    raw[10] = 7;
  }
  void set_d_dupsize(int width) { raw[11] = static_cast<Byte>(width); }
  void set_d_recsize(int bytes) { common::stword(static_cast<std::uint32_t>(bytes), raw + 13); }
  void set_d_maxrecsize(int bytes) { common::stword(static_cast<std::uint32_t>(bytes), raw + 59); }
  void set_d_collate(bool value) { raw[19] = value ? 1 : 0; }
  void set_d_collname(std::string_view name) {
    std::memset(raw + 81, 0, kCollationNameSize);
    std::memcpy(raw + 81, name.data(),
                name.size() < kCollationNameSize ? name.size() : kCollationNameSize);
  }

  void set_d_idxsize(int value) { common::stword(static_cast<std::uint32_t>(value), raw + 6); }
  void set_d_nkeys(int value) { common::stword(static_cast<std::uint32_t>(value), raw + 8); }
  void set_d_keysnode(std::int32_t node) { common::stlong(node, raw + 15); }
  void set_d_freedata(std::int32_t node) { common::stlong(node, raw + 25); }
  void set_d_freenode(std::int32_t node) { common::stlong(node, raw + 29); }
  void set_d_nextdata(std::int32_t number) { common::stlong(number, raw + 33); }
  void set_d_nextnode(std::int32_t number) { common::stlong(number, raw + 37); }
  void set_d_modcount(std::uint32_t stamp) {
    common::stlong(static_cast<std::int32_t>(stamp), raw + kStampOffset);
  }
  void set_d_uniqid(std::int32_t id) { common::stlong(id, raw + 45); }
  [[nodiscard]] bool d_audits() const { return (raw[49] & 0x80) != 0; }
  void set_d_audit(std::int32_t node, bool on) {
    common::stlong(node, raw + 49);
    if (on) raw[49] |= 0x80;
  }
  // Names no trail, and ends auditing.
  void clear_d_auditnode() { common::stlong(0, raw + 49); }
  void set_d_lockmethod(int value) { common::stword(static_cast<std::uint32_t>(value), raw + 53); }
  void set_d_altcount(std::int32_t count) { common::stlong(count, raw + 55); }
  void set_d_varfree(int rpage_class, std::int32_t node) {
    common::stlong(node, &raw[61 + 4 * rpage_class]);
  }
};
static_assert(sizeof(Dictionary) == kDictionarySize);

// Behind the dictionary stands the mark of an open whose changes are not all in the files: a magic
// and the number of its process. Zeros stand for none, any other bytes are somebody else's.
inline constexpr int kMarkOffset = kDictionarySize;
inline constexpr int kMarkSize = 8;
inline constexpr std::int32_t kMarkMagic = 0x4558434C;  // "EXCL"
inline constexpr int kMarkProcess = 4;                  // offset of the process number

// The frame of every node but node 1: the used bytes in front, kind and level near its end. A
// stored size is that of a node minus one.
inline constexpr int kUsedBytes = 2;  // width of the used-byte count at the start
[[nodiscard]] constexpr int node_type_offset(int stored_size) { return stored_size - 2; }
[[nodiscard]] constexpr int node_level_offset(int stored_size) { return stored_size - 1; }

enum NodeType : Byte {
  kTreeNode = 0x00,
  kIndexFreeNode = 0xFE,
  kServiceNode = 0xFF,  // key descriptions or free data records, told apart by the level byte
  kStoragePage = 0x7C,
};
enum NodeLevel : Byte { kLeafLevel = 0, kStorageLevel = 0, kKeyLevel = 0x7E, kFreeLevel = 0x7F };

// The item area of a tree node starts behind the used count and may be this long.
[[nodiscard]] constexpr int item_area_limit(int stored_size) { return stored_size - 4; }
inline constexpr int kRepeatBit = 0x80;          // in a stored record pointer's first byte
inline constexpr int kRecordPointerMask = 0x7F;  // what else that byte holds
inline constexpr int kMaxTreeLevels = 20;        // in a path; the root is level 0
inline constexpr int kRecordPointerSize = 4;

// Nodes that are lists: used count, link to the next node, entries.
inline constexpr int kLinkOffset = 2;
inline constexpr int kEntriesOffset = 6;
inline constexpr int kListEntrySize = 4;
// Bytes of entries that a free-list node may hold.
[[nodiscard]] constexpr int list_entries_limit(int stored_size) { return stored_size - 8; }
// Entries that the library puts into one.
[[nodiscard]] constexpr int list_entries(int stored_size) { return (stored_size - 9) / 4; }

// A stored key description.
inline constexpr int kKeyRootOffset = 2;
inline constexpr int kKeyFlagsOffset = 6;
inline constexpr int kKeyHeadSize = 7;  // size, root node, flags
inline constexpr int kKeyPartSize = 5;  // length, start, type
inline constexpr int kDuplicatesBit = 0x8000;

// A record slot: the record, a state byte and, with variable length, length and reference.
inline constexpr Byte kRecordPresent = 0x0A;
inline constexpr Byte kRecordAbsent = 0x00;
inline constexpr int kFixedTrailer = 1;
inline constexpr int kVariableTrailer = 7;
inline constexpr int kTrailerLength = 1;     // offset of the variable part's length
inline constexpr int kTrailerReference = 3;  // offset of the variable part's reference

// A variable-length storage page (rpage).
namespace rpage {
inline constexpr int kMagic = 0x7E26;
inline constexpr int kMagicOffset = 2;
inline constexpr int kNextPage = 4;
inline constexpr int kPreviousPage = 8;
inline constexpr int kFree = 12;          // count of free bytes
inline constexpr int kDataEnd = 14;       // offset behind the pieces
inline constexpr int kContinuation = 16;  // record pointer of the next piece
inline constexpr int kFlags = 20;
inline constexpr int kSlotCount = 21;
inline constexpr int kClass = 22;
inline constexpr int kData = 23;     // where the pieces begin
inline constexpr int kSlotSize = 4;  // length and offset of a piece
inline constexpr int kMaxSlots = 255;
inline constexpr Byte kContinues = 1;   // flag: the continuation pointer is valid
inline constexpr Byte kNotFiled = 255;  // class of a page that is on no list yet
inline constexpr int kFullClass = 0;    // ... without room worth listing
inline constexpr int kEmptyClass = 5;   // computed for a page that holds nothing
// Free bytes of an empty page.
[[nodiscard]] constexpr int capacity(int stored_size) { return stored_size - 25; }

// A record pointer: the high byte is a slot, the low 24 bits a node.
[[nodiscard]] constexpr std::int32_t pointer_node(std::int32_t pointer) {
  return pointer & 0x00FFFFFF;
}
[[nodiscard]] constexpr int pointer_slot(std::int32_t pointer) { return pointer >> 24 & 0xFF; }
}  // namespace rpage

}  // namespace isam
