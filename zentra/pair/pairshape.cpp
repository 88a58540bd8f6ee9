#include "zentra/pair/pairshape.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/keys/keychain.h"
#include "isam/keys/keys.h"
#include "locale/collation.h"
#include "locale/name.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

std::string key_fault(PairShape& shape) {
  for (std::size_t i = 0; i < shape.keys.size(); ++i) {
    keydescr& k = shape.keys[i];
    k.keylen = 0;
    k.rootnode = 0;
    if (k.nparts == 0 && i > 0) return "only the primary key, which is the first, is by number";
    if (k.nparts > 0 && isam::kylegal(k, shape.least) != 0) {
      return fmt::format("a part of index {} lies outside the record", i + 1);
    }
    // In the order of a locale nothing is compressed.
    if (isam::kynchar(k)) k.flags = static_cast<std::int16_t>(k.flags & ~KF_COMPRESS);
    const auto end = shape.keys.begin() + static_cast<std::ptrdiff_t>(i);
    const auto is_same = [&](const keydescr& other) { return isam::kycompare(other, k) == 0; };
    if (std::any_of(shape.keys.begin(), end, is_same)) {
      return fmt::format("index {} is one of those before it again", i + 1);
    }
  }
  return "";
}

std::string locale_fault(const PairShape& shape) {
  if (std::ranges::none_of(shape.keys, isam::kynchar)) return "";
  if (locale::chkulxinit() != 0) {
    return fmt::format("the locale that CLIENT_LOCALE names cannot be loaded: {}",
                       std::strerror(locale::get_ulxerror()));
  }
  // Other programs may have written the name in another way.
  const bool is_client =
      shape.collation.empty() || locale::file_name(shape.collation) == locale::file_system_name();
  if (is_client) return "";
  return fmt::format(
      "its keys are in the order of the locale {}, which CLIENT_LOCALE does not name",
      shown(shape.collation));
}

}  // namespace

std::optional<PairShape> shape_of_pair() {
  PairShape shape{.least = filep->geometry.reclen,
                  .greatest = filep->geometry.maxreclen,
                  .node_size = std::min(isam::node_size(), isam::kMaxStoredNodeSize),
                  .duplicate_width = dictp->d_dupsize() == 2 ? 2 : 4,
                  .unique = std::max(dictp->d_uniqid(), 1)};
  if (dictp->d_collate()) {
    const char* const name = dictp->d_collname();
    shape.collation.assign(name, ::strnlen(name, isam::kCollationNameSize));
    shape.collation.erase(shape.collation.find_last_not_of(' ') + 1);
  }
  isam::KeyChain chain;
  keydescr k{};
  isam::KeyChain::Step step = chain.next(k);
  for (; step == isam::KeyChain::Step::kFound; step = chain.next(k)) {
    const bool is_legal = k.nparts == 0 || isam::kylegal(k, filep->geometry.reclen) == 0;
    if (!is_legal || shape.keys.size() == isam::kMostDescriptions) break;
    shape.keys.push_back(k);
  }
  isam::clear_errors();
  if (step != isam::KeyChain::Step::kEnd || shape.keys.empty()) return {};
  return shape;
}

LikeShape shape_like(ReadPair& pair, const std::string& base, std::chrono::milliseconds wait) {
  if (!pair.open(base, wait, ReadPair::Look::kLittle) || !pair.load() || !pair.take_geometry()) {
    return {.status = pair.status(), .why = fmt::format("{}: {}", shown(base), pair.why())};
  }
  LikeShape like{.shape = shape_of_pair()};
  if (like.shape) return like;
  return {.status = Status::kNeedsSalvage,
          .why = shown(base) + ": its key descriptions cannot be read"};
}

std::string shape_fault(PairShape& shape) {
  std::string fault = shape.keys.empty() ? "no index is told" : key_fault(shape);
  if (fault.empty()) fault = locale_fault(shape);
  isam::clear_errors();
  return fault;
}

}  // namespace zentra
