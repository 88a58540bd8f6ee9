// dictionary_check: the dictionary against the sizes of the two files.
//
// Tests   record and node sizes, the locking method, the chain of key-description nodes
// Gives   idxlast, datlast, cleared maps, and the dictionary's own nodes marked in idxmap
#include <sys/stat.h>

#include <algorithm>

#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/findings.h"
#include "checker/listnode.h"
#include "common/io.h"
#include "isam/buffers.h"

namespace checker {

Findings findings;

namespace {

using isam::dictp;
using isam::filep;

bool node_size_is_valid() {
  filep->idxsize = dictp->d_idxsize();
  print_line(Message::kNodeSize, {std::int64_t{filep->idxsize} + 1});
  print_line(Message::kCurrentNodeSize, {std::int64_t{isam::kPageSize}});
  if (filep->idxsize >= isam::kMinStoredNodeSize && filep->idxsize <= isam::kMaxStoredNodeSize) {
    return true;
  }
  err(Message::kBadNodeSize);
  return false;
}

bool lock_method_is_settled() {
  if (dictp->d_lockmethod() == isam::kLockMethod) return true;
  if (dictp->d_lockmethod() != 0 && !ask(Message::kForceLockMethod)) {
    err(Message::kLockMethodDisagrees);
    return false;
  }
  dictp->set_d_lockmethod(isam::kLockMethod);
  isam::dictmodify();
  return true;
}

bool record_sizes_are_valid() {
  filep->reclen = dictp->d_recsize();
  if (filep->reclen <= 0) {
    err(Message::kBadRecordSize);
    return false;
  }
  filep->maxreclen = dictp->d_maxrecsize();
  if (filep->maxreclen < 0) {
    err(Message::kBadMaximumSize);
    return false;
  }
  filep->varlen = filep->maxreclen != 0;
  if (!filep->varlen) filep->maxreclen = filep->reclen;
  findings.varlen = filep->varlen;
  return true;
}

bool is_regular(int fd) {
  struct stat status {};
  return common::system_calls().fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

std::int32_t number_of(std::int64_t count) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(count, 0, INT32_MAX - 1));
}

// The highest number to check: the dictionary's, or the regular file's own when that is larger.
std::int32_t last_number(std::int32_t claimed, std::int32_t real, int fd) {
  const std::int32_t floor = std::max(claimed, 0);
  return is_regular(fd) ? std::max(floor, real) : floor;
}

void take_extents() {
  const std::int64_t index_bytes = common::file_size(filep->idxfd);
  findings.idxreal = number_of(index_bytes / isam::node_size());
  findings.idxlast = last_number(dictp->d_nextnode(), findings.idxreal, filep->idxfd);

  const std::int64_t data_bytes = common::file_size(filep->datfd);
  const int slot = isam::slot_size();
  // A record past the end is one whose state byte the file does not reach.
  const std::int64_t behind_first_record = data_bytes - filep->reclen - 1;
  findings.datreal = behind_first_record < 0 ? 0 : number_of(behind_first_record / slot + 1);
  findings.datlast = last_number(dictp->d_nextdata(), number_of(data_bytes / slot), filep->datfd);
}

void clear_maps() {
  for (UsageMap* map : {&findings.idxmap, &findings.keptmap, &findings.idxmap2, &findings.rpgmap}) {
    map->reset(findings.idxlast);
  }
  for (UsageMap* map : {&findings.datmap, &findings.datmap2}) map->reset(findings.datlast);
  findings.idxflag.assign(1, IndexVerdict::kKeep);
  findings.count_is_fixed = findings.data_misfits = false;
}

void mark_dictionary_nodes() {
  if (findings.idxlast >= 1) findings.idxmap.set_bit(1);
  const std::int32_t audit = dictp->d_auditnode();
  if (audit >= 1 && audit <= findings.idxlast) findings.idxmap.set_bit(audit);
}

bool key_nodes_are_valid() {
  for (std::int32_t node = dictp->d_keysnode(); node != 0;) {
    if (node < 1 || node > findings.idxlast) {
      err(Message::kBadKeyNode);
      return false;
    }
    if (findings.idxmap.set_bit(node)) {
      err(Message::kDuplicateKeyNode);
      return false;
    }
    const isam::PageHold page = isam::bfread(node);
    if (!page) {
      report_unreadable_node();
      return true;
    }
    node = common::ldlong(page.data() + isam::kLinkOffset);
  }
  return true;
}

}  // namespace

bool ckdict() {
  print_line(Message::kCheckingDictionary);
  if (dictp->d_magic() != isam::kDictionaryMagic) {
    err(Message::kBadMagic);
    return false;
  }
  if (!node_size_is_valid() || !lock_method_is_settled() || !record_sizes_are_valid()) {
    return false;
  }
  take_extents();
  clear_maps();
  mark_dictionary_nodes();
  return key_nodes_are_valid();
}

}  // namespace checker
