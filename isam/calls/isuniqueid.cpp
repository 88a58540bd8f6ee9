// isuniqueid: the counter of unique ids, the alteration counter and the change stamp.
#include <cstdint>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/traced.h"
#include "isam/log/logfile.h"
#include "isam/log/logwriter.h"

namespace isam {
namespace {

template <typename T>
int tell(int isfd, T* to, T (*value)(const Dictionary&)) {
  Call call{isfd, {.access = Access::kToRead, .shared = true}};
  if (!call) return -1;
  if (to == nullptr) {
    failed(kBadArgument);
  } else {
    *to = value(*dictp);
  }
  return call.end();
}

int log_id(std::int32_t id, bool set) {
  return txlog::logs_changes() ? txlog::isloguid(id, set) : 0;
}

}  // namespace
}  // namespace isam

using namespace isam;

static int take_id_call(int isfd, int32_t* id) {
  Call call{isfd, {.access = Access::kToWrite}};
  if (!call) return -1;
  if (id == nullptr) {
    failed(kBadArgument);
  } else {
    *id = dictp->d_uniqid();
    if (*id == INT32_MAX) {  // no id could follow it
      failed(kCorrupted);
    } else if (log_id(*id, false) == 0) {
      dictp->set_d_uniqid(*id + 1);
      if (write_handed_out() != 0) dictp->set_d_uniqid(*id);
    }
  }
  return call.end();
}

extern "C" int isuniqueid(int isfd, int32_t* id) {
  return traced("isuniqueid", isfd, [=] { return take_id_call(isfd, id); });
}

extern "C" int iscurruniq(int isfd, int32_t* id) {
  return noted("iscurruniq", isfd,
               tell<std::int32_t>(isfd, id, [](const Dictionary& d) { return d.d_uniqid(); }));
}

static int set_id_call(int isfd, int32_t id) {
  Call call{isfd, {.access = Access::kToWrite}};
  if (!call) return -1;
  const std::int32_t before = dictp->d_uniqid();
  // The counter only rises; what does not raise it is logged all the same.
  if (log_id(id, true) == 0 && before < id) {
    dictp->set_d_uniqid(id);
    if (write_handed_out() != 0) dictp->set_d_uniqid(before);
  }
  return call.end();
}

extern "C" int issetunique(int isfd, int32_t id) {
  return traced("issetunique", isfd, [=] { return set_id_call(isfd, id); });
}

extern "C" int isaltchk(int isfd, int32_t* count) {
  return noted("isaltchk", isfd,
               tell<std::int32_t>(isfd, count, [](const Dictionary& d) { return d.d_altcount(); }));
}

static int count_call(int isfd) {
  Call call{isfd, {.access = Access::kToWrite}};
  if (!call) return -1;
  const std::int32_t before = dictp->d_altcount();
  dictp->set_d_altcount(static_cast<std::int32_t>(static_cast<std::uint32_t>(before) + 1));
  if (write_handed_out() != 0) dictp->set_d_altcount(before);
  return call.end();
}

extern "C" int isaltinc(int isfd) { return noted("isaltinc", isfd, count_call(isfd)); }

extern "C" int isstamp(int isfd, std::uint32_t* stamp) {
  return noted("isstamp", isfd, tell<std::uint32_t>(isfd, stamp, [](const Dictionary& d) {
                 return d.d_modcount();
               }));
}
