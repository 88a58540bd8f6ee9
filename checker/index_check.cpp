// index_check: every index of the file, and what is to be done about the bad ones.
//
// Needs   datmap from the data check
// Gives   idxflag, one verdict per index; the nodes of kept indexes marked in idxmap. Of an index
//         to be remade only the root stays marked, of one to be deleted nothing.
#include "checker/checks.h"
#include "checker/dialogue.h"
#include "checker/findings.h"
#include "checker/listing.h"
#include "checker/tree_check.h"
#include "isam/errors.h"
#include "isam/keychain.h"
#include "isam/keys.h"

namespace checker {
namespace {

using isam::dictp;

void report_count(Message message, std::int32_t count) {
  if (count != 0) errn(message, count);
}

void report_tree(const TreeFindings& found, std::int32_t misdata) {
  report_count(Message::kBadNodePointers, found.badindx);
  report_count(Message::kDuplicateNodePointers, found.dupindx);
  report_count(Message::kBadRecordPointers, found.baddata);
  report_count(Message::kDuplicateRecordPointers, found.dupdata);
  report_count(Message::kMissingRecordPointers, misdata);
  if (found.badorder) err(Message::kOutOfOrder);
}

IndexVerdict ask_about_bad_index(std::int32_t root) {
  if (!ask(Message::kDeleteIndex)) return IndexVerdict::kKeep;
  findings.idxmap2.clrmap();
  if (!ask(Message::kRemakeIndex)) return IndexVerdict::kDelete;
  if (root >= 1 && root <= findings.idxlast) findings.idxmap2.set_bit(root);
  return IndexVerdict::kRemake;
}

IndexVerdict check_index(int n, const keydescr& k) {
  prtindex(n, k);
  findings.idxmap2.clrmap();
  findings.datmap2.clrmap();
  TreeFindings found;
  if (k.nparts > 0) found = TreeCheck{k, findings.datmap.cntmap()}.run();
  print(Message::kNodesUsed, {std::int64_t{found.cntindx}});
  print_line(Message::kLevelsUsed, {std::int64_t{found.maxlevel} + 1});
  if (k.nparts == 0) return IndexVerdict::kKeep;

  const std::int32_t misdata = findings.datmap.cntmap() - findings.datmap2.cntmap();
  const bool faulty = found.badindx != 0 || found.dupindx != 0 || found.baddata != 0 ||
                      found.dupdata != 0 || misdata != 0 || found.badorder;
  if (faulty) report_tree(found, misdata);
  const IndexVerdict verdict =
      faulty || found.badindex ? ask_about_bad_index(k.rootnode) : IndexVerdict::kKeep;
  findings.idxmap.ormap(findings.idxmap2);
  if (verdict == IndexVerdict::kKeep) findings.keptmap.ormap(findings.idxmap2);
  return verdict;
}

void settle_index_count(int counted) {
  if (counted == dictp->d_nkeys()) return;
  err(Message::kBadIndexCount);
  if (!ask(Message::kFixNumber)) return;
  findings.count_is_fixed = true;
  dictp->set_d_nkeys(counted);
  isam::dictmodify();
}

}  // namespace

bool ckindex() {
  print_line(Message::kCheckingIndexes);
  findings.keptmap.ormap(findings.idxmap);
  isam::KeyChain chain;
  keydescr k{};
  for (int n = 1;; ++n) {
    switch (chain.next(k)) {
      case isam::KeyChain::Step::kFound:
        break;
      case isam::KeyChain::Step::kMalformed:
        pass_over_error();
        err(Message::kBadKeyFormat);
        return false;
      case isam::KeyChain::Step::kEnd:
      case isam::KeyChain::Step::kUnreadable:
        pass_over_error();
        settle_index_count(n - 1);
        return true;
    }
    if (k.nparts > 0 && isam::kylegal(k, isam::filep->reclen) != 0) {
      isam::clear_errors();
      err(Message::kBadKeyFormat);
      return false;
    }
    findings.idxflag.push_back(IndexVerdict::kKeep);
    findings.idxflag.back() = check_index(n, k);
  }
}

}  // namespace checker
