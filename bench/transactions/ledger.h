// ledger: what a store must do to have its transactions measured. Each has one adapter to its own
// interface.
#pragma once

#include <filesystem>
#include <memory>
#include <span>

namespace bench {

inline constexpr int kAccounts = 100'000;
inline constexpr int kRecordLength = 128;
inline constexpr int kKeyLength = 8;
inline constexpr int kSecondLength = 20;                       // a key that ten records share
inline constexpr int kCounterAt = kKeyLength + kSecondLength;  // 8 digits
inline constexpr int kCounterLength = 8;

enum class Durability { kSystem, kDisk };  // who has a transaction when its commit returns

// Every failure is thrown as std::runtime_error.
class Ledger {
 public:
  virtual ~Ledger() = default;
  // Makes the store with kAccounts accounts, and leaves it closed.
  virtual void make(const std::filesystem::path& folder) = 0;
  virtual void open(const std::filesystem::path& folder, Durability durability) = 0;
  virtual void close() = 0;
  // Adds one to the counters of these accounts, ascending, in one transaction; each is read first.
  // False when the store gave the transaction up, as two that wait for each other must.
  virtual bool transact(std::span<const int> accounts) = 0;
  // The sum of all counters.
  virtual long total() = 0;
};

// An account's record.
struct Account {
  char bytes[kRecordLength + 1];

  explicit Account(int number);
};

// The counter in an account's record.
[[nodiscard]] long counter_of(const char* record);
void add_one(char* record);

std::unique_ptr<Ledger> isam_ledger();
std::unique_ptr<Ledger> floor_ledger();
std::unique_ptr<Ledger> sqlite_ledger();
std::unique_ptr<Ledger> bdb_ledger();

}  // namespace bench
