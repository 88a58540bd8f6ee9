// keycheck: each item of an index against its record, and against the item before it.
//
//   begins(n, k) -> item() for each item of a leaf that leads to a record in use -> ends()
//
// Keeps   memory for a few dozen keys. Records are looked at in the mapping of the data file, in
// the
//         order of the index. Where the page cache cannot hold them they are read in their own
//         order, one after the other: keys wait for that in a temporary file
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "checker/listener.h"
#include "common/sorter.h"
#include "isam/keys/keys.h"
#include "zentra/check/collector.h"

namespace zentra {

class KeyCheck {
 public:
  enum class Order { kOfIndex, kOfRecords, kBySize };

  explicit KeyCheck(Collector& collector, Order order = Order::kBySize)
      : collector_(collector), wanted_order_(order) {}

  void begins(int n, const keydescr& k);
  void item(const checker::Listener::Leaf& place, const isam::Item& item);
  // Tells what was counted.
  void ends();
  // Of the index that ended last.
  [[nodiscard]] std::int64_t items() const { return items_; }
  [[nodiscard]] std::int64_t differing() const { return differing_; }

 private:
  static constexpr std::size_t kBatch = 64;

  struct Met {
    std::int32_t record;
    std::int32_t node;
    int slot;
    const isam::Byte* key;
  };

  void put_aside(const checker::Listener::Leaf& place, const isam::Item& item);
  void compare_sorted();
  void sorting_failed(int system_error);
  void flush();
  [[nodiscard]] bool compare_mapped(isam::ConstBytes all, std::array<bool, kBatch>& right) const;
  [[nodiscard]] const isam::Byte* key_at(std::size_t at) const {
    return keys_.data() + at * static_cast<std::size_t>(key_.keylen);
  }
  void check_equal(const checker::Listener::Leaf& place, const isam::Item& item);
  void compare(const Met& met);
  void tell(const char* code, const char* text, const checker::Listener::Leaf& place,
            std::int32_t record, const isam::Byte* key);
  void tell_count(const char* code, const char* text, std::int64_t count);

  Collector& collector_;
  Order wanted_order_;
  int number_ = 0;
  keydescr key_{};
  std::optional<isam::KeyOrder> order_;
  bool compares_ = false;  // whether equal keys can be told from here
  // The item before.
  const isam::Byte* last_key_ = nullptr;  // null: there is none
  std::int32_t last_number_ = 0;
  std::int64_t items_ = 0;
  std::int64_t differing_ = 0;
  std::int64_t equal_ = 0;
  std::int64_t same_number_ = 0;

  std::vector<std::int32_t> records_;
  std::vector<checker::Listener::Leaf> places_;
  std::vector<isam::Byte> keys_;   // of the batch, one behind the other
  std::vector<isam::Byte> bytes_;  // of one record
  std::unique_ptr<common::Sorter> sorter_;
};

}  // namespace zentra
