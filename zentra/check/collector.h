// collector: the listener that turns what a check finds into entries of a report, and weighs it.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "checker/listener.h"
#include "isam/files/watching.h"
#include "zentra/report/report.h"

namespace zentra {

class Collector : public checker::Listener {
 public:
  // `locks`: the records that others have locked.
  Collector(Report& report, isam::RecordLocks locks) : report_(report), locks_(std::move(locks)) {}

  void found(const checker::Finding& finding) override;
  // Nothing is ever changed.
  [[nodiscard]] bool answer(checker::Question /*question*/) override { return false; }
  void failed(std::int32_t code, std::int32_t place) override;
  [[nodiscard]] bool wants_details() const override { return true; }
  void detail(const checker::Detail& detail) override;
  [[nodiscard]] isam::RecordLocks* locks() override { return &locks_; }
  void kept_back(std::int32_t record) override;
  void index_begins(int /*n*/, const keydescr& k) override {
    ++indexes_;
    is_unique_ = (k.flags & KF_DUPS) == 0;
  }

  // What is found. `heals`: kestro offers to heal it.
  void add(const Entry& entry, bool heals = false);
  // Tells an error of the system, unless one is told already: the check has not come to its end.
  void unfinished(std::int32_t system_error);
  // Clears the library's current error. One that is about the files is found already; one of the
  // system makes the check unfinished.
  void pass_over_error();
  // Tells what open transactions keep back.
  void tell_kept();

  [[nodiscard]] Status status() const { return status_; }
  [[nodiscard]] std::int64_t findings() const { return findings_; }
  [[nodiscard]] int indexes() const { return indexes_; }
  // The codes of findings that kestro does not heal.
  [[nodiscard]] const std::set<std::string>& beyond_kestro() const { return beyond_; }
  // Whether an index without duplicates lacks records: they may have the keys of others.
  [[nodiscard]] bool may_have_equal_keys() const { return lacks_unique_; }
  // Whether a repair may take records away: bad ones, or those that only the indexes still name.
  [[nodiscard]] bool may_lose_records() const {
    return has_bad_records_ || (indexes_ > 0 && indexes_astray_ == indexes_);
  }
  // Whether all it needs is other descriptions of its indexes.
  [[nodiscard]] bool needs_descriptions() const { return lacks_descriptions_ && !needs_more_; }

 private:
  Report& report_;
  isam::RecordLocks locks_;
  Status status_ = Status::kSound;
  std::int64_t findings_ = 0;
  bool is_unfinished_ = false;
  int indexes_ = 0;
  std::set<std::string> beyond_;
  bool is_unique_ = false;  // the index under way
  bool lacks_unique_ = false;
  bool has_bad_records_ = false;
  bool has_failed_ = false;
  int indexes_astray_ = 0;  // how many have items that lead to no record
  bool lacks_descriptions_ = false;
  bool needs_more_ = false;             // something else is beyond kestro's repair, too
  bool misses_records_ = false;         // numbers that are neither in use nor free
  std::map<pid_t, std::int64_t> kept_;  // how many numbers each process keeps back
};

// Where what does not fit into memory goes: beside the pair nothing may be written.
[[nodiscard]] std::string temporary_folder();

// The field of a key value, as many bytes as the key has.
[[nodiscard]] Value key_value(const keydescr& k, const isam::Byte* value);

}  // namespace zentra
