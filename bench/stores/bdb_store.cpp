// stores_bdb: Berkeley DB, B-trees in an environment of one process, and shared by many through
// its Concurrent Data Store.
#include <db.h>

#include <stdexcept>
#include <string>

#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kCacheBytes = 64 << 20;
constexpr int kPermissions = 0644;

void check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + db_strerror(result));
}

DBT bytes(const char* at, std::size_t length) {
  DBT dbt{};
  dbt.data = const_cast<char*>(at);  // the library does not write through it
  dbt.size = static_cast<std::uint32_t>(length);
  return dbt;
}

DBT room(char* at, std::size_t length) {
  DBT dbt{};
  dbt.data = at;
  dbt.ulen = static_cast<std::uint32_t>(length);
  dbt.flags = DB_DBT_USERMEM;
  return dbt;
}

int second_key_of(DB* /*second*/, const DBT* /*key*/, const DBT* record, DBT* result) {
  *result = bytes(static_cast<const char*>(record->data) + kSecondStart, kSecondLength);
  return 0;
}

class BdbStore : public Store {
 public:
  explicit BdbStore(std::uint32_t environment) : environment_(environment) {}

  void open(const fs::path& folder, Start start) override {
    check(db_env_create(&env_, 0), "db_env_create");
    check(env_->set_cachesize(env_, 0, kCacheBytes, 1), "set_cachesize");
    check(env_->open(env_, folder.c_str(), environment_ | DB_CREATE | DB_INIT_MPOOL, kPermissions),
          "open of the environment");
    records_ = open_tree("records.db", 0, start);
    second_ = open_tree("second.db", DB_DUPSORT, start);
    check(records_->associate(records_, nullptr, second_, second_key_of, 0), "associate");
  }

  void close() override {
    check(second_->close(second_, 0), "close");
    check(records_->close(records_, 0), "close");
    check(env_->close(env_, 0), "close of the environment");
  }

  void insert(const Record& record) override { put(record, DB_NOOVERWRITE); }
  void rewrite(const Record& record) override { put(record, 0); }

  void remove(const Key& key) override {
    DBT dbt = bytes(key.data(), key.size());
    check(records_->del(records_, nullptr, &dbt, 0), "del");
  }

  const char* find(const Key& key) override {
    DBT dbt = bytes(key.data(), key.size());
    DBT record = room(buffer_.data(), buffer_.size());
    const int result = records_->get(records_, nullptr, &dbt, &record, 0);
    if (result == DB_NOTFOUND) return nullptr;
    check(result, "get");
    return buffer_.data();
  }

  void scan(Order order, Reader& reader) override {
    DB* tree = order == Order::kPrimary ? records_ : second_;
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
    check(records_->sync(records_, 0), "sync");
    check(second_->sync(second_, 0), "sync");
  }

 private:
  DB* open_tree(const char* name, std::uint32_t flags, Start start) {
    DB* tree = nullptr;
    check(db_create(&tree, env_, 0), "db_create");
    check(tree->set_flags(tree, flags), "set_flags");
    const std::uint32_t mode = start == Start::kFresh ? DB_CREATE : 0;
    check(tree->open(tree, nullptr, name, nullptr, DB_BTREE, mode, kPermissions), name);
    return tree;
  }

  void put(const Record& record, std::uint32_t flags) {
    DBT key = bytes(record.data(), kKeyLength);
    DBT data = bytes(record.data(), record.size());
    check(records_->put(records_, nullptr, &key, &data, flags), "put");
  }

  std::uint32_t environment_;
  DB_ENV* env_ = nullptr;
  DB* records_ = nullptr;
  DB* second_ = nullptr;
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
