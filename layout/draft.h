// draft: a layout for records of which only the keys are known, the rest guessed from their bytes.
//
//   Draft draft(128, false);
//   draft.add_key(0, 8, Type::kChar, "part 1 of index 1");
//   draft.add_record(record, {});                       // some hundred of them
//   Fields fields = draft.fields();                     // cover each byte of a record once
//
// Keeps   every guess has a comment that begins with "guess"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "layout/layout.h"

namespace layout {

// What a part of a key is stored as; `type` is one of KT_... of isam.h.
[[nodiscard]] Type type_of_part(int type);

class Draft {
 public:
  Draft(int record_length, bool has_tail);

  // A part of a key, which need not lie within the record.
  void add_key(int offset, int length, Type type, std::string comment);
  // `record` has at least the record length.
  void add_record(Bytes record, Bytes tail);

  [[nodiscard]] Fields fields() const;

 private:
  // What the samples have at one offset.
  struct Column {
    int blanks = 0;
    int digits = 0;
    int printable = 0;  // blanks and digits among them
    int zeros = 0;
  };
  struct Run {
    int begin;
    int end;
  };

  [[nodiscard]] bool most(int count) const { return count * 50 >= samples() * 49; }
  [[nodiscard]] int samples() const;
  [[nodiscard]] Fields fields_of_keys() const;
  [[nodiscard]] bool has_other_encoding(const Field& field) const;
  void guess(Run gap, Fields& fields) const;
  void guess_text(Run run, Fields& fields) const;
  [[nodiscard]] bool begins_word(int offset) const;
  int guess_bytes(Run gap, Fields& fields) const;
  template <typename Is>
  [[nodiscard]] int alike(Run gap, Is is) const;
  [[nodiscard]] std::optional<Type> number_at(Run gap) const;
  [[nodiscard]] bool looks_like(Type type, int offset) const;
  [[nodiscard]] Field guessed(Type type, Run run, std::string why) const;

  int length_;
  bool has_tail_;
  std::vector<Field> keys_;
  std::vector<Column> columns_;
  std::vector<unsigned char> records_;  // one behind the other
  std::int64_t tail_bytes_ = 0;
  std::int64_t tail_printable_ = 0;
  bool tail_is_utf8_ = true;
};

}  // namespace layout
