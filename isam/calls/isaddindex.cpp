// isaddindex: isaddindex and isdelindex.
#include <algorithm>
#include <new>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/closing.h"
#include "isam/calls/cursor.h"
#include "isam/calls/filelocale.h"
#include "isam/calls/opening.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keytable.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/records/datafile.h"
#include "isam/records/freelists.h"
#include "isam/tree/btree.h"
#include "isam/tree/indexload.h"
#include "locale/collation.h"

namespace isam {
namespace {

// Whether the file allows the compression that the key asks for.
bool may_compress(const keydescr& key) {
  return (key.flags & KF_COMPRESS & ~(dictp->d_compression() << 1)) == 0;
}

// Takes the keys of all records, up to one that cannot be read: 0, or -1 with iserrno then.
int gather(IndexLoad& load) {
  const std::int32_t last = records_in_file();
  const Bytes room = temprecord().first(static_cast<std::size_t>(filep->geometry.maxreclen));
  for (std::int32_t number = 1; number <= last; ++number) {
    if (dataread(number, room) < 0) {
      if (iserrno != 0) return -1;
    } else if (load.add(room.data(), number) != 0) {
      return -1;
    }
  }
  return 0;
}

// Fills a new index from the records: 0, or -1 with iserrno. A record that cannot be read is told
// only if no key comes twice (100) among the records before it.
int fill_index(IndexLoad& load, const keydescr& key) {
  try {
    bool left_out = false;
    const IndexLoad::Listener listener{[&](std::int32_t) { left_out = true; }, [](std::int64_t) {}};
    const bool all_read = gather(load) == 0;
    if (all_read) {
      if (load.finish(key.rootnode, listener) != 0) return -1;
    } else {
      const KeepError keep;
      static_cast<void>(load.finish(key.rootnode, listener));
    }
    if (left_out) return failed(kDuplicate);
    if (load.met_equal()) openp->cursor.bt.state |= kSameKeyNearby;
    return all_read ? 0 : -1;
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
}

int log_event(txlog::IndexEvent event, const keydescr& key) {
  return txlog::logs_changes() ? txlog::islogidx(event, key) : 0;
}

// Whether the open transaction may have to bring back keys of the file.
bool frees_keys() {
  for (int isfd = 0; isfd < nopens; ++isfd) {
    const Open* const open = open_of(isfd);
    if (open != nullptr && open->file == filep && open->transaction.frees_keys) return true;
  }
  return false;
}

// Takes an index back that could not be filled, written or logged. `before` and `lost` are of the
// time before it. The pair is as it was.
void take_back(const keydescr& key, IndexLoad& load, const Dictionary& before,
               const FailedWrite& lost) {
  const KeepError keep;
  load.give_nodes_back();
  freerec(key.rootnode, FreeList::kNodes);
  kydelete(key);
  bfdrop(*filep, number_behind(dictp->d_nextnode()));
  cut_unused_room();
  // What could not be written will be tried again.
  filep->unwritten.failed = {};
  if (!filep->unwritten.pages_lost) filep->unwritten.lost = lost;
  const bool same =
      dictp->d_nextnode() == before.d_nextnode() && dictp->d_freenode() == before.d_freenode();
  if (!same) {
    dictp->set_d_collate(before.d_collate());
    dictp->set_d_collname(before.d_collname());
    return;
  }
  // No stamp need tell of the call.
  *dictp = before;
  filep->call.page_changed = false;
}

// Completes `key`, stores it and fills its index: 0, or -1 with iserrno and the pair as it was.
int add_index(keydescr& key) {
  if (kylegal(key, filep->geometry.reclen) != 0) return -1;
  if (!may_compress(key)) return failed(kBadKey);
  if (kynchar(key)) {
    if (locale::chkulxinit() != 0) return failed(kLocaleInvalid);
    key.flags = static_cast<std::int16_t>(key.flags & ~KF_COMPRESS);
  }
  if ((key.flags & KF_DUPS) == 0 && frees_keys()) return failed(kFileInUse);
  const Dictionary before = *dictp;
  const FailedWrite lost = filep->unwritten.lost;
  IndexLoad load{key};
  if (kyadd(key) != 0) return failed_unless_set(kBadKey);
  int result = fill_index(load, key);
  if (result == 0 && kynchar(key) && !before.d_collate()) result = name_collation();
  // It is written while it can still be taken back.
  if (result == 0) result = write_delayed();
  if (result == 0) result = log_event(txlog::IndexEvent::kAdded, key);
  if (result == 0) return 0;
  take_back(key, load, before, lost);
  return -1;
}

// Whether the index that `key` defines may go: 0, or -1 with 103, 109 or 113. Completes `key`.
int check_drop(keydescr& key) {
  const int number = kysearch(key, 0);
  if (number < 0) return failed_unless_set(kBadKey);
  const auto* keys = file_keys();
  if (keys == nullptr) return -1;
  const bool any = (openp->mode & ISANYPRIMARY) != 0;
  if (keys->size() == 1 || (number == 1 && !any)) return failed(kPrimaryIndex);
  if (kycompare(key, openp->key) == 0 && !any) return failed(kBadKey);
  return filep->usecount > 1 ? failed(kFileInUse) : 0;
}

int drop_index(keydescr& key) {
  if (check_drop(key) != 0 || log_event(txlog::IndexEvent::kDropped, key) != 0 ||
      kydelete(key) != 0) {
    return -1;
  }
  // The index is gone, even where not all of its nodes can be freed.
  txlog::logstate.change_logged = false;
  const int freed = btrecover(key.rootnode, key);
  const auto* keys = file_keys();
  if (keys == nullptr) return -1;
  if (kycompare(key, openp->key) == 0) {
    openp->key = keys->front();
    stand_before_first(openp->cursor);
  }
  return freed;
}

// Whether any index left is in the order of a locale.
bool needs_locale() {
  const auto* keys = file_keys();
  return keys == nullptr || std::ranges::any_of(*keys, kynchar);
}

// Enters an exclusive open to change its indexes; the position's path does not survive that.
template <typename Change>
int change_indexes(int isfd, keydescr* key, Change change) {
  Call call{isfd, {.access = Access::kToWrite}};
  if (!call) return -1;
  if ((openp->mode & ISEXCLLOCK) == 0) {
    failed(kNotExclusive);
  } else if (key == nullptr) {
    failed(kBadArgument);
  } else {
    change(*key);
  }
  btchanged(call.cursor());
  return call.end();
}

}  // namespace
}  // namespace isam

using namespace isam;

static int add_call(int isfd, keydescr* key) {
  return change_indexes(isfd, key, [](keydescr& k) {
    try {
      add_index(k);
    } catch (const std::bad_alloc&) {
      failed(kNoMemory);  // before anything was changed
    }
    // The position stays, but the status tells of equal keys in the new index (fill_index).
    Position& bt = openp->cursor.bt;
    const std::uint16_t nearby = bt.state & kSameKeyNearby;
    bt = openp->position;
    bt.state |= nearby;
  });
}

extern "C" int isaddindex(int isfd, struct keydescr* key) {
  return traced("isaddindex", isfd, reinterpret_cast<const char*>(key), Carries::kDescription,
                [=] { return add_call(isfd, key); });
}

static int drop_call(int isfd, keydescr* key) {
  close_kept_beside(isfd);
  const int result = change_indexes(isfd, key, drop_index);
  // The call is over, but an exclusive open writes this late anyway.
  if (result == 0 && kynchar(*key) && !needs_locale()) {
    dictp->set_d_collate(false);
    dictmodify();
  }
  return result;
}

extern "C" int isdelindex(int isfd, struct keydescr* key) {
  return traced("isdelindex", isfd, reinterpret_cast<const char*>(key), Carries::kDescription,
                [=] { return drop_call(isfd, key); });
}
