// The part of the dialogue that tells of trees: the heading of every index, and what -l shows.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "checker/dialogue.h"

namespace checker {
namespace {

// Of a part's type: without KT_DESC, and KT_COLL1 to KT_COLL7 as KT_CHAR.
constexpr int kListedType = 15;

// The text ends at the first zero byte; blanks follow up to the length.
void print_characters(const isam::Byte* at, int length) {
  char text[MAXKEYLEN + 1];
  const auto size = static_cast<std::size_t>(length);
  std::memset(text, ' ', size);
  const isam::Byte* end = std::find(at, at + length, isam::Byte{0});
  std::memcpy(text, at, static_cast<std::size_t>(end - at));
  text[size] = '\0';
  std::printf("%s ", text);
}

// Prints one part and returns the bytes it takes.
int print_part(const isam::Byte* at, const keypart& part) {
  switch (part.type & kListedType) {
    case KT_CHAR:
    case KT_LOCALE:
      print_characters(at, part.length);
      return part.length;
    case KT_INT:
      std::printf("%d ", int{common::ldshort(at)});
      return part.length;
    case KT_LONG:
      std::printf("%d ", common::ldlong(at));
      return part.length;
    case KT_DOUBLE:
      std::printf("%f ", common::lddbl(at));
      return part.length;
    case KT_FLOAT:
      std::printf("%f ", static_cast<double>(common::ldfloat(at)));
      return part.length;
    default:  // no type of a legal key
      return 0;
  }
}

// One line with an item's fields and its key, part by part.
void pritem(const isam::Item& item, const keydescr& k) {
  std::printf("%3o  %4d  %4d  %4ld  %6ld  %4d  %4d  ", static_cast<unsigned>(item.flag), item.totln,
              item.keyln, long{item.dupnm}, long{item.recptr}, item.leadc, item.tailc);
  const isam::Byte* at = item.key;
  for (int i = 0; i < k.nparts; ++i) at += print_part(at, k.part[i]);
  pnewline(1);
}

// "Index 2 = duplicates  (12,4,2) ": number, kind, and start, length and type of each part.
void prtindex(int n, const keydescr& k) {
  const bool duplicates = (k.flags & KF_DUPS) != 0;
  print(Message::kIndexHeading,
        {std::int64_t{n},
         std::string_view(text_of(duplicates ? Message::kDuplicates : Message::kUniqueKey))});
  for (int i = 0; i < k.nparts; ++i) {
    print(Message::kKeyPart, {std::int64_t{k.part[i].start}, std::int64_t{k.part[i].length},
                              std::int64_t{k.part[i].type}});
  }
  pnewline(1);
}

}  // namespace

void Dialogue::index_begins(int n, const keydescr& k) { prtindex(n, k); }

void Dialogue::tree_item(const isam::Item& item, const keydescr& k) { pritem(item, k); }

void Dialogue::tree_node(int level, std::int32_t node, int used) {
  pnewline(1);
  print_line(Message::kListNode, {std::int64_t{level}, std::int64_t{node}, std::int64_t{used}});
  print_line(Message::kListHeading);
}

void Dialogue::tree_level(int level) {
  pnewline(1);
  print_line(Message::kListLevel, {std::int64_t{level}});
}

}  // namespace checker
