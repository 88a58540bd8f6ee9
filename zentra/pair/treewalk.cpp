#include "zentra/pair/treewalk.h"

#include "checker/checks.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"

namespace zentra {

std::vector<keydescr> indexes_of_pair() {
  std::vector<keydescr> indexes;
  isam::KeyChain chain;
  keydescr k{};
  while (chain.next(k) == isam::KeyChain::Step::kFound) {
    if (k.nparts > 0 && isam::kylegal(k, isam::filep->geometry.reclen) != 0) break;
    indexes.push_back(k);
  }
  isam::clear_errors();
  return indexes;
}

std::optional<checker::TreeFindings> walk_tree(checker::Listener& listener, int n,
                                               const keydescr& k) {
  const checker::Options options{.nflag = 1, .qflag = 1};
  checker::Check check(options, listener);
  static_cast<void>(checker::ckdict(check));
  isam::clear_errors();
  if (!check.sized) return {};
  check.idxmap2.clrmap();
  if (check.datlast >= 1) check.datmap.setmap(1, check.datlast);
  const checker::TreeFindings found = checker::TreeCheck{check, n, k}.run();
  isam::clear_errors();
  return found;
}

}  // namespace zentra
