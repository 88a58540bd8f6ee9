// tempname: names for pairs that exist only during a call.
#pragma once

#include <string>
#include <string_view>

namespace isam {

struct TemporaryNames {
  std::string first;
  std::string second;
};

// Sets `names` to two base names that no file has, in the folder of the pair `name`: false when
// there are none left.
[[nodiscard]] bool ismkname(std::string_view name, TemporaryNames& names);

}  // namespace isam
