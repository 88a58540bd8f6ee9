#include "isam/files/dictionary.h"

#include <cerrno>

#include "common/io.h"
#include "environment/settings.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"

namespace isam {
namespace {

bool other_lock_method_accepted() {
  static const bool accepted = environment::lookup("RESETLOCK").has_value();
  return accepted;
}

}  // namespace

int dictread() {
  const ssize_t got = filep->index.map.read(filep->index.fd, dictp->raw, 0);
  if (got < 0) return failed_system(errno, Operation::kRead, FileKind::kIndex);
  if (got < kDictionarySize) return failed(kCorrupted);
  const int stored_size = dictp->d_idxsize();
  const int method = dictp->d_lockmethod();
  if (dictp->d_magic() != kDictionaryMagic || !dictp->fixed_bytes_match() ||
      stored_size < kMinStoredNodeSize || stored_size > kMaxStoredNodeSize) {
    // A larger size that is even, too, is one of a later format.
    const bool later_format = stored_size > kMaxStoredNodeSize && stored_size % 2 == 0;
    return failed(later_format ? kFormatChange : kCorrupted);
  }
  if (method == 0 || method == kLockMethod || other_lock_method_accepted()) return 0;
  return failed(method < kLockMethod ? kFormatChange : kCorrupted);
}

int dictwrite() {
  if (common::write_at(filep->index.fd, dictp->raw, 0) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kIndex);
  }
  filep->unwritten.dictionary = false;
  filep->unwritten.calls = 0;
  return 0;
}

}  // namespace isam
