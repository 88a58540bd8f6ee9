// mending: carries a plan out on a copy of the index, and looks at the result before it takes the
// index's place.
//
// Keeps   nothing is changed unless the pair is as the plan has seen it
//         what is dropped of the data file is on the disk, with what undoing needs, before the
//         first byte of the data file changes; when the repair does not come into the pair, those
//         bytes are put back
#pragma once

#include <string>
#include <vector>

#include "checker/driver.h"
#include "checker/interrupt.h"
#include "zentra/repair/databytes.h"
#include "zentra/repair/losses.h"
#include "zentra/repair/repairplan.h"

namespace zentra {

class Mending : public checker::Supervisor, public checker::Listener {
 public:
  Mending(const Plan& plan, std::string name) : plan_(plan), name_(std::move(name)) {}

  // Does it all, or nothing.
  void run();

  [[nodiscard]] bool is_done() const { return done_; }
  [[nodiscard]] bool is_in_use() const { return in_use_; }
  // Why it is not done.
  [[nodiscard]] const std::string& why() const { return why_; }
  [[nodiscard]] const std::string& kept() const { return kept_; }
  [[nodiscard]] std::int64_t lost() const { return losses_.count(); }
  // What the check of the result has found.
  [[nodiscard]] const std::vector<Entry>& left() const { return left_; }
  [[nodiscard]] const Fields& totals() const { return totals_; }

  // As supervisor.
  [[nodiscard]] bool changes_data() const override { return !plan_.bad.empty(); }
  [[nodiscard]] bool repair_begins(const std::string& kept) override;
  [[nodiscard]] bool remakes(int n) const override {
    return plan_.remakes_all() || plan_.indexes.contains(n);
  }
  [[nodiscard]] bool rebuilds(checker::List list) const override;
  void repair_mends(const checker::Check& check) override;
  [[nodiscard]] bool approves() override;
  void is_repaired() override;
  [[nodiscard]] bool repair_ends(const std::string& kept) override;

  // As listener.
  void found(const checker::Finding& finding) override;
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return true; }
  void failed(std::int32_t code, std::int32_t place) override;
  void remark(const std::string& text) override { say(text); }

 private:
  void say(const std::string& why) {
    if (why_.empty()) why_ = why;
  }
  bool say_errno(const std::string& path);
  void say_why_not_opened();
  [[nodiscard]] bool is_as_seen();
  [[nodiscard]] bool is_as_planned();
  [[nodiscard]] bool change_data(const std::string& kept);
  [[nodiscard]] bool change_dictionary();

  const Plan& plan_;
  std::string name_;
  Losses losses_;
  DataChanges changes_;  // a signal takes them back
  bool data_changed_ = false;
  std::string data_note_;  // path of the note about the data file
  bool done_ = false;
  bool in_use_ = false;
  std::string why_;
  std::string last_found_;
  bool is_refused_ = false;  // the pair could not be opened
  std::string kept_;
  std::vector<Entry> left_;
  Fields totals_;
};

}  // namespace zentra
