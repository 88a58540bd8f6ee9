// deep: what is looked at beyond the checks that kestro makes.
#pragma once

#include <functional>
#include <map>
#include <utility>

#include "checker/check.h"
#include "isam/base/current.h"
#include "zentra/check/collector.h"
#include "zentra/check/keycheck.h"

namespace zentra {

// Also hears every item of every index.
class DeepCollector : public Collector {
 public:
  DeepCollector(Report& report, isam::RecordLocks locks,
                KeyCheck::Order order = KeyCheck::Order::kBySize)
      : Collector(report, std::move(locks)),
        keys_(*this, order),
        audit_node_(isam::dictp->d_auditnode()) {}

  [[nodiscard]] bool wants_leaves() const override { return true; }
  void found(const checker::Finding& finding) override;
  void detail(const checker::Detail& detail) override;
  void index_begins(int n, const keydescr& k) override;
  void index_walked(std::int32_t nodes, int levels) override;
  void leaf_item(const Leaf& place, const isam::Item& item) override { keys_.item(place, item); }

  void odd_level(int n, std::int32_t node, int found, int expected) override;

  // Whether every index leads astray so often that it was made for another data file, which does
  // not only end sooner.
  [[nodiscard]] bool is_of_another_time() const;
  // Whether hardly an item of any index leads to a record that is there.
  [[nodiscard]] bool are_records_gone() const;
  // Whether the node with the name of the audit trail is one of an index.
  [[nodiscard]] bool audit_is_tree_node() const { return audit_is_tree_node_; }
  // The check that will be heard; its maps are looked at.
  void hears(const checker::Check& check) { check_ = &check; }
  // The most items that an index has.
  [[nodiscard]] std::int64_t most_items() const;
  // Where the last part of a key ends in a record: none is shorter.
  [[nodiscard]] int keys_end() const { return keys_end_; }

 private:
  struct Leads {
    std::int64_t right = 0;   // items whose record is there and has their key
    std::int64_t astray = 0;  // all others
    std::int64_t gone = 0;    // ... whose record is not there
    std::int64_t behind = 0;  // ... but would stand behind the end of the data file
  };

  KeyCheck keys_;
  void look_at_root(int n, std::int32_t root);

  std::int64_t odd_levels_ = 0;  // nodes of the index under way
  int walked_ = 0;               // number of the index under way, 0 for one without a tree
  int keys_end_ = 0;
  std::int32_t audit_node_;
  bool audit_is_tree_node_ = false;
  const checker::Check* check_ = nullptr;
  std::map<int, Leads> leads_;
  std::map<std::int32_t, int> roots_;  // and the first index that has each
};

// Codes: nodes of key descriptions lack their marks; the index file has been cut; another record
// length fits the data file.
inline constexpr char kKeyNodeMarks[] = "descriptions.node-marks";
inline constexpr char kIndexEnd[] = "pieces.index-end";
inline constexpr char kRecordLength[] = "pieces.record-length";

// Makes all checks of the current pair: whether they came to their end. `collector` is the check's
// listener; `deep`: the same, or null for the checks of kestro alone. `lets_go` is called before
// what may take a while and needs no lock.
[[nodiscard]] bool check_whole(checker::Check& check, Collector& collector, DeepCollector* deep,
                               const std::function<void()>& lets_go);

// Each tells what it finds in the current pair, which run_checks() has gone through.

// The nodes of lists have the marks without which they are refused; the node with the audit trail's
// name; the mark of a writer that died.
void check_marks(const checker::Check& check, DeepCollector& collector);
// The pages of variable parts: each piece belongs to one record, counts and lists are right. Sorts
// the pieces in temporary files.
void check_storage(const checker::Check& check, Collector& collector);
// Whether the index file has all nodes that its dictionary tells of, which a pair with no findings
// needs not be asked.
void check_index_end(const checker::Check& check, Collector& collector);
// Whether the two files fit each other, which such a pair needs not be asked either. The pair may
// change meanwhile.
void check_fit(const checker::Check& check, DeepCollector& collector);

}  // namespace zentra
