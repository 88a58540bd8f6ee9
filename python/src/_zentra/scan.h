// scan: the records of an open in the order of their numbers, turned into NumPy's arrays.
//
//   Scan scan(open, std::move(columns), has_numbers, first, last);
//   while ((count = scan.fill(arrays, 0, room, false, &tails)) == room) ...
//
// Keeps   C1 the interpreter's lock is free while records are read and turned; several threads do
// so
//            where there are many, and take turns at the library
//         C2 an array is written only within what it has, whatever the caller passes
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "columns.h"
#include "open.h"

namespace zentra_module {

// A field's bytes have no value of its meaning.
class BadValue : public Failed {
 public:
  BadValue(const std::string& pair, std::int32_t record, std::string field, std::string bytes);

  std::int32_t number;  // of the record
  std::string field_name;
  std::string value;
};

class Scan {
 public:
  // The records with numbers from `first` to `last`.
  Scan(Open& open, std::vector<Column> columns, bool has_numbers, std::int32_t first,
       std::int32_t last);

  // Puts up to `room` records into the arrays from their element `at` on: one array for each
  // column and, with numbers, one of int32 for these. `tails`, if there is one, gets bytes objects
  // of what lies behind the fixed part of each. How many: fewer than `room` at the end.
  std::size_t fill(const std::vector<pybind11::array>& arrays, std::size_t at, std::size_t room,
                   bool lenient, std::optional<pybind11::list> tails);

 private:
  // Records on their way, of one thread.
  struct Portion {
    explicit Portion(std::size_t length);

    std::vector<char> records;
    std::vector<std::int32_t> numbers;
    std::vector<std::int32_t> lengths;
  };
  // Where records go, and whether what has no value is null.
  struct Target {
    std::vector<Room> rooms;
    bool lenient;
  };

  [[nodiscard]] std::vector<Room> rooms_of(const std::vector<pybind11::array>& arrays,
                                           std::size_t at, std::size_t room) const;
  std::size_t read(Portion& portion, std::size_t most);
  std::size_t fill_together(const Target& target, std::size_t done, std::size_t most);
  void turn(const Portion& portion, std::size_t count, const Target& target,
            std::size_t done) const;
  void turn_block(const Portion& portion, std::size_t first, std::size_t count,
                  const Target& target, std::size_t done) const;
  [[nodiscard]] std::size_t copies_from(std::size_t first, const std::vector<Room>& rooms) const;
  void add_tails(const Portion& portion, std::size_t count, pybind11::list& tails) const;

  Open& open_;
  std::vector<Column> columns_;
  bool has_numbers_;
  std::int32_t first_;
  std::int32_t last_;
  bool has_begun_ = false;
  bool at_end_ = false;
};

}  // namespace zentra_module
