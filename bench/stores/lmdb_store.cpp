// stores_lmdb: LMDB, with many operations in a transaction, and shared by many processes with a
// transaction for each operation.
#include <lmdb.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int kOperationsOfTransaction = 10'000;
constexpr int kOperationsOfLoad = 100'000;                // in a transaction of a bulk load
constexpr std::size_t kMapBytes = std::size_t{16} << 30;  // of address space and sparse file
constexpr int kPermissions = 0644;

void check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + mdb_strerror(result));
}

enum class Transactions { kBig, kEach };

using Second = std::array<char, kSecondLength>;
// A second key and the primary key behind it.
using Entry = std::array<char, kSecondLength + kKeyLength>;

MDB_val bytes(const char* at, std::size_t length) {
  return {length, const_cast<char*>(at)};  // the library does not write through it
}

MDB_val second_of(const char* record) { return bytes(record + kSecondStart, kSecondLength); }

class LmdbStore : public Store {
 public:
  explicit LmdbStore(Transactions transactions) : is_each_(transactions == Transactions::kEach) {}

  void open(const fs::path& folder, Start start) override {
    check(mdb_env_create(&env_), "env_create");
    check(mdb_env_set_mapsize(env_, kMapBytes), "env_set_mapsize");
    check(mdb_env_set_maxdbs(env_, 2), "env_set_maxdbs");
    check(mdb_env_open(env_, folder.c_str(), MDB_WRITEMAP | MDB_NOSYNC, kPermissions), "env_open");
    begin(Access::kWrite);
    const unsigned create = start == Start::kFresh ? MDB_CREATE : 0;
    check(mdb_dbi_open(transaction_, "records", create, &records_), "dbi_open");
    check(mdb_dbi_open(transaction_, "second", create | MDB_DUPSORT | MDB_DUPFIXED, &second_),
          "dbi_open");
    settle();
  }

  void close() override {
    settle();
    if (reader_ != nullptr) mdb_txn_abort(reader_);
    reader_ = nullptr;
    mdb_env_close(env_);
  }

  void insert(const Record& record) override {
    count_change();
    put(record.data(), MDB_NOOVERWRITE);
    put_second(record.data());
    end_change();
  }

  void rewrite(const Record& record) override {
    count_change();
    const Second old = second_now(record.data());
    put(record.data(), 0);
    if (std::memcmp(old.data(), &record[kSecondStart], kSecondLength) != 0) {
      remove_second(old, record.data());
      put_second(record.data());
    }
    end_change();
  }

  void remove(const Key& key) override {
    count_change();
    const Second old = second_now(key.data());
    MDB_val name = bytes(key.data(), key.size());
    check(mdb_del(transaction_, records_, &name, nullptr), "del");
    remove_second(old, key.data());
    end_change();
  }

  const char* find(const Key& key) override {
    read();
    MDB_val name = bytes(key.data(), key.size());
    MDB_val record{};
    const int result = mdb_get(transaction_, records_, &name, &record);
    if (result == MDB_NOTFOUND) return nullptr;
    check(result, "get");
    return whole(record);
  }

  void scan(Order order, Reader& reader) override {
    read();
    MDB_cursor* cursor = cursor_of(order == Order::kPrimary ? records_ : second_);
    MDB_val key{};
    MDB_val value{};
    int result = 0;
    while ((result = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) == 0) {
      if (order == Order::kSecond) {
        MDB_val name = value;
        check(mdb_get(transaction_, records_, &name, &value), "get");
      }
      reader.take(whole(value));
    }
    mdb_cursor_close(cursor);
    if (result != MDB_NOTFOUND) check(result, "cursor_get");
  }

  [[nodiscard]] bool has_bulk() const override { return true; }

  // Records in key order go behind the last one.
  void insert_many(std::span<const Record> records) override {
    for (const Record& record : records) {
      count_change();
      put(record.data(), MDB_APPEND);
      put_second(record.data());
    }
    end_change();
  }

  void find_many(std::span<const Key> keys, Reader& reader) override {
    for (const Key& key : keys) {
      const char* record = is_each_ && &key != keys.data() ? find_on(key) : find(key);
      if (record == nullptr) throw std::runtime_error("get: none");
      reader.take(record);
    }
  }

  // All that share a second key are given at once.
  void scan_many(Order order, Reader& reader) override {
    if (order == Order::kPrimary) return scan(order, reader);
    read();
    MDB_cursor* cursor = cursor_of(second_);
    MDB_val key{};
    MDB_val names{};
    int result = 0;
    while ((result = mdb_cursor_get(cursor, &key, &names, MDB_NEXT_NODUP)) == 0) {
      check(mdb_cursor_get(cursor, &key, &names, MDB_GET_MULTIPLE), "cursor_get");
      do {
        take_all(names, reader);
      } while (mdb_cursor_get(cursor, &key, &names, MDB_NEXT_MULTIPLE) == 0);
    }
    mdb_cursor_close(cursor);
    if (result != MDB_NOTFOUND) check(result, "cursor_get");
  }

