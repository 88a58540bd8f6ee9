#include "bench/stores/floor_exclusive.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <vector>

#include "bench/stores/mapped_file.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kNode = 1024;
constexpr std::size_t kSystemPage = 4096;
constexpr std::size_t kPiece = 16384;  // that a bulk load writes at a time
constexpr std::size_t kSlot = kRecordLength + 1;
constexpr std::uint32_t kItemsOfFirst = 60;
constexpr std::size_t kItem = kKeyLength + sizeof(std::uint32_t);
constexpr std::uint32_t kItemsOfSecond = 85;
constexpr std::uint32_t kItemsAboveSecond = 30;
constexpr std::size_t kNumbers = 6;     // behind an item's key: of its place among equals, record
constexpr std::size_t kCounts = 2;      // before it: of bytes that it leaves out
constexpr std::size_t kBulkSecond = 8;  // bytes of a second key's item in full nodes
constexpr unsigned char kRepeatBit = 0x80;  // of an item that the next one repeats
constexpr unsigned char kMatch = 3;         // leading bytes that all keys of a node share

using Node = std::span<char>;

// The nodes of one level of an index, which grows as records come.
class Level {
 public:
  using Fill = void (*)(std::uint32_t node, Node bytes, std::uint32_t below);
  // `below`: what an item covers, in items of the lowest level.
  explicit Level(Fill fill, std::uint32_t below = 1) : fill_(fill), below_(below) {}

  Node at(std::uint32_t node) {
    while (node >= count_) grow();
    return std::span{bytes_}.subspan(node * kNode, kNode);
  }
  // Moves what stands behind `from` in the node, to and fro.
  void move_rest(std::uint32_t node, std::size_t from) {
    const Node rest = at(node).subspan(from);
    std::memcpy(moved_.data(), rest.data(), rest.size());
    std::memcpy(rest.data(), moved_.data(), rest.size());
    changed_[node * kNode / kSystemPage] = true;
  }
  void write_changed(const MappedFile& file) {
    for (std::size_t page = 0; page < changed_.size(); ++page) {
      if (changed_[page])
        file.write({&bytes_[page * kSystemPage], kSystemPage}, page * kSystemPage);
      changed_[page] = false;
    }
  }

 private:
  void grow() {
    const std::size_t before = count_;
    count_ = std::max<std::size_t>(2 * before, kSystemPage / kNode);
    bytes_.resize(count_ * kNode);
    changed_.resize(bytes_.size() / kSystemPage);
    for (std::size_t node = before; node < count_; ++node) {
      fill_(static_cast<std::uint32_t>(node), std::span{bytes_}.subspan(node * kNode, kNode),
            below_);
    }
  }

  Fill fill_;
  std::uint32_t below_;
  std::size_t count_ = 0;
  std::vector<char> bytes_;
  std::vector<bool> changed_;
  std::array<char, kNode> moved_{};
};

// Keys in order, each with the number of what it leads to.
void fill_first(std::uint32_t node, Node bytes, std::uint32_t below) {
  for (std::uint32_t i = 0; i < kItemsOfFirst; ++i) {
    const std::uint32_t number = node * kItemsOfFirst + i;
    const std::uint64_t least = std::uint64_t{number} * below;
    const auto key = static_cast<std::uint32_t>(std::min<std::uint64_t>(least, kMaxRecords - 1));
    std::memcpy(&bytes[i * kItem], key_of(key).data(), kKeyLength);
    std::memcpy(&bytes[i * kItem + kKeyLength], &number, sizeof number);
  }
}

// An item that stores a key but for its first `leading` bytes, or none: where the next one begins.
std::size_t put_item(Node bytes, std::size_t at, int leading, bool repeats, bool is_repeated) {
  if (!repeats) {
    bytes[at] = static_cast<char>(leading);
    at += kCounts + kSecondLength - static_cast<std::size_t>(leading);
  }
  at += kNumbers;
  if (is_repeated) bytes[at - sizeof(std::uint32_t)] = static_cast<char>(kRepeatBit);
  return at;
}

