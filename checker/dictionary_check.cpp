// dictionary_check: the dictionary against the sizes of the two files.
//
// Tests   the magic, record and node sizes, the locking method, the chain of key-description nodes
// Gives   the sizes of nodes and records in filep; idxlast, datlast, idxreal, datreal and varlen;
//         cleared maps, and in idxmap the nodes of the dictionary, of the audit trail's name and of
//         the key descriptions
#include <sys/stat.h>

#include <algorithm>

#include "checker/checks.h"
#include "common/io.h"
#include "isam/pool/nodechain.h"

namespace checker {
namespace {

using isam::dictp;
using isam::filep;

// Tells the node size, takes it into filep and tests it.
bool node_size_is_valid(Check& check) {
  filep->geometry.idxsize = dictp->d_idxsize();
  check.listener.fact(Fact::kNodeSize, std::int64_t{filep->geometry.idxsize} + 1);
  check.listener.fact(Fact::kCurrentNodeSize, isam::kPageSize);
  if (filep->geometry.idxsize >= isam::kMinStoredNodeSize &&
      filep->geometry.idxsize <= isam::kMaxStoredNodeSize) {
    return true;
  }
  check.found(Code::kBadNodeSize, {.found = std::int64_t{filep->geometry.idxsize} + 1});
  return false;
}

// Whether the dictionary has the current method by now: 0 is replaced without a question, any other
// when the operator wants it.
bool lock_method_is_settled(Check& check) {
  if (dictp->d_lockmethod() == isam::kLockMethod) return true;
  if (dictp->d_lockmethod() != 0 && !check.ask(Question::kLockMethod)) {
    check.found(Code::kOtherLockMethod,
                {.found = dictp->d_lockmethod(), .expected = isam::kLockMethod});
    return false;
  }
  dictp->set_d_lockmethod(isam::kLockMethod);
  isam::dictmodify();
  return true;
}

// Takes the sizes into filep and tests them; a file is of variable length when its greatest size is
// not 0.
bool record_sizes_are_valid(Check& check) {
  filep->geometry.reclen = dictp->d_recsize();
  if (filep->geometry.reclen <= 0) {
    check.found(Code::kBadRecordSize, {.found = filep->geometry.reclen});
    return false;
  }
  filep->geometry.maxreclen = dictp->d_maxrecsize();
  if (filep->geometry.maxreclen < 0) {
    check.found(Code::kBadMaximumSize, {.found = filep->geometry.maxreclen});
    return false;
  }
  filep->geometry.varlen = filep->geometry.maxreclen != 0;
  if (!filep->geometry.varlen) filep->geometry.maxreclen = filep->geometry.reclen;
  check.varlen = filep->geometry.varlen;
  return true;
}

bool is_regular(int fd) {
  struct stat status {};
  return common::system_calls().fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// A count from a file's size as a number that can be counted past without overflow.
std::int32_t number_of(std::int64_t count) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(count, 0, INT32_MAX - 1));
}

// The highest number to check: the one that the dictionary claims, or what the file has room for
// when that is more. Of anything but a regular file the room says nothing: a device has its own
// size.
std::int32_t last_number(std::int32_t claimed, std::int32_t room, int fd) {
  const std::int32_t least = std::max(claimed, 0);
  return is_regular(fd) ? std::max(least, room) : least;
}

void take_extents(Check& check) {
  const std::int64_t index_bytes = common::file_size(filep->index.fd);
  check.idxreal = number_of(index_bytes / isam::node_size());
  check.idxlast = last_number(dictp->d_nextnode(), check.idxreal, filep->index.fd);

  const std::int64_t data_bytes = common::file_size(filep->data.fd);
  const int slot = isam::slot_size();
  // datreal counts a record when the file has its state byte, which stands behind the record's
  // bytes: the rest of the last slot may be missing. datlast counts whole slots only.
  const std::int64_t behind_first_state = data_bytes - filep->geometry.reclen - 1;
  check.datreal = behind_first_state < 0 ? 0 : number_of(behind_first_state / slot + 1);
  check.datlast = last_number(dictp->d_nextdata(), number_of(data_bytes / slot), filep->data.fd);
}

void clear_maps(Check& check) {
  for (UsageMap* map : {&check.idxmap, &check.keptmap, &check.idxmap2, &check.rpgmap}) {
    map->reset(check.idxlast);
  }
  for (UsageMap* map : {&check.datmap, &check.datmap2}) map->reset(check.datlast);
  check.idxflag.assign(1, IndexVerdict::kKeep);
  check.sized = true;
}

void mark_dictionary_nodes(Check& check) {
  if (check.idxlast >= 1) check.idxmap.set_bit(1);
  const std::int32_t audit = dictp->d_auditnode();
  if (audit >= 1 && audit <= check.idxlast) check.idxmap.set_bit(audit);
}

// The rule of the chain of key descriptions: its nodes serve for nothing else.
struct KeyNodes {
  Check& check;

  [[nodiscard]] bool may_name(std::int32_t node) const {
    return node >= 1 && node <= check.idxlast;
  }
  [[nodiscard]] bool has_met(std::int32_t node) const { return check.idxmap.set_bit(node); }
  [[nodiscard]] static bool is_sound(const isam::PageHold& /*page*/) { return true; }
};

// Follows the chain of key-description nodes and marks each as used. A node that cannot be read is
// told and ends the walk, but not the check: when the indexes are checked it is met again.
bool key_nodes_are_valid(Check& check) {
  isam::NodeChain<KeyNodes> nodes{dictp->d_keysnode(), {check}};
  while (const isam::PageHold page = nodes.read()) nodes.follow(page);
  switch (nodes.end()) {
    case isam::ChainEnd::kOutOfRange:
      check.found(Code::kKeyNodeBad, {.node = nodes.node()});
      return false;
    case isam::ChainEnd::kMetTwice:
      check.found(Code::kKeyNodeDuplicate, {.node = nodes.node()});
      return false;
    case isam::ChainEnd::kUnreadable:
      check.report_unreadable_node();
      return true;
    default:
      return true;
  }
}

}  // namespace

bool ckdict(Check& check) {
  check.listener.begins(Pass::kDictionary);
  if (dictp->d_magic() != isam::kDictionaryMagic) {
    check.found(Code::kBadMagic, {.found = dictp->d_magic(), .expected = isam::kDictionaryMagic});
    return false;
  }
  if (!node_size_is_valid(check) || !lock_method_is_settled(check) ||
      !record_sizes_are_valid(check)) {
    return false;
  }
  take_extents(check);
  clear_maps(check);
  mark_dictionary_nodes(check);
  return key_nodes_are_valid(check);
}

}  // namespace checker
