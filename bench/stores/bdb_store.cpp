// stores_bdb: Berkeley DB, B-trees in an environment of one process, and shared by many through
// its Concurrent Data Store.
#include "bench/common/bdb.h"
#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

using bdb::bytes;
using bdb::check;
using bdb::room;

constexpr std::size_t kManyBytes = std::size_t{64} * 1024;

class BdbStore : public Store {
 public:
  explicit BdbStore(std::uint32_t environment) : environment_(environment) {}

  void open(const fs::path& folder, Start start) override {
    trees_.create();
    trees_.open<kSecondStart, kSecondLength>(folder, environment_,
                                             start == Start::kFresh ? DB_CREATE : 0);
  }

  void close() override { trees_.close(); }

  void insert(const Record& record) override { put(record, DB_NOOVERWRITE); }
  void rewrite(const Record& record) override { put(record, 0); }

  void remove(const Key& key) override {
    DBT dbt = bytes(key.data(), key.size());
    check(trees_.records->del(trees_.records, nullptr, &dbt, 0), "del");
  }

  const char* find(const Key& key) override {
    DBT dbt = bytes(key.data(), key.size());
    DBT record = room(buffer_.data(), buffer_.size());
    const int result = trees_.records->get(trees_.records, nullptr, &dbt, &record, 0);
    if (result == DB_NOTFOUND) return nullptr;
    check(result, "get");
    return buffer_.data();
  }

  void scan(Order order, Reader& reader) override {
    DB* tree = order == Order::kPrimary ? trees_.records : trees_.second;
    DBC* cursor = nullptr;
    check(tree->cursor(tree, nullptr, &cursor, 0), "cursor");
    std::array<char, kSecondLength> key_buffer;
    DBT key = room(key_buffer.data(), key_buffer.size());
    DBT record = room(buffer_.data(), buffer_.size());
    int result = 0;
    while ((result = cursor->get(cursor, &key, &record, DB_NEXT)) == 0) {
      reader.take(buffer_.data());
    }
    if (result != DB_NOTFOUND) check(result, "get of the cursor");
    check(cursor->close(cursor), "close of the cursor");
  }

  [[nodiscard]] bool has_bulk() const override { return true; }

  void insert_many(std::span<const Record> records) override {
    DBT all = room(many_.data(), many_.size());
    void* at = nullptr;
    DB_MULTIPLE_WRITE_INIT(at, &all);
    for (const Record& record : records) {
      DB_MULTIPLE_KEY_WRITE_NEXT(at, &all, record.data(), kKeyLength, record.data(), kRecordLength);
      if (at == nullptr) throw std::runtime_error("no room for the records of a bulk put");
    }
    check(trees_.records->put(trees_.records, nullptr, &all, nullptr, DB_MULTIPLE_KEY), "put");
  }

  void find_many(std::span<const Key> keys, Reader& reader) override {
    for (const Key& key : keys) {
      const char* record = find(key);
      if (record == nullptr) throw std::runtime_error("get: none");
      reader.take(record);
    }
  }

  // A cursor of a secondary tree gives one record at a time only.
  void scan_many(Order order, Reader& reader) override {
    if (order == Order::kSecond) return scan(order, reader);
    DBC* cursor = nullptr;
    check(trees_.records->cursor(trees_.records, nullptr, &cursor, 0), "cursor");
    DBT key{};
    DBT all = room(many_.data(), many_.size());
    int result = 0;
    while ((result = cursor->get(cursor, &key, &all, DB_MULTIPLE_KEY | DB_NEXT)) == 0) {
      void* at = nullptr;
      void* found = nullptr;
      void* record = nullptr;
      std::size_t key_length = 0;
      std::size_t length = 0;
      DB_MULTIPLE_INIT(at, &all);
      for (;;) {
        DB_MULTIPLE_KEY_NEXT(at, &all, found, key_length, record, length);
        if (at == nullptr) break;
        if (found == nullptr || key_length != kKeyLength || length != kRecordLength) {
          throw std::runtime_error("a record of another length");
        }
        reader.take(static_cast<const char*>(record));
      }
    }
    if (result != DB_NOTFOUND) check(result, "get of the cursor");
    check(cursor->close(cursor), "close of the cursor");
  }

  void settle() override {
    check(trees_.records->sync(trees_.records, 0), "sync");
    check(trees_.second->sync(trees_.second, 0), "sync");
  }

 private:
  void put(const Record& record, std::uint32_t flags) {
    DBT key = bytes(record.data(), kKeyLength);
    DBT data = bytes(record.data(), record.size());
    check(trees_.records->put(trees_.records, nullptr, &key, &data, flags), "put");
  }

  std::uint32_t environment_;
  bdb::Trees trees_;
  Record buffer_{};
  std::vector<char> many_ = std::vector<char>(kManyBytes);
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  // No store waits for a disk here.
  db_env_set_func_fsync([](int) { return 0; });
  const auto kind = [](std::uint32_t environment) {
    return [=] { return std::make_unique<bench::BdbStore>(environment); };
  };
  return bench::run_stores(
      argc, argv, {{"bdb-private", false, kind(DB_PRIVATE)}, {"bdb-cds", true, kind(DB_INIT_CDB)}});
}
