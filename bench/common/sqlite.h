// sqlite: an SQLite database that processes share, with its statements. Every failure is thrown as
// std::runtime_error.
#pragma once

#include <sched.h>
#include <sqlite3.h>

#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace bench {

class SqliteDatabase {
 public:
  void open(const std::filesystem::path& file) {
    check(sqlite3_open(file.c_str(), &db_), "open");
    check(sqlite3_busy_handler(db_, yield, nullptr), "busy_handler");
    execute("PRAGMA cache_size=-65536");
  }
  // All statements must have been finalized.
  void close() { check(sqlite3_close(db_), "close"); }

  void execute(const char* text) {
    check(sqlite3_exec(db_, text, nullptr, nullptr, nullptr), text);
  }
  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(db_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr), text);
    return statement;
  }
  void finalize(sqlite3_stmt* statement) { check(sqlite3_finalize(statement), "finalize"); }

  void bind(sqlite3_stmt* statement, int place, const char* at, std::size_t length) {
    check(sqlite3_bind_blob(statement, place, at, static_cast<int>(length), nullptr), "bind");
  }
  // Whether there is a row.
  bool step(sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) check(result, "step");
    return result == SQLITE_ROW;
  }
  void reset(sqlite3_stmt* statement) { check(sqlite3_reset(statement), "reset"); }
  // For statements without rows: how many records were changed.
  int run(sqlite3_stmt* statement) {
    step(statement);
    reset(statement);
    return sqlite3_changes(db_);
  }

 private:
  // Another process writes, which takes it microseconds only.
  static int yield(void* /*context*/, int /*tries*/) { return sched_yield() == 0 ? 1 : 0; }

  void check(int result, const char* what) {
    if (result != SQLITE_OK) {
      throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db_));
    }
  }

  sqlite3* db_ = nullptr;
};

}  // namespace bench