// Items of groups that share a key: ten on average, one to nineteen.
void fill_second(std::uint32_t node, Node bytes, std::uint32_t /*below*/) {
  std::size_t at = 0;
  for (std::uint32_t item = 0, group = 0; item < kItemsOfSecond; ++group) {
    const std::uint64_t bits = scramble(std::uint64_t{node} << 16 | group);
    const auto items = static_cast<std::uint32_t>(1 + bits % (2 * kDuplicates - 1));
    for (std::uint32_t i = 0; i < items && item < kItemsOfSecond; ++i, ++item) {
      const bool is_last = i + 1 == items || item + 1 == kItemsOfSecond;
      if (at + kCounts + kSecondLength + kNumbers > kNode) return;
      at = put_item(bytes, at, 7, i > 0, !is_last);
    }
  }
}

void fill_above_second(std::uint32_t /*node*/, Node bytes, std::uint32_t /*below*/) {
  std::size_t at = 0;
  for (std::uint32_t i = 0; i < kItemsAboveSecond; ++i) at = put_item(bytes, at, 4, false, false);
}

// Goes over the items before `stop`, from the first one on: where it comes to.
std::size_t walk(std::span<const char> node, std::size_t stop) {
  std::size_t at = 0;
  bool repeats = false;
  while (at < stop) {
    if (!repeats) {
      const auto leading = static_cast<unsigned char>(node[at]);
      if (leading <= kMatch) throw std::runtime_error("a key is where none should be");
      at += kCounts + kSecondLength - leading - static_cast<unsigned char>(node[at + 1]);
    }
    at += kNumbers;
    repeats = (static_cast<unsigned char>(node[at - sizeof(std::uint32_t)]) & kRepeatBit) != 0;
  }
  return at;
}

// Writes bytes one behind the other, a piece at a time.
class Writer {
 public:
  explicit Writer(const MappedFile& file) : file_(file) { piece_.reserve(kPiece + kNode); }
  void add(std::span<const char> bytes) {
    piece_.insert(piece_.end(), bytes.begin(), bytes.end());
    if (piece_.size() >= kPiece) write();
  }
  void write() {
    file_.write(piece_, written_);
    written_ += piece_.size();
    piece_.clear();
  }

 private:
  const MappedFile& file_;
  std::vector<char> piece_;
  std::size_t written_ = 0;
};

// What a bulk load knows of a record until its end.
struct Loaded {
  std::uint64_t key;  // what a second key begins with
  std::uint32_t number;
};

class FloorExclusive : public Store {
 public:
  void open(const fs::path& folder, Start /*start*/) override {
    first_file_ = std::make_unique<MappedFile>(folder / "first");
    second_file_ = std::make_unique<MappedFile>(folder / "second");
    data_ = std::make_unique<MappedFile>(folder / "records");
    first_ = Index{fill_first, fill_first, kItemsOfFirst};
    second_ = Index{fill_second, fill_above_second, kItemsAboveSecond};
    next_ = 0;
    written_ = 0;
    is_loaded_ = false;
  }
  void close() override { settle(); }

  void insert(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    if (is_loaded_) {
      change_first(number);
      change_second(record.data());
      return write_slot(record.data(), number);
    }
    // Of those that come in any order each has its place in a leaf that is there by then.
    const std::uint32_t leaves = std::max(next_ / kItemsOfFirst, 1U);
    const auto leaf = static_cast<std::uint32_t>(scramble(number) % leaves);
    change_first(number == next_ ? number : leaf * kItemsOfFirst + number % kItemsOfFirst);
    ++next_;
    change_second(record.data());
    tail_.insert(tail_.end(), record.begin(), record.end());
    tail_.push_back('\n');
    if (tail_.size() >= kSystemPage) write_tail();
  }

