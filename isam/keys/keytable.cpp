#include "isam/keys/keytable.h"

#include <new>

#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"

namespace isam {
namespace {

// Whether the library can work with an index. The chain has seen no more than that its description
// is well formed.
bool usable(keydescr& k) {
  const bool fits = k.nparts == 0 || kylegal(k, filep->geometry.reclen) == 0;
  return fits && (k.nparts == 0 || k.rootnode > 0);
}

int load() {
  filep->cached.keys.clear();
  filep->cached.keys_generation = 0;
  KeyChain chain;
  keydescr k{};
  KeyChain::Step step;
  while ((step = chain.next(k)) == KeyChain::Step::kFound) {
    if (!usable(k) || filep->cached.keys.size() == kMostDescriptions) return failed(kCorrupted);
    filep->cached.keys.push_back(k);
  }
  if (step != KeyChain::Step::kEnd) return failed_unless_set(kCorrupted);
  filep->cached.keys_generation = filep->cached.generation;
  return 0;
}

[[gnu::noinline]] const std::vector<keydescr>* loaded_keys() {
  try {
    return load() == 0 ? &filep->cached.keys : nullptr;
  } catch (const std::bad_alloc&) {
    failed(kNoMemory);
    return nullptr;
  }
}

}  // namespace

const std::vector<keydescr>* file_keys() {
  const Cached& cached = filep->cached;
  return cached.keys_generation == cached.generation ? &cached.keys : loaded_keys();
}

}  // namespace isam
