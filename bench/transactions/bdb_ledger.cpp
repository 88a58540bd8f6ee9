// bdb_ledger: Berkeley DB with locks, log and transactions.
#include "bench/common/bdb.h"
#include "bench/transactions/ledger.h"

namespace bench {
namespace {

constexpr std::uint32_t kMostLocks = 20'000;

using bdb::bytes;
using bdb::check;
using bdb::room;

class BdbLedger : public Ledger {
 public:
  void make(const std::filesystem::path& folder) override {
    open(folder, Durability::kSystem);
    for (int i = 0; i < kAccounts; i += kLoaded) {
      DB_TXN* transaction = begin();
      for (int number = i; number < i + kLoaded; ++number) {
        Account account{number};
        check(put(transaction, account), "put");
      }
      check(transaction->commit(transaction, 0), "commit");
    }
    check(trees_.env->txn_checkpoint(trees_.env, 0, 0, 0), "checkpoint");
    close();
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    trees_.create();
    check(trees_.env->set_lk_detect(trees_.env, DB_LOCK_DEFAULT), "set_lk_detect");
    check(trees_.env->set_lk_max_locks(trees_.env, kMostLocks), "set_lk_max_locks");
    check(trees_.env->set_lk_max_objects(trees_.env, kMostLocks), "set_lk_max_objects");
    trees_.open<kKeyLength, kSecondLength>(folder, DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_TXN,
                                           DB_CREATE | DB_AUTO_COMMIT);
    if (durability == Durability::kSystem) {
      check(trees_.env->set_flags(trees_.env, DB_TXN_WRITE_NOSYNC, 1), "set_flags");
    }
  }

  void close() override { trees_.close(); }

  bool transact(std::span<const int> accounts) override {
    DB_TXN* transaction = begin();
    for (const int number : accounts) {
      Account account{number};
      DBT key = bytes(account.bytes, kKeyLength);
      DBT record = room(account.bytes, kRecordLength);
      int result = trees_.records->get(trees_.records, transaction, &key, &record, DB_RMW);
      add_one(account.bytes);
      if (result == 0) result = put(transaction, account);
      if (result == DB_LOCK_DEADLOCK) {
        check(transaction->abort(transaction), "abort");
        return false;
      }
      check(result, "get or put");
    }
    check(transaction->commit(transaction, 0), "commit");
    return true;
  }

  long total() override {
    DBC* cursor = nullptr;
    check(trees_.records->cursor(trees_.records, nullptr, &cursor, 0), "cursor");
    long sum = 0;
    char key_bytes[kKeyLength];
    Account account{0};
    DBT key = room(key_bytes, kKeyLength);
    DBT record = room(account.bytes, kRecordLength);
    while (cursor->get(cursor, &key, &record, DB_NEXT) == 0) sum += counter_of(account.bytes);
    check(cursor->close(cursor), "close of the cursor");
    return sum;
  }

 private:
  static constexpr int kLoaded = 1000;  // accounts in a transaction

  DB_TXN* begin() {
    DB_TXN* transaction = nullptr;
    check(trees_.env->txn_begin(trees_.env, nullptr, &transaction, 0), "txn_begin");
    return transaction;
  }
  int put(DB_TXN* transaction, Account& account) {
    DBT key = bytes(account.bytes, kKeyLength);
    DBT record = bytes(account.bytes, kRecordLength);
    return trees_.records->put(trees_.records, transaction, &key, &record, 0);
  }

  bdb::Trees trees_;
};

}  // namespace

std::unique_ptr<Ledger> bdb_ledger() { return std::make_unique<BdbLedger>(); }

}  // namespace bench
