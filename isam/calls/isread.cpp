// isread: isstart and isread.
#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/cursor.h"
#include "isam/calls/reading.h"
#include "isam/calls/recordcalls.h"
#include "isam/calls/scanahead.h"
#include "isam/calls/traced.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"

namespace isam {
namespace {

// Completes `k`, the index meant by a start at an edge or at a key of `len` bytes: 0, or -1 with
// 102 or 103. At an edge of the current index `len` does not matter.
int selected_key(keydescr& k, int len, bool edge) {
  if (len < 0 && !edge) return failed(kBadArgument);
  const bool is_current = kycompare(k, openp->key) == 0;
  if (is_current) {
    k.flags = openp->key.flags;
    k.keylen = openp->key.keylen;
    k.rootnode = openp->key.rootnode;
  } else if (k.nparts == 0) {
    k = keydescr{};
  } else if (kysearch(k, 0) < 0) {
    return failed_unless_set(kBadKey);
  }
  if (k.nparts == 0 || (edge && is_current)) return 0;
  return len >= 0 && len <= k.keylen && kyckstart(k, len) == 0 ? 0 : failed(kBadArgument);
}

// 1 with a position; 0 with iserrno when the index is current now, but no record was found; -1 with
// iserrno when it was refused.
int start(Cursor& cursor, keydescr& k, int len, const Byte* record, int mode) {
  const auto read_mode = static_cast<ReadMode>(mode);
  const bool edge = mode == RD_FIRST || mode == RD_LAST;
  if (mode < 0 || !positions_anew(read_mode) || (!edge && record == nullptr)) {
    return failed(kBadArgument);
  }
  if (selected_key(k, len, edge) != 0) return -1;
  openp->key = k;
  if (kposition(cursor, record, len, read_mode) != 0) return 0;
  isrecnum = cursor.bt.item.recptr;
  return 1;
}

int start_call(int isfd, keydescr* key, int len, char* record, int mode) {
  Call call{isfd, {.access = Access::kToRead, .shared = true}};
  if (!call) return refused_access('7');
  const int started = key == nullptr
                          ? failed(kBadArgument)
                          : start(call.cursor(), *key, len, reinterpret_cast<Byte*>(record), mode);
  if (started < 0) {
    call.cursor().bt = openp->position;
  } else if (started == 0) {
    call.cursor().bt.state = 0;
    call.cursor().bt.depth = -1;
  }
  return call.end();
}

int read_entering(int isfd, char* record, int mode) {
  const bool after_end = iserrno == kEndOfFile;  // of the call before
  while (true) {
    Call call{isfd, {.access = Access::kToRead, .shared = true, .holds_on = true}};
    if (!call) return refused_access('7');
    ReadRequest request{};
    const ReadOutcome outcome = read_asked(call.cursor(), record, mode, after_end, request);
    if (outcome != ReadOutcome::kMustWait) return call.end();
    if (wait_outside(call) != 0) return -1;
  }
}

// Apart from isread, whose steps ahead go on without a frame of their own.
[[gnu::noinline]] int read_call(int isfd, char* record, int mode) {
  return noted("isread", isfd, read_entering(isfd, record, mode));
}

// What a read is given besides room for the record.
Carries carried_by(int mode) {
  const int low = mode & 0xFF;
  const bool by_key = low == RD_EQUAL || low == RD_GREAT || low == RD_GTEQ;
  return by_key ? Carries::kKeyAndReceives : Carries::kReceives;
}

}  // namespace
}  // namespace isam

using namespace isam;

extern "C" int isstart(int isfd, struct keydescr* key, int len, char* record, int mode) {
  const bool edge = mode == RD_FIRST || mode == RD_LAST;
  return traced("isstart", isfd, record, edge ? Carries::kNothing : Carries::kKey,
                [=] { return start_call(isfd, key, len, record, mode); });
}

extern "C" int isread(int isfd, char* record, int mode) {
  return traced_only("isread", isfd, record, carried_by(mode), [=] {
    return is_step(mode) ? read_step(isfd, record, mode) : read_call(isfd, record, mode);
  });
}
