// sqlite_ledger: SQLite with a write-ahead log.
#include <cstring>
#include <stdexcept>

#include "bench/common/sqlite.h"
#include "bench/transactions/ledger.h"

namespace bench {
namespace {

class SqliteLedger : public Ledger {
 public:
  void make(const std::filesystem::path& folder) override {
    open(folder, Durability::kSystem);
    db_.execute(
        "CREATE TABLE accounts(key BLOB PRIMARY KEY, second BLOB, rest BLOB) WITHOUT ROWID;"
        "CREATE INDEX by_second ON accounts(second); BEGIN");
    sqlite3_stmt* insert = db_.prepare("INSERT INTO accounts VALUES(?1, ?2, ?3)");
    for (int i = 0; i < kAccounts; ++i) {
      const Account account{i};
      db_.bind(insert, 1, account.bytes, kKeyLength);
      db_.bind(insert, 2, account.bytes + kKeyLength, kSecondLength);
      db_.bind(insert, 3, account.bytes + kCounterAt, kRecordLength - kCounterAt);
      db_.run(insert);
    }
    db_.finalize(insert);
    db_.execute("COMMIT");
    db_.close();
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    db_.open(folder / "accounts.db");
    db_.execute("PRAGMA journal_mode=WAL");
    db_.execute(durability == Durability::kDisk ? "PRAGMA synchronous=FULL"
                                                : "PRAGMA synchronous=OFF");
    begin_ = find_ = rewrite_ = commit_ = nullptr;
  }

  void close() override {
    for (sqlite3_stmt* statement : {begin_, find_, rewrite_, commit_}) db_.finalize(statement);
    db_.close();
  }

  bool transact(std::span<const int> accounts) override {
    if (begin_ == nullptr) prepare_all();
    db_.run(begin_);
    for (const int number : accounts) {
      Account account{number};
      db_.bind(find_, 1, account.bytes, kKeyLength);
      if (!db_.step(find_)) throw std::runtime_error("an account is missing");
      std::memcpy(account.bytes + kCounterAt, sqlite3_column_blob(find_, 0),
                  kRecordLength - kCounterAt);
      db_.reset(find_);
      add_one(account.bytes);
      db_.bind(rewrite_, 1, account.bytes, kKeyLength);
      db_.bind(rewrite_, 2, account.bytes + kCounterAt, kRecordLength - kCounterAt);
      db_.run(rewrite_);
    }
    db_.run(commit_);
    return true;
  }

  long total() override {
    sqlite3_stmt* all = db_.prepare("SELECT rest FROM accounts");
    long sum = 0;
    while (db_.step(all)) {
      Account account{0};
      std::memcpy(account.bytes + kCounterAt, sqlite3_column_blob(all, 0), kCounterLength);
      sum += counter_of(account.bytes);
    }
    db_.finalize(all);
    return sum;
  }

 private:
  void prepare_all() {
    begin_ = db_.prepare("BEGIN IMMEDIATE");
    find_ = db_.prepare("SELECT rest FROM accounts WHERE key = ?1");
    rewrite_ = db_.prepare("UPDATE accounts SET rest = ?2 WHERE key = ?1");
    commit_ = db_.prepare("COMMIT");
  }

  SqliteDatabase db_;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* find_ = nullptr;
  sqlite3_stmt* rewrite_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
};

}  // namespace

std::unique_ptr<Ledger> sqlite_ledger() { return std::make_unique<SqliteLedger>(); }

}  // namespace bench
