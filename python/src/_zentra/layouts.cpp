#include "layouts.h"

#include <pybind11/stl.h>

#include <array>
#include <string>
#include <utility>

#include "layout/draft.h"
#include "layout/layout.h"

namespace zentra_module {
namespace py = pybind11;
namespace {

using layout::Field;

constexpr std::array<const char*, 5> kMeanings = {"plain", "date", "days", "decimal", "boolean"};

const char* meaning_of(const Field& field) {
  return kMeanings.at(static_cast<std::size_t>(field.meaning));
}

// Fields of a text, or what is wrong with it as lines for `file`.
std::pair<layout::Fields, std::vector<std::string>> parse(const std::string& text,
                                                          const std::string& file) {
  layout::Reading reading = layout::read(text);
  std::vector<std::string> lines;
  for (const layout::Problem& problem : reading.problems) lines.push_back(shown(problem, file));
  return {std::move(reading.fields), std::move(lines)};
}

std::vector<std::string> misfits(const layout::Fields& fields, int length, bool has_tail,
                                 const std::string& file) {
  std::vector<std::string> lines;
  for (const layout::Problem& problem : layout::misfits(fields, length, has_tail)) {
    lines.push_back(shown(problem, file));
  }
  return lines;
}

// A draft from an open's keys and from some of its records, which `samples` are.
layout::Fields draft(const Open& open, const std::vector<std::string>& samples) {
  layout::Draft draft(open.least(), open.is_variable());
  for (std::size_t n = 0; n < open.keys().size(); ++n) {
    const KeyOf& key = open.keys()[n];
    for (std::size_t i = 0; i < key.parts.size(); ++i) {
      const auto [start, length, type] = key.parts[i];
      std::string comment = "index " + std::to_string(n + 1);
      if (key.parts.size() > 1) comment += ", part " + std::to_string(i + 1);
      draft.add_key(start, length, layout::type_of_part(type), std::move(comment));
    }
  }
  const auto least = static_cast<std::size_t>(open.least());
  for (const std::string& sample : samples) {
    if (sample.size() < least) continue;
    const layout::Bytes bytes(reinterpret_cast<const unsigned char*>(sample.data()), sample.size());
    draft.add_record(bytes.first(least), bytes.subspan(least));
  }
  return draft.fields();
}

}  // namespace

void add_layouts(py::module_& module) {
  py::class_<Field>(module, "Field", "A field of a layout; zentra-layout(5) tells what each is.")
      .def_readonly("name", &Field::name)
      .def_property_readonly(
          "type", [](const Field& field) { return name_of(field.type); },
          "How it is stored: char, int, long, float, double, locale or bytes.")
      .def_readonly("offset", &Field::offset, "Of its first byte, from 0.")
      .def_readonly("length", &Field::length, "In bytes; 0 for the tail.")
      .def_readonly("is_tail", &Field::is_tail)
      .def_readonly("may_be_null", &Field::may_be_null)
      .def_readonly("keeps_blanks", &Field::keeps_blanks)
      .def_property_readonly("meaning", &meaning_of,
                             "What is kept in it: plain, date, days, decimal or boolean.")
      .def_readonly("form", &Field::form,
                    "Of a date, such as YYYYMMDD; of days, the day with number 0.")
      .def_readonly("decimals", &Field::decimals)
      .def_readonly("yes", &Field::yes)
      .def_readonly("no", &Field::no)
      .def_readonly("encoding", &Field::encoding, "Of a plain text, such as latin1; empty: UTF-8.")
      .def_readonly("comment", &Field::comment);
  module.def("parse_layout", &parse, py::arg("text"), py::arg("file"));
  module.def("layout_text", [](const layout::Fields& fields) { return text_of(fields); });
  module.def("misfits", &misfits);
  module.def("draft", &draft);
}

}  // namespace zentra_module
