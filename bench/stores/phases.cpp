#include "bench/stores/phases.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <span>
#include <stdexcept>
#include <vector>

#include "bench/stores/measuring.h"
#include "common/holders.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kMostLoadedSingly = 5'000'000;  // of a big file
constexpr std::uint32_t kMostOperations = 1'000'000;    // reads of one; half as many rewrites
constexpr std::uint32_t kOneColdReadOf = 100;           // records

// The order of numbers in each phase.
enum class Seed : std::uint64_t { kLoad = 1, kRead, kRewrite, kDelete, kReinsert };

std::vector<std::uint32_t> shuffled(std::uint32_t records, Seed seed) {
  return bench::shuffled(records, static_cast<std::uint64_t>(seed));
}

// Adds up the records of a scan and checks their order.
class Adder : public Reader {
 public:
  explicit Adder(Order order)
      : start_(order == Order::kPrimary ? 0 : kSecondStart),
        length_(order == Order::kPrimary ? kKeyLength : kSecondLength) {}

  void take(const char* record) override {
    const char* key = record + start_;
    if (std::memcmp(key, last_.data(), length_) < 0) throw std::runtime_error("out of order");
    std::memcpy(last_.data(), key, length_);
    sum_ += sum_of(record);
    ++count_;
  }

  void demand_all(std::uint32_t records) const {
    std::uint64_t sum = 0;
    for (std::uint32_t number = 0; number < records; ++number) sum += sum_for(number);
    if (count_ != records || sum_ != sum) throw std::runtime_error("a scan read other records");
  }

 private:
  std::size_t start_;
  std::size_t length_;
  std::array<char, kSecondLength> last_{};
  std::uint64_t sum_ = 0;
  std::uint64_t count_ = 0;
};

// Compares the records read with those asked for.
class Demander : public Reader {
 public:
  explicit Demander(std::span<const std::uint32_t> numbers) : left_(numbers) {}

  void take(const char* record) override {
    if (left_.empty() || sum_of(record) != sum_for(left_.front())) {
      throw std::runtime_error("another record was read");
    }
    left_ = left_.subspan(1);
  }

  void demand_all() const {
    if (!left_.empty()) throw std::runtime_error("a record was not read");
  }

 private:
  std::span<const std::uint32_t> left_;
};

// The phases of one store.
class Alone {
 public:
  Alone(Store& store, const std::string& name, std::uint32_t records)
      : store_(store), name_(name), model_(records) {}

  void load(const std::string& phase, std::span<const std::uint32_t> numbers) {
    Record record;
    measure(phase, numbers, [&](std::uint32_t number) {
      model_.next(number, record);
      store_.insert(record);
    });
  }

  void load_many(const std::string& phase, std::span<const std::uint32_t> numbers) {
    const Stopwatch stopwatch;
    for_each_made(numbers, [this](std::span<const Record> some) { store_.insert_many(some); });
    store_.settle();
    print_line(name_, phase, 1, numbers.size(), stopwatch.cost());
  }

  void load_bulk(const std::string& phase, std::span<const std::uint32_t> numbers) {
    const Stopwatch stopwatch;
    store_.begin_load();
    for_each_made(numbers, [this](std::span<const Record> some) { store_.load(some); });
    store_.end_load();
    store_.settle();
    print_line(name_, phase, 1, numbers.size(), stopwatch.cost());
  }

  void read(const std::string& phase, std::uint32_t most = kMaxRecords) {
    std::vector<std::uint32_t> numbers = numbers_to_read();
    numbers.resize(std::min<std::size_t>(numbers.size(), most));
    measure(phase, numbers, [&](std::uint32_t number) { demand(store_, number); });
  }

  void read_many(const std::string& phase) {
    const std::vector<std::uint32_t> numbers = numbers_to_read();
    std::array<Key, kBulk> keys;
    const Stopwatch stopwatch;
    for_each_bulk(numbers, [&](std::span<const std::uint32_t> some) {
      std::ranges::transform(some, keys.begin(), key_of);
      Demander demander(some);
      store_.find_many(std::span{keys}.first(some.size()), demander);
      demander.demand_all();
    });
    store_.settle();
    print_line(name_, phase, 1, numbers.size(), stopwatch.cost());
  }

