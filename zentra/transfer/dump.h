// dump: the records of the current pair through a writer, around what is damaged, and what of them
// is left out. Where there are many, several threads put them into text.
#pragma once

#include <cstdint>
#include <functional>

#include "checker/usagemap.h"
#include "isam.h"
#include "zentra/files/output.h"
#include "zentra/report/report.h"
#include "zentra/transfer/dumpwriter.h"
#include "zentra/transfer/records.h"

namespace zentra {

class Dump {
 public:
  using Tell = std::function<void(const Entry& entry)>;

  Dump(Output& output, DumpWriter& writer, Tell tell);

  // In the order of their numbers; or of index n, and behind those that it leads to, all others.
  void run();
  void run_by(int n, const keydescr& k);

  [[nodiscard]] std::int64_t count() const { return count_; }
  // Numbers whose record is left out, or lacks its variable part.
  [[nodiscard]] std::int64_t left_out() const { return left_out_; }
  // Whether all of the pair was written, in the order that was asked for.
  [[nodiscard]] bool is_whole() const { return is_whole_; }

 private:
  class ByIndex;
  struct Piece;

  void put(const Record& record);
  void put_rest();
  [[nodiscard]] bool take(Piece& piece);
  void put_text(Piece& piece) const;
  void note(const Record& record);
  void fault(std::int32_t number, Records::Fault fault);
  void tell_left_out(const char* code, const char* text, std::int32_t first, std::int32_t last);
  void tell_gaps();
  void tell_end();
  void finding(const char* code, int index, std::string text, Fields fields);

  Output& output_;
  DumpWriter& writer_;
  Tell tell_;
  Records records_;
  checker::UsageMap accounted_;  // numbers that were written, or told
  std::int64_t count_ = 0;
  std::int64_t beyond_ = 0;  // of these, numbers above the highest of the dictionary
  std::int64_t left_out_ = 0;
  bool is_whole_ = true;
};

}  // namespace zentra
