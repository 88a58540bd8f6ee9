// recorder: the listener that writes a run's findings, answers and verdicts into a report, as lines
// of JSON, and passes every call on to the listener that it stands around.
//
//   Recorder recorder(dialogue, path, names);
//   recorder.pair_begins(name);
//   recorder.pair_ends(ckfile(name, options, recorder));
//
// Keeps   the other listener is called first and answers alone: a report changes nothing of a run
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "checker/driver.h"
#include "checker/entry.h"
#include "checker/listener.h"
#include "checker/reportfile.h"

namespace checker {

class Recorder : public Listener {
 public:
  // `names`: of the pairs, as they are given.
  Recorder(Listener& inner, const std::string& path, std::vector<std::string> names);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder() override;

  void pair_begins();
  void pair_ends(const Outcome& outcome);

  void found(const Finding& finding) override;
  [[nodiscard]] bool answer(Question question) override;
  void failed(std::int32_t code, std::int32_t place) override;
  void begins(Pass pass) override;
  void index_begins(int n, const keydescr& k) override;
  void remark(const std::string& text) override;
  void ends(const Summary* summary) override;

  void fact(Fact fact, std::int64_t value) override { inner_.fact(fact, value); }
  void index_walked(std::int32_t nodes, int levels) override { inner_.index_walked(nodes, levels); }
  void mends(Mending what, int n) override { inner_.mends(what, n); }
  [[nodiscard]] bool wants_details() const override { return inner_.wants_details(); }
  void detail(const Detail& detail) override { inner_.detail(detail); }
  [[nodiscard]] bool wants_leaves() const override { return inner_.wants_leaves(); }
  void leaf_item(const Leaf& place, const isam::Item& item) override {
    inner_.leaf_item(place, item);
  }
  void odd_level(int n, std::int32_t node, int found, int expected) override {
    inner_.odd_level(n, node, found, expected);
  }
  [[nodiscard]] isam::RecordLocks* locks() override { return inner_.locks(); }
  void kept_back(std::int32_t record) override { inner_.kept_back(record); }
  [[nodiscard]] bool wants_trees() const override { return inner_.wants_trees(); }
  void tree_node(int level, std::int32_t node, int used) override {
    inner_.tree_node(level, node, used);
  }
  void tree_item(const isam::Item& item, const keydescr& k) override { inner_.tree_item(item, k); }
  void tree_level(int level) override { inner_.tree_level(level); }

 private:
  // What has become of the pair under way.
  struct Pair {
    Status status = Status::kSound;
    std::int64_t findings = 0;
    std::int64_t agreed = 0;
    bool has_begun = false;         // a pass
    bool has_system_error = false;  // one that was told
    std::string why{};              // it was refused
    int index = 0;                  // under way
    int indexes = 0;
    std::optional<Summary> summary{};
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  };

  template <typename Work>
  void record(Work work);
  void add(const Entry& entry);
  void note_failure(std::int32_t code, std::int32_t place);
  [[nodiscard]] std::string verdict_in_words(const Outcome& outcome) const;
  [[nodiscard]] Fields totals(const Outcome& outcome) const;

  Listener& inner_;
  const std::vector<std::string> names_;  // base names
  ReportFile file_;
  std::size_t number_ = 0;  // of the pair under way, from 1
  Pair pair_;
  Tally tally_;
};

}  // namespace checker
