#include "tests/transcripts/places.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace testing_support {
namespace {

using Kind = Place::Kind;

struct Known {
  Kind kind;
  std::string_view name;
  int offset;  // below 0: from the end
  int width;
};

constexpr Known kKnown[] = {
    {Kind::kHeader, "magic", dict::kMagic, 2},
    {Kind::kHeader, "node-size", dict::kNodeSize, 2},
    {Kind::kHeader, "indexes", dict::kKeys, 2},
    {Kind::kHeader, "duplicate-width", dict::kDupSize, 1},
    {Kind::kHeader, "record-size", dict::kRecordSize, 2},
    {Kind::kHeader, "key-node", dict::kKeyNode, 4},
    {Kind::kHeader, "collates", dict::kCollate, 1},
    {Kind::kHeader, "record-list", dict::kFreeData, 4},
    {Kind::kHeader, "node-list", dict::kFreeNode, 4},
    {Kind::kHeader, "last-record", dict::kNextData, 4},
    {Kind::kHeader, "last-node", dict::kNextNode, 4},
    {Kind::kHeader, "audit-node", dict::kAuditNode, 4},
    {Kind::kHeader, "lock-method", dict::kLockMethod, 2},
    {Kind::kHeader, "greatest-size", dict::kMaxRecord, 2},
    {Kind::kHeader, "pages-0", dict::kStorageHeads, 4},
    {Kind::kHeader, "pages-1", dict::kStorageHeads + 4, 4},
    {Kind::kHeader, "pages-2", dict::kStorageHeads + 8, 4},
    {Kind::kHeader, "pages-3", dict::kStorageHeads + 12, 4},
    {Kind::kHeader, "pages-4", dict::kStorageHeads + 16, 4},
    {Kind::kHeader, "collation", dict::kCollation, 36},
    {Kind::kHeader, "mark", dict::kSize, 4},
    {Kind::kHeader, "mark-process", dict::kSize + 4, 4},
    {Kind::kDescription, "size", 0, 2},
    {Kind::kDescription, "root", 2, 4},
    {Kind::kDescription, "flags", 6, 1},
    {Kind::kNode, "used", 0, 2},
    {Kind::kNode, "link", 2, 4},
    {Kind::kNode, "kind", -3, 1},
    {Kind::kNode, "level", -2, 1},
    {Kind::kPage, "magic", 2, 2},
    {Kind::kPage, "next", 4, 4},
    {Kind::kPage, "previous", 8, 4},
    {Kind::kPage, "free", 12, 2},
    {Kind::kPage, "end", 14, 2},
    {Kind::kPage, "continuation", 16, 4},
    {Kind::kPage, "flags", 20, 1},
    {Kind::kPage, "slots", 21, 1},
    {Kind::kPage, "class", 22, 1},
    {Kind::kPage, "kind", -3, 1},
};

// Where in a row of things of `word` a number such as "slot-3-length" stands: its rest.
bool take_prefix(std::string_view& name, std::string_view prefix, std::ptrdiff_t& number) {
  if (!name.starts_with(prefix)) return false;
  name.remove_prefix(prefix.size());
  number = 0;
  while (!name.empty() && name[0] >= '0' && name[0] <= '9') {
    number = 10 * number + name[0] - '0';
    name.remove_prefix(1);
  }
  return true;
}

// Parts that a place has more than one of.
bool find_counted(const Place& place, std::string_view name, Field& field) {
  std::ptrdiff_t n = 0;
  if (place.kind == Kind::kDescription && take_prefix(name, "part-", n)) {
    Byte* const part = place.at + 7 + 5 * (n - 1);
    if (name == "-length") field = {part, 2};
    if (name == "-start") field = {part + 2, 2};
    if (name == "-type") field = {part + 4, 1};
  } else if (place.kind == Kind::kPage && take_prefix(name, "slot-", n)) {
    Byte* const slot = place.at + place.size - 7 - 4 * n;
    if (name == "-length") field = {slot, 2};
    if (name == "-offset") field = {slot + 2, 2};
  } else if (place.kind == Kind::kNode && name == "last-entry") {
    field = {place.at + get2(place.at) - 4, 4};
  } else if (place.kind == Kind::kNode && take_prefix(name, "entry-", n)) {
    field = {place.at + 6 + 4 * (n - 1), 4};
  } else if (take_prefix(name, "byte-", n)) {
    field = {place.at + n, 1};
  } else if (take_prefix(name, "word-", n)) {
    field = {place.at + n, 2};
  } else if (take_prefix(name, "long-", n)) {
    field = {place.at + n, 4};
  }
  return field.at != nullptr;
}

Field find_field(const Place& place, std::string_view name, int record_length) {
  for (const Known& known : kKnown) {
    if (known.kind != place.kind || known.name != name) continue;
    return {place.at + known.offset + (known.offset < 0 ? place.size : 0), known.width};
  }
  if (place.kind == Kind::kItem) {
    if (name == "key") return {place.at, place.key_width};
    if (name == "duplicate") return {place.at + place.key_width, place.dup_width};
    if (name == "pointer") return {place.at + place.key_width + place.dup_width, 4};
  }
  if (place.kind == Kind::kRecord) {
    Byte* const state = place.at + record_length;
    if (name == "state") return {state, 1};
    if (name == "length") return {state + 1, 2};
    if (name == "reference") return {state + 3, 4};
    if (name == "reference-slot") return {state + 3, 1};
  }
  Field field{};
  find_counted(place, name, field);
  return field;
}

// Numbers with dots between, counted from 1; "last" for the last of so many.
class Path {
 public:
  Path(PairEditor& editor, Words& words) : editor_(editor), words_(words), text_(words.take()) {}