  // Records go behind the last one as long as they come in key order, the others sorted at the end,
  // and then the second keys, sorted.
  [[nodiscard]] bool has_load() const override { return true; }
  void begin_load() override {
    settle();
    last_ = {};
  }
  void load(std::span<const Record> records) override {
    for (const Record& record : records) {
      Entry& entry = entries_.emplace_back();
      std::memcpy(entry.data(), &record[kSecondStart], kSecondLength);
      std::memcpy(&entry[kSecondLength], record.data(), kKeyLength);
      if (!later_.empty() || std::memcmp(record.data(), last_.data(), kKeyLength) <= 0) {
        later_.push_back(record);
        continue;
      }
      append(record);
    }
  }
  void end_load() override {
    std::ranges::sort(later_);
    for (const Record& record : later_) {
      count_loaded();
      put(record.data(), MDB_NOOVERWRITE);
    }
    std::vector<Record>{}.swap(later_);
    append_entries();
    std::vector<Entry>{}.swap(entries_);
    settle();
  }

  void settle() override {
    if (transaction_ == nullptr) return;
    if (transaction_ == reader_) {
      mdb_txn_reset(reader_);
    } else {
      check(mdb_txn_commit(transaction_), "txn_commit");
    }
    transaction_ = nullptr;
  }

 private:
  enum class Access : unsigned { kWrite = 0, kRead = MDB_RDONLY };

  void begin(Access access) {
    check(mdb_txn_begin(env_, nullptr, static_cast<unsigned>(access), &transaction_), "txn_begin");
    access_ = access;
    operations_ = 0;
  }

  // One reading transaction is kept and taken up again, where each operation has its own.
  void read() {
    if (is_each_) {
      settle();
      if (reader_ == nullptr) {
        check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_), "txn_begin");
      } else {
        check(mdb_txn_renew(reader_), "txn_renew");
      }
      transaction_ = reader_;
      access_ = Access::kRead;
    } else if (transaction_ == nullptr) {
      begin(Access::kRead);
    }
  }

  // Keeps the transactions of so many changes.
  void count(int most) {
    if (transaction_ != nullptr && (access_ == Access::kRead || operations_ == most)) settle();
    if (transaction_ == nullptr) begin(Access::kWrite);
    ++operations_;
  }
  void count_change() { count(kOperationsOfTransaction); }
  void count_loaded() { count(kOperationsOfLoad); }
  void end_change() {
    if (is_each_) settle();
  }

  MDB_cursor* cursor_of(MDB_dbi tree) {
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(transaction_, tree, &cursor), "cursor_open");
    return cursor;
  }

  // find() within the transaction of the one before.
  const char* find_on(const Key& key) {
    MDB_val name = bytes(key.data(), key.size());
    MDB_val record{};
    check(mdb_get(transaction_, records_, &name, &record), "get");
    return whole(record);
  }

  void take_all(const MDB_val& names, Reader& reader) {
    const char* at = static_cast<const char*>(names.mv_data);
    for (std::size_t left = names.mv_size; left >= kKeyLength; left -= kKeyLength) {
      MDB_val name = bytes(at, kKeyLength);
      MDB_val record{};
      check(mdb_get(transaction_, records_, &name, &record), "get");
      reader.take(whole(record));
      at += kKeyLength;
    }
  }

  void append(const Record& record) {
    count_loaded();
    put(record.data(), MDB_APPEND);
    std::memcpy(last_.data(), record.data(), kKeyLength);
  }

  void append_entries() {
    std::ranges::sort(entries_);
    for (const Entry& entry : entries_) {
      count_loaded();
      MDB_val second = bytes(entry.data(), kSecondLength);
      MDB_val key = bytes(&entry[kSecondLength], kKeyLength);
      const bool repeats = &entry != entries_.data() &&
                           std::memcmp(entry.data(), (&entry)[-1].data(), kSecondLength) == 0;
      check(mdb_put(transaction_, second_, &second, &key, repeats ? MDB_APPENDDUP : MDB_APPEND),
            "put");
    }
  }

  static const char* whole(const MDB_val& record) {
    if (record.mv_size != kRecordLength) throw std::runtime_error("a record of another length");
    return static_cast<const char*>(record.mv_data);
  }

  void put(const char* record, unsigned flags) {
    MDB_val key = bytes(record, kKeyLength);
    MDB_val value = bytes(record, kRecordLength);
    check(mdb_put(transaction_, records_, &key, &value, flags), "put");
  }

  void put_second(const char* record) {
    MDB_val second = second_of(record);
    MDB_val key = bytes(record, kKeyLength);
    check(mdb_put(transaction_, second_, &second, &key, MDB_NODUPDATA), "put");
  }

  void remove_second(const Second& old, const char* key) {
    MDB_val second = bytes(old.data(), old.size());
    MDB_val name = bytes(key, kKeyLength);
    check(mdb_del(transaction_, second_, &second, &name), "del");
  }

  // The secondary key of the stored record; copied, because changes move records.
  Second second_now(const char* key) {
    MDB_val name = bytes(key, kKeyLength);
    MDB_val record{};
    check(mdb_get(transaction_, records_, &name, &record), "get");
    Second second;
    std::memcpy(second.data(), whole(record) + kSecondStart, second.size());
    return second;
  }

  bool is_each_;
  MDB_env* env_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_txn* reader_ = nullptr;  // where each operation has its own transaction
  Access access_ = Access::kRead;
  int operations_ = 0;
  MDB_dbi records_ = 0;
  MDB_dbi second_ = 0;
  // Of a bulk load:
  Key last_{};
  std::vector<Record> later_;
  std::vector<Entry> entries_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const auto kind = [](bench::Transactions transactions) {
    return [=] { return std::make_unique<bench::LmdbStore>(transactions); };
  };
  return bench::run_stores(argc, argv,
                           {{"lmdb", false, kind(bench::Transactions::kBig)},
                            {"lmdb-each", true, kind(bench::Transactions::kEach)}});
}
