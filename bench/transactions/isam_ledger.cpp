// isam_ledger: this library, with a log that all processes share.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/transactions/ledger.h"
#include "isam.h"

namespace bench {
namespace {

void check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + iserrtext(iserrno));
}

class IsamLedger : public Ledger {
 public:
  void make(const std::filesystem::path& folder) override {
    keydescr key{0, 1, {{0, kKeyLength, KT_CHAR}}, 0, 0};
    keydescr second{KF_DUPS | KF_COMPRESS, 1, {{kKeyLength, kSecondLength, KT_CHAR}}, 0, 0};
    const std::string name = folder / "accounts";
    const int file = isbuild(name.c_str(), kRecordLength, &key, ISINOUT + ISEXCLLOCK);
    check(file, "isbuild");
    check(isaddindex(file, &second), "isaddindex");
    for (int i = 0; i < kAccounts; ++i) check(iswrite(file, Account{i}.bytes), "iswrite");
    check(isclose(file), "isclose");
    std::ofstream{folder / "log"};
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    setenv("ISAM_LOG_SYNC", durability == Durability::kDisk ? "1" : "0", 1);
    check(islogopen((folder / "log").c_str()), "islogopen");
    file_ = isopen((folder / "accounts").c_str(), ISINOUT + ISMANULOCK + ISTRANS);
    check(file_, "isopen");
  }

  void close() override {
    check(isclose(file_), "isclose");
    check(islogclose(), "islogclose");
  }

  bool transact(std::span<const int> accounts) override {
    check(isbegin(), "isbegin");
    const std::size_t count = accounts.size();
    many_.resize(count * kRecordLength);
    numbers_.resize(count);
    lengths_.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
      std::memcpy(place(i), Account{accounts[i]}.bytes, kKeyLength);
    }
    recordset set{static_cast<int32_t>(count), many_.data(), many_.size(), numbers_.data(),
                  lengths_.data()};
    // The file is kept until the commit has written what is rewritten: one turn for all of it.
    check(isbatch(1), "isbatch");
    const int got = isfetchmany(file_, &set, RD_EQUAL + RD_LOCK + RD_WAIT);
    check(got == set.count ? 0 : -1, "isfetchmany");
    for (std::size_t i = 0; i < count; ++i) add_one(place(i));
    const int put = isrewritemany(file_, &set);
    check(put == set.count ? 0 : -1, "isrewritemany");
    check(iscommit(), "iscommit");
    check(isbatch(0), "isbatch");
    return true;
  }

  long total() override {
    long sum = 0;
    Account account{0};
    for (int mode = RD_FIRST; isread(file_, account.bytes, mode) == 0; mode = RD_NEXT) {
      sum += counter_of(account.bytes);
    }
    if (iserrno != ISEEND) check(-1, "isread");
    return sum;
  }

 private:
  char* place(std::size_t index) { return &many_[index * kRecordLength]; }

  int file_ = -1;
  std::vector<char> many_;
  std::vector<int32_t> numbers_;
  std::vector<int32_t> lengths_;
};

}  // namespace

std::unique_ptr<Ledger> isam_ledger() { return std::make_unique<IsamLedger>(); }

}  // namespace bench
