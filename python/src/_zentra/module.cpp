// The module `zentra._zentra`: calls of the library as methods of an open, and what must be fast.
// What they mean to those who use the package is told in its Python part.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <exception>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "guard.h"
#include "isam.h"
#include "layouts.h"
#include "open.h"
#include "scan.h"

namespace zentra_module {
namespace py = pybind11;
namespace {

using OptionalPair = std::optional<std::pair<std::int32_t, py::bytes>>;

std::pair<std::int32_t, py::bytes> as_python(const Record& record) {
  return {record.number, py::bytes(record.bytes)};
}

// The exceptions are classes of the Python part.
template <typename... Arguments>
void raise(const char* maker, Arguments&&... arguments) {
  const py::object error =
      py::module_::import("zentra.errors").attr(maker)(std::forward<Arguments>(arguments)...);
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
}

void translate(std::exception_ptr thrown) {
  if (!thrown) return;
  try {
    std::rethrow_exception(thrown);
  } catch (const BadValue& bad) {
    raise("bad_value", py::bytes(bad.name), bad.number, bad.field_name, py::bytes(bad.value));
  } catch (const Inherited& failed) {
    raise("inherited", py::bytes(failed.name));
  } catch (const Failed& failed) {
    raise("of_call", failed.code, py::bytes(failed.what()), failed.place, py::bytes(failed.status),
          py::bytes(failed.name));
  }
}

// A call that takes no open: throws where it fails.
template <typename Call>
void call(const std::string& name, Call&& work) {
  in_turn([&] {
    if (work() < 0) throw Failed(name);
  });
}

void add_open(py::module_& module) {
  py::class_<KeyOf>(module, "KeyOf")
      .def(py::init([](int flags, std::vector<std::tuple<int, int, int>> parts) {
        return KeyOf{flags, std::move(parts)};
      }))
      .def_readonly("flags", &KeyOf::flags)
      .def_readonly("parts", &KeyOf::parts);
  py::class_<Open>(module, "Open")
      .def(py::init<std::string, int>(), py::arg("name"), py::arg("mode"))
      .def_static("build", &Open::build)
      .def("close", &Open::close)
      .def_property_readonly("closed", &Open::is_closed)
      .def_property_readonly("length", &Open::length)
      .def_property_readonly("least", &Open::least)
      .def_property_readonly("is_variable", &Open::is_variable)
      .def_property_readonly("keys", &Open::keys)
      .def("count", &Open::count)
      .def("stamp", &Open::stamp)
      .def("start", &Open::start)
      .def("read",
           [](Open& open, int index, int mode, std::string_view record,
              std::int32_t number) -> OptionalPair {
             const auto read = open.read(index, mode, record, number);
             if (!read) return {};
             return as_python(*read);
           })
      .def("read_many",
           [](Open& open, int mode, int count) {
             py::list records;
             for (const Record& record : open.read_many(mode, count)) {
               records.append(as_python(record));
             }
             return records;
           })
      .def("write", &Open::write)
      .def("rewrite", &Open::rewrite)
      .def("remove", &Open::remove)
      .def("release", &Open::release)
      .def("lock_file", &Open::lock_file)
      .def("unlock_file", &Open::unlock_file)
      .def("flush", &Open::flush)
      .def("add_index", &Open::add_index)
      .def("drop_index", &Open::drop_index)
      .def("load_begin", &Open::load_begin)
      .def("load_end", &Open::load_end)
      .def("load_drop", &Open::load_drop)
      .def("load", [](Open& open, const py::array_t<std::int8_t, py::array::c_style>& records,
                      const std::optional<py::array_t<std::int32_t, py::array::c_style>>& lengths,
                      std::int32_t count) {
        const auto size = static_cast<std::size_t>(records.size());
        if (count < 1 ||
            size / static_cast<std::size_t>(open.length()) < static_cast<std::size_t>(count) ||
            (open.is_variable() && (!lengths || lengths->size() < count))) {
          throw py::value_error("not as many records as said");
        }
        // The library only reads what a load gives it.
        open.load(reinterpret_cast<char*>(const_cast<std::int8_t*>(records.data())), size,
                  lengths ? const_cast<std::int32_t*>(lengths->data()) : nullptr, count);
      });
}

void add_scan(py::module_& module) {
  py::enum_<Form>(module, "Form")
      .value("BYTES", Form::kBytes)
      .value("TEXT", Form::kText)
      .value("NUMBER", Form::kNumber)
      .value("NUMBER_OR_NAN", Form::kNumberOrNaN)
      .value("DAY", Form::kDay)
      .value("DECIMAL", Form::kDecimal)
      .value("UNSCALED", Form::kUnscaled)
      .value("BOOLEAN", Form::kBoolean);
  py::class_<Scan>(module, "Scan")
      .def(py::init([](Open& open, const std::vector<std::pair<layout::Field, Form>>& fields,
                       bool has_numbers, std::int32_t first, std::int32_t last) {
             std::vector<Column> columns;
             for (const auto& [field, form] : fields) {
               if (!has_form(form, field)) {
                 throw py::value_error(field.name + " has no such form");
               }
               columns.emplace_back(field, form);
             }
             return Scan(open, std::move(columns), has_numbers, first, last);
           }),
           py::keep_alive<1, 2>())
      .def("fill", &Scan::fill);
}

void add_calls(py::module_& module) {
  module.def("open_log",
             [](const std::string& path) { call(path, [&] { return islogopen(path.c_str()); }); });
  module.def("close_log", [] { call("", islogclose); });
  module.def("begin", [] { call("", isbegin); });
  module.def("commit", [] { call("", iscommit); });
  module.def("roll_back", [] { call("", isrollback); });
  module.def("erase",
             [](const std::string& name) { call(name, [&] { return iserase(name.c_str()); }); });
  module.def("rename", [](const std::string& name, const std::string& new_name) {
    call(name, [&] { return isrename(name.c_str(), new_name.c_str()); });
  });
  module.def("version", [] { return in_turn([] { return std::string(isversion()); }); });
  module.def("generation", &generation);
}

void add_modes(py::module_& module) {
  const std::initializer_list<std::pair<const char*, int>> modes = {
      {"ISINPUT", ISINPUT},         {"ISINOUT", ISINOUT},       {"ISTRANS", ISTRANS},
      {"ISNOLOG", ISNOLOG},         {"ISMANULOCK", ISMANULOCK}, {"ISEXCLLOCK", ISEXCLLOCK},
      {"RD_FIRST", RD_FIRST},       {"RD_LAST", RD_LAST},       {"RD_NEXT", RD_NEXT},
      {"RD_PREV", RD_PREV},         {"RD_EQUAL", RD_EQUAL},     {"RD_GREAT", RD_GREAT},
      {"RD_GTEQ", RD_GTEQ},         {"RD_LOCK", RD_LOCK},       {"KF_DUPS", KF_DUPS},
      {"KF_COMPRESS", KF_COMPRESS}, {"KT_CHAR", KT_CHAR},       {"KT_INT", KT_INT},
      {"KT_LONG", KT_LONG},         {"KT_DOUBLE", KT_DOUBLE},   {"KT_FLOAT", KT_FLOAT},
      {"KT_LOCALE", KT_LOCALE},     {"KT_DESC", KT_DESC},       {"MAXPARTS", MAXPARTS}};
  for (const auto& [name, value] : modes) module.attr(name) = value;
}

}  // namespace

void fill_module(py::module_& module) {
  watch_forks();
  py::register_exception_translator(&translate);
  add_layouts(module);
  add_open(module);
  add_scan(module);
  add_calls(module);
  add_modes(module);
}

}  // namespace zentra_module

PYBIND11_MODULE(_zentra, module) { zentra_module::fill_module(module); }
