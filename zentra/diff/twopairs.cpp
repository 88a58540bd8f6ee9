#include "zentra/diff/twopairs.h"

#include <sys/stat.h>

#include <algorithm>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/keys/keytable.h"
#include "zentra/pair/treewalk.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using std::chrono::steady_clock;

bool look_at(Side& side) {
  side.use();
  if (!side.pair.load() || !side.pair.take_geometry()) return false;
  side.shape = isam::filep->geometry;
  side.last = std::max<std::int32_t>(isam::dictp->d_nextdata(), 0);
  side.data = isam::filep->data.fd;
  side.index = isam::filep->index.fd;
  side.keys = indexes_of_pair();
  side.keys_are_damaged =
      isam::file_keys() == nullptr || std::ssize(side.keys) != isam::dictp->d_nkeys();
  isam::clear_errors();
  return true;
}

bool are_one_file(const std::string& a, const std::string& b) {
  struct stat one {};
  struct stat other {};
  return common::system_calls().stat(a.c_str(), &one) == 0 &&
         common::system_calls().stat(b.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
         one.st_ino == other.st_ino;
}

}  // namespace

bool TwoPairs::refuse(const Side& side, const std::string& why) {
  why_ = shown(side.name) + ": " + why;
  return false;
}

bool TwoPairs::lock(std::chrono::milliseconds wait) {
  using std::chrono::milliseconds;
  const auto until = steady_clock::now() + wait;
  for (std::size_t awaited = 0;; awaited = 1 - awaited) {
    const auto left = std::max(until - steady_clock::now(), steady_clock::duration{});
    Side& first = sides_[awaited];
    if (!first.pair.open(first.name, std::chrono::duration_cast<milliseconds>(left))) {
      return refuse(first);
    }
    Side& second = sides_[1 - awaited];
    if (second.pair.open(second.name, milliseconds(0))) return true;
    const bool is_busy = second.pair.status() == Status::kInUse;
    if (!is_busy || steady_clock::now() >= until) return refuse(second);
    first.pair.close();
  }
}

bool TwoPairs::open(const std::string& a, const std::string& b, std::chrono::milliseconds wait) {
  sides_[0].name = a;
  sides_[1].name = b;
  if (are_one_file(isam::mkidxname(a), isam::mkidxname(b))) {
    are_one_ = are_one_file(isam::mkdatname(a), isam::mkdatname(b));
    if (!are_one_) return refuse(sides_[1], "its index file is that of the other pair");
    return sides_[0].pair.open(a, wait) && look_at(sides_[0]) ? true : refuse(sides_[0]);
  }
  if (!lock(wait)) return false;
  for (Side& side : sides_) {
    if (!look_at(side)) return refuse(side);
  }
  return true;
}

void TwoPairs::let_go() {
  for (Side& side : sides_) {
    side.use();
    side.pair.let_go();
  }
}

}  // namespace zentra
