// alone: one process's operations on a store, measured and checked, a method for each kind of
// phase.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/stores/measuring.h"
#include "bench/stores/model.h"
#include "bench/stores/phases.h"

namespace bench {

// The order of numbers in each phase.
enum class Seed : std::uint64_t { kLoad = 1, kRead, kRewrite, kDelete, kReinsert };

inline std::vector<std::uint32_t> shuffled(std::uint32_t records, Seed seed) {
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
  void prepare(Order order) {
    Adder adder(order);
    store_.scan(order, adder);
  }
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

}  // namespace bench
