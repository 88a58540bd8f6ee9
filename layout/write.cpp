// Writes a layout as the text that read() understands.
#include <algorithm>

#include "layout/layout.h"
#include "layout/words.h"

namespace layout {
namespace {

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size() + 1), ' ');
  return text;
}

std::string options_of(const Field& field) {
  std::string text;
  switch (field.meaning) {
    case Meaning::kDate:
      text += " date " + as_word(field.form);
      break;
    case Meaning::kDays:
      text += " date since " + field.form;
      break;
    case Meaning::kDecimal:
      text += " decimal " + std::to_string(field.decimals);
      break;
    case Meaning::kBoolean:
      text += " boolean " + as_word(field.yes) + ' ' + as_word(field.no);
      break;
    default:
      break;
  }
  if (field.may_be_null) text += " null";
  if (field.keeps_blanks) text += " blanks";
  if (!field.encoding.empty()) text += " encoding " + as_word(field.encoding);
  return text;
}

}  // namespace

std::string text_of(const Fields& fields) {
  constexpr std::size_t kWidth = 8;
  std::size_t longest = kWidth;
  for (const Field& field : fields) longest = std::max(longest, field.name.size() + 1);
  std::string text;
  for (const Field& field : fields) {
    std::string line = padded(field.name, longest) + padded(name_of(field.type), kWidth);
    line += field.is_tail
                ? "tail"
                : padded(std::to_string(field.offset), kWidth) + std::to_string(field.length);
    line += options_of(field);
    if (!field.comment.empty()) line = padded(line, longest + 4 * kWidth) + "# " + field.comment;
    text += line + '\n';
  }
  return text;
}

}  // namespace layout
