// isaudit: isaudit.
#include <cerrno>
#include <cstring>

#include "common/holders.h"
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/traced.h"
#include "isam/files/descriptor.h"
#include "isam/files/files.h"
#include "isam/log/audit.h"

namespace isam::txlog {
namespace {

bool has_trail() { return dictp->d_auditnode() != 0; }

void switch_trail(bool on) {
  dictp->set_d_audit(dictp->d_auditnode(), on);
  dictmodify();
}

// An existing file becomes the trail as it is.
int create_trail(const char* name) {
  if (makefile(name, FileKind::kAudit) != 0 && iserrno != EEXIST) {
    iserrio = 0;
    return failed(kBadArgument);
  }
  clear_errors();
  return 0;
}

int define_name(const char* name) {
  const std::size_t length = ::strnlen(name, kMaxTrailName + 1);
  if (dictp->d_audits() || length > kMaxTrailName) return failed(kBadArgument);
  if (length > 0 && create_trail(name) != 0) return -1;
  return set_audit_trail_name({name, length}) == 0 ? 0 : failed_unless_set(kBadArgument);
}

// `to` has room for kMaxTrailName + 1 bytes.
int tell_name(char* to) {
  const std::string name = has_trail() ? audit_trail_name() : std::string{};
  if (name.empty()) return failed_unless_set(kBadArgument);
  std::memcpy(to, name.c_str(), name.size() + 1);
  return 0;
}

int switch_on() {
  if (!has_trail()) return failed(kBadArgument);
  filep->lists_numbers = false;
  switch_trail(true);
  return 0;
}

int switch_off() {
  if (dictp->d_audits()) close_trail(*filep);
  switch_trail(false);
  return 0;
}

// Does what `mode` asks for: 0, or -1 with iserrno. An unknown mode does nothing.
int run(char* name, int mode) {
  const bool needs_name = mode == AUDSETNAME || mode == AUDGETNAME || mode == AUDINFO;
  if (needs_name && name == nullptr) return failed(kBadArgument);
  switch (mode) {
    case AUDSETNAME:
      return define_name(name);
    case AUDGETNAME:
      return tell_name(name);
    case AUDSTART:
      return switch_on();
    case AUDRECVR:
      filep->lists_numbers = true;
      [[fallthrough]];
    case AUDSTOP:
      return switch_off();
    case AUDINFO:
      *name = dictp->d_audits() ? 1 : 0;
      return 0;
    default:
      return 0;
  }
}

}  // namespace
}  // namespace isam::txlog

using namespace isam;

static int audit_call(int isfd, char* name, int mode) {
  const bool looks = mode == AUDGETNAME || mode == AUDINFO;
  Call call{isfd, {.access = looks ? Access::kToRead : Access::kToWrite, .shared = looks}};
  if (!call) return -1;
  txlog::run(name, mode);
  return call.end();
}

extern "C" int isaudit(int isfd, char* name, int mode) {
  return traced("isaudit", isfd, name, mode == AUDSETNAME ? Carries::kName : Carries::kNothing,
                [=] { return audit_call(isfd, name, mode); });
}
