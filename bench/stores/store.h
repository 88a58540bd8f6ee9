// store: what a store must do to be measured. Each has one adapter to its own interface, which
// does every operation the way the store does it best.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/stores/records.h"

namespace bench {

enum class Order { kPrimary, kSecond };

// Whether open() makes the store.
enum class Start { kFresh, kExisting };

// Is shown the records of a scan. The bytes are the store's: kRecordLength of them.
class Reader {
 public:
  virtual ~Reader() = default;
  virtual void take(const char* record) = 0;
};

// Every failure is thrown as std::runtime_error: a record that should be there and is not, or is
// there and should not be, is a failure, too.
class Store {
 public:
  virtual ~Store() = default;

  // Opens the store in `folder`, which is empty when `start` is kFresh.
  virtual void open(const std::filesystem::path& folder, Start start) = 0;
  virtual void close() = 0;

  virtual void insert(const Record& record) = 0;
  // Replaces the record with the same primary key.
  virtual void rewrite(const Record& record) = 0;
  virtual void remove(const Key& key) = 0;
  // Null when there is none. The record stays readable until the next call.
  virtual const char* find(const Key& key) = 0;
  // All records in that order.
  virtual void scan(Order order, Reader& reader) = 0;

  // Many records in one call, for stores that have it; `has_bulk` tells.
  [[nodiscard]] virtual bool has_bulk() const { return false; }
  virtual void insert_many(std::span<const Record> /*records*/) {}
  virtual void find_many(std::span<const Key> /*keys*/, Reader& /*reader*/) {}
  virtual void scan_many(Order /*order*/, Reader& /*reader*/) {}

  // A bulk load, in portions of kBulk, for stores that have it; `has_load` tells.
  [[nodiscard]] virtual bool has_load() const { return false; }
  virtual void begin_load() {}
  virtual void load(std::span<const Record> /*records*/) {}
  virtual void end_load() {}

  // Gives all changes to the operating system, without waiting for a disk. Ends each phase.
  virtual void settle() = 0;
};

// A way of using a store. `shared` stores are also measured with many processes.
struct StoreKind {
  std::string name;  // without blanks
  bool shared = false;
  std::function<std::unique_ptr<Store>()> make;
  bool is_floor = false;  // it has no index: what it holds after changes is not compared
};

// The whole of main() of a measuring program: takes the options, runs the phases for each kind,
// prints the table. Returns the exit status.
int run_stores(int argc, const char* const* argv, const std::vector<StoreKind>& kinds);

}  // namespace bench
