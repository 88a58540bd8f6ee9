// stores_sqlite: SQLite, with many operations in a transaction, and shared by many processes with
// a write-ahead log and a transaction for each operation.
#include <sched.h>
#include <sqlite3.h>

#include <stdexcept>
#include <string>

#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int kOperationsOfTransaction = 100'000;
constexpr std::size_t kRestStart = kSecondStart + kSecondLength;

enum class Transactions { kBig, kEach };

class SqliteStore : public Store {
 public:
  explicit SqliteStore(Transactions transactions) : transactions_(transactions) {}

  void open(const fs::path& folder, Start start) override {
    check(sqlite3_open((folder / "records.db").c_str(), &db_), "open");
    check(sqlite3_busy_handler(db_, yield, nullptr), "busy_handler");
    execute("PRAGMA synchronous=OFF; PRAGMA cache_size=-65536");
    execute(transactions_ == Transactions::kEach
                ? "PRAGMA journal_mode=WAL"
                : "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF");
    if (start == Start::kFresh) {
      execute(
          "CREATE TABLE records(key BLOB PRIMARY KEY, second BLOB, rest BLOB) WITHOUT ROWID;"
          "CREATE INDEX by_second ON records(second)");
    }
    insert_ = prepare("INSERT INTO records VALUES(?1, ?2, ?3)");
    rewrite_ = prepare("UPDATE records SET second = ?2, rest = ?3 WHERE key = ?1");
    remove_ = prepare("DELETE FROM records WHERE key = ?1");
    find_ = prepare("SELECT key, second, rest FROM records WHERE key = ?1");
    scan_primary_ = prepare("SELECT key, second, rest FROM records ORDER BY key");
    scan_second_ =
        prepare("SELECT key, second, rest FROM records INDEXED BY by_second ORDER BY second");
  }

  void close() override {
    for (sqlite3_stmt* statement :
         {insert_, rewrite_, remove_, find_, scan_primary_, scan_second_}) {
      check(sqlite3_finalize(statement), "finalize");
    }
    check(sqlite3_close(db_), "close");
  }

  void insert(const Record& record) override {
    bind_record(insert_, record);
    change(insert_);
  }

  void rewrite(const Record& record) override {
    bind_record(rewrite_, record);
    change(rewrite_);
  }

  void remove(const Key& key) override {
    bind(remove_, 1, key.data(), key.size());
    change(remove_);
  }

  const char* find(const Key& key) override {
    count_operation();
    bind(find_, 1, key.data(), key.size());
    const bool found = step(find_);
    if (found) take_columns(find_);
    check(sqlite3_reset(find_), "reset");
    return found ? buffer_.data() : nullptr;
  }

  void scan(Order order, Reader& reader) override {
    sqlite3_stmt* statement = order == Order::kPrimary ? scan_primary_ : scan_second_;
    while (step(statement)) {
      take_columns(statement);
      reader.take(buffer_.data());
    }
    check(sqlite3_reset(statement), "reset");
  }

  void settle() override {
    if (open_operations_ > 0) execute("COMMIT");
    open_operations_ = 0;
  }

 private:
  // Another process writes, which takes it microseconds only.
  static int yield(void* /*context*/, int /*tries*/) { return sched_yield() == 0 ? 1 : 0; }

  void check(int result, const char* what) {
    if (result != SQLITE_OK)
      throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db_));
  }

  void execute(const char* text) {
    check(sqlite3_exec(db_, text, nullptr, nullptr, nullptr), text);
  }

  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), text);
    return statement;
  }

  // Keeps the big transactions.
  void count_operation() {
    if (transactions_ == Transactions::kEach) return;
    if (open_operations_ == kOperationsOfTransaction) settle();
    if (open_operations_++ == 0) execute("BEGIN");
  }

  void bind(sqlite3_stmt* statement, int place, const char* at, std::size_t length) {
    check(sqlite3_bind_blob(statement, place, at, static_cast<int>(length), nullptr), "bind");
  }

  void bind_record(sqlite3_stmt* statement, const Record& record) {
    bind(statement, 1, record.data(), kKeyLength);
    bind(statement, 2, &record[kSecondStart], kSecondLength);
    bind(statement, 3, &record[kRestStart], kRecordLength - kRestStart);
  }

  // Whether there is a row.
  bool step(sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result, "step");
    return result == SQLITE_ROW;
  }

  void change(sqlite3_stmt* statement) {
    count_operation();
    step(statement);
    check(sqlite3_reset(statement), "reset");
    if (sqlite3_changes(db_) != 1) throw std::runtime_error("no record was changed");
  }

  void take_column(sqlite3_stmt* statement, int column, std::size_t start, std::size_t length) {
    const void* blob = sqlite3_column_blob(statement, column);
    if (sqlite3_column_bytes(statement, column) != static_cast<int>(length)) {
      throw std::runtime_error("a column of another length");
    }
    std::memcpy(&buffer_[start], blob, length);
  }

  void take_columns(sqlite3_stmt* statement) {
    take_column(statement, 0, 0, kKeyLength);
    take_column(statement, 1, kSecondStart, kSecondLength);
    take_column(statement, 2, kRestStart, kRecordLength - kRestStart);
  }

  Transactions transactions_;
  int open_operations_ = 0;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* rewrite_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  sqlite3_stmt* find_ = nullptr;
  sqlite3_stmt* scan_primary_ = nullptr;
  sqlite3_stmt* scan_second_ = nullptr;
  Record buffer_{};
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const auto kind = [](bench::Transactions transactions) {
    return [=] { return std::make_unique<bench::SqliteStore>(transactions); };
  };
  return bench::run_stores(argc, argv,
                           {{"sqlite-big", false, kind(bench::Transactions::kBig)},
                            {"sqlite-wal", true, kind(bench::Transactions::kEach)}});
}
