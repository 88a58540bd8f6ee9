#include "zentra/look/decode.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <set>

#include "isam/base/current.h"
#include "isam/records/varlen.h"
#include "isam/tree/items.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::filep;

// The bytes in front of kind and level, which every node but the first has.
void take_frame(Decoder& decoder) {
  const auto type = static_cast<std::size_t>(isam::node_type_offset(filep->geometry.idxsize));
  decoder.take_up_to(type, "unused");
  decoder.number(1, "kind");
  decoder.number(1, "level");
  decoder.take(decoder.rest().size(), "unused");
}

void decode_list(Decoder& decoder, const char* entry) {
  const auto used = static_cast<int>(decoder.number(isam::kUsedBytes, "used bytes"));
  decoder.number(4, "next node");
  const int end = std::min(used, isam::node_type_offset(filep->geometry.idxsize));
  while (static_cast<int>(decoder.at()) + isam::kListEntrySize <= end) {
    decoder.number(isam::kListEntrySize, entry);
  }
  take_frame(decoder);
}

void decode_descriptions(Decoder& decoder) {
  const auto used = static_cast<std::size_t>(decoder.number(isam::kUsedBytes, "used bytes"));
  decoder.number(4, "next node");
  const auto end =
      std::min(used, static_cast<std::size_t>(isam::node_type_offset(filep->geometry.idxsize)));
  while (decoder.at() + isam::kKeyHeadSize <= end) {
    const std::size_t begin = decoder.at();
    const auto size = static_cast<std::size_t>(decoder.number(2, "size of a key description"));
    decoder.number(4, "root node");
    decoder.number(1, "flags");
    const std::size_t behind = std::min(begin + std::max<std::size_t>(size, 1), end);
    while (decoder.at() + isam::kKeyPartSize <= behind) {
      const std::int64_t length = decoder.number(2, "length of a part");
      if ((length & isam::kDuplicatesBit) != 0) {
        decoder.mean(fmt::format("{}, duplicates", length & ~isam::kDuplicatesBit));
      }
      decoder.number(2, "its offset in the record");
      decoder.number(1, "its type");
    }
    decoder.take_up_to(behind, "no whole part");
    if (size < isam::kKeyHeadSize) break;
  }
  take_frame(decoder);
}

// Names the stored parts of the item that the walk has come to; `key` is unpacked behind the one
// before.
void decode_item(Decoder& decoder, const isam::ItemLayout& layout, const isam::Item& item,
                 const keydescr& k) {
  if ((item.flag & isam::kRepeatsPrevious) == 0) {
    if (layout.lcompress) decoder.number(1, "bytes of the key before");
    if (layout.tcompress) decoder.number(1, "blanks left out");
    decoder.take(static_cast<std::size_t>(item.keyln), "key",
                 shown_key(k, as_text({item.key, static_cast<std::size_t>(layout.keylen)})));
  }
  if (layout.dupwidth > 0) {
    decoder.number(static_cast<std::size_t>(layout.dupwidth), "duplicate number");
  }
  decoder.take(
      isam::kRecordPointerSize, "record or node",
      fmt::format("{}{}", item.recptr,
                  (item.flag & isam::kNextRepeats) != 0 ? ", the next repeats the key" : ""));
}

void decode_tree(Decoder& decoder, const keydescr* index) {
  const std::int64_t used = decoder.number(isam::kUsedBytes, "used bytes") - isam::kUsedBytes;
  const std::int64_t most = isam::item_area_limit(filep->geometry.idxsize);
  const auto area_size = static_cast<std::size_t>(std::clamp<std::int64_t>(used, 0, most));
  const isam::ConstBytes area = decoder.rest().first(std::min(area_size, decoder.rest().size()));
  if (index != nullptr) {
    const isam::ItemLayout layout{*index};
    isam::Item item{};
    for (int at = 0; at < static_cast<int>(area.size());) {
      at = isam::itunpack(layout, area, at, item.key, item);
      if (at < 0) break;
      decode_item(decoder, layout, item, *index);
    }
  }
  decoder.take_up_to(isam::kUsedBytes + area.size(), index != nullptr ? "no item" : "items");
  take_frame(decoder);
}

