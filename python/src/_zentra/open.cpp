#include "open.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zentra_module {
namespace {

keydescr description_of(const KeyOf& key) {
  keydescr made{};
  made.flags = static_cast<std::int16_t>(key.flags);
  made.nparts = static_cast<std::int16_t>(std::min<std::size_t>(key.parts.size(), MAXPARTS));
  for (int i = 0; i < made.nparts; ++i) {
    const auto [start, length, type] = key.parts[static_cast<std::size_t>(i)];
    made.part[i] = {.start = static_cast<std::int16_t>(start),
                    .length = static_cast<std::int16_t>(length),
                    .type = static_cast<std::int16_t>(type)};
  }
  return made;
}

KeyOf key_of_description(const keydescr& description) {
  KeyOf key{.flags = description.flags, .parts = {}};
  for (int i = 0; i < std::clamp<int>(description.nparts, 0, MAXPARTS); ++i) {
    const keypart& part = description.part[i];
    key.parts.emplace_back(part.start, part.length, part.type);
  }
  return key;
}

}  // namespace

// The constructors are to be called with the interpreter's lock held, as everything here.
Open::Open(std::string name, int mode) : Open(std::move(name), -1, false) {
  in_turn([&] {
    isfd_ = isopen(name_.c_str(), mode);
    if (isfd_ < 0 && iserrno == ISEARGUMENT && isstat3 == '3' && isstat4 == '9') {
      variable_ = true;
      isfd_ = isopen(name_.c_str(), mode | ISVARLEN);
    }
    expect(isfd_);
    length_ = isreclen;
    learn();
  });
}

Open::Open(std::string name, int isfd, bool variable)
    : name_(std::move(name)), isfd_(isfd), generation_(generation()), variable_(variable) {}

Open::Open(Open&& other) noexcept
    : name_(std::move(other.name_)),
      isfd_(std::exchange(other.isfd_, -1)),
      generation_(other.generation_),
      variable_(other.variable_),
      length_(other.length_),
      least_(other.least_),
      current_(other.current_),
      keys_(std::move(other.keys_)),
      descriptions_(std::move(other.descriptions_)),
      room_(std::move(other.room_)) {}

Open::~Open() {
  if (isfd_ >= 0) {
    in_turn([&] { isclose(isfd_); });
  }
}

Open Open::build(std::string name, int least, int length, const KeyOf& key, int mode) {
  const bool variable = least != length;
  Open open(std::move(name), -1, variable);
  in_turn([&] {
    keydescr description = description_of(key);
    isreclen = least;
    open.isfd_ =
        isbuild(open.name_.c_str(), length, &description, mode | (variable ? ISVARLEN : 0));
    open.expect(open.isfd_);
    open.length_ = length;
    open.learn();
  });
  return open;
}

// What the open needs to know of its pair. Closes it where that fails.
void Open::learn() {
  try {
    dictinfo info{};
    expect(isdictinfo(isfd_, &info));
    const int indexes = info.di_nkeys & ~DI_VARLEN;
    keys_.clear();
    descriptions_.assign(1, keydescr{});
    for (int i = 1; i <= indexes; ++i) {
      keydescr description{};
      expect(iskeyinfo(isfd_, &description, i));
      keys_.push_back(key_of_description(description));
      descriptions_.push_back(description);
    }
    least_ = variable_ ? isreclen : length_;
    room_.assign(static_cast<std::size_t>(length_), '\0');
  } catch (...) {
    isclose(std::exchange(isfd_, -1));
    throw;
  }
}

int Open::number() const {
  if (isfd_ < 0) throw Failed(name_, ISENOTOPEN, "\"" + name_ + "\" has been closed");
  if (generation_ != generation()) throw Inherited(name_);
  return isfd_;
}

void Open::expect(int result) const {
  if (result < 0) throw Failed(name_);
}

// The child's call is refused by the library, and gives the number free there.
void Open::close() {
  if (isfd_ < 0) return;
  in_turn([&] {
    const int isfd = std::exchange(isfd_, -1);
    if (isfd >= 0 && isclose(isfd) < 0 && generation_ == generation()) throw Failed(name_);
  });
}

int Open::count() {
  return in_turn([&] {
    dictinfo info{};
    expect(isdictinfo(number(), &info));
    return static_cast<int>(info.di_nrecords);
  });
}

std::uint32_t Open::stamp() {
  return in_turn([&] {
    std::uint32_t stamp = 0;
    expect(isstamp(number(), &stamp));
    return stamp;
  });
}

// The record in room that the library may read and write.
char* Open::room_for(std::string_view record) {
  if (record.size() > room_.size()) {
    throw Failed(name_, ISERECLEN,
                 "a record of " + std::to_string(record.size()) + " bytes; those of \"" + name_ +
                     "\" have " + std::to_string(length_) + " at most");
  }
  std::memcpy(room_.data(), record.data(), record.size());
  std::memset(room_.data() + record.size(), 0, room_.size() - record.size());
  isreclen = static_cast<std::int32_t>(record.size());
  return room_.data();
}

keydescr* Open::key_of(int index) {
  if (index < 0 || static_cast<std::size_t>(index) >= descriptions_.size()) {
    throw Failed(name_, ISEKEY,
                 "\"" + name_ + "\" has no index " + std::to_string(index) + ", but " +
                     std::to_string(keys_.size()));
  }
  return &descriptions_[static_cast<std::size_t>(index)];
}

