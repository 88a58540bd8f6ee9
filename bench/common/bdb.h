// bdb: a Berkeley DB environment with a B-tree of records and one of their second keys. Every
// failure is thrown as std::runtime_error.
#pragma once

#include <db.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace bench::bdb {

inline void check(int result, const char* what) {
  if (result != 0) throw std::runtime_error(std::string(what) + ": " + db_strerror(result));
}

// Bytes to be read by the library.
inline DBT bytes(const char* at, std::size_t length) {
  DBT dbt{};
  dbt.data = const_cast<char*>(at);  // the library does not write through it
  dbt.size = static_cast<std::uint32_t>(length);
  return dbt;
}

// Room for what it gives.
inline DBT room(char* at, std::size_t length) {
  DBT dbt{};
  dbt.data = at;
  dbt.ulen = static_cast<std::uint32_t>(length);
  dbt.flags = DB_DBT_USERMEM;
  return dbt;
}

struct Trees {
  DB_ENV* env = nullptr;
  DB* records = nullptr;
  DB* second = nullptr;

  // Makes the environment, which may then be told how it is to be, before it is opened.
  void create() {
    constexpr std::uint32_t kCacheBytes = 64 << 20;
    check(db_env_create(&env, 0), "db_env_create");
    check(env->set_cachesize(env, 0, kCacheBytes, 1), "set_cachesize");
  }
  // `environment` and `trees` are flags for opening them. The second key is the same bytes of every
  // record.
  template <std::size_t SecondStart, std::size_t SecondLength>
  void open(const std::filesystem::path& folder, std::uint32_t environment, std::uint32_t trees) {
    check(env->open(env, folder.c_str(), environment | DB_CREATE | DB_INIT_MPOOL, kPermissions),
          "open of the environment");
    records = open_tree("records.db", 0, trees);
    second = open_tree("second.db", DB_DUPSORT, trees);
    const auto key_of = [](DB* /*second*/, const DBT* /*key*/, const DBT* record, DBT* result) {
      *result = bytes(static_cast<const char*>(record->data) + SecondStart, SecondLength);
      return 0;
    };
    check(records->associate(records, nullptr, second, key_of, 0), "associate");
  }
  void close() {
    check(second->close(second, 0), "close");
    check(records->close(records, 0), "close");
    check(env->close(env, 0), "close of the environment");
  }

 private:
  static constexpr int kPermissions = 0644;

  DB* open_tree(const char* name, std::uint32_t flags, std::uint32_t mode) {
    DB* tree = nullptr;
    check(db_create(&tree, env, 0), "db_create");
    check(tree->set_flags(tree, flags), "set_flags");
    check(tree->open(tree, nullptr, name, nullptr, DB_BTREE, mode, kPermissions), name);
    return tree;
  }
};

}  // namespace bench::bdb
