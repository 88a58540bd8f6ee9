#include "isam/log/audit.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <vector>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/log/logfile.h"
#include "isam/pool/buffers.h"
#include "isam/records/freelists.h"

namespace isam::txlog {
namespace {

constexpr int kNameOffset = 4;
constexpr Byte kNewline = '\n';

// Bytes of a node that a name and its zero byte may take.
std::size_t room_for_name() {
  const int room = node_type_offset(filep->geometry.idxsize) - kNameOffset;
  return std::min<std::size_t>(kMaxTrailName + 1, static_cast<std::size_t>(room));
}

int write_name(std::int32_t node, std::string_view name) {
  PageHold page = bfgetclr(node);
  if (!page) return -1;
  page.set_used(static_cast<int>(name.size()) + kNameOffset + 1);
  std::memcpy(page.data() + kNameOffset, name.data(), name.size());
  return 0;
}

// The entry's bytes, in memory that is kept for the next one; empty without memory.
ConstBytes build_entry(AuditLetter letter, std::int32_t number, ConstBytes record) {
  using namespace audit_entry;
  static std::vector<Byte> entry;
  const std::size_t header = filep->geometry.varlen ? kVariableHeader : kFixedHeader;
  try {
    entry.resize(header + record.size() + 1);
  } catch (const std::bad_alloc&) {
    return {};
  }
  Byte* const at = entry.data();
  at[kLetters] = at[kLetters + 1] = static_cast<Byte>(letter);
  common::stlong(static_cast<std::int32_t>(std::time(nullptr)), at + kTime);
  common::stword(openp->process, at + kProcess);
  common::stword(openp->user, at + kUser);
  common::stlong(number, at + kNumber);
  if (filep->geometry.varlen) {
    common::stword(static_cast<std::uint32_t>(record.size() + 1), at + kLength);
  }
  common::copy_bytes(record, at + header);
  entry.back() = kNewline;
  return entry;
}

// What a failure of the trail gives: -1, but 0 in a rollback or a recovery, with iserrno cleared.
int failed_unless_records_matter_more() {
  if (!logstate.in_rollback && !logstate.in_recovery) return -1;
  clear_errors();
  return 0;
}

int append_entry(ConstBytes entry) {
  if (entry.empty()) return failed(kNoMemory);
  std::int64_t end = 0;
  const bool found = common::find_end(filep->trail_fd, end) == 0;
  if (found && common::write_at(filep->trail_fd, entry, end) == 0) return 0;
  const int reason = errno;
  // Half an entry would make what follows unreadable.
  if (found) common::cut_file(filep->trail_fd, end);
  return failed_system(reason, Operation::kWrite, FileKind::kAudit);
}

}  // namespace

std::string audit_trail_name() {
  const std::int32_t node = dictp->d_auditnode();
  if (node < 2 || node > dictp->d_nextnode()) return {};
  const PageHold page = bfread(node);
  if (!page) return {};
  const char* const text = reinterpret_cast<const char*>(page.data() + kNameOffset);
  const std::size_t length = ::strnlen(text, room_for_name());
  return length < room_for_name() ? std::string{text, length} : std::string{};
}

int set_audit_trail_name(std::string_view name) {
  std::int32_t node = dictp->d_auditnode();
  if (name.empty()) {
    if (node != 0 && freerec(node, FreeList::kNodes) != 0) return -1;
    node = 0;
  } else {
    if (name.size() >= room_for_name()) return failed(kBadArgument);
    if (node == 0) node = allocrec(FreeList::kNodes);
    if (node < 0 || write_name(node, name) != 0) return -1;
  }
  dictp->set_d_audit(node, dictp->d_audits());
  dictmodify();
  return 0;
}

int audopen() {
  if (!dictp->d_audits() || filep->trail_fd >= 0) return 0;
  if (open_trail(audit_trail_name()) == 0) return 0;
  return failed_unless_records_matter_more();
}

int append_to_trail(AuditLetter letter, std::int32_t number, ConstBytes record) {
  if (append_entry(build_entry(letter, number, record)) == 0) return 0;
  return failed_unless_records_matter_more();
}

void keep_unaudited() {
  filep->call.keeps_changes = true;
  logstate.change_logged = false;
}

}  // namespace isam::txlog
