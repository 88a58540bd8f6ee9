// diffreport: what two pairs differ in, as text or as JSON, one object a line.
//
// Needs   both pairs open as long as differences of records are told
// Keeps   bytes of files never reach the output raw
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zentra/diff/comparedfields.h"
#include "zentra/diff/recordmatch.h"
#include "zentra/diff/structurediff.h"
#include "zentra/report/report.h"

namespace zentra {

// The exit status, as that of diff(1).
enum class Compared : int { kEqual = 0, kDifferent = 1, kTrouble = 2 };

class DiffReport : public Differences {
 public:
  struct How {
    bool json = false;
    bool is_brief = false;     // only whether
    bool is_terminal = false;  // of many differences of a kind the first are shown
  };
  DiffReport(TwoPairs& pairs, How how) : pairs_(pairs), how_(how) {}

  void begin(const std::string& a, const std::string& b);
  void unlike(const Unlike& unlike);
  void order(const std::string& words);
  // From now on records are told of.
  void compares(const ComparedFields& fields, const Order& order);
  // Something that could not be compared.
  void trouble(const std::string& text);
  // The status.
  Compared end(const Fields& totals);

  void removed(std::int32_t a) override;
  void added(std::int32_t b) override;
  void changed(std::int32_t a, std::int32_t b) override;
  void left_out(int side, std::int32_t number, const char* why) override;
  [[nodiscard]] bool is_enough() const override { return how_.is_brief && is_different_; }

 private:
  struct Count {
    const char* code;
    const char* word;
    std::int64_t all = 0;
  };

  [[nodiscard]] bool is_shown(Count& count) const;
  void tell_record(Count& count, int side, std::int32_t number, std::int32_t other);
  void tell_field(std::int32_t number, const ComparedFields::Difference& difference);
  [[nodiscard]] std::string key_words(const std::vector<isam::Byte>& record) const;
  void say(const std::string& line) const;

  TwoPairs& pairs_;
  How how_;
  std::string names_[2];
  const ComparedFields* fields_ = nullptr;
  Order order_;
  bool is_different_ = false;
  bool is_troubled_ = false;
  Count removed_{"diff.removed", "removed"};
  Count added_{"diff.added", "added"};
  Count changed_{"diff.changed", "changed"};
  Count left_out_{"diff.left-out", "left out"};
  std::vector<isam::Byte> records_[2];
};

}  // namespace zentra
