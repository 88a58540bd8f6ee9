// tempname: names for pairs that exist only during a call.
#pragma once

#include <string>
#include <string_view>

namespace isam {

struct TemporaryNames {
  std::string first;
  std::string second;
};

// Two base names beside the pair `name` that no file has: false when there are none left.
[[nodiscard]] bool ismkname(std::string_view name, TemporaryNames& names);

}  // namespace isam
