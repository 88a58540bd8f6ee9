// index_check: every index of the file, and what is to be done about the bad ones.
//
// Needs   datmap from the data check
// Gives   idxflag, one verdict per index; in idxmap the nodes of kept indexes, and of one to be
//         remade the root; in keptmap all that stays as it is: what idxmap held before, and the
//         nodes of kept indexes
#include "checker/checks.h"
#include "checker/tree_check.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"

namespace checker {
namespace {

using isam::dictp;

// Tells the records present that no item points to, for a listener that wants details.
void tell_missing_records(const Check& check, int n, const keydescr& k) {
  if (!check.listener.wants_details()) return;
  for (std::int32_t record = check.datmap.next_set(1); record != 0;
       record = record == INT32_MAX ? 0 : check.datmap.next_set(record + 1)) {
    if (check.datmap2.tstbit(record)) continue;
    check.tell({.code = Code::kIndexRecordMissing, .key = n, .record = record, .described = &k});
  }
}

// Tells what was counted. `misdata` is the number of records present that no item points to.
void report_tree(Check& check, int n, const TreeFindings& found, std::int32_t misdata) {
  const auto report = [&](Code code, std::int32_t count) {
    if (count != 0) check.found(code, {.key = n, .found = count});
  };
  report(Code::kIndexNodeBad, found.badindx);
  report(Code::kIndexNodeDuplicate, found.dupindx);
  report(Code::kIndexRecordBad, found.baddata);
  report(Code::kIndexRecordDuplicate, found.dupdata);
  report(Code::kIndexRecordMissing, misdata);
  if (found.badorder) check.found(Code::kIndexOutOfOrder, {.key = n});
}

// Asks what becomes of a bad index, and leaves in idxmap2 the nodes that it will need: all that
// were met when it is kept, the root when it is remade, none when it is deleted.
IndexVerdict ask_about_bad_index(Check& check, std::int32_t root) {
  if (!check.ask(Question::kDeleteIndex)) return IndexVerdict::kKeep;
  check.idxmap2.clrmap();
  if (!check.ask(Question::kRemakeIndex)) return IndexVerdict::kDelete;
  // A root that may hold bytes of records gives way to a fresh one. Without a supervisor it is left
  // for the next run to free.
  const bool gives_way = check.supervisor != nullptr && holds_parts(root);
  if (root >= 1 && root <= check.idxlast && !gives_way) check.idxmap2.set_bit(root);
  return IndexVerdict::kRemake;
}

IndexVerdict check_index(Check& check, int n, const keydescr& k) {
  check.listener.index_begins(n, k);
  check.idxmap2.clrmap();
  check.datmap2.clrmap();
  TreeFindings found;
  if (k.nparts > 0) found = TreeCheck{check, n, k}.run();
  check.listener.index_walked(found.cntindx, found.maxlevel + 1);
  // An index without parts stands for the order of record numbers. It has no tree: the listener has
  // been told of 0 nodes on 1 level.
  if (k.nparts == 0) return IndexVerdict::kKeep;

  const std::int32_t misdata = check.datmap.cntmap() - check.datmap2.cntmap();
  const bool faulty = found.badindx != 0 || found.dupindx != 0 || found.baddata != 0 ||
                      found.dupdata != 0 || misdata != 0 || found.badorder;
  if (misdata != 0) tell_missing_records(check, n, k);
  if (faulty) report_tree(check, n, found, misdata);
  // A node that could not be read or taken apart is in none of the counts: the walk has told it.
  const bool has_bad_node = found.badindex;
  const bool is_wanted_anew = check.supervisor != nullptr && check.supervisor->remakes(n);
  const IndexVerdict verdict = faulty || has_bad_node || is_wanted_anew
                                   ? ask_about_bad_index(check, k.rootnode)
                                   : IndexVerdict::kKeep;
  check.idxmap.ormap(check.idxmap2);
  if (verdict == IndexVerdict::kKeep) check.keptmap.ormap(check.idxmap2);
  return verdict;
}

void repair_index_count(Check& check, int counted) {
  if (counted == dictp->d_nkeys()) return;
  check.found(Code::kBadIndexCount, {.found = dictp->d_nkeys(), .expected = counted});
  if (!check.ask(Question::kIndexCount)) return;
  check.count_is_fixed = true;
  dictp->set_d_nkeys(counted);
  isam::dictmodify();
}

}  // namespace

bool ckindex(Check& check) {
  check.listener.begins(Pass::kIndexes);
  check.keptmap.ormap(check.idxmap);  // what the dictionary, descriptions and records use
  isam::KeyChain chain;
  keydescr k{};
  for (int n = 1;; ++n) {
    switch (chain.next(k)) {
      case isam::KeyChain::Step::kFound:
        break;
      case isam::KeyChain::Step::kMalformed:
        check.pass_over_error();
        check.found(Code::kBadKeyDescription, {.key = n});
        return false;
      case isam::KeyChain::Step::kEnd:
      case isam::KeyChain::Step::kUnreadable:
        // ckdict has told of a node that cannot be read: the indexes before it are all that count.
        check.pass_over_error();
        repair_index_count(check, n - 1);
        return true;
    }
    if (k.nparts > 0 && isam::kylegal(k, isam::filep->geometry.reclen) != 0) {
      isam::clear_errors();
      check.found(Code::kBadKeyDescription, {.key = n});
      return false;
    }
    check.idxflag.push_back(check_index(check, n, k));
  }
}

}  // namespace checker
