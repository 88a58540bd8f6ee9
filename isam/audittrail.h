// audittrail: the name of a file's audit trail.
#pragma once

#include <string>

namespace isam {

// The trail's file name, as it stands in a node of the current file; empty when there is none.
[[nodiscard]] std::string audit_trail_name();

}  // namespace isam
