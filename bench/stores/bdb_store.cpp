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
