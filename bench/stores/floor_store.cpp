// stores_floor: what reading and changing records cannot do without when other programs share the
// files. `floor` takes the library's locks in its order. Under them it copies the dictionary,
// searches the indexes (floor_index) and copies the record. A change moves the rest of each leaf
// that it concerns and has a copy of all that it writes over, so that a failed write could be taken
// back (of a leaf it is the copy by way of which it was moved). It makes the writes that others
// must be able to see, each by itself for its place in the order: dictionary, leaves, record; an
// insertion at a free number and a deletion the node that lists free numbers, an insertion behind
// all others zero bytes that lengthen the file by a block, and two nodes more for each leaf that is
// cut in two, as seldom as leaves can be: when as many records have come as one has items. `floor`
// sleeps for a lock at once, `floor-asks` asks for it for as long as the library does before.
// `floor-exclusive` is described in floor_exclusive.h, `floor-cold` in floor_cold.h.
#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <stdexcept>

#include "bench/stores/floor_cold.h"
#include "bench/stores/floor_exclusive.h"
#include "bench/stores/floor_index.h"
#include "bench/stores/mapped_file.h"
#include "bench/stores/measuring.h"
#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr off_t kSemaphoreLength = 0x3FFFFFFF;
constexpr off_t kRecordLocks = 0x40000000;
constexpr std::size_t kSlot = kRecordLength + 1;
constexpr std::size_t kDictionary = 117;
constexpr std::size_t kListNode = kNode;  // where the node of free numbers stands
constexpr std::size_t kBlock = 1024;      // of the data file
constexpr std::size_t kCallsAhead = 16;   // in a scan of many records, with the one that enters
constexpr double kBeforeSleep = 100e-6;   // seconds

class FloorStore : public Store {
 public:
  explicit FloorStore(bool asks) : asks_(asks) {}

  void open(const fs::path& folder, Start start) override {
    index_ = std::make_unique<MappedFile>(folder / "records.idx");
    data_ = std::make_unique<MappedFile>(folder / "records.dat");
    tree_ = {};
    is_loaded_ = start == Start::kExisting;
    next_ = is_loaded_ ? static_cast<std::uint32_t>(data_->bytes().size() / kSlot) : 0;
    length_ = 0;
    if (is_loaded_) return;
    index_->write(list_, 0);
    index_->map();
  }
  void close() override {
    index_.reset();
    data_.reset();
  }

  // Records are added one behind the other, later ones where they stood.
  void insert(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    begin_change();
    if (is_loaded_) {
      lock(F_GETLK, F_WRLCK, kRecordLocks + number, 1);
      const std::uint32_t first = tree_.change_first(number, next_);
      const std::uint32_t second = tree_.change_second(record.data(), next_);
      write_over(index_.get(), list_, kListNode);
      write_dictionary();
      write_leaf(tree_.first_leaves(), first, 0);
      write_leaf(tree_.second_leaves(), second, 1);
      put(number, record);
    } else {
      lock(F_GETLK, F_WRLCK, kRecordLocks + next_, 1);
      const std::uint32_t first = tree_.change_first(number_in_some_leaf(number, next_), next_);
      const std::uint32_t second = tree_.change_second(record.data(), next_);
      lengthen_data();
      const bool cuts_first = next_ > 0 && next_ % kItemsOfFirst == 0;
      const bool cuts_second = next_ > 0 && next_ % kItemsOfSecond == 0;
      if (cuts_first) write_new_leaf(tree_.first_leaves(), first, next_ / kItemsOfFirst, 0);
      if (cuts_second) write_new_leaf(tree_.second_leaves(), second, next_ / kItemsOfSecond, 1);
      write_dictionary();
      if (cuts_first) write_upper(first, 0);
      write_leaf(tree_.first_leaves(), first, 0);
      if (cuts_second) write_upper(second, 1);
      write_leaf(tree_.second_leaves(), second, 1);
      put(next_++, record);
    }
    end();
  }

  void rewrite(const Record& record) override {
    begin_change();
    const std::uint32_t number = find_slot(number_of(record.data()));
    lock(F_GETLK, F_WRLCK, kRecordLocks + number, 1);
    const std::uint32_t fresh = tree_.change_second(record.data(), next_);
    const std::uint32_t old = tree_.change_second(slot_.data(), next_);
    write_dictionary();
    write_leaf(tree_.second_leaves(), fresh, 1);
    write_leaf(tree_.second_leaves(), old, 1);
    put(number, record);
    end();
  }

  void remove(const Key& key) override {
    begin_change();
    const FloorIndex::Place place = tree_.find(number_of(key.data()), next_);
    const std::uint32_t number = tree_.slot_at(place);
    copy(data_->bytes().subspan(number * kSlot, kSlot), slot_);
    lock(F_GETLK, F_WRLCK, kRecordLocks + number, 1);
    tree_.take_out(place);
    const std::uint32_t second = tree_.change_second(slot_.data(), next_);
    write_dictionary();
    put(number, Record{});
    write_leaf(tree_.first_leaves(), place.leaf, 0);
    write_leaf(tree_.second_leaves(), second, 1);
    write_over(index_.get(), list_, kListNode);
    end();
  }

  const char* find(const Key& key) override {
    begin(F_RDLCK);
    find_slot(number_of(key.data()));
    end();
    return slot_.data();
  }

  void scan(Order order, Reader& reader) override { scan_many(order, reader); }