  void scan(const std::string& phase, Order order) {
    measure_scan(phase, order, [this](Order of, Reader& to) { store_.scan(of, to); });
  }

  void scan_many(const std::string& phase, Order order) {
    measure_scan(phase, order, [this](Order of, Reader& to) { store_.scan_many(of, to); });
  }

  void rewrite(const std::string& phase, std::span<const std::uint32_t> numbers) {
    Record record;
    measure(phase, numbers, [&](std::uint32_t number) {
      model_.next(number, record);
      store_.rewrite(record);
    });
  }

  void remove(const std::string& phase, std::span<const std::uint32_t> numbers) {
    measure(phase, numbers, [&](std::uint32_t number) {
      model_.remove(number);
      store_.remove(key_of(number));
    });
  }

  // Not measured.
  void verify() {
    model_.verify(store_);
    store_.settle();
  }

  [[nodiscard]] const Model& model() const { return model_; }

 private:
  [[nodiscard]] std::vector<std::uint32_t> numbers_to_read() const {
    std::vector<std::uint32_t> numbers(model_.records());
    Sequence sequence(static_cast<std::uint64_t>(Seed::kRead));
    for (std::uint32_t& number : numbers) number = sequence.below(model_.records());
    return numbers;
  }

  template <typename Scan>
  void measure_scan(const std::string& phase, Order order, Scan scan) {
    Adder adder(order);
    const Stopwatch stopwatch;
    scan(order, adder);
    store_.settle();
    print_line(name_, phase, 1, model_.records(), stopwatch.cost());
    adder.demand_all(model_.records());
  }

  template <typename Operation>
  static void for_each_bulk(std::span<const std::uint32_t> numbers, Operation operation) {
    for (; !numbers.empty(); numbers = numbers.subspan(std::min(kBulk, numbers.size()))) {
      operation(numbers.first(std::min(kBulk, numbers.size())));
    }
  }

  // Makes these records, so many at a time.
  template <typename Operation>
  void for_each_made(std::span<const std::uint32_t> numbers, Operation operation) {
    std::array<Record, kBulk> records;
    for_each_bulk(numbers, [&](std::span<const std::uint32_t> some) {
      for (std::size_t i = 0; i < some.size(); ++i) model_.next(some[i], records[i]);
      operation(std::span<const Record>{records}.first(some.size()));
    });
  }

  template <typename Operation>
  void measure(const std::string& phase, std::span<const std::uint32_t> numbers,
               Operation operation) {
    const Stopwatch stopwatch;
    for (const std::uint32_t number : numbers) operation(number);
    store_.settle();
    print_line(name_, phase, 1, numbers.size(), stopwatch.cost());
  }

  Store& store_;
  const std::string& name_;
  Model model_;
};

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

void run_floor(Store& store, const std::string& name, const fs::path& folder,
               std::uint32_t records) {
  empty(folder);
  store.open(folder, Start::kFresh);
  Alone alone(store, name, records);
  alone.load("load-ordered", in_order(records));
  alone.read("read", kMostOperations);
  alone.scan("scan-ordered", Order::kPrimary);
  alone.rewrite("rewrite", half_of(records, Seed::kRewrite));
  const std::vector<std::uint32_t> deleted = half_of(records, Seed::kDelete);
  alone.remove("delete", deleted);
  alone.load("reinsert", deleted);
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
  std::vector<std::uint32_t> rewritten = half_of(records, Seed::kRewrite);
  rewritten.resize(std::min<std::size_t>(rewritten.size(), kMostOperations / 2));
  alone.rewrite("rewrite", rewritten);
  alone.scan("scan-ordered", Order::kPrimary);
  store.close();
}

void run_cold(Store& store, const std::string& name, const fs::path& folder,
              std::uint32_t records) {
  empty(folder);
  store.open(folder, Start::kFresh);
  Model model(records);
  load_unmeasured_in_bulk(store, model, records);
  store.close();
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
