#include "zentra/diff/comparedfields.h"

#include <algorithm>
#include <map>
#include <utility>

#include "common/bytes.h"
#include "layout/value.h"

namespace zentra {
namespace {

using layout::Field;

Field bytes_from(int begin, int end) {
  return {.name = "bytes " + std::to_string(begin) + " to " + std::to_string(end - 1),
          .type = layout::Type::kBytes,
          .offset = begin,
          .length = end - begin};
}

// The fields, and what lies between them.
layout::Fields without_gaps(layout::Fields fields, int length, bool has_tail) {
  const bool tells_tail = !fields.empty() && fields.back().is_tail;
  std::ranges::stable_sort(
      fields, {}, [](const Field& field) { return std::pair(field.is_tail, field.offset); });
  layout::Fields all;
  int at = 0;
  for (Field& field : fields) {
    const int begin = field.is_tail ? length : field.offset;
    if (at < begin) all.push_back(bytes_from(at, begin));
    at = std::max(at, field.is_tail ? length : field.end());
    all.push_back(std::move(field));
  }
  if (at < length) all.push_back(bytes_from(at, length));
  if (has_tail && !tells_tail) {
    all.push_back({.name = "tail", .type = layout::Type::kBytes, .is_tail = true});
  }
  return all;
}

bool is_stored_alike(const Field& a, const Field& b) {
  const auto all_of = [](const Field& field) {
    return std::tie(field.type, field.length, field.is_tail, field.may_be_null, field.keeps_blanks,
                    field.meaning, field.form, field.decimals, field.yes, field.no);
  };
  return all_of(a) == all_of(b);
}

// The value as text, behind what kind of text it is.
std::string value_of(const Field& field, isam::ConstBytes bytes) {
  std::string text(layout::text_room(bytes.size()) + 1, '\0');
  const auto [end, kind] = layout::put_plain(field, bytes, text.data() + 1);
  text.resize(static_cast<std::size_t>(end - text.data()));
  text.front() = static_cast<char>(kind);
  return text;
}

}  // namespace

ComparedFields::ComparedFields(layout::Fields fields, int record_length, bool has_tail)
    : lengths_{record_length, record_length}, is_of_one_shape_(true) {
  for (Field& field : without_gaps(std::move(fields), record_length, has_tail)) {
    both_.push_back({.fields = {field, field}});
  }
}

ComparedFields::ComparedFields(const layout::Fields& a, int length_of_a, const layout::Fields& b,
                               int length_of_b)
    : lengths_{length_of_a, length_of_b}, is_of_one_shape_(false) {
  std::map<std::string, const Field*> others;
  for (const Field& field : b) others.emplace(field.name, &field);
  for (const Field& field : a) {
    const auto at = others.find(field.name);
    if (at == others.end()) {
      only_in_[0].push_back(field.name);
      continue;
    }
    both_.push_back(
        {.fields = {field, *at->second}, .are_stored_alike = is_stored_alike(field, *at->second)});
    others.erase(at);
  }
  for (const Field& field : b) {
    if (others.contains(field.name)) only_in_[1].push_back(field.name);
  }
}

isam::ConstBytes ComparedFields::bytes_of(const Both& both, int side,
                                          isam::ConstBytes record) const {
  const auto length = static_cast<std::size_t>(lengths_[side]);
  return layout::bytes_of(both.fields[side], record.first(length), record.subspan(length));
}

void ComparedFields::put(int side, isam::ConstBytes record, std::vector<isam::Byte>& to) const {
  if (is_of_one_shape_) {
    to.insert(to.end(), record.begin(), record.end());
    return;
  }
  const auto add = [&to](isam::ConstBytes bytes) {
    isam::Byte length[4];
    common::stlong(static_cast<std::int32_t>(bytes.size()), length);
    to.insert(to.end(), length, length + sizeof length);
    to.insert(to.end(), bytes.begin(), bytes.end());
  };
  for (const Both& both : both_) {
    const isam::ConstBytes bytes = bytes_of(both, side, record);
    if (both.are_stored_alike) {
      add(bytes);
    } else {
      const std::string value = value_of(both.fields[side], bytes);
      add({reinterpret_cast<const isam::Byte*>(value.data()), value.size()});
    }
  }
}

void ComparedFields::differences(isam::ConstBytes a, isam::ConstBytes b,
                                 const std::function<void(const Difference&)>& tell) const {
  for (const Both& both : both_) {
    const isam::ConstBytes was = bytes_of(both, 0, a);
    const isam::ConstBytes is = bytes_of(both, 1, b);
    const bool are_equal = both.are_stored_alike
                               ? std::ranges::equal(was, is)
                               : value_of(both.fields[0], was) == value_of(both.fields[1], is);
    if (!are_equal) tell({both.fields[0], was, both.fields[1], is});
  }
}

}  // namespace zentra