  int next(std::size_t of) {
    const std::size_t dot = text_.find('.');
    const std::string part = text_.substr(0, dot);
    text_ = dot == text_.npos ? "" : text_.substr(dot + 1);
    const std::int64_t n = part == "last" ? static_cast<std::int64_t>(of) : words_.to_number(part);
    if (n < 1 || n > static_cast<std::int64_t>(of)) words_.fail("there is no " + part);
    return static_cast<int>(n);
  }
  template <typename T>
  const T& one_of(const std::vector<T>& all) {
    return all[static_cast<std::size_t>(next(all.size()) - 1)];
  }
  int index() { return index_ = next(editor_.built().indexes.size()); }
  [[nodiscard]] const KeySpec& key() const {
    return editor_.built().spec.keys[static_cast<std::size_t>(index_ - 1)];
  }

 private:
  PairEditor& editor_;
  Words& words_;
  std::string text_;
  int index_ = 0;
};

Place node_at(PairEditor& editor, std::int32_t number, Kind kind = Kind::kNode) {
  return {kind, editor.node(number), editor.built().spec.node_size};
}

// An item of a node, past those before it. Its key stands there without what is compressed.
Place item_of(PairEditor& editor, std::int32_t number, Path& path) {
  const int flags = path.key().flags;
  int width = 0;
  for (const PartSpec& part : path.key().parts) width += part.length;
  const int dup_width = (flags & kDups) != 0 ? editor.built().spec.dup_width : 0;
  Byte* const node = editor.node(number);
  std::vector<Place> items;
  bool repeats = false;
  for (int at = 2; at < get2(node);) {
    int kept = width;
    if (repeats) kept = 0;
    if (!repeats && (flags & kLCompress) != 0) kept -= node[at++];
    if (!repeats && (flags & kTCompress) != 0) kept -= node[at++];
    const int size = kept + dup_width + 4;
    items.push_back({Kind::kItem, node + at, size, kept, dup_width});
    repeats = (node[at + size - 4] & 0x80) != 0;
    at += size;
  }
  return path.one_of(items);
}

// Pages of small parts that stand on a list.
std::vector<std::int32_t> listed_pages(PairEditor& editor) {
  std::vector<std::int32_t> listed = editor.built().small_pages;
  std::erase_if(listed, [&](std::int32_t page) {
    return editor.node(page)[22] < 1 || editor.node(page)[22] > 4;
  });
  return listed;
}

Place record_at(PairEditor& editor, int number) {
  const PairSpec& spec = editor.built().spec;
  return {Kind::kRecord, editor.slot(number),
          spec.record_length + (spec.max_record_length > 0 ? 7 : 1)};
}

}  // namespace

