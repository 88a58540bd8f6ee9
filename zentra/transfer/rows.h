// rows: the records that a text tells of, one after the other, whatever its format.
//
//   Rows& rows = *rows_of_csv(input, fields, lengths);
//   while ((step = rows.next()) == Step::kRecord || step == Step::kBad) ...
//
// Keeps   memory bounded, whatever the text is; the same text gives the same steps again
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "isam/base/format.h"
#include "layout/layout.h"
#include "zentra/files/input.h"
#include "zentra/transfer/rawtext.h"

namespace zentra {

inline constexpr char kTooLong[] = "longer than 1048576 bytes";

// Of the records to be made.
struct Lengths {
  int least = 0;
  int greatest = 0;  // the same with fixed length
};

class Rows {
 public:
  enum class Step : std::uint8_t {
    kRecord,
    kBad,    // no record: why() tells
    kEnd,    // why() tells where the text is torn off
    kFailed  // nothing can be made of the text, or it cannot be read: why() tells
  };

  virtual ~Rows() = default;
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  [[nodiscard]] virtual Step next() = 0;

  // Until the next step:
  [[nodiscard]] isam::ConstBytes bytes() const { return bytes_; }
  // That the record is to have; 0 for any.
  [[nodiscard]] std::int32_t number() const { return number_; }
  // Where it stands in the text, and how.
  [[nodiscard]] std::int64_t line() const { return line_; }
  [[nodiscard]] std::string_view text() const { return text_; }
  [[nodiscard]] const std::string& why() const { return why_; }

  // From the first step on: what is to be told of the text as a whole; empty for nothing.
  [[nodiscard]] const std::string& note() const { return note_; }

 protected:
  Rows() = default;
  // A name that the text has for a field, as a reason tells it.
  [[nodiscard]] static std::string shown_name(std::string_view name);
  Step bad(std::string why);
  Step failed(std::string why);

  isam::ConstBytes bytes_;
  std::int32_t number_ = 0;
  std::int64_t line_ = 0;
  std::string_view text_;
  std::string why_;
  std::string note_;
};

// The name under which a record's number stands, which is no field.
inline constexpr std::string_view kNumberName = "#";

// What of a text may stand beside the fields of the layout.
enum class Unknown : std::uint8_t { kRefused, kIgnored };

// The first line names the columns, in any order. A field without a column is filled as
// layout::store_nothing() does; note() tells which.
[[nodiscard]] std::unique_ptr<Rows> rows_of_csv(Input& input, const layout::Fields& fields,
                                                const Lengths& lengths, Unknown unknown);

// One object a line: a record by its fields, or one of the losses of a repair by its bytes.
[[nodiscard]] std::unique_ptr<Rows> rows_of_json(Input& input, const layout::Fields& fields,
                                                 const Lengths& lengths, Unknown unknown);

// The raw text of a pair.
class RawRows : public Rows {
 public:
  explicit RawRows(Input& input) : lines_(input) {}

  // Reads the header: false where next() would fail.
  [[nodiscard]] bool begin();
  [[nodiscard]] const PairShape& header() const { return reader_.header(); }
  [[nodiscard]] Step next() override;

  // In the order of the text: records that become the last of those with their key. By index, from
  // 1; kept from a first reading only.
  using Orders = std::vector<std::vector<std::int32_t>>;
  void keep_orders(Orders& to) { orders_ = &to; }

 private:
  Step fail_on_line(LineReader::Got got);
  Step take(RawReader::Line is);

  LineReader lines_;
  RawReader reader_;
  Orders* orders_ = nullptr;
  std::int64_t records_ = 0;
  bool has_ended_ = false;
};

}  // namespace zentra
