#include "tests/support/isam_model.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <set>

namespace testing_support {
namespace {

bool is_relative(int mode) { return mode >= RD_NEXT && mode <= RD_CURR; }

// The bytes of one part of a key, in a form that sorts by its bytes.
std::string sortable(std::string bytes, int type) {
  const auto flip = [](char& c) { c = static_cast<char>(~c); };
  const int kind = type & ~KT_DESC;
  if (kind == KT_DOUBLE && bytes == std::string(8, '\xFF')) {
    bytes.assign(8, '\0');  // null is the least
  } else if (kind != KT_CHAR) {
    const bool reversed = kind == KT_DOUBLE && std::endian::native == std::endian::little;
    if (reversed) std::ranges::reverse(bytes);
    const bool negative = (bytes[0] & 0x80) != 0;
    if (kind == KT_DOUBLE && negative) std::ranges::for_each(bytes, flip);
    if (kind != KT_DOUBLE || !negative) bytes[0] = static_cast<char>(bytes[0] ^ 0x80);
  }
  if ((type & KT_DESC) != 0) std::ranges::for_each(bytes, flip);
  return bytes;
}

// The first `len` bytes of a record's key, 0 for all of it. A number counts whole.
std::string key_of(const keydescr& k, const std::string& record, int len = 0) {
  int left = len == 0 ? MAXKEYLEN : len;
  std::string bytes;
  for (int i = 0; i < k.nparts && left > 0; left -= k.part[i++].length) {
    const auto start = static_cast<std::size_t>(k.part[i].start);
    const bool is_text = (k.part[i].type & ~KT_DESC) == KT_CHAR;
    const int count = is_text ? std::min<int>(left, k.part[i].length) : k.part[i].length;
    bytes += sortable(record.substr(start, static_cast<std::size_t>(count)), k.part[i].type);
  }
  return bytes;
}

const std::pair<std::string, std::int32_t> kBehindAll{std::string(MAXKEYLEN + 1, '\xFF'), 0};

}  // namespace

IsamModel::IsamModel(int minimum, int maximum, const std::vector<keydescr>& keys)
    : minimum_(minimum), maximum_(maximum), indexes_(keys.size() + 1) {
  keys_.insert(keys_.end(), keys.begin(), keys.end());
}

// Ends a call: with 0, or its reason to fail, and with other status characters than usual.
int IsamModel::end(int reason, const char* how) {
  static const std::map<int, const char*> usual = {{0, "0000"},
                                                   {ISEDUPLICATE, "2222"},
                                                   {ISEEND, "1010"},
                                                   {ISENORECORD, "2323"},
                                                   {ISENOCURRENT, "2143"}};
  const auto at = usual.find(reason);
  status = how != nullptr ? how : at != usual.end() ? at->second : "9090";
  error = reason;
  return reason == 0 ? 0 : -1;
}

// The open that a call works on: null when it fails for want of one or of its access.
IsamModel::Open* IsamModel::enter(int isfd, Access access, const char* refusal) {
  after_end_ = error == ISEEND;
  end(0);
  const auto at = opens_.find(isfd);
  if (at != opens_.end() && (((at->second.mode & 3) + 1) & access) == access) return &at->second;
  end(ISENOTOPEN, at == opens_.end() ? nullptr : refusal);
  return nullptr;
}

int IsamModel::isopen(int name_error, int mode, int isfd) {
  const std::set<int> lock_modes = {ISAUTOLOCK, 0x300, ISMANULOCK, 0x500, ISEXCLLOCK};
  const bool known = (mode & 3) != 3 && lock_modes.contains(mode & 0xFF00);
  if ((mode & 0xC) != 0) return end(ISEARGUMENT, "9037");
  if (!known && name_error != ISENAME) return end(ISEARGUMENT, "9037");
  if (name_error != 0) return end(name_error, name_error == ENOENT ? "9035" : nullptr);
  const bool suits = ((mode & ISVARLEN) != 0) == (minimum_ < maximum_);
  if (!suits && (mode & ISANYLENGTH) == 0) return end(ISEARGUMENT, "9039");
  opens_[isfd] = {.mode = mode, .position = {.exists = true}};
  length = maximum_;
  end(0);
  return isfd;
}

int IsamModel::isother(int isfd, Access access, bool legal) {
  if (enter(isfd, access, "9490") == nullptr) return -1;
  return end(legal ? 0 : ISEARGUMENT);
}

// The entry that a start or read in one of the modes that position anew finds.
IsamModel::Found IsamModel::find(const Open& open, const Bytes& record, int len, int mode) const {
  const Index& index = indexes_[open.key];
  const auto found = [&index](Index::const_iterator at, int reason) {
    return Found{at == index.end() ? reason : 0, at};
  };
  if (mode == RD_FIRST) return found(index.begin(), ISEEND);
  if (mode == RD_LAST) return found(index.empty() ? index.end() : std::prev(index.end()), ISEEND);
  if (by_number(open)) {
    if (number > last_ - (mode == RD_GREAT ? 1 : 0)) return {ISENORECORD, {}};
    if (mode == RD_EQUAL) return found(index.find({"", number}), ISENORECORD);
    return found(index.lower_bound({"", mode == RD_GREAT ? number + 1 : number}), ISEEND);
  }
  Bytes start = key_of(keys_[open.key], record, len);
  const auto at = index.lower_bound({start, 0});
  if (mode == RD_GTEQ) return found(at, ISENORECORD);
  if (mode == RD_EQUAL) {
    return {at != index.end() && at->first.first.starts_with(start) ? 0 : ISENORECORD, at};
  }
  start.resize(MAXKEYLEN + 1, '\xFF');  // behind all keys that start like this
  return found(index.lower_bound({start, 0}), ISENORECORD);
}

// Whether the very item of the position is still in the index.
bool IsamModel::is_there(const Open& open) const {
  const auto at = indexes_[open.key].find(open.position.place);
  return at != indexes_[open.key].end() && at->second == open.position.record;
}

void IsamModel::stand_on(Open& open, const Place& place, std::int32_t recnum, bool read) {
  open.position = {.exists = true, .place = place, .record = recnum, .read = read};
  number = recnum;
}

// The entry that a relative read comes to.
IsamModel::Found IsamModel::move(const Open& open, int mode) const {
  const Index& index = indexes_[open.key];
  const Position& position = open.position;
  if (!position.exists) return {ISENOCURRENT, {}};
  auto at = index.lower_bound(position.place);
  if (mode == RD_CURR) {
    const bool gone = position.deleted || !is_there(open);
    return {position.record == 0 ? ISEEND : gone ? ISENOCURRENT : 0, at};
  }
  if (mode == RD_NEXT) {
    if (position.read && is_there(open)) ++at;
    return {at == index.end() ? ISEEND : 0, at};
  }
  // In the order of record numbers the way back starts with the record found.
  if (by_number(open) && !position.read && is_there(open)) return {0, at};
  if (at == index.begin()) return {ISEEND, at};
  return {0, std::prev(at)};
}

int IsamModel::isstart(int isfd, keydescr& k, int len, const Bytes& record, int mode) {
  Open* open = enter(isfd, kRead, "9047");
  if (open == nullptr) return -1;
  const bool edge = mode == RD_FIRST || mode == RD_LAST;
  if (mode < 0 || mode > RD_GTEQ || is_relative(mode) || (len < 0 && !edge)) {
    return end(ISEARGUMENT);
  }
  const auto stored = std::ranges::find_if(keys_, [&k](const keydescr& each) {
    return each.nparts == k.nparts && std::memcmp(each.part, k.part, sizeof k.part) == 0;
  });
  if (stored == keys_.end()) return end(ISEKEY);
  const auto key = static_cast<std::size_t>(stored - keys_.begin());
  const bool any_length = stored->nparts == 0 || (edge && key == open->key);
  if (!any_length && (len < 0 || len > stored->keylen)) return end(ISEARGUMENT);
  k.flags = stored->flags;
  open->key = key;
  open->position = {};
  const Found found = find(*open, record, edge ? 0 : len, mode);
  if (found.error == 0) {
    stand_on(*open, found.entry->first, found.entry->second, false);
    if (mode == RD_LAST && k.nparts > 0) open->position = {.exists = true, .place = kBehindAll};
    return 0;
  }
  if (!edge) return end(found.error);
  open->position.exists = true;
  number = 0;
  return 0;
}

int IsamModel::isread(int isfd, Bytes& record, int mode) {
  Open* open = enter(isfd, kRead, "9047");
  if (open == nullptr) return -1;
  const int locks = mode & ~0xFF;
  mode &= 0xFF;
  if (mode > RD_GTEQ || locks > (RD_LOCK | RD_WAIT)) return end(ISEARGUMENT);
  const Found found = is_relative(mode) ? move(*open, mode) : find(*open, record, 0, mode);
  if (found.error != 0) {
    const bool past = mode == RD_NEXT || (is_relative(mode) && after_end_);
    return end(found.error, !past ? nullptr : found.error == ISEEND ? "1046" : "2146");
  }
  const auto [place, recnum] = *found.entry;
  stand_on(*open, place, recnum, true);
  record = records.at(recnum);
  length = static_cast<std::int32_t>(record.size());
  const Index& index = indexes_[open->key];
  const bool repeats = mode == RD_PREV || mode == RD_LAST
                           ? found.entry != index.lower_bound({place.first, 0})
                           : std::next(found.entry) != index.upper_bound({place.first, INT32_MAX});
  return end(0, repeats && !by_number(*open) ? "0202" : nullptr);
}

int IsamModel::isreadmany(int isfd, std::vector<Bytes>& set, std::vector<std::int32_t>& numbers,
                          int mode) {
  const bool after_end = error == ISEEND;
  const Open* open = enter(isfd, kRead, "9047");
  if (open == nullptr) return -1;
  const std::set<int> modes = {RD_NEXT, RD_PREV, RD_EQUAL, RD_GREAT, RD_GTEQ};
  const bool known = modes.contains(mode & 0xFF) && (mode & ~0xFF) <= (RD_LOCK | RD_WAIT);
  if (set.empty() || !known) return end(ISEARGUMENT);
  error = after_end ? ISEEND : 0;
  for (std::size_t i = 0; i < set.size(); ++i) {
    if (!is_relative(mode & 0xFF) && by_number(*open)) number = numbers[i];
    if (isread(isfd, set[i], mode) != 0) return static_cast<int>(i);
    numbers[i] = number;
  }
  return static_cast<int>(set.size());
}

// Leaves of a record what is to be written: false for a length out of range.
bool IsamModel::cut(Bytes& record) {
  if (minimum_ == maximum_) return true;
  if (length < minimum_ || length > maximum_) return end(ISEARGUMENT, "9044") == 0;
  record.resize(static_cast<std::size_t>(length));
  return true;
}

// Whether another record has a key of this one's that may occur only once.
bool IsamModel::is_refused(const Bytes& record, std::int32_t recnum) const {
  for (std::size_t i = 1; i < keys_.size(); ++i) {
    if ((keys_[i].flags & KF_DUPS) != 0) continue;
    const auto at = indexes_[i].find({key_of(keys_[i], record), 0});
    if (at != indexes_[i].end() && at->second != recnum) return true;
  }
  return false;
}

// Adds an item behind its equals, which show in the status characters.
IsamModel::Place IsamModel::insert(std::size_t i, const Bytes& record, std::int32_t recnum) {
  Place place{key_of(keys_[i], record), keys_[i].nparts == 0 ? recnum : 0};
  const auto behind = indexes_[i].upper_bound({place.first, INT32_MAX});
  if (keys_[i].nparts > 0 && behind != indexes_[i].begin() &&
      std::prev(behind)->first.first == place.first) {
    place.second = std::prev(behind)->first.second + 1;
    status = "0202";
  }
  indexes_[i].emplace(place, recnum);
  for (const auto& [isfd, open] : opens_) {
    const bool equal = open.key == i && open.position.place.first == place.first;
    const bool gone = open.position.record == recnum || !is_there(open);
    if (equal && gone && keys_[i].nparts > 0) unsure_.insert(isfd);
  }
  return place;
}

void IsamModel::remove(std::size_t i, const Bytes& record, std::int32_t recnum) {
  auto at = indexes_[i].lower_bound({key_of(keys_[i], record), keys_[i].nparts == 0 ? recnum : 0});
  while (at->second != recnum) ++at;
  indexes_[i].erase(at);
}

void IsamModel::free_number(std::int32_t recnum) {
  if (recnum == last_) {
    --last_;
  } else {
    free_.push_back(recnum);
  }
}

// What an exclusive open changes is undone step by step: a number that was listed is freed again,
// which lowers the highest one if it is that. Others take the whole call back.
void IsamModel::return_refused() {
  if (!is_alone() || free_.empty()) return;
  const std::int32_t recnum = free_.back();
  free_.pop_back();
  free_number(recnum);
}

bool IsamModel::is_alone() const {
  return std::ranges::any_of(opens_, [](const auto& open) {
    const int lock = open.second.mode & 0xFF00;
    return lock == ISEXCLLOCK || lock == 0x500;
  });
}

int IsamModel::iswrite(int isfd, Bytes record, bool becomes_current) {
  Open* open = enter(isfd, kWrite, "9048");
  if (open == nullptr || !cut(record)) return -1;
  const std::int32_t recnum = free_.empty() ? last_ + 1 : free_.back();
  if (is_refused(record, recnum)) {
    return_refused();
    return end(ISEDUPLICATE);
  }
  if (free_.empty()) {
    ++last_;
  } else {
    free_.pop_back();
  }
  add(*open, std::move(record), recnum, becomes_current);
  return 0;
}

void IsamModel::add(Open& open, Bytes record, std::int32_t recnum, bool becomes_current) {
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    const Place place = insert(i, record, recnum);
    if (becomes_current && i == open.key) stand_on(open, place, recnum, true);
  }
  number = recnum;
  records[recnum] = std::move(record);
}

