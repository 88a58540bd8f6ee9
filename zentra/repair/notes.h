// notes: a report that passes everything on and remembers what a repair has to know of it.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "zentra/report/report.h"

namespace zentra {

// Items of an index that lead to no record: where they lead, and the first of them as told.
struct Astray {
  std::deque<std::int32_t> records;  // there may be millions
  std::vector<std::pair<std::int32_t, Fields>> details;

  [[nodiscard]] bool has_all_details() const { return details.size() == records.size(); }
};

class Notes : public Report {
 public:
  // `to`: null for a report that nobody is told.
  explicit Notes(Report* to) : to_(to) {}

  void begin(const char* /*command*/, int /*pairs*/) override {}
  void pair_begins(int /*number*/, int /*pairs*/, const std::string& /*name*/) override {}
  void pair_is(int /*number*/, const std::string& /*name*/) override {}
  void pair_ends(Status /*status*/, const std::string& /*text*/,
                 const Fields& /*fields*/) override {}
  void end(Status /*status*/, const Fields& /*fields*/) override {}
  void entry(const Entry& entry) override;

  // Whether something of this code was found, about whatever index.
  [[nodiscard]] bool has(const std::string& code) const;
  // Whether a code that begins so was found about an index (0: about none).
  [[nodiscard]] bool has_any(const std::string& beginning, int key) const;
  // How many of them were counted by findings about an index.
  [[nodiscard]] std::int64_t count(const std::string& code, int key) const;
  // What stood in a field of the last finding of this code, 0 for none.
  [[nodiscard]] std::int64_t value(const std::string& code, const char* field) const;
  // How much the last finding of this code weighs.
  [[nodiscard]] Status status(const std::string& code) const;
  // The words of the last finding of this code; empty when there is none.
  [[nodiscard]] std::string text(const std::string& code) const;
  // Records that findings of this code name.
  [[nodiscard]] const std::set<std::int32_t>& records(const std::string& code) const;
  // Of an index; null where all its items lead to records.
  [[nodiscard]] const Astray* astray(int key) const;
  // What was found first, in words; empty when nothing was.
  [[nodiscard]] const std::string& first() const { return first_; }

 private:
  void note_astray(const Entry& entry);

  Report* to_;
  std::map<std::pair<std::string, int>, std::int64_t> counts_;
  std::map<std::string, Entry> last_;
  std::map<std::string, std::set<std::int32_t>> records_;
  std::map<int, Astray> astray_;
  std::string first_;
};

}  // namespace zentra