void decode_storage(Decoder& decoder) {
  using namespace isam::rpage;
  decoder.number(isam::kUsedBytes, "used bytes");
  decoder.number(2, "mark of a storage page");
  decoder.number(4, "next page of the list");
  decoder.number(4, "previous page of the list");
  decoder.number(2, "free bytes");
  const std::int64_t end = decoder.number(2, "end of the pieces");
  decoder.number(4, "next piece, as slot and node");
  decoder.number(1, "flags");
  const std::int64_t slots = decoder.number(1, "slots");
  decoder.number(1, "class");
  const isam::RpageGeometry geometry{filep->geometry.idxsize};
  const auto count = std::min<std::int64_t>(slots, geometry.slots_that_fit());
  const std::int64_t table = geometry.first_slot + kSlotSize - count * kSlotSize;
  decoder.take_up_to(static_cast<std::size_t>(std::clamp<std::int64_t>(end, 0, table)), "pieces");
  decoder.take_up_to(static_cast<std::size_t>(table), "free");
  for (std::int64_t slot = count - 1; slot >= 0; --slot) {
    decoder.number(2, fmt::format("length of piece {}", slot));
    decoder.number(2, fmt::format("offset of piece {}", slot));
  }
  take_frame(decoder);
}

void decode_audit(Decoder& decoder) {
  constexpr std::size_t kNameOffset = 4;
  decoder.number(isam::kUsedBytes, "used bytes");
  decoder.take_up_to(kNameOffset, "unused");
  const isam::ConstBytes rest = decoder.rest();
  const auto length =
      static_cast<std::size_t>(std::ranges::find(rest, isam::Byte{0}) - rest.begin());
  decoder.take(length, "name of the audit trail",
               fmt::format("\"{}\"", shown(as_text(rest.first(length)))));
  take_frame(decoder);
}

// What the state byte of a slot says.
std::string state_in_words(isam::Byte state) {
  if (state == isam::kRecordPresent) return "present";
  return state == isam::kRecordAbsent ? "absent" : "neither present nor absent";
}

}  // namespace

isam::ConstBytes Decoder::take(std::size_t length, std::string name, std::string value) {
  length = std::min(length, bytes_.size() - at_);
  const isam::ConstBytes taken = bytes_.subspan(at_, length);
  has_taken_ = length > 0;
  if (has_taken_) pieces_.push_back({at_, length, std::move(name), std::move(value)});
  at_ += length;
  return taken;
}

std::int64_t Decoder::number(std::size_t length, std::string name, std::string meaning) {
  const isam::ConstBytes bytes = take(length, std::move(name));
  if (bytes.size() < length) return 0;
  const std::int64_t value = length == 1   ? bytes[0]
                             : length == 2 ? common::ldword(bytes.data())
                                           : common::ldlong(bytes.data());
  mean(meaning.empty() ? std::to_string(value) : fmt::format("{}: {}", value, meaning));
  return value;
}

void Decoder::take_up_to(std::size_t offset, std::string name) {
  if (offset > at_) take(offset - at_, std::move(name));
}

std::vector<Piece> decode_dictionary(isam::ConstBytes bytes) {
  Decoder decoder{bytes};
  decoder.take(2, "magic",
               bytes.size() < 2 ? "" : fmt::format("{:#x}", common::ldword(bytes.data())));
  decoder.take(4, "widths of the format");
  decoder.number(2, "node size minus one");
  decoder.number(2, "indexes");
  decoder.number(1, "compression allowed");
  decoder.number(1, "width of duplicate numbers");
  decoder.number(1, "unused");
  decoder.number(2, "record length");
  decoder.number(4, "node of the key descriptions");
  decoder.number(1, "has a collation");
  decoder.take(5, "unused");
  decoder.number(4, "list of free records");
  decoder.number(4, "list of free nodes");
  decoder.number(4, "highest record in use");
  decoder.number(4, "highest node in use");
  decoder.number(4, "change stamp");
  decoder.number(4, "next unique id");
  const std::int64_t audit = decoder.number(4, "node of the audit trail's name");
  decoder.mean(fmt::format("{}, {}", audit & INT32_MAX, audit < 0 ? "on" : "off"));
  decoder.number(2, "locking method");
  decoder.number(4, "alteration counter");
  decoder.number(2, "greatest record length, 0 when fixed");
  for (int i = 0; i < isam::kRpageClasses; ++i) {
    decoder.number(4, fmt::format("storage pages of class {}", i));
  }
  const isam::ConstBytes name = decoder.take(isam::kCollationNameSize, "collation");
  const std::string_view text = as_text(name);
  if (!name.empty()) decoder.mean(fmt::format("\"{}\"", shown(text.substr(0, text.find('\0')))));
  decoder.number(4, "mark of an open with unwritten changes");
  decoder.number(4, "its process");
  decoder.take(decoder.rest().size(), "unused");
  return std::move(decoder).pieces();
}

