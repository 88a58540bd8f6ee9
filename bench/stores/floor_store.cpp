// stores_floor: what reading and rewriting records cannot do without when other programs share the
// files: the library's locks in its order, and copies of the record and of the dictionary. A
// rewrite adds the writes that others must be able to see: dictionary, two nodes of an index,
// record; an insertion and a deletion the nodes of the list of free records too. There is no index
// and no search: a record stands where its number says. `floor` sleeps for a lock at once,
// `floor-asks` asks for it for as long as the library does before.
// `floor-exclusive` is described in floor_exclusive.h.
#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <stdexcept>

#include "bench/stores/floor_exclusive.h"
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
constexpr std::size_t kNode = 1024;
constexpr std::uint32_t kRecordsOfNode = 60;
constexpr double kBeforeSleep = 100e-6;  // seconds

class FloorStore : public Store {
 public:
  explicit FloorStore(bool asks) : asks_(asks) {}

  void open(const fs::path& folder, Start start) override {
    index_ = std::make_unique<MappedFile>(folder / "records.idx");
    data_ = std::make_unique<MappedFile>(folder / "records.dat");
    is_loaded_ = start == Start::kExisting;
    next_ = 0;
    if (is_loaded_) return;
    index_->write(node_, 0);
    index_->map();
  }
  void close() override {
    index_.reset();
    data_.reset();
  }

  // Records are added one behind the other, later ones where they stood.
  void insert(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    change(is_loaded_ ? number : next_++, is_loaded_ ? 3 : 2, record);
  }

  void rewrite(const Record& record) override { change(number_of(record.data()), 2, record); }

  void remove(const Key& key) override { change(number_of(key.data()), 3, Record{}); }

  const char* find(const Key& key) override {
    const std::uint32_t number = number_of(key.data());
    lock(F_SETLKW, F_RDLCK, 0, kSemaphoreLength);
    copy(index_->bytes().first(kDictionary), dictionary_);
    copy(data_->bytes().subspan(number * kSlot, kSlot), slot_);
    lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength);
    return slot_.data();
  }

  void scan(Order order, Reader& reader) override { scan_many(order, reader); }

  [[nodiscard]] bool has_bulk() const override { return true; }
  // As many records as one entry reads ahead: a lock, the dictionary and a copy of each record.
  void scan_many(Order /*order*/, Reader& reader) override {
    const std::size_t records = data_->bytes().size() / kSlot;
    for (std::size_t first = 0; first < records; first += kBulk) {
      const std::size_t count = std::min(kBulk, records - first);
      lock(F_SETLKW, F_RDLCK, 0, kSemaphoreLength);
      copy(index_->bytes().first(kDictionary), dictionary_);
      for (std::size_t i = 0; i < count; ++i) {
        copy(data_->bytes().subspan((first + i) * kSlot, kRecordLength), many_[i]);
      }
      lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength);
      for (std::size_t i = 0; i < count; ++i) reader.take(many_[i].data());
    }
  }

  void settle() override {
    if (is_loaded_) return;
    const std::size_t last = node_at(std::max(next_, 1U) - 1) + kNode;
    if (index_->bytes().size() < last) index_->write(node_, last - kNode);
    index_->map();
    data_->map();
    is_loaded_ = true;
  }

 private:
  // One change under the lock, which writes so many nodes.
  void change(std::uint32_t number, std::uint32_t nodes, const Record& record) {
    lock(F_SETLKW, F_WRLCK, 0, kSemaphoreLength);
    copy(index_->bytes().first(kDictionary), dictionary_);
    if (is_loaded_) copy(data_->bytes().subspan(number * kSlot, kSlot), slot_);
    lock(F_GETLK, F_WRLCK, kRecordLocks + number, 1);
    index_->write(dictionary_, 0);
    for (std::uint32_t i = 0; i < nodes; ++i) {
      const std::size_t at = node_at(is_loaded_ ? scrambled(number + i) : number);
      if (is_loaded_) copy(index_->bytes().subspan(at, kNode), node_);
      index_->write(node_, at);
    }
    put(number, record);
    lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength);
  }

  static void copy(std::span<const char> from, std::span<char> to) {
    std::memcpy(to.data(), from.data(), from.size());
  }

  static std::size_t node_at(std::uint32_t number) { return (1 + number / kRecordsOfNode) * kNode; }
  // A record anywhere, as the secondary key has it.
  [[nodiscard]] std::uint32_t scrambled(std::uint32_t number) const {
    return static_cast<std::uint32_t>(scramble(number) % (data_->bytes().size() / kSlot));
  }

  void put(std::uint32_t number, const Record& record) {
    copy(record, slot_);
    slot_.back() = '\n';
    data_->write(slot_, number * kSlot);
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
  std::unique_ptr<MappedFile> index_;
  std::unique_ptr<MappedFile> data_;
  std::array<char, kDictionary> dictionary_{};
  std::array<char, kNode> node_{};
  std::array<char, kSlot> slot_{};
  std::array<Record, kBulk> many_{};
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
                            {"floor-exclusive", !kShared, bench::make_floor_exclusive, kFloor}});
}