int IsamModel::iswritemany(int isfd, const std::vector<Bytes>& set,
                           std::vector<std::int32_t>& numbers,
                           const std::vector<std::int32_t>& lengths) {
  if (enter(isfd, kWrite, "9048") == nullptr) return -1;
  if (set.empty()) return end(ISEARGUMENT);
  for (std::size_t i = 0; i < set.size(); ++i) {
    if (minimum_ < maximum_) length = lengths[i];
    if (iswrite(isfd, set[i], false) != 0) return static_cast<int>(i);
    numbers[i] = number;
  }
  return static_cast<int>(set.size());
}

int IsamModel::isrewritemany(int isfd, const std::vector<Bytes>& set,
                             const std::vector<std::int32_t>& numbers,
                             const std::vector<std::int32_t>& lengths) {
  if (enter(isfd, kWrite, "9049") == nullptr) return -1;
  if (set.empty()) return end(ISEARGUMENT);
  for (std::size_t i = 0; i < set.size(); ++i) {
    if (minimum_ < maximum_) length = lengths[i];
    if (isrewrite(isfd, {Target::kNumber, numbers[i]}, set[i]) != 0) return static_cast<int>(i);
  }
  return static_cast<int>(set.size());
}

// The last number that was not refused is the highest; the lowest of those before it is used first.
int IsamModel::isload(int isfd, const std::vector<Bytes>& set, std::vector<std::int32_t>& numbers,
                      const std::vector<std::int32_t>& lengths,
                      std::vector<std::int32_t>& refused) {
  Open* open = enter(isfd, kWrite, "9048");
  if (open == nullptr) return -1;
  if ((open->mode & ISEXCLLOCK) == 0) return end(ISENOTEXCLUSIVE);
  if (opens_.size() > 1) return end(ISEINUSE);
  const std::int32_t before = last_;
  for (std::size_t i = 0; i < set.size(); ++i) {
    Bytes record = set[i];
    if (minimum_ < maximum_) record.resize(static_cast<std::size_t>(length = lengths[i]));
    numbers[i] = number = before + static_cast<std::int32_t>(i) + 1;
    if (is_refused(record, number)) {
      refused.push_back(number);
    } else {
      add(*open, std::move(record), last_ = number, false);
    }
  }
  number = numbers.back();
  const auto listed = std::ranges::lower_bound(refused, last_);
  free_.insert(free_.end(), std::reverse_iterator(listed), refused.rend());
  end(0);
  return static_cast<int>(refused.size());
}