Place take_place(PairEditor& editor, Words& words) {
  const BuiltPair& built = editor.built();
  const std::string name = words.take();
  if (name == "header") return {Kind::kHeader, editor.dictionary(), built.spec.node_size};
  if (name == "audit") return node_at(editor, built.audit_node);
  Path path(editor, words);
  const auto index = [&]() -> const BuiltIndex& {
    return built.indexes[static_cast<std::size_t>(path.index() - 1)];
  };
  if (name == "node") return node_at(editor, path.next(1U << 24));
  if (name == "key-node") return node_at(editor, path.one_of(built.key_nodes));
  if (name == "record-list") return node_at(editor, path.one_of(built.free_data_list));
  if (name == "node-list") return node_at(editor, path.one_of(built.free_node_list));
  if (name == "root") return node_at(editor, index().root);
  if (name == "inner") return node_at(editor, path.one_of(index().uppers));
  if (name == "leaf") return node_at(editor, path.one_of(index().leaves));
  if (name == "root-item") return item_of(editor, index().root, path);
  if (name == "inner-item") return item_of(editor, path.one_of(index().uppers), path);
  if (name == "item") return item_of(editor, path.one_of(index().leaves), path);
  if (name == "page") return node_at(editor, path.one_of(built.small_pages), Kind::kPage);
  if (name == "big-page") return node_at(editor, path.one_of(built.big_pages), Kind::kPage);
  if (name == "listed-page") return node_at(editor, path.one_of(listed_pages(editor)), Kind::kPage);
  if (name == "description") {
    const int n = path.next(built.spec.keys.size());
    const auto parts = built.spec.keys[static_cast<std::size_t>(n - 1)].parts.size();
    return {Kind::kDescription, editor.description(n), static_cast<int>(7 + 5 * parts)};
  }
  const int slots = built.spec.records + built.spec.records_behind;
  if (name == "record") return record_at(editor, path.next(static_cast<std::size_t>(slots)));
  if (name == "page-of") {
    const Place record = record_at(editor, path.next(static_cast<std::size_t>(slots)));
    return node_at(editor, get4(record.at + record.size - 4) & 0xFFFFFF, Kind::kPage);
  }
  words.fail("what is a " + name + "?");
}

std::vector<Place> take_places(PairEditor& editor, Words& words) {
  if (!words.take("records")) return {take_place(editor, words)};
  std::vector<Place> all;
  for (const int n : words.to_numbers(words.take())) all.push_back(record_at(editor, n));
  return all;
}

Field take_field(PairEditor& editor, const Place& place, Words& words) {
  const std::string name = words.take();
  const Field field = find_field(place, name, editor.built().spec.record_length);
  if (field.at == nullptr) words.fail("it has no " + name);
  return field;
}

std::int32_t number_of(PairEditor& editor, const Place& place) {
  return static_cast<std::int32_t>((place.at - editor.index.data()) /
                                   editor.built().spec.node_size) +
         1;
}

std::int64_t get(const Field& field) {
  if (field.width == 1) return *field.at;
  return field.width == 2 ? get2(field.at) : get4(field.at);
}

void put(const Field& field, std::int64_t value) {
  if (field.width == 1) *field.at = static_cast<Byte>(value);
  if (field.width == 2) put2(field.at, value);
  if (field.width == 4) put4(field.at, value);
}

}  // namespace testing_support
