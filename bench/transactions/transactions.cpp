// transactions: committed transactions per second of this library and others, one table in one run.
//
//   transactions [SECONDS [FOLDER]]
//
// Each transaction reads and rewrites ten random records of 100,000. For each store, durability
// and number of processes the processes work for SECONDS (default 3) on a store made anew in FOLDER
// (default: that for temporary files). Afterwards the sum of all counters must be that of the
// rewrites committed. `floor` is no store: it makes the library's system calls and little else.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>

#include "bench/transactions/ledger.h"

namespace bench {

namespace {

// As printf would, but so that what is measured are the stores.
void put_digits(char* to, int digits, long number) {
  for (int i = digits - 1; i >= 0; --i, number /= 10) to[i] = static_cast<char>('0' + number % 10);
}

}  // namespace

Account::Account(int number) {
  std::memset(bytes, 'x', sizeof bytes);
  put_digits(bytes, kKeyLength, number);
  put_digits(bytes + kKeyLength, kSecondLength, number / 10);
  put_digits(bytes + kCounterAt, kCounterLength, 0);
}

long counter_of(const char* record) {
  long count = 0;
  for (int i = 0; i < kCounterLength; ++i) count = count * 10 + (record[kCounterAt + i] - '0');
  return count;
}

void add_one(char* record) {
  put_digits(record + kCounterAt, kCounterLength, counter_of(record) + 1);
}

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRewrites = 10;
constexpr std::array kProcesses = {1, 2, 4};
constexpr std::size_t kMostProcesses = 4;

struct Maker {
  const char* name;
  std::unique_ptr<Ledger> (*make)();
};
constexpr Maker kMakers[] = {
    {"isam", isam_ledger},
    {"floor", floor_ledger},
#ifdef BENCH_SQLITE
    {"sqlite-wal", sqlite_ledger},
#endif
#ifdef BENCH_BDB
    {"bdb-txn", bdb_ledger},
#endif
};

// What a process has done.
struct Done {
  long transactions;
  double processor_seconds;
};

std::array<int, kRewrites> pick(std::mt19937& random) {
  std::array<int, kRewrites> accounts{};
  do {
    for (int& account : accounts) account = static_cast<int>(random() % kAccounts);
    std::ranges::sort(accounts);
  } while (std::ranges::adjacent_find(accounts) != accounts.end());
  return accounts;
}

double processor_seconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void work(Ledger& ledger, const fs::path& folder, Durability durability, unsigned process,
          Clock::time_point start, double seconds, Done& done) {
  std::mt19937 random{process + 1};
  ledger.open(folder, durability);
  while (Clock::now() < start) ::usleep(100);
  const double before = processor_seconds();
  const auto end = start + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) {
    const auto accounts = pick(random);
    while (!ledger.transact(accounts)) {
    }
    ++done.transactions;
  }
  done.processor_seconds = processor_seconds() - before;
  ledger.close();
}

// Runs the processes: the sum of what they have done.
Done run(const Maker& maker, const fs::path& folder, Durability durability, int processes,
         double seconds) {
  auto* const done =
      static_cast<Done*>(::mmap(nullptr, kMostProcesses * sizeof(Done), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (done == MAP_FAILED) throw std::runtime_error("mmap");
  const auto start = Clock::now() + std::chrono::milliseconds(300);
  for (int process = 0; process < processes; ++process) {
    if (::fork() != 0) continue;
    try {
      work(*maker.make(), folder, durability, static_cast<unsigned>(process), start, seconds,
           done[process]);
      ::_exit(EXIT_SUCCESS);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s: %s\n", maker.name, error.what());
      ::_exit(EXIT_FAILURE);
    }
  }
  bool failed = false;
  for (int status = 0; ::wait(&status) > 0;) failed |= status != 0;
  if (failed) throw std::runtime_error("a process failed");
  Done sum{};
  for (int process = 0; process < processes; ++process) {
    sum.transactions += done[process].transactions;
    sum.processor_seconds += done[process].processor_seconds;
  }
  ::munmap(done, kMostProcesses * sizeof(Done));
  return sum;
}

// In a process of its own, as each of the processes that work has the store to itself.
template <typename Task>
void apart(Task task) {
  const pid_t child = ::fork();
  if (child == 0) {
    try {
      task();
      ::_exit(EXIT_SUCCESS);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      ::_exit(EXIT_FAILURE);
    }
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || status != 0) throw std::runtime_error("it failed");
}

void measure(const Maker& maker, const fs::path& parent, Durability durability, int processes,
             double seconds) {
  std::string name = parent / "transactions.XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error(name);
  const fs::path folder = name;
  apart([&] { maker.make()->make(folder); });
  const Done done = run(maker, folder, durability, processes, seconds);
  apart([&] {
    const auto ledger = maker.make();
    ledger->open(folder, durability);
    if (ledger->total() != done.transactions * kRewrites) {
      throw std::runtime_error(std::string(maker.name) + ": rewrites were lost");
    }
    ledger->close();
  });
  std::printf("%-12s %-8s %9d %14.0f %16.1f\n", maker.name,
              durability == Durability::kDisk ? "disk" : "system", processes,
              static_cast<double>(done.transactions) / seconds,
              done.processor_seconds / static_cast<double>(done.transactions) * 1e6);
  std::fflush(stdout);
  fs::remove_all(folder);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  ::setenv("ISAMBUFS", "32766", 0);
  const double seconds = argc > 1 ? std::atof(argv[1]) : 3;
  const std::filesystem::path folder =
      argc > 2 ? std::filesystem::path{argv[2]} : std::filesystem::temp_directory_path();
  if (seconds <= 0 || argc > 3) {
    std::fprintf(stderr, "usage: %s [SECONDS [FOLDER]]\n", argv[0]);
    return EXIT_FAILURE;
  }
  std::printf("%-12s %-8s %9s %14s %16s\n", "store", "has it", "processes", "transactions/s",
              "cpu us each");
  try {
    for (const auto durability : {bench::Durability::kSystem, bench::Durability::kDisk}) {
      for (const int processes : bench::kProcesses) {
        for (const auto& maker : bench::kMakers) {
          bench::measure(maker, folder, durability, processes, seconds);
        }
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