void Open::go_to(int index) {
  if (index == current_) return;
  keydescr* const key = key_of(index);
  if (isstart(number(), key, 0, room_.data(), RD_FIRST) < 0 && iserrno != ISEEND &&
      iserrno != ISENORECORD) {
    throw Failed(name_);
  }
  current_ = index;
}

bool Open::start(int index, int mode, std::string_view record, int length, std::int32_t number_of) {
  return in_turn([&] {
    const int isfd = number();
    keydescr* const key = key_of(index);
    char* const room = room_for(record);
    isrecnum = number_of;
    if (isstart(isfd, key, length, room, mode) == 0) {
      current_ = index;
      return true;
    }
    if (iserrno != ISEEND && iserrno != ISENORECORD) throw Failed(name_);
    current_ = index;
    return false;
  });
}

std::optional<Record> Open::read(int index, int mode, std::string_view record,
                                 std::int32_t number_of) {
  return in_turn([&]() -> std::optional<Record> {
    const int isfd = number();
    go_to(index);
    char* const room = room_for(record);
    isrecnum = number_of;
    if (isread(isfd, room, mode) == 0) {
      return Record{isrecnum, {room, static_cast<std::size_t>(isreclen)}};
    }
    if (iserrno != ISEEND && iserrno != ISENORECORD) throw Failed(name_);
    return {};
  });
}

int Open::read_into(recordset& set, int mode) {
  const int got = isreadmany(number(), &set, mode);
  if (got < 0 || (got == 0 && iserrno != ISEEND && iserrno != ISENORECORD)) throw Failed(name_);
  return got;
}

std::vector<Record> Open::read_many(int mode, int count) {
  return in_turn([&] {
    const auto most = static_cast<std::size_t>(std::clamp(count, 1, 1024));
    const auto length = static_cast<std::size_t>(length_);
    std::string records(most * length, '\0');
    std::vector<std::int32_t> numbers(most);
    std::vector<std::int32_t> lengths(most);
    recordset set{.count = static_cast<std::int32_t>(most),
                  .records = records.data(),
                  .size = records.size(),
                  .numbers = numbers.data(),
                  .lengths = lengths.data()};
    const auto got = static_cast<std::size_t>(read_into(set, mode));
    std::vector<Record> read;
    read.reserve(got);
    for (std::size_t i = 0; i < got; ++i) {
      read.push_back(
          {numbers[i], records.substr(i * length, static_cast<std::size_t>(lengths[i]))});
    }
    return read;
  });
}

std::int32_t Open::write(std::string_view record) {
  return in_turn([&] {
    const int isfd = number();
    expect(iswrite(isfd, room_for(record)));
    return isrecnum;
  });
}

bool Open::rewrite(std::string_view record, std::int32_t number_of) {
  return in_turn([&] {
    const int isfd = number();
    char* const room = room_for(record);
    const int result = number_of == 0 ? isrewrite(isfd, room) : isrewrec(isfd, number_of, room);
    if (result < 0 && iserrno != ISENORECORD) throw Failed(name_);
    return result == 0;
  });
}

bool Open::remove(std::string_view record, std::int32_t number_of) {
  return in_turn([&] {
    const int isfd = number();
    char* const room = room_for(record);
    const int result = number_of == 0 ? isdelete(isfd, room) : isdelrec(isfd, number_of);
    if (result < 0 && iserrno != ISENORECORD) throw Failed(name_);
    return result == 0;
  });
}

void Open::release(std::int32_t number_of) {
  in_turn([&] { expect(isrelrec(number(), number_of)); });
}

bool Open::lock_file() {
  return in_turn([&] {
    const int result = islock(number());
    if (result < 0 && iserrno != ISELOCKED) throw Failed(name_);
    return result == 0;
  });
}

void Open::unlock_file() {
  in_turn([&] { expect(isunlock(number())); });
}

void Open::flush() {
  in_turn([&] { expect(isflush(number())); });
}

void Open::add_index(const KeyOf& key) {
  in_turn([&] {
    keydescr description = description_of(key);
    expect(isaddindex(number(), &description));
    learn();
  });
}

void Open::drop_index(int index) {
  in_turn([&] {
    keydescr* const key = key_of(index);
    go_to(1);
    expect(isdelindex(number(), key));
    learn();
  });
}

void Open::load_begin() {
  in_turn([&] { expect(isloadbegin(number())); });
}

void Open::load(char* records, std::size_t size, std::int32_t* lengths, std::int32_t count) {
  in_turn([&] {
    std::vector<std::int32_t> numbers(static_cast<std::size_t>(std::max(count, 0)));
    recordset set{.count = count,
                  .records = records,
                  .size = size,
                  .numbers = numbers.data(),
                  .lengths = lengths};
    const int taken = isload(number(), &set);
    if (taken < count) throw Failed(name_);
  });
}

std::pair<int, std::vector<std::int32_t>> Open::load_end(int room) {
  return in_turn([&] {
    std::vector<std::int32_t> refused(static_cast<std::size_t>(std::max(room, 0)));
    const int count =
        isloadend(number(), refused.data(), static_cast<std::int32_t>(refused.size()));
    expect(count);
    refused.resize(std::min(refused.size(), static_cast<std::size_t>(count)));
    return std::pair(count, std::move(refused));
  });
}

void Open::load_drop() {
  in_turn([&] { expect(isloaddrop(number())); });
}

}  // namespace zentra_module
