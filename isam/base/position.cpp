#include "isam/base/position.h"

#include <algorithm>

namespace isam {

Position& Position::operator=(const Position& other) {
  if (this == &other) return *this;
  state = other.state;
  item = other.item;
  depth = other.depth;
  ends = other.ends;
  std::copy_n(other.path.begin(), depth + 1, path.begin());
  return *this;
}

}  // namespace isam
