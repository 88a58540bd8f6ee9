// sqlite_ledger: SQLite with a write-ahead log.
#include <sched.h>
#include <sqlite3.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/transactions/ledger.h"

namespace bench {
namespace {

class SqliteLedger : public Ledger {
 public:
  void make(const std::filesystem::path& folder) override {
    open(folder, Durability::kSystem);
    execute(
        "CREATE TABLE accounts(key BLOB PRIMARY KEY, second BLOB, rest BLOB) WITHOUT ROWID;"
        "CREATE INDEX by_second ON accounts(second); BEGIN");
    sqlite3_stmt* insert = prepare("INSERT INTO accounts VALUES(?1, ?2, ?3)");
    for (int i = 0; i < kAccounts; ++i) {
      const Account account{i};
      bind(insert, 1, account.bytes, kKeyLength);
      bind(insert, 2, account.bytes + kKeyLength, kSecondLength);
      bind(insert, 3, account.bytes + kCounterAt, kRecordLength - kCounterAt);
      step(insert);
      check(sqlite3_reset(insert), "reset");
    }
    check(sqlite3_finalize(insert), "finalize");
    execute("COMMIT");
    check(sqlite3_close(db_), "close");
  }

  void open(const std::filesystem::path& folder, Durability durability) override {
    check(sqlite3_open((folder / "accounts.db").c_str(), &db_), "open");
    check(sqlite3_busy_handler(db_, yield, nullptr), "busy_handler");
    execute("PRAGMA journal_mode=WAL; PRAGMA cache_size=-65536");
    execute(durability == Durability::kDisk ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF");
    begin_ = find_ = rewrite_ = commit_ = nullptr;
  }

  void close() override {
    for (sqlite3_stmt* statement : {begin_, find_, rewrite_, commit_}) {
      check(sqlite3_finalize(statement), "finalize");
    }
    check(sqlite3_close(db_), "close");
  }

  bool transact(std::span<const int> accounts) override {
    if (begin_ == nullptr) prepare_all();
    run(begin_);
    for (const int number : accounts) {
      Account account{number};
      bind(find_, 1, account.bytes, kKeyLength);
      if (!step(find_)) throw std::runtime_error("an account is missing");
      std::memcpy(account.bytes + kCounterAt, sqlite3_column_blob(find_, 0),
                  kRecordLength - kCounterAt);
      check(sqlite3_reset(find_), "reset");
      account.add_one();
      bind(rewrite_, 1, account.bytes, kKeyLength);
      bind(rewrite_, 2, account.bytes + kCounterAt, kRecordLength - kCounterAt);
      run(rewrite_);
    }
    run(commit_);
    return true;
  }

  long total() override {
    sqlite3_stmt* all = prepare("SELECT rest FROM accounts");
    long sum = 0;
    while (step(all)) {
      Account account{0};
      std::memcpy(account.bytes + kCounterAt, sqlite3_column_blob(all, 0), kCounterLength);
      sum += account.counter();
    }
    check(sqlite3_finalize(all), "finalize");
    return sum;
  }

 private:
  static int yield(void* /*context*/, int /*tries*/) { return sched_yield() == 0 ? 1 : 0; }

  void check(int result, const char* what) {
    if (result != SQLITE_OK) {
      throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db_));
    }
  }
  void execute(const char* text) {
    check(sqlite3_exec(db_, text, nullptr, nullptr, nullptr), text);
  }
  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), text);
    return statement;
  }
  void prepare_all() {
    begin_ = prepare("BEGIN IMMEDIATE");
    find_ = prepare("SELECT rest FROM accounts WHERE key = ?1");
    rewrite_ = prepare("UPDATE accounts SET rest = ?2 WHERE key = ?1");
    commit_ = prepare("COMMIT");
  }
  void bind(sqlite3_stmt* statement, int place, const char* at, int length) {
    check(sqlite3_bind_blob(statement, place, at, length, nullptr), "bind");
  }
  // Whether there is a row.
  bool step(sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result, "step");
    return result == SQLITE_ROW;
  }
  void run(sqlite3_stmt* statement) {
    step(statement);
    check(sqlite3_reset(statement), "reset");
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* find_ = nullptr;
  sqlite3_stmt* rewrite_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
};

}  // namespace

std::unique_ptr<Ledger> sqlite_ledger() { return std::make_unique<SqliteLedger>(); }

}  // namespace bench
