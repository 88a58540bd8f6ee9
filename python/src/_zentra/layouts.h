// layouts: fields of layouts, as Python has them.
#pragma once

#include <pybind11/pybind11.h>

#include "open.h"

namespace zentra_module {

void add_layouts(pybind11::module_& module);

}  // namespace zentra_module