NodeKind kind_of(std::int32_t node, isam::ConstBytes bytes) {
  if (node == 1) return NodeKind::kDictionary;
  const auto type_at = static_cast<std::size_t>(isam::node_type_offset(filep->geometry.idxsize));
  const isam::Byte type = bytes[type_at];
  const isam::Byte level = bytes[type_at + 1];
  if (node == isam::dictp->d_auditnode()) return NodeKind::kAudit;
  if (type == isam::kStoragePage) return NodeKind::kStorage;
  if (type == isam::kIndexFreeNode) return NodeKind::kFreeNodes;
  if (type == isam::kServiceNode) {
    return level == isam::kKeyLevel ? NodeKind::kDescriptions : NodeKind::kFreeRecords;
  }
  return NodeKind::kTree;
}

const char* name_of(NodeKind kind) {
  constexpr std::array kNames = {
      "dictionary",         "key descriptions", "list of free records",
      "list of free nodes", "storage page",     "name of the audit trail",
      "tree node"};
  return kNames.at(static_cast<std::size_t>(kind));
}

std::vector<Piece> decode_node(NodeKind kind, isam::ConstBytes bytes, const keydescr* index) {
  Decoder decoder{bytes};
  switch (kind) {
    case NodeKind::kDictionary:
      return decode_dictionary(bytes);
    case NodeKind::kDescriptions:
      decode_descriptions(decoder);
      break;
    case NodeKind::kFreeRecords:
      decode_list(decoder, "record");
      break;
    case NodeKind::kFreeNodes:
      decode_list(decoder, "node");
      break;
    case NodeKind::kStorage:
      decode_storage(decoder);
      break;
    case NodeKind::kAudit:
      decode_audit(decoder);
      break;
    case NodeKind::kTree:
      decode_tree(decoder, index);
      break;
  }
  return std::move(decoder).pieces();
}

std::vector<Piece> decode_record(isam::ConstBytes slot, const std::vector<keydescr>& indexes) {
  const auto length = static_cast<std::size_t>(filep->geometry.reclen);
  std::set<std::size_t> bounds{length};
  for (const keydescr& k : indexes) {
    for (int i = 0; i < k.nparts; ++i) {
      const auto start = static_cast<std::size_t>(k.part[i].start);
      bounds.insert(std::min(start, length));
      bounds.insert(std::min(start + static_cast<std::size_t>(k.part[i].length), length));
    }
  }
  Decoder decoder{slot};
  for (const std::size_t end : bounds) {
    const std::size_t begin = decoder.at();
    if (end == begin) continue;
    std::string name;
    std::string value;
    for (std::size_t n = 0; n < indexes.size(); ++n) {
      keydescr alone = indexes[n];
      for (int i = 0; i < indexes[n].nparts; ++i) {
        const keypart& part = indexes[n].part[i];
        const auto start = static_cast<std::size_t>(part.start);
        const std::size_t behind = start + static_cast<std::size_t>(part.length);
        if (begin < start || end > behind) continue;
        name += fmt::format("{}part {} of index {}", name.empty() ? "" : ", ", i + 1, n + 1);
        if (begin != start || end != behind || slot.size() < behind) continue;
        alone.nparts = 1;
        alone.part[0] = part;
        value = shown_key(alone, as_text(slot.subspan(begin, end - begin)));
      }
    }
    decoder.take(end - begin, name.empty() ? "of no key" : name, value);
  }
  const isam::ConstBytes state = decoder.take(1, "state");
  if (!state.empty()) decoder.mean(state_in_words(state[0]));
  if (filep->geometry.varlen) {
    decoder.number(2, "length of the variable part");
    const auto pointer = static_cast<std::int32_t>(decoder.number(4, "its first piece"));
    if (pointer != 0) {
      decoder.mean(fmt::format("piece {} of node {}", isam::rpage::pointer_slot(pointer),
                               isam::rpage::pointer_node(pointer)));
    }
  }
  return std::move(decoder).pieces();
}

}  // namespace zentra
