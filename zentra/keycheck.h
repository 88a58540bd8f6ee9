// keycheck: each item of an index against its record, and against the item before it.
//
//   begins(n, k) -> item() for each item of a leaf that leads to a record in use -> ends()
//
// Keeps   memory for a few dozen records. Records are read from the mapping of the data file, those
//         of one batch ahead of each other
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "checker/listener.h"
#include "isam/keys/keys.h"
#include "zentra/collector.h"

namespace zentra {

class KeyCheck {
 public:
  explicit KeyCheck(Collector& collector) : collector_(collector) {}

  void begins(int n, const keydescr& k);
  void item(const checker::Listener::Leaf& place, const isam::Item& item);
  // Tells what was counted.
  void ends();
  // Of the index that ended last.
  [[nodiscard]] std::int64_t items() const { return items_; }
  [[nodiscard]] std::int64_t differing() const { return differing_; }

 private:
  static constexpr std::size_t kBatch = 64;

  void flush();
  void check_equal(const checker::Listener::Leaf& place, const isam::Item& item);
  void compare(std::size_t at, const isam::Byte* record);
  void tell(const char* code, const char* text, const checker::Listener::Leaf& place,
            std::int32_t record, const isam::Byte* key);
  void tell_count(const char* code, const char* text, std::int64_t count);

  Collector& collector_;
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
  std::vector<isam::Byte> bytes_;  // of its records
};

}  // namespace zentra
