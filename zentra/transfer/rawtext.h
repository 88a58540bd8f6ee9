// rawtext: a pair as portable text, from which a pair with the same records, numbers and indexes is
// made. zentra-raw(5) describes it.
//
//   zentra-raw 1
//   length 40 500              the least and the greatest; one number: all are so long
//   node 1024
//   duplicates 4
//   locale de_de.utf8          only where an index is in the order of a locale
//   unique 17
//   key 0,8,char               one line for each index, in the words of zentra-keys(5)
//   key 8,20,char,dups
//   records
//   1:00000001SMITH   \20      number and bytes; \ and two digits for what is not printable ASCII
//   3:00000003JONES\00\07
//   order 2 1                  in index 2 record 1 is the last of those with its key
//   end 2
//
// Needs   for writing: numbers that ascend
// Never   takes more memory for a damaged text than for a sound one
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "isam/base/format.h"
#include "zentra/pair/pairshape.h"

namespace zentra {

inline constexpr std::string_view kRawBegin = "zentra-raw ";
inline constexpr int kRawVersion = 1;

// The lines before the first record.
[[nodiscard]] std::string raw_header_of(const PairShape& shape);
// Room for the line of a record of so many bytes.
[[nodiscard]] constexpr std::size_t raw_room(std::size_t bytes) { return 12 + 3 * bytes; }
// Puts that line to `to`, in two parts where the bytes are in two places: its end.
[[nodiscard]] char* put_raw_record(std::int32_t number, isam::ConstBytes bytes,
                                   isam::ConstBytes tail, char* to);
// Each puts a line behind what `to` has.
void put_raw_order(int index, std::span<const std::int32_t> records, std::string& to);
void put_raw_end(std::int64_t records, std::string& to);

// Takes a text line by line.
//
//   RawReader reader;
//   while (next(line)) switch (reader.take(line)) ...
class RawReader {
 public:
  enum class Line : std::uint8_t {
    kHeader,
    kRecordsBegin,  // the header is complete
    kRecord,
    kOrder,
    kEnd,
    kBad,   // why() tells; the next line may be right
    kOther  // why() tells; it is no such text, or its header is wrong: nothing can be made of it
  };
  [[nodiscard]] Line take(std::string_view line);

  [[nodiscard]] const PairShape& header() const { return header_; }
  // kRecord:
  [[nodiscard]] std::int32_t number() const { return number_; }
  [[nodiscard]] std::span<isam::Byte> bytes() { return std::span{bytes_}.first(length_); }
  // kOrder:
  [[nodiscard]] int index() const { return index_; }
  [[nodiscard]] const std::vector<std::int32_t>& order() const { return order_; }
  // kEnd: how many records the text says it has.
  [[nodiscard]] std::int64_t count() const { return count_; }
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  enum class Part : std::uint8_t { kFirstLine, kHeader, kRecords, kOrders, kBehindEnd };

  Line bad(std::string why);
  Line other(std::string why);
  Line take_first(std::string_view line);
  Line take_header(std::string_view line);
  Line take_record(std::string_view line);
  Line take_order(std::string_view line);
  Line take_end(std::string_view line);
  bool decode(std::string_view text);
  std::string header_fault() const;

  Part part_ = Part::kFirstLine;
  PairShape header_;
  std::int32_t number_ = 0;
  std::vector<isam::Byte> bytes_;  // of the greatest length
  std::size_t length_ = 0;
  int index_ = 0;
  std::vector<std::int32_t> order_;
  std::int64_t count_ = 0;
  std::string why_;
};

}  // namespace zentra
