#include "bench/stores/floor_exclusive.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <vector>

#include "bench/stores/floor_index.h"
#include "bench/stores/floor_records.h"
#include "bench/stores/mapped_file.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSystemPage = 4096;
constexpr std::size_t kPiece = 16384;   // that a bulk load writes at a time
constexpr std::size_t kBulkSecond = 8;  // bytes of a second key's item in full nodes

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

std::uint64_t leading_of_second(const Record& record) {
  std::uint64_t key = 0;
  std::memcpy(&key, record.data() + kSecondStart, sizeof key);
  return __builtin_bswap64(key);
}

class FloorExclusive : public Store {
 public:
  void open(const fs::path& folder, Start /*start*/) override {
    first_file_ = std::make_unique<MappedFile>(folder / "first");
    second_file_ = std::make_unique<MappedFile>(folder / "second");
    data_ = std::make_unique<MappedFile>(folder / "records");
    changed_ = {};
    index_ = {};
    next_ = 0;
    written_ = 0;
    is_loaded_ = false;
    loaded_.clear();
  }
  void close() override { settle(); }

  void insert(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    if (is_loaded_) {
      index_.change_first(number, next_);
      index_.change_second(record.data(), next_);
      return write_slot(record.data(), number);
    }
    index_.change_first(number_in_some_leaf(number, next_), next_);
    ++next_;
    index_.change_second(record.data(), next_);
    tail_.insert(tail_.end(), record.begin(), record.end());
    tail_.push_back('\n');
    if (tail_.size() >= kSystemPage) write_tail();
  }

  void rewrite(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    index_.change_second(find(key_of(number)), next_);
    index_.change_second(record.data(), next_);
    write_slot(record.data(), number);
  }

  void remove(const Key& key) override {
    const std::uint32_t number = number_of(key.data());
    const FloorIndex::Place place = index_.find(number, next_);
    copy_slot(index_.slot_at(place), record_);
    index_.take_out(place);
    index_.change_second(record_.data(), next_);
    write_slot(Record{}.data(), number);
  }

  const char* find(const Key& key) override {
    copy_slot(index_.slot_at(index_.find(number_of(key.data()), next_)), record_);
    return record_.data();
  }

  // Each record is copied for the caller; its number comes from a leaf, or from the items of the
  // second key, which are sorted when they are asked for first.
  void scan(Order order, Reader& reader) override {
    if (order == Order::kSecond) {
      for (const Loaded& item : by_second()) {
        copy_slot(item.number, record_);
        reader.take(record_.data());
      }
      return;
    }
    for (std::uint32_t number = 0; number < next_; ++number) {
      copy_slot(index_.slot_at(FloorIndex::place_in_order(number)), record_);
      reader.take(record_.data());
    }
  }

  [[nodiscard]] bool has_bulk() const override { return true; }
  void insert_many(std::span<const Record> records) override {
    for (const Record& record : records) insert(record);
  }
  void find_many(std::span<const Key> keys, Reader& reader) override {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      copy_slot(index_.slot_at(index_.find(number_of(keys[i].data()), next_)), many_[i]);
    }
    give_many(keys.size(), reader);
  }
  void scan_many(Order order, Reader& reader) override {
    const bool second = order == Order::kSecond;
    for (std::uint32_t first = 0; first < next_; first += kBulk) {
      const std::size_t count = std::min<std::size_t>(kBulk, next_ - first);
      for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t number = first + i;
        copy_slot(second ? by_second()[number].number
                         : index_.slot_at(FloorIndex::place_in_order(number)),
                  many_[i]);
      }
      give_many(count, reader);
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
      loaded_.push_back({leading_of_second(record), next_++});
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
    index_.first_leaves().write_changed(*first_file_);
    index_.second_leaves().write_changed(*second_file_);
    if (is_loaded_) return changed_.write(*data_);
    data_->map();
    is_loaded_ = true;
  }

 private:
  std::span<const Loaded> by_second() {
    if (!loaded_.empty()) return loaded_;
    for (std::uint32_t number = 0; number < next_; ++number) {
      copy_slot(number, record_);
      loaded_.push_back({leading_of_second(record_), number});
    }
    std::ranges::sort(loaded_, {}, &Loaded::key);
    return loaded_;
  }
  void give_many(std::size_t count, Reader& reader) const {
    for (std::size_t i = 0; i < count; ++i) reader.take(many_[i].data());
  }
  void copy_slot(std::uint32_t slot, Record& to) const { changed_.copy(*data_, slot, to); }
  void write_slot(const char* record, std::uint32_t number) {
    changed_.change(*data_, number, record);
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
  FloorRecords changed_;
  FloorIndex index_;
  std::uint32_t next_ = 0;  // slot of the record to be added next
  bool is_loaded_ = false;  // records that are added stand where they stood
  std::vector<char> tail_;
  std::size_t written_ = 0;
  Record record_{};
  std::array<Record, kBulk> many_{};
  std::unique_ptr<Writer> records_;  // of a bulk load, as the next one
  std::unique_ptr<Writer> items_;
  std::vector<Loaded> loaded_;  // by it; or all, in the order of the second key
};

}  // namespace

std::unique_ptr<Store> make_floor_exclusive() { return std::make_unique<FloorExclusive>(); }

}  // namespace bench