  [[nodiscard]] bool has_bulk() const override { return true; }
  // One entry, a lock and the dictionary, copies what several calls ask for: the leaves tell the
  // records. The copies are given out call by call, with their numbers, as long as the dictionary
  // stands.
  void scan_many(Order /*order*/, Reader& reader) override {
    const std::size_t records = data_->bytes().size() / kSlot;
    for (std::size_t first = 0; first < records; first += many_.size()) {
      const std::size_t count = std::min(many_.size(), records - first);
      begin(F_RDLCK);
      for (std::size_t i = 0; i < count; ++i) {
        const auto place = FloorIndex::place_in_order(static_cast<std::uint32_t>(first + i));
        numbers_[i] = tree_.slot_at(place);
        const auto slot = data_->bytes().subspan(numbers_[i] * kSlot, kSlot);
        if (slot.back() != '\n') throw std::runtime_error("a record is not there");
        copy(slot.first(kRecordLength), many_[i]);
      }
      end();
      for (std::size_t given = 0; given < count; given += kBulk) give(given, count, reader);
    }
  }

  void settle() override {
    if (is_loaded_) return;
    // What the last block has beyond the last record goes.
    const auto end = static_cast<off_t>(next_ * kSlot);
    check_system(::ftruncate(data_->fd(), end) == 0, "ftruncate");
    index_->map();
    data_->map();
    is_loaded_ = true;
  }

 private:
  void begin(int type) {
    lock(F_SETLKW, type, 0, kSemaphoreLength);
    copy(index_->bytes().first(kDictionary), dictionary_);
  }
  void begin_change() { begin(F_WRLCK); }
  void give(std::size_t from, std::size_t count, Reader& reader) {
    const std::size_t portion = std::min(kBulk, count - from);
    if (from > 0 && std::memcmp(index_->bytes().data(), dictionary_.data(), kDictionary) != 0) {
      throw std::runtime_error("nobody else changes the file");
    }
    std::memcpy(portion_.data(), &many_[from], portion * kRecordLength);
    std::copy_n(&numbers_[from], portion, portion_numbers_.begin());
    for (std::size_t i = 0; i < portion; ++i) reader.take(portion_[i].data());
  }
  void end() const { lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength); }

  // Copies the record.
  std::uint32_t find_slot(std::uint32_t number) {
    const std::uint32_t slot = tree_.slot_at(tree_.find(number, next_));
    copy(data_->bytes().subspan(slot * kSlot, kSlot), slot_);
    return slot;
  }

  static void copy(std::span<const char> from, std::span<char> to) {
    std::memcpy(to.data(), from.data(), from.size());
  }

  // Leaves of both keys by turns.
  static std::size_t leaf_at(std::uint32_t leaf, std::uint32_t key) {
    return (2 + 2 * std::size_t{leaf} + key) * kNode;
  }

  void write_over(const MappedFile* file, std::span<const char> bytes, std::size_t at) {
    const std::span<const char> there = file->bytes();
    if (at + bytes.size() <= there.size()) copy(there.subspan(at, bytes.size()), before_);
    file->write(bytes, at);
  }
  void write_dictionary() { write_over(index_.get(), dictionary_, 0); }
  void write_leaf(Level& leaves, std::uint32_t leaf, std::uint32_t key) {
    index_->write(leaves.at(leaf), leaf_at(leaf, key));
  }
  // Half of a full leaf's items go to a new node behind all others. The node above them is written,
  // too, for the new item; it has no place of its own, for nobody reads it.
  void write_new_leaf(Level& leaves, std::uint32_t full, std::uint32_t added, std::uint32_t key) {
    copy(leaves.at(full).first(kNode / 2), cut_);
    index_->write(cut_, leaf_at(added, key));
  }
  void write_upper(std::uint32_t leaf, std::uint32_t key) {
    write_over(index_.get(), cut_, leaf_at(leaf / kItemsOfFirst, key));
  }
  void lengthen_data() {
    if ((std::size_t{next_} + 1) * kSlot <= length_) return;
    data_->write(std::array<char, kBlock>{}, length_);
    length_ += kBlock;
  }
  void put(std::uint32_t number, const Record& record) {
    copy(record, slot_);
    slot_.back() = '\n';
    write_over(data_.get(), slot_, number * kSlot);
  }

  void lock(int command, int type, off_t start, off_t length) const {
    struct flock lock {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    const int fd = index_->fd();
    if (asks_ && command == F_SETLKW && type != F_UNLCK) {
      if (::fcntl(fd, F_SETLK, &lock) == 0) return;
      for (const double end = now() + kBeforeSleep; now() < end;) {
        if (::fcntl(fd, F_SETLK, &lock) == 0) return;
      }
    }
    check_system(::fcntl(fd, command, &lock) == 0, "fcntl");
  }

  bool asks_;
  bool is_loaded_ = false;
  std::uint32_t next_ = 0;  // number of the record to be added next
  std::size_t length_ = 0;  // of the data file that is loaded
  FloorIndex tree_;
  std::unique_ptr<MappedFile> index_;
  std::unique_ptr<MappedFile> data_;
  std::array<char, kDictionary> dictionary_{};
  std::array<char, kNode> list_{};
  std::array<char, kNode> before_{};
  std::array<char, kNode> cut_{};
  std::array<char, kSlot> slot_{};
  std::array<Record, kCallsAhead * kBulk> many_{};
  std::array<std::uint32_t, kCallsAhead * kBulk> numbers_{};
  std::array<Record, kBulk> portion_{};
  std::array<std::uint32_t, kBulk> portion_numbers_{};
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const auto kind = [](bool asks) {
    return [=] { return std::make_unique<bench::FloorStore>(asks); };
  };
  constexpr bool kShared = true;
  constexpr bool kFloor = true;
  return bench::run_stores(argc, argv,
                           {{"floor", kShared, kind(false), kFloor},
                            {"floor-asks", kShared, kind(true), kFloor},
                            {"floor-exclusive", !kShared, bench::make_floor_exclusive, kFloor},
                            {"floor-cold", !kShared, bench::make_floor_cold, kFloor}});
}
