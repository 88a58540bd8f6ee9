#include "bench/stores/floor_exclusive.h"

#include <algorithm>
#include <stdexcept>

#include "bench/stores/mapped_file.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kNode = 1024;
constexpr std::size_t kSystemPage = 4096;
constexpr std::size_t kSlot = kRecordLength + 1;
constexpr std::uint32_t kItemsOfLeaf = 60;
constexpr std::size_t kItem = kKeyLength + sizeof(std::uint32_t);
constexpr std::uint32_t kItemsOfSecond = 85;
constexpr std::size_t kRepeated = 8;  // bytes of an item whose key is that of the one before

// The leaves of an index, which grows as records come.
class Leaves {
 public:
  using Fill = void (*)(std::uint32_t leaf, std::span<char> node);
  explicit Leaves(Fill fill) : fill_(fill) {}

  std::span<char> at(std::uint32_t leaf) {
    while (leaf >= count_) grow();
    return std::span{bytes_}.subspan(leaf * kNode, kNode);
  }
  // Moves what stands behind `from` in the leaf, to and fro.
  void move_half(std::uint32_t leaf, std::size_t from) {
    const std::span<char> tail = at(leaf).subspan(from);
    std::memcpy(moved_.data(), tail.data(), tail.size());
    std::memcpy(tail.data(), moved_.data(), tail.size());
    changed_[leaf * kNode / kSystemPage] = true;
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
    count_ = std::max<std::size_t>(2 * before, 4096);
    bytes_.resize(count_ * kNode);
    changed_.resize(bytes_.size() / kSystemPage);
    for (std::size_t leaf = before; leaf < count_; ++leaf) {
      fill_(static_cast<std::uint32_t>(leaf), std::span{bytes_}.subspan(leaf * kNode, kNode));
    }
  }

  Fill fill_;
  std::size_t count_ = 0;
  std::vector<char> bytes_;
  std::vector<bool> changed_;
  std::array<char, kNode> moved_{};
};

// Keys in order, each with the number of its record's slot.
void fill_first(std::uint32_t leaf, std::span<char> node) {
  for (std::uint32_t i = 0; i < kItemsOfLeaf; ++i) {
    const std::uint32_t number = leaf * kItemsOfLeaf + i;
    std::memcpy(&node[i * kItem], key_of(number).data(), kKeyLength);
    std::memcpy(&node[i * kItem + kKeyLength], &number, sizeof number);
  }
}

// Items that begin with their length, as ten that share a key have it.
void fill_second(std::uint32_t /*leaf*/, std::span<char> node) {
  std::size_t at = 0;
  for (std::uint32_t i = 0; i < kItemsOfSecond; ++i) {
    node[at] = static_cast<char>(i % kDuplicates == 0 ? kRepeated + 10 : kRepeated);
    at += static_cast<std::size_t>(node[at]);
  }
}

class FloorExclusive : public Store {
 public:
  void open(const fs::path& folder, Start /*start*/) override {
    first_file_ = std::make_unique<MappedFile>(folder / "first");
    second_file_ = std::make_unique<MappedFile>(folder / "second");
    data_ = std::make_unique<MappedFile>(folder / "records");
  }
  void close() override { settle(); }

  void insert(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    const auto [leaf, place] = place_of(number);
    first_.move_half(leaf, place);
    change_second(record.data());
    if (is_loaded_) return write_slot(record.data(), number);
    std::memcpy(first_.at(leaf).data() + place + kKeyLength, &next_, sizeof next_);
    ++next_;
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
    const auto [leaf, place] = place_of(number);
    first_.move_half(leaf, place);
    change_second(find(key));
    write_slot(Record{}.data(), number);
  }

  const char* find(const Key& key) override {
    const auto [leaf, place] = place_of(number_of(key.data()));
    std::uint32_t slot = 0;
    std::memcpy(&slot, first_.at(leaf).data() + place + kKeyLength, sizeof slot);
    std::memcpy(record_.data(), data_->bytes().subspan(slot * kSlot, kRecordLength).data(),
                kRecordLength);
    return record_.data();
  }

  void scan(Order /*order*/, Reader& reader) override {
    for (std::size_t at = 0; at + kSlot <= data_->bytes().size(); at += kSlot) {
      std::memcpy(record_.data(), data_->bytes().subspan(at, kRecordLength).data(), kRecordLength);
      reader.take(record_.data());
    }
  }

  void settle() override {
    write_tail();
    first_.write_changed(*first_file_);
    second_.write_changed(*second_file_);
    if (!is_loaded_) data_->map();
    is_loaded_ = true;
  }

 private:
  struct Place {
    std::uint32_t leaf;
    std::size_t offset;
  };

  Place place_of(std::uint32_t number) {
    const std::uint32_t leaf = number / kItemsOfLeaf;
    const std::span<const char> node = first_.at(leaf);
    const Key key = key_of(number);
    std::size_t low = 0;
    for (std::size_t high = kItemsOfLeaf; high - low > 1;) {
      const std::size_t middle = (low + high) / 2;
      (std::memcmp(key.data(), &node[middle * kItem], kKeyLength) < 0 ? high : low) = middle;
    }
    if (std::memcmp(key.data(), &node[low * kItem], kKeyLength) != 0) {
      throw std::runtime_error("a key is not where it should be");
    }
    return {leaf, low * kItem};
  }

  // The leaf of a second key is anywhere.
  void change_second(const char* record) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, record + kSecondStart, sizeof bits);
    const std::uint32_t leaves = std::max(next_ / kItemsOfSecond, 1U);
    const auto leaf = static_cast<std::uint32_t>(scramble(bits) % leaves);
    const std::span<const char> node = second_.at(leaf);
    std::size_t at = 0;
    while (at < kNode / 2) at += static_cast<unsigned char>(node[at]);
    second_.move_half(leaf, at);
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
  Leaves first_{fill_first};
  Leaves second_{fill_second};
  std::uint32_t next_ = 0;  // slot of the record to be added next
  bool is_loaded_ = false;  // records that are added stand where they stood
  std::vector<char> tail_;
  std::size_t written_ = 0;
  Record record_{};
  std::array<char, kSlot> slot_{};
};

}  // namespace

std::unique_ptr<Store> make_floor_exclusive() { return std::make_unique<FloorExclusive>(); }

}  // namespace bench
