#include "bench/stores/floor_cold.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/stores/floor_index.h"
#include "common/filemap.h"
#include "common/holders.h"
#include "isam/records/askahead.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSlot = kRecordLength + 1;
// In a node, as the library's nodes have them on the average. The rest of an item is its key.
constexpr std::size_t kItemsOfFirst = 73;
constexpr std::size_t kItemsOfSecond = 85;

using Second = std::array<char, kSecondLength>;
struct SecondItem {
  Second key;
  std::int32_t number;  // of the record, from 1 on
};

// A file that is written in its order, and then read through a mapping.
class ColdFile {
 public:
  explicit ColdFile(const fs::path& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    check_system(static_cast<bool>(fd_), "open");
    check_system(::posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_RANDOM) == 0, "posix_fadvise");
    map_.look_again(fd_.get());
  }

  void append(std::span<const char> bytes) {
    constexpr std::size_t kPiece = std::size_t{16} * 1024;
    piece_.insert(piece_.end(), bytes.begin(), bytes.end());
    if (piece_.size() >= kPiece) write();
  }
  void write() {
    check_system(::write(fd_.get(), piece_.data(), piece_.size()) == std::ssize(piece_), "write");
    piece_.clear();
  }

  void read(std::span<char> to, std::size_t offset) {
    const std::span bytes{reinterpret_cast<common::Byte*>(to.data()), to.size()};
    const ssize_t got = map_.read(fd_.get(), bytes, static_cast<std::int64_t>(offset));
    check_system(got == std::ssize(to), "read");
  }

  // Copies the slots of many records, which are asked for before when copies have waited.
  void read_slots(std::span<const std::int32_t> numbers, char* to) {
    const auto copy = [&](common::ConstBytes from) {
      for (const std::int32_t number : numbers) {
        std::memcpy(to, from.data() + static_cast<std::size_t>(number - 1) * kSlot, kRecordLength);
        to += kRecordLength;
      }
    };
    if (!isam::copy_batch(numbers, kSlot, run_, map_, fd_.get(), copy)) {
      throw std::runtime_error("a page is missing");
    }
  }

  [[nodiscard]] std::size_t size() const {
    return static_cast<std::size_t>(::lseek(fd_.get(), 0, SEEK_END));
  }

 private:
  common::FileHold fd_;
  common::FileMap map_;
  isam::CopyRun run_;
  std::vector<char> piece_;
};

class FloorCold : public Store {
 public:
  void open(const fs::path& folder, Start start) override {
    data_ = std::make_unique<ColdFile>(folder / "data");
    first_ = std::make_unique<ColdFile>(folder / "first");
    second_ = std::make_unique<ColdFile>(folder / "second");
    records_ = start == Start::kExisting ? data_->size() / kSlot : 0;
  }
  void close() override {
    if (!items_.empty()) write_leaves();
    data_.reset();
    first_.reset();
    second_.reset();
  }

  // In the order of the first key.
  void insert(const Record& record) override {
    data_->append(record);
    data_->append(std::span{"\n", 1});
    SecondItem& item = items_.emplace_back();
    std::memcpy(item.key.data(), record.data() + kSecondStart, kSecondLength);
    item.number = static_cast<std::int32_t>(++records_);
  }
  void settle() override {
    if (!items_.empty()) data_->write();
  }

  const char* find(const Key& key) override {
    const std::size_t place = number_of(key.data());
    first_->read(node_, place / kItemsOfFirst * kNode);
    const std::int32_t number = number_at(place % kItemsOfFirst);
    data_->read(slot_, static_cast<std::size_t>(number - 1) * kSlot);
    return slot_.data();
  }

  void scan(Order order, Reader& reader) override {
    ColdFile& leaves = order == Order::kPrimary ? *first_ : *second_;
    const std::size_t items = order == Order::kPrimary ? kItemsOfFirst : kItemsOfSecond;
    std::array<std::int32_t, std::max(kItemsOfFirst, kItemsOfSecond)> numbers{};
    std::array<Record, numbers.size()> records;
    for (std::size_t done = 0, leaf = 0; done < records_; ++leaf) {
      const std::size_t count = std::min(items, records_ - done);
      leaves.read(node_, leaf * kNode);
      for (std::size_t i = 0; i < count; ++i) numbers[i] = number_at(i);
      data_->read_slots(std::span{numbers}.first(count), records[0].data());
      for (std::size_t i = 0; i < count; ++i) reader.take(records[i].data());
      done += count;
    }
  }

  void rewrite(const Record& /*record*/) override { refuse(); }
  void remove(const Key& /*key*/) override { refuse(); }

 private:
  [[noreturn]] static void refuse() { throw std::runtime_error("it only reads"); }

  // The record number of an item of the leaf that was read last.
  [[nodiscard]] std::int32_t number_at(std::size_t item) const {
    std::int32_t number = 0;
    std::memcpy(&number, &node_[item * sizeof number], sizeof number);
    return number;
  }

  void write_leaves() {
    write_leaves(*first_, kItemsOfFirst);
    std::ranges::stable_sort(items_, {}, &SecondItem::key);
    write_leaves(*second_, kItemsOfSecond);
    items_.clear();
  }
  void write_leaves(ColdFile& leaves, std::size_t items) {
    for (std::size_t first = 0; first < items_.size(); first += items) {
      node_.fill(0);
      for (std::size_t i = 0; i < std::min(items, items_.size() - first); ++i) {
        const std::int32_t number = items_[first + i].number;
        std::memcpy(&node_[i * sizeof number], &number, sizeof number);
      }
      leaves.append(node_);
    }
    leaves.write();
  }

  std::size_t records_ = 0;
  std::vector<SecondItem> items_;  // of records added, in the order of the first key
  std::unique_ptr<ColdFile> data_;
  std::unique_ptr<ColdFile> first_;
  std::unique_ptr<ColdFile> second_;
  std::array<char, kNode> node_{};
  std::array<char, kSlot> slot_{};
};

}  // namespace

std::unique_ptr<Store> make_floor_cold() { return std::make_unique<FloorCold>(); }

}  // namespace bench
