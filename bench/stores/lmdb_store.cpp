// stores_lmdb: LMDB, with many operations in a transaction.
#include <lmdb.h>

#include <stdexcept>
#include <string>

#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int kOperationsOfTransaction = 100'000;
constexpr std::size_t kMapBytes = std::size_t{16} << 30;  // of address space and sparse file
constexpr int kPermissions = 0644;

void check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + mdb_strerror(result));
}

using Second = std::array<char, kSecondLength>;

MDB_val bytes(const char* at, std::size_t length) {
  return {length, const_cast<char*>(at)};  // the library does not write through it
}

MDB_val second_of(const char* record) { return bytes(record + kSecondStart, kSecondLength); }

class LmdbStore : public Store {
 public:
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
    mdb_env_close(env_);
  }

  void insert(const Record& record) override {
    count_change();
    put(record.data(), MDB_NOOVERWRITE);
    put_second(record.data());
  }

  void rewrite(const Record& record) override {
    count_change();
    const Second old = second_now(record.data());
    put(record.data(), 0);
    if (std::memcmp(old.data(), &record[kSecondStart], kSecondLength) == 0) return;
    remove_second(old, record.data());
    put_second(record.data());
  }

  void remove(const Key& key) override {
    count_change();
    const Second old = second_now(key.data());
    MDB_val name = bytes(key.data(), key.size());
    check(mdb_del(transaction_, records_, &name, nullptr), "del");
    remove_second(old, key.data());
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
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(transaction_, order == Order::kPrimary ? records_ : second_, &cursor),
          "cursor_open");
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

  void settle() override {
    if (transaction_ == nullptr) return;
    check(mdb_txn_commit(transaction_), "txn_commit");
    transaction_ = nullptr;
  }

 private:
  enum class Access : unsigned { kWrite = 0, kRead = MDB_RDONLY };

  void begin(Access access) {
    check(mdb_txn_begin(env_, nullptr, static_cast<unsigned>(access), &transaction_), "txn_begin");
    access_ = access;
    operations_ = 0;
  }

  void read() {
    if (transaction_ == nullptr) begin(Access::kRead);
  }

  // Keeps the big transactions.
  void count_change() {
    if (transaction_ != nullptr &&
        (access_ == Access::kRead || operations_ == kOperationsOfTransaction)) {
      settle();
    }
    if (transaction_ == nullptr) begin(Access::kWrite);
    ++operations_;
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

  MDB_env* env_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  Access access_ = Access::kRead;
  int operations_ = 0;
  MDB_dbi records_ = 0;
  MDB_dbi second_ = 0;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::run_stores(argc, argv,
                           {{"lmdb", false, [] { return std::make_unique<bench::LmdbStore>(); }}});
}