// The number of the record to be changed, or 0 with the reason.
std::int32_t IsamModel::record_of(const Open& open, Target target, const Bytes& record) {
  int reason = ISENORECORD;
  std::int32_t recnum = 0;
  if (target.by == Target::kNumber) {
    recnum = records.contains(target.number) ? target.number : 0;
  } else if (target.by == Target::kCurrent) {
    recnum = is_there(open) && !open.position.deleted ? open.position.record : 0;
    reason = ISENOCURRENT;
  } else if (keys_[1].nparts == 0) {
    reason = ISENOPRIMARY;
  } else if (const Found found = find({}, record, 0, RD_EQUAL); found.error == 0) {
    recnum = found.entry->second;
  }
  if (recnum == 0) end(reason);
  return recnum;
}

int IsamModel::isrewrite(int isfd, Target target, Bytes record) {
  Open* open = enter(isfd, kWrite, "9049");
  if (open == nullptr || !cut(record)) return -1;
  const std::int32_t recnum = record_of(*open, target, record);
  if (recnum == 0) return -1;
  if (is_refused(record, recnum)) return end(ISEDUPLICATE);
  const Bytes old = std::exchange(records[recnum], record);
  for (std::size_t i = 1; i < keys_.size(); ++i) {
    if (key_of(keys_[i], old) == key_of(keys_[i], record)) continue;
    const Place place = insert(i, record, recnum);
    remove(i, old, recnum);
    if (target.by == Target::kCurrent && i == open->key) open->position.place = place;
  }
  number = recnum;
  return 0;
}

int IsamModel::isdelete(int isfd, Target target, const Bytes& record) {
  Open* open = enter(isfd, kWrite, "9049");
  const std::int32_t recnum = open == nullptr ? 0 : record_of(*open, target, record);
  if (recnum == 0) return -1;
  for (std::size_t i = 0; i < keys_.size(); ++i) remove(i, records.at(recnum), recnum);
  records.erase(recnum);
  free_number(recnum);
  if (open->position.record == recnum) open->position.deleted = true;
  number = recnum;
  return 0;
}

}  // namespace testing_support
