// isindexinfo: isdictinfo, iskeyinfo, isindexinfo and iststindex.

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/traced.h"
#include "isam/files/files.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keytable.h"
#include "isam/records/freelists.h"

namespace isam {
namespace {

constexpr Entry kReading{.access = Access::kToRead, .shared = true};

int fill(dictinfo& info) {
  const std::int32_t listed = free_records_listed();
  if (listed < 0) return -1;
  info.di_nkeys = dictp->d_nkeys() + (filep->geometry.varlen ? DI_VARLEN : 0);
  info.di_recsize = filep->geometry.maxreclen;
  info.di_idxsize = filep->geometry.idxsize;
  info.di_nrecords = dictp->d_nextdata() - listed;
  return 0;
}

// Fills in description `n`, and isreclen with the least length of a record.
int fill(keydescr& key, int n) {
  const auto* keys = file_keys();
  if (keys == nullptr) return -1;
  if (n < 1 || static_cast<std::size_t>(n) > keys->size()) return failed(kBadArgument);
  key = (*keys)[static_cast<std::size_t>(n) - 1];
  isreclen = filep->geometry.reclen;
  return 0;
}

}  // namespace
}  // namespace isam

using namespace isam;

static int info_call(int isfd, dictinfo* info) {
  Call call{isfd, kReading};
  if (!call) return -1;
  if (info == nullptr) {
    failed(kBadArgument);
  } else {
    static_cast<void>(fill(*info));
  }
  return call.end();
}

extern "C" int isdictinfo(int isfd, struct dictinfo* info) {
  return traced("isdictinfo", isfd, reinterpret_cast<const char*>(info), Carries::kReceivesInfo,
                [=] { return info_call(isfd, info); });
}

static int key_call(int isfd, keydescr* key, int n) {
  Call call{isfd, kReading};
  if (!call) return -1;
  if (key == nullptr) {
    failed(kBadArgument);
  } else {
    static_cast<void>(fill(*key, n));
  }
  return call.end();
}

extern "C" int iskeyinfo(int isfd, struct keydescr* key, int n) {
  return traced("iskeyinfo", isfd, reinterpret_cast<const char*>(key), Carries::kDescription,
                [=] { return key_call(isfd, key, n); });
}

extern "C" int isindexinfo(int isfd, void* buffer, int n) {
  if (n == 0) return isdictinfo(isfd, static_cast<dictinfo*>(buffer));
  return iskeyinfo(isfd, static_cast<keydescr*>(buffer), n);
}

static int test_call(int isfd, keydescr* key) {
  Call call{isfd, kReading};
  if (!call) return -1;
  if (key == nullptr || kysearch(*key, 0) < 0) failed_unless_set(kBadKey);
  return call.end();
}

extern "C" int iststindex(int isfd, struct keydescr* key) {
  return noted("iststindex", isfd, test_call(isfd, key));
}
