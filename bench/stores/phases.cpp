#include "bench/stores/phases.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <span>
#include <stdexcept>
#include <vector>

#include "bench/stores/alone.h"
#include "common/holders.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kMostLoadedSingly = 5'000'000;  // of a big file
constexpr std::uint32_t kMostOperations = 1'000'000;    // reads of one; half as many rewrites
constexpr std::uint32_t kOneColdReadOf = 100;           // records

void run_random(Alone& alone, std::uint32_t records) {
  alone.load("load-random", shuffled(records, Seed::kLoad));
  alone.scan("scan-random", Order::kPrimary);
  alone.verify();
}

std::vector<std::uint32_t> half_of(std::uint32_t records, Seed seed) {
  std::vector<std::uint32_t> numbers = shuffled(records, seed);
  numbers.resize(records / 2);
  return numbers;
}

// Half of them, of a big file fewer.
std::vector<std::uint32_t> some_of(std::uint32_t records, Seed seed) {
  std::vector<std::uint32_t> numbers = half_of(records, seed);
  numbers.resize(std::min<std::size_t>(numbers.size(), kMostOperations / 2));
  return numbers;
}

std::vector<std::uint32_t> in_order(std::uint32_t records) {
  std::vector<std::uint32_t> numbers(records);
  std::iota(numbers.begin(), numbers.end(), 0U);
  return numbers;
}

void run_ordered(Alone& alone, std::uint32_t records) {
  alone.load("load-ordered", in_order(records));
  alone.read("read");
  alone.scan("scan-ordered", Order::kPrimary);
  alone.scan("scan-second", Order::kSecond);
  alone.rewrite("rewrite", half_of(records, Seed::kRewrite));
  alone.verify();

  const std::vector<std::uint32_t> deleted = half_of(records, Seed::kDelete);
  alone.remove("delete", deleted);
  alone.verify();
  std::vector<std::uint32_t> again;
  for (const std::uint32_t place : shuffled(records / 2, Seed::kReinsert)) {
    again.push_back(deleted[place]);
  }
  alone.load("reinsert", again);
  alone.verify();
}

void empty(const fs::path& folder) {
  fs::remove_all(folder);
  fs::create_directory(folder);
}

// The next read of these files comes from the disk.
void drop_from_memory(const fs::path& folder) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    const common::FileHold file{::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC)};
    if (!file || ::fsync(file.get()) != 0 ||
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED) != 0) {
      throw std::runtime_error("cannot drop from memory: " + entry.path().string());
    }
  }
}

void load_unmeasured_in_bulk(Store& store, Model& model, std::uint32_t records) {
  Record record;
  if (store.has_load()) store.begin_load();
  for (std::uint32_t number = 0; number < records; ++number) {
    model.next(number, record);
    if (store.has_load()) {
      store.load({&record, 1});
    } else {
      store.insert(record);
    }
  }
  if (store.has_load()) store.end_load();
  store.settle();
}

void run_load(Store& store, const std::string& name, const fs::path& folder,
              const std::string& phase, std::span<const std::uint32_t> numbers) {
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone alone(store, name, static_cast<std::uint32_t>(numbers.size()));
  alone.load_bulk(phase, numbers);
  alone.verify();
  store.close();
}

}  // namespace

void demand(Store& store, std::uint32_t number) {
  const char* record = store.find(key_of(number));
  if (record == nullptr || sum_of(record) != sum_for(number)) {
    throw std::runtime_error("record " + std::to_string(number) + " was not read");
  }
}

Model run_alone(Store& store, const std::string& name, const fs::path& folder,
                std::uint32_t records) {
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone on_random(store, name, records);
  run_random(on_random, records);
  store.close();
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone on_ordered(store, name, records);
  run_ordered(on_ordered, records);
  store.close();
  return on_ordered.model();
}

void run_floor(Store& store, const std::string& name, const fs::path& folder, std::uint32_t records,
               bool loads) {
  const auto fresh = [&] {
    empty(folder);
    store.open(folder, Start::kFresh);
    return Alone(store, name, records);
  };
  if (loads) {
    fresh().load("load-random", shuffled(records, Seed::kLoad));
    store.close();
  }
  if (loads && store.has_load()) {
    fresh().load_bulk("load-bulk", in_order(records));
    store.close();
  }
  Alone alone = fresh();
  alone.load("load-ordered", in_order(records));
  alone.read("read", kMostOperations);
  alone.scan("scan-ordered", Order::kPrimary);
  alone.scan_many("scan-many", Order::kPrimary);
  // The floors of shared files have no order of the second key, and no portions.
  const bool has_all = loads && store.has_load();
  if (has_all) {
    alone.prepare(Order::kSecond);
    alone.scan("scan-second", Order::kSecond);
    alone.scan_many("second-many", Order::kSecond);
  }
  alone.rewrite("rewrite", some_of(records, Seed::kRewrite));
  const std::vector<std::uint32_t> deleted = some_of(records, Seed::kDelete);
  alone.remove("delete", deleted);
  alone.load("reinsert", deleted);
  store.close();
  if (!has_all) return;
  Alone many = fresh();
  many.load_many("load-many", in_order(records));
  many.read_many("read-many");
  store.close();
}

Model load_unmeasured(Store& store, const std::string& /*name*/, const fs::path& folder,
                      std::uint32_t records) {
  empty(folder);
  store.open(folder, Start::kFresh);
  Model model(records);
  load_unmeasured_in_bulk(store, model, records);
  store.close();
  return model;
}

void run_many(Store& store, const std::string& name, const fs::path& folder,
              std::uint32_t records) {
  if (!store.has_bulk()) return;
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone alone(store, name, records);
  alone.load_many("load-many", in_order(records));
  alone.read_many("read-many");
  alone.scan_many("scan-many", Order::kPrimary);
  alone.scan_many("second-many", Order::kSecond);
  alone.verify();
  store.close();
  if (!store.has_load()) return;
  run_load(store, name, folder, "load-bulk", in_order(records));
  run_load(store, name, folder, "load-bulk-random", shuffled(records, Seed::kLoad));
}

void run_big(Store& store, const std::string& name, const fs::path& folder, std::uint32_t records,
             bool singly) {
  if (singly && records <= kMostLoadedSingly) {
    empty(folder);
    store.open(folder, Start::kFresh);
    Alone(store, name, records).load("load-random", shuffled(records, Seed::kLoad));
    store.close();
  }
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone alone(store, name, records);
  if (store.has_load()) {
    alone.load_bulk("load-bulk", in_order(records));
  } else {
    alone.load("load-ordered", in_order(records));
  }
  alone.read("read", kMostOperations);
  alone.rewrite("rewrite", some_of(records, Seed::kRewrite));
  alone.scan("scan-ordered", Order::kPrimary);
  store.close();
}

void run_cold(Store& store, const std::string& name, const fs::path& folder,
              std::uint32_t records) {
  load_unmeasured(store, name, folder, records);
  Alone alone(store, name, records);
  const auto measure = [&](auto phase) {
    drop_from_memory(folder);
    store.open(folder, Start::kExisting);
    phase();
    store.close();
  };
  measure([&] { alone.read("cold-read", std::max(records / kOneColdReadOf, 1U)); });
  measure([&] { alone.scan("cold-scan", Order::kPrimary); });
  measure([&] { alone.scan("cold-second", Order::kSecond); });
}

}  // namespace bench
