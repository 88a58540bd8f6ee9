// isam_ledger: this library, with a log that all processes share.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

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
    check(isbatch(1), "isbatch");
  }

  void close() override {
    check(isclose(file_), "isclose");
    check(islogclose(), "islogclose");
  }

  bool transact(std::span<const int> accounts) override {
    check(isbegin(), "isbegin");
    for (const int number : accounts) {
      Account account{number};
      check(isread(file_, account.bytes, RD_EQUAL + RD_LOCK + RD_WAIT), "isread");
      account.add_one();
      check(isrewcurr(file_, account.bytes), "isrewcurr");
    }
    check(iscommit(), "iscommit");
    return true;
  }

  long total() override {
    long sum = 0;
    Account account{0};
    for (int mode = RD_FIRST; isread(file_, account.bytes, mode) == 0; mode = RD_NEXT) {
      sum += account.counter();
    }
    if (iserrno != ISEEND) check(-1, "isread");
    return sum;
  }

 private:
  int file_ = -1;
};

}  // namespace

std::unique_ptr<Ledger> isam_ledger() { return std::make_unique<IsamLedger>(); }

}  // namespace bench
