// stores_floor: what reading and rewriting records cannot do without when other programs share the
// files: the library's locks in its order, and copies of the record and of the dictionary. A
// rewrite adds the writes that others must be able to see: dictionary, two nodes of an index,
// record. There is no index and no search: a record stands where its number says. `floor` sleeps
// for a lock at once, `floor-asks` asks for it for as long as the library does before.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench/stores/measuring.h"
#include "bench/stores/store.h"
#include "common/holders.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr off_t kSemaphoreLength = 0x3FFFFFFF;
constexpr off_t kRecordLocks = 0x40000000;
constexpr std::size_t kSlot = kRecordLength + 1;
constexpr std::size_t kDictionary = 117;
constexpr std::size_t kNode = 1024;
constexpr std::uint32_t kRecordsOfNode = 60;
constexpr std::uint32_t kNodesChanged = 2;
constexpr double kBeforeSleep = 100e-6;  // seconds

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

// A file, and a mapping of what it had when it was opened.
class Mapped {
 public:
  explicit Mapped(const fs::path& path) : fd_(::open(path.c_str(), O_RDWR | O_CREAT, 0666)) {
    check(static_cast<bool>(fd_), "open");
    size_ = static_cast<std::size_t>(::lseek(fd_.get(), 0, SEEK_END));
    if (size_ == 0) return;
    void* const bytes = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_.get(), 0);
    check(bytes != MAP_FAILED, "mmap");
    bytes_ = static_cast<const char*>(bytes);
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;
  ~Mapped() {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): mapped to be read only
    if (bytes_ != nullptr) ::munmap(const_cast<char*>(bytes_), size_);
  }

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] std::span<const char> bytes() const { return {bytes_, size_}; }

  void write(std::span<const char> from, std::size_t offset) const {
    const ssize_t put = ::pwrite(fd(), from.data(), from.size(), static_cast<off_t>(offset));
    check(put == static_cast<ssize_t>(from.size()), "pwrite");
  }

 private:
  common::FileHold fd_;
  const char* bytes_ = nullptr;
  std::size_t size_ = 0;
};

class FloorStore : public Store {
 public:
  explicit FloorStore(bool asks) : asks_(asks) {}

  void open(const fs::path& folder, Start start) override {
    index_ = std::make_unique<Mapped>(folder / "records.idx");
    data_ = std::make_unique<Mapped>(folder / "records.dat");
    if (start == Start::kFresh) index_->write(node_, 0);
  }
  void close() override {
    index_.reset();
    data_.reset();
  }

  void insert(const Record& record) override {
    put(record);
    const std::uint32_t number = number_of(record.data());
    if (number % kRecordsOfNode == 0) index_->write(node_, node_at(number));
  }

  void rewrite(const Record& record) override {
    const std::uint32_t number = number_of(record.data());
    lock(F_SETLKW, F_WRLCK, 0, kSemaphoreLength);
    copy(index_->bytes().first(kDictionary), dictionary_);
    copy(data_->bytes().subspan(number * kSlot, kSlot), slot_);
    lock(F_GETLK, F_WRLCK, kRecordLocks + number, 1);
    index_->write(dictionary_, 0);
    for (std::uint32_t i = 0; i < kNodesChanged; ++i) {
      const std::size_t at = node_at(scrambled(number + i));
      copy(index_->bytes().subspan(at, kNode), node_);
      index_->write(node_, at);
    }
    put(record);
    lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength);
  }

  const char* find(const Key& key) override {
    const std::uint32_t number = number_of(key.data());
    lock(F_SETLKW, F_RDLCK, 0, kSemaphoreLength);
    copy(index_->bytes().first(kDictionary), dictionary_);
    copy(data_->bytes().subspan(number * kSlot, kSlot), slot_);
    lock(F_SETLKW, F_UNLCK, 0, kSemaphoreLength);
    return slot_.data();
  }

  void remove(const Key& /*key*/) override { throw std::logic_error("nothing is removed"); }

  void scan(Order /*order*/, Reader& reader) override {
    for (std::size_t at = 0; at < data_->bytes().size(); at += kSlot) {
      reader.take(data_->bytes().subspan(at, kSlot).data());
    }
  }

  void settle() override {}

 private:
  static void copy(std::span<const char> from, std::span<char> to) {
    std::memcpy(to.data(), from.data(), from.size());
  }

  static std::size_t node_at(std::uint32_t number) { return (1 + number / kRecordsOfNode) * kNode; }
  // A record anywhere, as the secondary key has it.
  [[nodiscard]] std::uint32_t scrambled(std::uint32_t number) const {
    return static_cast<std::uint32_t>(scramble(number) % (data_->bytes().size() / kSlot));
  }

  void put(const Record& record) {
    copy(record, slot_);
    slot_.back() = '\n';
    data_->write(slot_, number_of(record.data()) * kSlot);
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
    check(::fcntl(fd, command, &lock) == 0, "fcntl");
  }

  bool asks_;

  std::unique_ptr<Mapped> index_;
  std::unique_ptr<Mapped> data_;
  std::array<char, kDictionary> dictionary_{};
  std::array<char, kNode> node_{};
  std::array<char, kSlot> slot_{};
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const auto kind = [](bool asks) {
    return [=] { return std::make_unique<bench::FloorStore>(asks); };
  };
  return bench::run_stores(argc, argv,
                           {{"floor", true, kind(false)}, {"floor-asks", true, kind(true)}});
}
