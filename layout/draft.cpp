#include "layout/draft.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include "isam.h"
#include "layout/forms.h"

namespace layout {
namespace {

// Of an 8-bit character set or UTF-8 too.
bool is_printable(unsigned char byte) { return byte >= 0x20 && byte != 0x7F && byte != 0xFF; }

// Part of a text of several lines, too.
bool is_of_text(unsigned char byte) {
  return is_printable(byte) || byte == '\n' || byte == '\r' || byte == '\t';
}

bool is_number(Type type) { return length_of(type) != 0; }

template <typename Real>
double load(const unsigned char* at) {
  Real value = 0;
  std::memcpy(&value, at, sizeof value);
  return static_cast<double>(value);
}

// What people keep in a floating-point number; other bytes make odd ones.
bool is_plausible(double value, double least, double most) {
  const double size = std::fabs(value);
  return value == 0 || (size >= least && size <= most);
}

bool all_are(const unsigned char* at, int length, unsigned char byte) {
  return std::all_of(at, at + length, [byte](unsigned char one) { return one == byte; });
}

bool is_plausible_at(Type type, const unsigned char* at) {
  switch (type) {
    case Type::kDouble:
      return all_are(at, length_of(type), 0xFF) || is_plausible(load<double>(at), 1e-9, 1e15);
    case Type::kFloat:
      return all_are(at, length_of(type), 0xFF) || is_plausible(load<float>(at), 1e-4, 1e9);
    default:  // small numbers, below and above zero
      return at[0] == 0 || at[0] == 0xFF;
  }
}

// Whether the bytes show that a number is kept: of a whole one the lowest byte is at the end.
bool is_used_at(Type type, const unsigned char* at) {
  const bool is_real = type == Type::kDouble || type == Type::kFloat;
  return is_real ? !all_are(at, length_of(type), 0) : at[length_of(type) - 1] != 0;
}

}  // namespace

Type type_of_part(int type) {
  switch (type & ~KT_DESC) {
    case KT_INT:
      return Type::kInt;
    case KT_LONG:
      return Type::kLong;
    case KT_DOUBLE:
      return Type::kDouble;
    case KT_FLOAT:
      return Type::kFloat;
    case KT_LOCALE:
      return Type::kLocale;
    default:
      return Type::kChar;
  }
}

Draft::Draft(int record_length, bool has_tail)
    : length_(std::clamp(record_length, 0, kGreatestRecord)),
      has_tail_(has_tail),
      columns_(static_cast<std::size_t>(length_)) {}

int Draft::samples() const {
  return length_ == 0 ? 0 : static_cast<int>(records_.size() / static_cast<std::size_t>(length_));
}

void Draft::add_key(int offset, int length, Type type, std::string comment) {
  if (offset < 0 || length < 1 || offset > length_ - length) return;
  if (is_number(type) && length != length_of(type)) return;
  keys_.push_back({.name = {},
                   .type = type,
                   .offset = offset,
                   .length = length,
                   .comment = std::move(comment)});
}

void Draft::add_record(Bytes record, Bytes tail) {
  const auto length = static_cast<std::size_t>(length_);
  if (record.size() < length) return;
  for (std::size_t i = 0; i < length; ++i) {
    Column& column = columns_[i];
    const unsigned char byte = record[i];
    column.blanks += byte == ' ' ? 1 : 0;
    column.digits += byte >= '0' && byte <= '9' ? 1 : 0;
    column.printable += is_printable(byte) ? 1 : 0;
    column.zeros += byte == 0 ? 1 : 0;
  }
  records_.insert(records_.end(), record.begin(), record.begin() + length_);
  tail_bytes_ += std::ssize(tail);
  tail_printable_ += std::ranges::count_if(tail, is_of_text);
  tail_is_utf8_ = tail_is_utf8_ && is_utf8(text_in(tail));
}

// Numbers come first, since what they overlap cannot be a text; then the shorter part, since the
// longer one holds several fields.
Fields Draft::fields_of_keys() const {
  std::vector<Field> sorted = keys_;
  std::ranges::stable_sort(sorted, {}, [](const Field& field) {
    return std::pair(is_number(field.type) ? 0 : 1, field.length);
  });
  Fields taken;
  std::vector<bool> used(static_cast<std::size_t>(length_));
  for (Field& field : sorted) {
    const auto first = used.begin() + field.offset;
    if (std::find(first, first + field.length, true) != first + field.length) continue;
    std::fill(first, first + field.length, true);
    taken.push_back(std::move(field));
  }
  std::ranges::sort(taken, {}, &Field::offset);
  return taken;
}

Field Draft::guessed(Type type, Run run, std::string why) const {
  const std::string comment =
      samples() == 0 ? "guess: there is no record" : "guess: " + std::move(why);
  return {.name = {},
          .type = type,
          .offset = run.begin,
          .length = run.end - run.begin,
          .comment = comment};
}

// Whether a text begins here although one is under way: that one has ended, with blanks in most
// records; or digits and other characters meet.
bool Draft::begins_word(int offset) const {
  const Column& column = columns_[static_cast<std::size_t>(offset)];
  const Column& before = columns_[static_cast<std::size_t>(offset) - 1];
  if (2 * (before.blanks - column.blanks) >= samples()) return true;
  return most(column.digits) != most(before.digits) && !most(column.blanks) &&
         !most(before.blanks) && 10 * std::min(column.digits, before.digits) <= samples();
}

void Draft::guess_text(Run run, Fields& fields) const {
  for (int begin = run.begin; begin < run.end;) {
    int end = begin + 1;
    while (end < run.end && !begins_word(end)) ++end;
    const auto all = [&](int Column::*count) {
      return std::all_of(columns_.begin() + begin, columns_.begin() + end,
                         [&](const Column& column) { return most(column.*count); });
    };
    const char* const what = all(&Column::blanks)   ? "blanks"
                             : all(&Column::digits) ? "digits"
                                                    : "text";
    fields.push_back(guessed(Type::kChar, {begin, end}, what));
    begin = end;
  }
}

bool Draft::looks_like(Type type, int offset) const {
  const auto length = static_cast<std::size_t>(length_);
  int plausible = 0;
  bool any = false;
  for (std::size_t at = static_cast<std::size_t>(offset); at < records_.size(); at += length) {
    plausible += is_plausible_at(type, &records_[at]) ? 1 : 0;
    any = any || is_used_at(type, &records_[at]);
  }
  return any && most(plausible);
}

// The type of a number that seems to begin here. Two whole numbers make an odd floating-point one,
// while a round floating-point number may look like a whole one.
std::optional<Type> Draft::number_at(Run gap) const {
  constexpr std::array kTried = {Type::kDouble, Type::kFloat, Type::kLong, Type::kInt};
  for (const Type type : kTried) {
    if (gap.begin + length_of(type) <= gap.end && looks_like(type, gap.begin)) return type;
  }
  return {};
}

// Columns from the front of a gap that are alike.
template <typename Is>
int Draft::alike(Run gap, Is is) const {
  int end = gap.begin;
  while (end < gap.end && is(columns_[static_cast<std::size_t>(end)])) ++end;
  return end - gap.begin;
}

// Bytes that look like nothing: zero bytes, but for those in front that a whole number may have; or
// one more of others.
int Draft::guess_bytes(Run gap, Fields& fields) const {
  constexpr int kWidth = 4;
  const int zeros = alike(gap, [this](const Column& column) { return most(column.zeros); });
  const int unused =
      zeros < kWidth || gap.begin + zeros == gap.end ? zeros : zeros / kWidth * kWidth;
  const char* const what = zeros > 0 ? "zero bytes" : "any bytes";
  const int length = std::max(unused, 1);
  Field* const last = fields.empty() ? nullptr : &fields.back();
  if (last != nullptr && last->end() == gap.begin && last->comment.ends_with(what)) {
    last->length += length;
  } else {
    fields.push_back(guessed(Type::kBytes, {gap.begin, gap.begin + length}, what));
  }
  return length;
}

void Draft::guess(Run gap, Fields& fields) const {
  constexpr int kShortText = 3;  // a number may begin with bytes that can be printed
  if (samples() == 0) {
    fields.push_back(guessed(Type::kBytes, gap, ""));
    return;
  }
  while (gap.begin < gap.end) {
    const int text = alike(gap, [this](const Column& column) { return most(column.printable); });
    const bool is_text = text >= kShortText || gap.begin + text == gap.end;
    const auto number = is_text ? std::nullopt : number_at(gap);
    if (number) {
      const int end = gap.begin + length_of(*number);
      fields.push_back(guessed(*number, {gap.begin, end}, "numbers"));
      gap.begin = end;
    } else if (text > 0) {
      guess_text({gap.begin, gap.begin + text}, fields);
      gap.begin += text;
    } else {
      gap.begin += guess_bytes(gap, fields);
    }
  }
}

// Whether a text has bytes in some record that are no UTF-8.
bool Draft::has_other_encoding(const Field& field) const {
  if (!is_text(field.type)) return false;
  if (field.is_tail) return !tail_is_utf8_;
  const Bytes all{records_};
  for (auto at = static_cast<std::size_t>(field.offset); at < all.size();
       at += static_cast<std::size_t>(length_)) {
    if (!is_utf8(text_in(all.subspan(at, static_cast<std::size_t>(field.length))))) return true;
  }
  return false;
}

Fields Draft::fields() const {
  Fields fields;
  int at = 0;
  for (const Field& field : fields_of_keys()) {
    if (at < field.offset) guess({at, field.offset}, fields);
    fields.push_back(field);
    at = field.end();
  }
  if (at < length_) guess({at, length_}, fields);
  if (has_tail_) {
    const bool is_text = tail_printable_ * 50 >= tail_bytes_ * 49;
    Field tail =
        guessed(is_text ? Type::kChar : Type::kBytes, {0, 0}, is_text ? "text" : "any bytes");
    tail.is_tail = true;
    fields.push_back(std::move(tail));
  }
  for (Field& field : fields) {
    field.name = field.is_tail
                     ? "tail"
                     : std::string(name_of(field.type)) + '_' + std::to_string(field.offset);
    if (has_other_encoding(field)) field.comment += "; not UTF-8: \"encoding\" tells what it is";
  }
  return fields;
}

}  // namespace layout
