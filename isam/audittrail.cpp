#include "isam/audittrail.h"

#include <algorithm>
#include <cstring>

#include "isam/buffers.h"
#include "isam/errors.h"

namespace isam {
namespace {

constexpr int kNameOffset = 4;
constexpr int kMaxName = 127;

}  // namespace

std::string audit_trail_name() {
  const std::int32_t node = dictp->d_auditnode();
  if (node < 2 || node > dictp->d_nextnode()) return {};
  const PageHold page = bfread(node);
  if (!page) return {};
  const char* const text = reinterpret_cast<const char*>(page.data() + kNameOffset);
  const int room = std::min(kMaxName + 1, node_type_offset(filep->idxsize) - kNameOffset);
  const std::size_t length = ::strnlen(text, static_cast<std::size_t>(room));
  return length <= kMaxName ? std::string{text, length} : std::string{};
}

}  // namespace isam
