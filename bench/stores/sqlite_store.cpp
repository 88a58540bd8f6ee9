// stores_sqlite: SQLite, with many operations in a transaction, and shared by many processes with
// a write-ahead log and a transaction for each operation.
#include <stdexcept>

#include "bench/common/sqlite.h"
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
    path_ = folder / "records.db";
    db_.open(path_);
    set_up();
    if (start == Start::kFresh) {
      db_.execute(
          "CREATE TABLE records(key BLOB PRIMARY KEY, second BLOB, rest BLOB) WITHOUT ROWID;"
          "CREATE INDEX by_second ON records(second)");
    }
    insert_ = db_.prepare(kInsert);
    prepare_others();
  }

  void close() override {
    for (sqlite3_stmt* statement :
         {insert_, rewrite_, remove_, find_, scan_primary_, scan_second_}) {
      db_.finalize(statement);
    }
    db_.close();
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
    db_.bind(remove_, 1, key.data(), key.size());
    change(remove_);
  }

  const char* find(const Key& key) override {
    count_operation();
    db_.bind(find_, 1, key.data(), key.size());
    const bool found = db_.step(find_);
    if (found) take_columns(find_);
    db_.reset(find_);
    return found ? buffer_.data() : nullptr;
  }

  void scan(Order order, Reader& reader) override {
    sqlite3_stmt* statement = order == Order::kPrimary ? scan_primary_ : scan_second_;
    while (db_.step(statement)) {
      take_columns(statement);
      reader.take(buffer_.data());
    }
    db_.reset(statement);
  }

  [[nodiscard]] bool has_bulk() const override { return true; }

  void insert_many(std::span<const Record> records) override {
    in_one([&] {
      for (const Record& record : records) insert(record);
    });
  }

  void find_many(std::span<const Key> keys, Reader& reader) override {
    in_one([&] {
      for (const Key& key : keys) {
        const char* record = find(key);
        if (record == nullptr) throw std::runtime_error("a record is not there");
        reader.take(record);
      }
    });
  }

  void scan_many(Order order, Reader& reader) override { scan(order, reader); }

  // The index is made at the end, which sorts its keys.
  [[nodiscard]] bool has_load() const override { return true; }
  void begin_load() override {
    settle();
    close();
    db_.open(path_);
    set_up();
    db_.execute("DROP INDEX by_second; BEGIN");
    insert_ = db_.prepare(kInsert);
  }
  void load(std::span<const Record> records) override {
    for (const Record& record : records) {
      bind_record(insert_, record);
      if (db_.run(insert_) != 1) throw std::runtime_error("no record was added");
    }
  }
  void end_load() override {
    db_.execute("CREATE INDEX by_second ON records(second); COMMIT");
    prepare_others();
  }

  void settle() override {
    if (open_operations_ > 0) db_.execute("COMMIT");
    open_operations_ = 0;
  }

 private:
  static constexpr const char* kInsert = "INSERT INTO records VALUES(?1, ?2, ?3)";

  void set_up() {
    db_.execute("PRAGMA synchronous=OFF");
    db_.execute(transactions_ == Transactions::kEach
                    ? "PRAGMA journal_mode=WAL"
                    : "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF");
  }

  void prepare_others() {
    rewrite_ = db_.prepare("UPDATE records SET second = ?2, rest = ?3 WHERE key = ?1");
    remove_ = db_.prepare("DELETE FROM records WHERE key = ?1");
    find_ = db_.prepare("SELECT key, second, rest FROM records WHERE key = ?1");
    scan_primary_ = db_.prepare("SELECT key, second, rest FROM records ORDER BY key");
    scan_second_ =
        db_.prepare("SELECT key, second, rest FROM records INDEXED BY by_second ORDER BY second");
  }

  // Where each operation has a transaction of its own, these have one together.
  template <typename Work>
  void in_one(Work work) {
    const bool is_each = transactions_ == Transactions::kEach;
    if (is_each) db_.execute("BEGIN");
    work();
    if (is_each) db_.execute("COMMIT");
  }

  // Keeps the big transactions.
  void count_operation() {
    if (transactions_ == Transactions::kEach) return;
    if (open_operations_ == kOperationsOfTransaction) settle();
    if (open_operations_++ == 0) db_.execute("BEGIN");
  }

  void bind_record(sqlite3_stmt* statement, const Record& record) {
    db_.bind(statement, 1, record.data(), kKeyLength);
    db_.bind(statement, 2, &record[kSecondStart], kSecondLength);
    db_.bind(statement, 3, &record[kRestStart], kRecordLength - kRestStart);
  }

  void change(sqlite3_stmt* statement) {
    count_operation();
    if (db_.run(statement) != 1) throw std::runtime_error("no record was changed");
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
  fs::path path_;
  int open_operations_ = 0;
  SqliteDatabase db_;
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
