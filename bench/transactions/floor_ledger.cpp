// floor_ledger: what a transaction cannot do without in files that other programs share, with the
// library's log and its order of writing. It takes the same locks, asks for each as long as the
// library does before it sleeps, searches an index for each record, and writes the same bytes in
// the same pieces:
//
//   reading    the pair is locked; each record is searched, copied and locked
//   rewriting  the raised stamp, so that others know of the change; in a turn at the log, whose end
//              is looked for, the images before and behind; the records; the pair let go
//   the end    its mark in the log, in the same turn at the log; the records' locks
//
// What is left out: checks, the pool, what is remembered of locks and of the log, positions.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

#include "bench/stores/mapped_file.h"
#include "bench/transactions/floor_search.h"
#include "bench/transactions/ledger.h"

namespace bench {
namespace {

constexpr off_t kPairLength = 0x3FFFFFFF;
constexpr off_t kRecordLocks = 0x40000000;
constexpr std::size_t kSlot = kRecordLength + 1;
constexpr std::size_t kDictionary = 117;
constexpr std::size_t kStamp = 41;  // of 4 bytes
constexpr std::size_t kStampLength = 4;
constexpr std::size_t kHeader = 34;  // of an image in the log
constexpr std::size_t kMark = 26;    // of a record that begins or ends a transaction
constexpr auto kBeforeSleep = std::chrono::microseconds(100);
constexpr auto kLeastBeforeSleep = std::chrono::microseconds(8);

using Slot = std::array<char, kSlot>;

class FloorLedger : public Ledger {
 public:
  void make(const std::filesystem::path& folder) override {
    std::ofstream index{folder / "index", std::ios::binary};
    index << std::string(1024, 'x');
    std::ofstream data{folder / "data", std::ios::binary};
    for (int i = 0; i < kAccounts; ++i) data.write(Account{i}.bytes, kRecordLength) << '\n';
    std::ofstream{folder / "log"} << "log\n";
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    index_ = std::make_unique<MappedFile>(folder / "index");
    data_ = std::make_unique<MappedFile>(folder / "data");
    log_ = std::make_unique<MappedFile>(folder / "log");
    find_ = make_floor_search(kAccounts);
    waits_ = durability == Durability::kDisk;
  }
  void close() override {
    index_.reset();
    data_.reset();
    log_.reset();
  }

  bool transact(std::span<const int> accounts) override {
    read(accounts);
    for (Slot& slot : after_) add_one(slot.data());
    rewrite(accounts.size());
    end_of_log();
    if (waits_) check_system(::fdatasync(log_->fd()) == 0, "fdatasync");
    lock(index_->fd(), F_SETLK, F_UNLCK, kRecordLocks, kRecordLocks - 2);
    return true;
  }

  long total() override {
    data_->map();
    long sum = 0;
    for (int i = 0; i < kAccounts; ++i) {
      sum += counter_of(slot_at(static_cast<std::size_t>(i)).data());
    }
    return sum;
  }

 private:
  [[nodiscard]] std::span<const char> slot_at(std::size_t place) const {
    return data_->bytes().subspan(place * kSlot, kSlot);
  }
  void enter() {
    take(index_->fd(), F_WRLCK, 0, kPairLength);
    std::memcpy(dictionary_.data(), index_->bytes().data(), kDictionary);
  }
  void leave() const { lock(index_->fd(), F_SETLK, F_UNLCK, 0, kPairLength); }

  void read(std::span<const int> accounts) {
    places_.resize(accounts.size());
    before_.resize(accounts.size());
    after_.resize(accounts.size());
    enter();
    for (std::size_t i = 0; i < accounts.size(); ++i) {
      places_[i] = find_(accounts[i]);
      const off_t byte = kRecordLocks + static_cast<off_t>(places_[i]);
      if (lock(index_->fd(), F_SETLK, F_WRLCK, byte, 1) != 0) {
        // The record is waited for outside, so that others go on.
        leave();
        take(index_->fd(), F_WRLCK, byte, 1);
        enter();
      }
      std::ranges::copy(slot_at(places_[i]), after_[i].begin());
    }
  }

  void rewrite(std::size_t count) {
    add_to_log(kMark, nullptr, nullptr);
    for (std::size_t i = 0; i < count; ++i) {
      std::ranges::copy(slot_at(places_[i]), before_[i].begin());
      add_to_log(kHeader, before_[i].data(), after_[i].data());
    }
    index_->write(std::span{dictionary_}.subspan(kStamp, kStampLength), kStamp);
    begin_log();
    write_log();
    for (std::size_t i = 0; i < count; ++i) put(i);
    leave();
  }
  void put(std::size_t index) { data_->write(after_[index], places_[index] * kSlot); }

  void add_to_log(std::size_t header, const char* before, const char* after) {
    piece_.resize(piece_.size() + header, 'x');
    for (const char* image : {before, after}) {
      if (image != nullptr) piece_.insert(piece_.end(), image, image + kRecordLength);
    }
  }
  void write_log() {
    log_->write(piece_, log_end_);
    log_end_ += piece_.size();
    piece_.clear();
  }
  void begin_log() {
    take(log_->fd(), F_WRLCK, 0, 0);
    log_end_ = static_cast<std::size_t>(::lseek(log_->fd(), 0, SEEK_END));
  }
  void end_of_log() {
    add_to_log(kMark, nullptr, nullptr);
    write_log();
    lock(log_->fd(), F_SETLK, F_UNLCK, 0, 0);
  }

  static int lock(int fd, int command, int type, off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return ::fcntl(fd, command, &lock);
  }
  static void take(int fd, int type, off_t start, off_t length) {
    using Clock = std::chrono::steady_clock;
    if (lock(fd, F_SETLK, type, start, length) == 0) return;
    static Clock::duration patience = kBeforeSleep;
    for (const auto end = Clock::now() + patience; Clock::now() < end;) {
      if (lock(fd, F_SETLK, type, start, length) != 0) continue;
      patience = std::min<Clock::duration>(patience + patience / 4, kBeforeSleep);
      return;
    }
    patience = std::max<Clock::duration>(patience / 2, kLeastBeforeSleep);
    check_system(lock(fd, F_SETLKW, type, start, length) == 0, "fcntl");
  }

  std::unique_ptr<MappedFile> index_;
  std::unique_ptr<MappedFile> data_;
  std::unique_ptr<MappedFile> log_;
  std::function<std::size_t(int)> find_;
  std::array<char, kDictionary> dictionary_{};
  std::vector<std::size_t> places_;
  std::vector<Slot> before_;
  std::vector<Slot> after_;
  std::vector<char> piece_;
  std::size_t log_end_ = 0;
  bool waits_ = false;
};

}  // namespace

std::unique_ptr<Ledger> floor_ledger() { return std::make_unique<FloorLedger>(); }

}  // namespace bench
