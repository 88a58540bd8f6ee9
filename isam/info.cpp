// info: the public calls that tell or bump what the dictionary says.
#include <algorithm>
#include <array>
#include <cstring>

#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/files.h"
#include "isam/frame.h"
#include "isam/freelists.h"
#include "isam/keychain.h"
#include "isam/keytable.h"
#include "isam/traced.h"
#include "txlog/logfile.h"
#include "txlog/logwriter.h"

namespace isam {
namespace {

constexpr int kReading = kToRead | kShared;

template <typename T>
int tell(int isfd, T* to, T (*value)(const Dictionary&)) {
  if (isenter(isfd, kReading) != 0) return -1;
  if (to == nullptr) {
    failed(kBadArgument);
  } else {
    *to = value(*dictp);
  }
  return isexit();
}

int fill(dictinfo& info) {
  const std::int32_t listed = free_records_listed();
  if (listed < 0) return -1;
  info.di_nkeys = dictp->d_nkeys() + (filep->varlen ? DI_VARLEN : 0);
  info.di_recsize = filep->maxreclen;
  info.di_idxsize = filep->idxsize;
  info.di_nrecords = dictp->d_nextdata() - listed;
  return 0;
}

int fill(keydescr& key, int n) {
  const auto* keys = file_keys();
  if (keys == nullptr) return -1;
  if (n < 1 || static_cast<std::size_t>(n) > keys->size()) return failed(kBadArgument);
  key = (*keys)[static_cast<std::size_t>(n) - 1];
  isreclen = filep->reclen;
  return 0;
}

int log_id(std::int32_t id, bool set) {
  return txlog::logs_changes() ? txlog::isloguid(id, set) : 0;
}

// Runs `look` on a pair that is opened only for that; -1 when it cannot be opened.
template <typename Look>
int look_at(const char* name, Look look) {
  const int isfd = isopen(name, ISINPUT + ISMANULOCK + ISANYLENGTH);
  if (isfd < 0) return -1;
  const int result = look(open_of(isfd)->file->dictionary);
  isclose(isfd);
  return result;
}

}  // namespace
}  // namespace isam

using namespace isam;

static int info_call(int isfd, dictinfo* info) {
  if (isenter(isfd, kReading) != 0) return -1;
  if (info == nullptr) {
    failed(kBadArgument);
  } else {
    static_cast<void>(fill(*info));
  }
  return isexit();
}

extern "C" int isdictinfo(int isfd, struct dictinfo* info) {
  return traced("isdictinfo", isfd, reinterpret_cast<const char*>(info), Carries::kReceivesInfo,
                [=] { return info_call(isfd, info); });
}

static int key_call(int isfd, keydescr* key, int n) {
  if (isenter(isfd, kReading) != 0) return -1;
  if (key == nullptr) {
    failed(kBadArgument);
  } else {
    static_cast<void>(fill(*key, n));
  }
  return isexit();
}

extern "C" int iskeyinfo(int isfd, struct keydescr* key, int n) {
  return traced("iskeyinfo", isfd, reinterpret_cast<const char*>(key), Carries::kDescription,
                [=] { return key_call(isfd, key, n); });
}

extern "C" int isindexinfo(int isfd, void* buffer, int n) {
  if (n == 0) return isdictinfo(isfd, static_cast<dictinfo*>(buffer));
  return iskeyinfo(isfd, static_cast<keydescr*>(buffer), n);
}

extern "C" int iststindex(int isfd, struct keydescr* key) {
  if (isenter(isfd, kReading) != 0) return -1;
  if (key == nullptr || kysearch(*key, 0) < 0) failed_unless_set(kBadKey);
  return isexit();
}

static int take_id_call(int isfd, int32_t* id) {
  if (isenter(isfd, kToWrite) != 0) return -1;
  if (id == nullptr) {
    failed(kBadArgument);
  } else {
    *id = dictp->d_uniqid();
    if (*id == INT32_MAX) {
      failed(kCorrupted);
    } else if (log_id(*id, false) == 0) {
      dictp->set_d_uniqid(*id + 1);
      if (write_handed_out() != 0) dictp->set_d_uniqid(*id);
    }
  }
  return isexit();
}

extern "C" int isuniqueid(int isfd, int32_t* id) {
  return traced("isuniqueid", isfd, [=] { return take_id_call(isfd, id); });
}

extern "C" int iscurruniq(int isfd, int32_t* id) {
  return tell<std::int32_t>(isfd, id, [](const Dictionary& d) { return d.d_uniqid(); });
}

static int set_id_call(int isfd, int32_t id) {
  if (isenter(isfd, kToWrite) != 0) return -1;
  const std::int32_t before = dictp->d_uniqid();
  if (log_id(id, true) == 0 && before < id) {
    dictp->set_d_uniqid(id);
    if (write_handed_out() != 0) dictp->set_d_uniqid(before);
  }
  return isexit();
}

extern "C" int issetunique(int isfd, int32_t id) {
  return traced("issetunique", isfd, [=] { return set_id_call(isfd, id); });
}

extern "C" int isaltchk(int isfd, int32_t* count) {
  return tell<std::int32_t>(isfd, count, [](const Dictionary& d) { return d.d_altcount(); });
}

extern "C" int isaltinc(int isfd) {
  if (isenter(isfd, kToWrite) != 0) return -1;
  const std::int32_t before = dictp->d_altcount();
  dictp->set_d_altcount(static_cast<std::int32_t>(static_cast<std::uint32_t>(before) + 1));
  if (write_handed_out() != 0) dictp->set_d_altcount(before);
  return isexit();
}

extern "C" int isnlsversion(const char* name) {
  return look_at(name, [](const Dictionary& dictionary) { return dictionary.d_collate() ? 1 : 0; });
}

extern "C" int isulxversion(const char* name) { return isnlsversion(name); }

extern "C" const char* islanginfo(const char* name) {
  static std::array<char, kCollationNameSize + 1> text;
  text.fill(0);
  const int has_name = look_at(name, [](const Dictionary& dictionary) {
    std::copy_n(dictionary.d_collname(), kCollationNameSize, text.begin());
    return dictionary.d_collate() ? 1 : 0;
  });
  return has_name == 1 ? text.data() : nullptr;
}
