// bdb_ledger: Berkeley DB with locks, log and transactions.
#include <db.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/transactions/ledger.h"

namespace bench {
namespace {

constexpr std::uint32_t kCacheBytes = 64 << 20;
constexpr std::uint32_t kMostLocks = 20'000;
constexpr int kPermissions = 0644;

void check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + db_strerror(result));
}

DBT bytes(char* at, std::uint32_t length) {
  DBT dbt{};
  dbt.data = at;
  dbt.size = dbt.ulen = length;
  dbt.flags = DB_DBT_USERMEM;
  return dbt;
}

int second_key_of(DB* /*second*/, const DBT* /*key*/, const DBT* record, DBT* result) {
  *result = bytes(static_cast<char*>(record->data) + kKeyLength, kSecondLength);
  return 0;
}

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
    check(env_->txn_checkpoint(env_, 0, 0, 0), "checkpoint");
    close();
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    check(db_env_create(&env_, 0), "db_env_create");
    check(env_->set_cachesize(env_, 0, kCacheBytes, 1), "set_cachesize");
    check(env_->set_lk_detect(env_, DB_LOCK_DEFAULT), "set_lk_detect");
    check(env_->set_lk_max_locks(env_, kMostLocks), "set_lk_max_locks");
    check(env_->set_lk_max_objects(env_, kMostLocks), "set_lk_max_objects");
    check(env_->open(env_, folder.c_str(),
                     DB_CREATE | DB_INIT_MPOOL | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_TXN,
                     kPermissions),
          "open of the environment");
    if (durability == Durability::kSystem) {
      check(env_->set_flags(env_, DB_TXN_WRITE_NOSYNC, 1), "set_flags");
    }
    records_ = open_tree("accounts.db", 0);
    second_ = open_tree("second.db", DB_DUPSORT);
    check(records_->associate(records_, nullptr, second_, second_key_of, 0), "associate");
  }

  void close() override {
    check(second_->close(second_, 0), "close");
    check(records_->close(records_, 0), "close");
    check(env_->close(env_, 0), "close of the environment");
  }

  bool transact(std::span<const int> accounts) override {
    DB_TXN* transaction = begin();
    for (const int number : accounts) {
      Account account{number};
      DBT key = bytes(account.bytes, kKeyLength);
      DBT record = bytes(account.bytes, kRecordLength);
      int result = records_->get(records_, transaction, &key, &record, DB_RMW);
      account.add_one();
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
    check(records_->cursor(records_, nullptr, &cursor, 0), "cursor");
    long sum = 0;
    char key_bytes[kKeyLength];
    Account account{0};
    DBT key = bytes(key_bytes, kKeyLength);
    DBT record = bytes(account.bytes, kRecordLength);
    while (cursor->get(cursor, &key, &record, DB_NEXT) == 0) sum += account.counter();
    check(cursor->close(cursor), "close of the cursor");
    return sum;
  }

 private:
  static constexpr int kLoaded = 1000;  // accounts in a transaction

  DB* open_tree(const char* name, std::uint32_t flags) {
    DB* tree = nullptr;
    check(db_create(&tree, env_, 0), "db_create");
    check(tree->set_flags(tree, flags), "set_flags");
    check(tree->open(tree, nullptr, name, nullptr, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT,
                     kPermissions),
          name);
    return tree;
  }
  DB_TXN* begin() {
    DB_TXN* transaction = nullptr;
    check(env_->txn_begin(env_, nullptr, &transaction, 0), "txn_begin");
    return transaction;
  }
  int put(DB_TXN* transaction, Account& account) {
    DBT key = bytes(account.bytes, kKeyLength);
    DBT record = bytes(account.bytes, kRecordLength);
    return records_->put(records_, transaction, &key, &record, 0);
  }

  DB_ENV* env_ = nullptr;
  DB* records_ = nullptr;
  DB* second_ = nullptr;
};

}  // namespace

std::unique_ptr<Ledger> bdb_ledger() { return std::make_unique<BdbLedger>(); }

}  // namespace bench
