// Marks without which the library refuses a node, though kestro follows it.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "checker/usagemap.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/log/audit.h"
#include "isam/pool/nodechain.h"
#include "zentra/check/deep.h"
#include "zentra/pair/readpair.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

struct EveryPage : checker::ListedOnce {
  [[nodiscard]] static bool is_sound(const isam::PageHold& /*page*/) { return true; }
};
using Chain = isam::NodeChain<EveryPage>;

bool is_list_node(const isam::PageHold& page, isam::NodeType type) {
  const int entries = page.used() - isam::kEntriesOffset;
  return page.node_type() == type && page.level() == isam::kFreeLevel && entries >= 0 &&
         entries % isam::kListEntrySize == 0 &&
         page.used() < isam::node_type_offset(filep->geometry.idxsize);
}

bool is_key_node(const isam::PageHold& page) {
  return page.node_type() == isam::kServiceNode && page.level() == isam::kKeyLevel;
}

template <typename Rule>
void check_chain(const checker::Check& check, Collector& collector, std::int32_t head, Rule is_one,
                 const char* code, const char* what) {
  Chain chain{head, {checker::ListedOnce{check.idxlast}}};
  while (const isam::PageHold page = chain.read()) {
    if (!is_one(page)) {
      collector.add(
          {.code = code,
           .status = Status::kDamaged,
           .text = fmt::format("node {} lacks the marks of a node of {}", page.node(), what),
           .fields = {{"node", std::int64_t{page.node()}}}});
    }
    chain.follow(page);
  }
  collector.pass_over_error();
}

// A name matters only while the trail is on; but switching it on or off writes to the node.
void check_audit_node(const checker::Check& check, DeepCollector& collector) {
  const std::int32_t node = dictp->d_auditnode();
  const bool in_range = node >= 2 && node <= dictp->d_nextnode();
  const bool names_trail = !dictp->d_audits() || !isam::txlog::audit_trail_name().empty();
  collector.pass_over_error();
  const bool is_page = in_range && node <= check.idxlast && check.rpgmap.tstbit(node);
  const bool is_shared = collector.audit_is_tree_node() || is_page || node == 1;
  const bool is_none = node == 0 && !dictp->d_audits();
  if (is_none || (in_range && names_trail && !is_shared)) return;
  collector.add(
      {.kind = dictp->d_audits() || is_shared ? Entry::Kind::kFinding : Entry::Kind::kNote,
       .code = "audit.node",
       .status = Status::kDamaged,
       .text = fmt::format("node {} does not hold the name of an audit trail", node),
       .fields = {{"node", std::int64_t{node}}}});
}

// Nobody has the pair open exclusively while it is checked: whoever has set the mark is gone.
void check_mark(Collector& collector) {
  isam::Byte mark[isam::kMarkSize] = {};
  if (common::read_at(filep->index.fd, mark, isam::kMarkOffset) < 0) {
    return collector.unfinished(errno);
  }
  if (common::ldlong(mark) != isam::kMarkMagic) return;
  const std::int32_t process = common::ldlong(mark + isam::kMarkProcess);
  collector.add({.code = "pair.unfinished",
                 .status = Status::kDamaged,
                 .text = fmt::format("process {} ended before it had written all its changes; "
                                     "programs cannot open the pair",
                                     process),
                 .fields = {{"process", std::int64_t{process}}}},
                /*heals=*/true);
}

}  // namespace

void check_marks(const checker::Check& check, DeepCollector& collector) {
  const auto is_of = [](isam::NodeType type) {
    return [type](const isam::PageHold& page) { return is_list_node(page, type); };
  };
  check_chain(check, collector, dictp->d_keysnode(), is_key_node, kKeyNodeMarks,
              "key descriptions");
  check_chain(check, collector, dictp->d_freedata(), is_of(isam::kServiceNode),
              "record-list.node-marks", "the list of free records");
  check_chain(check, collector, dictp->d_freenode(), is_of(isam::kIndexFreeNode),
              "node-list.node-marks", "the list of free nodes");
  check_audit_node(check, collector);
  check_mark(collector);
}

}  // namespace zentra