  void rewrite(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    change_second(find(key_of(number)));
    change_second(record.data());
    write_slot(record.data(), number);
  }

  void remove(const Key& key) override {
    const std::uint32_t number = number_of(key.data());
    const Place place = place_of(number);
    copy_slot(slot_at(place), record_);
    first_.levels[0].move_rest(place.leaf, place.offset);
    change_second(record_.data());
    write_slot(Record{}.data(), number);
  }

  const char* find(const Key& key) override {
    copy_slot(slot_at(place_of(number_of(key.data()))), record_);
    return record_.data();
  }

  // Each record is copied for the caller; its number comes from a leaf.
  void scan(Order /*order*/, Reader& reader) override {
    for (std::uint32_t number = 0; number < next_; ++number) {
      copy_slot(slot_at({number / kItemsOfFirst, number % kItemsOfFirst * kItem}), record_);
      reader.take(record_.data());
    }
  }

  [[nodiscard]] bool has_bulk() const override { return true; }
  void scan_many(Order /*order*/, Reader& reader) override {
    for (std::uint32_t first = 0; first < next_; first += kBulk) {
      const std::size_t count = std::min<std::size_t>(kBulk, next_ - first);
      for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t number = first + i;
        copy_slot(slot_at({number / kItemsOfFirst, number % kItemsOfFirst * kItem}), many_[i]);
      }
      for (std::size_t i = 0; i < count; ++i) reader.take(many_[i].data());
    }
  }

  // Records are written as they come, with the items of the first key where these are in order.
  [[nodiscard]] bool has_load() const override { return true; }
  void begin_load() override {
    records_ = std::make_unique<Writer>(*data_);
    items_ = std::make_unique<Writer>(*first_file_);
    loaded_.clear();
  }
  void load(std::span<const Record> records) override {
    for (const Record& record : records) {
      records_->add(record);
      records_->add({"\n", 1});
      items_->add(std::span{record}.first(kItem));
      std::uint64_t key = 0;
      std::memcpy(&key, record.data() + kSecondStart, sizeof key);
      loaded_.push_back({__builtin_bswap64(key), next_++});
    }
  }
  // The items of the second key are sorted and written.
  void end_load() override {
    std::ranges::sort(loaded_, {}, &Loaded::key);
    Writer second{*second_file_};
    for (const Loaded& item : loaded_) {
      std::array<char, kBulkSecond> bytes{};
      std::memcpy(bytes.data(), &item.number, sizeof item.number);
      second.add(bytes);
    }
    for (Writer* writer : {records_.get(), items_.get(), &second}) writer->write();
  }

  void settle() override {
    write_tail();
    first_.levels[0].write_changed(*first_file_);
    second_.levels[0].write_changed(*second_file_);
    if (!is_loaded_) data_->map();
    is_loaded_ = true;
  }

 private:
  static constexpr std::size_t kLevels = 5;

  struct Index {
    Index() = default;
    Index(Level::Fill leaf, Level::Fill upper, std::uint32_t below) : items(below) {
      levels.emplace_back(leaf);
      for (std::uint32_t covers = below; levels.size() < kLevels; covers *= below) {
        levels.emplace_back(upper, covers);
      }
    }
    // The level of the root over so many leaves.
    [[nodiscard]] std::size_t top(std::uint32_t leaves) const {
      std::size_t level = 0;
      for (; leaves > 1 && level + 1 < kLevels; ++level) leaves = (leaves + items - 1) / items;
      return level;
    }
    std::uint32_t items = 0;    // of an upper node
    std::vector<Level> levels;  // the leaves first
  };
  struct Place {
    std::uint32_t leaf;
    std::size_t offset;
  };

  // The last item of a node whose key is not above another one.
  static std::size_t search(std::span<const char> node, const Key& key) {
    std::uint64_t sought = 0;
    std::memcpy(&sought, key.data(), sizeof sought);
    sought = __builtin_bswap64(sought);
    std::size_t low = 0;
    for (std::size_t left = kItemsOfFirst; left > 1;) {
      const std::size_t half = left / 2;
      std::uint64_t middle = 0;
      std::memcpy(&middle, &node[(low + half) * kItem], sizeof middle);
      low += __builtin_bswap64(middle) <= sought ? half : 0;
      left -= half;
    }
    return low * kItem;
  }

  std::uint32_t slot_at(const Place& place) {
    std::uint32_t slot = 0;
    std::memcpy(&slot, first_.levels[0].at(place.leaf).data() + place.offset + kKeyLength,
                sizeof slot);
    return slot;
  }

  // From the root down.
  Place place_of(std::uint32_t number) {
    const Key key = key_of(number);
    Place place{0, 0};
    const std::uint32_t leaves = std::max(next_, number + 1) / kItemsOfFirst + 1;
    for (std::size_t level = first_.top(leaves); level > 0; --level) {
      const std::span<const char> node = first_.levels[level].at(place.leaf);
      std::memcpy(&place.leaf, &node[search(node, key) + kKeyLength], sizeof place.leaf);
    }
    const std::span<const char> node = first_.levels[0].at(place.leaf);
    place.offset = search(node, key);
    if (std::memcmp(key.data(), &node[place.offset], kKeyLength) != 0) {
      throw std::runtime_error("a key is not where it should be");
    }
    return place;
  }

  void change_first(std::uint32_t number) {
    const Place place = place_of(number);
    first_.levels[0].move_rest(place.leaf, place.offset);
  }

  // The leaf of a second key is anywhere, and so is the key's place in each node on the way.
  void change_second(const char* record) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, record + kSecondStart, sizeof bits);
    bits = scramble(bits);
    const std::uint32_t leaves = std::max(next_ / kItemsOfSecond, 1U);
    const auto leaf = static_cast<std::uint32_t>(bits % leaves);
    const auto used = std::size_t{kItemsAboveSecond} * (kCounts + kSecondLength - 4 + kNumbers);
    for (std::size_t level = second_.top(leaves); level > 0; --level) {
      std::uint32_t node = leaf;
      for (std::size_t i = 0; i < level; ++i) node /= kItemsAboveSecond;
      walk(second_.levels[level].at(node), (bits >> (8 * level)) % used);
    }
    constexpr std::size_t kUsedOfLeaf = 560;
    const std::size_t at = walk(second_.levels[0].at(leaf), (bits >> 40) % kUsedOfLeaf);
    second_.levels[0].move_rest(leaf, at);
  }

  void copy_slot(std::uint32_t slot, Record& to) const {
    std::memcpy(to.data(), data_->bytes().subspan(slot * kSlot, kRecordLength).data(),
                kRecordLength);
  }
  void write_slot(const char* record, std::uint32_t number) {
    std::memcpy(slot_.data(), record, kRecordLength);
    data_->write(slot_, number * kSlot);
  }
  void write_tail() {
    if (tail_.empty()) return;
    data_->write(tail_, written_);
    written_ += tail_.size();
    tail_.clear();
  }

  std::unique_ptr<MappedFile> first_file_;
  std::unique_ptr<MappedFile> second_file_;
  std::unique_ptr<MappedFile> data_;
  Index first_;
  Index second_;
  std::uint32_t next_ = 0;  // slot of the record to be added next
  bool is_loaded_ = false;  // records that are added stand where they stood
  std::vector<char> tail_;
  std::size_t written_ = 0;
  Record record_{};
  std::array<Record, kBulk> many_{};
  std::array<char, kSlot> slot_{};
  std::unique_ptr<Writer> records_;  // of a bulk load, as the next two
  std::unique_ptr<Writer> items_;
  std::vector<Loaded> loaded_;
};

}  // namespace

std::unique_ptr<Store> make_floor_exclusive() { return std::make_unique<FloorExclusive>(); }

}  // namespace bench
