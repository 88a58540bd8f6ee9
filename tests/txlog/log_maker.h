// log_maker: logs put together by hand, and recoveries from them.
#pragma once

#include <map>
#include <string>

#include "isam/log/logformat.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {

using isam::txlog::Link;
using isam::txlog::LogRecordBuilder;
using isam::txlog::LogType;
using isam::txlog::stamp_record;

class Recovery : public LogTest {
 protected:
  // Puts the copy back and replays the log over it.
  int replay(int mode = 0) {
    ::iscleanup();
    ::islogclose();
    restore_copy();
    EXPECT_EQ(::islogopen("log"), 0);
    return ::isrecvr(mode);
  }
  static Rows rows_of(const char* name) {
    const int isfd = ::isopen(name, ISINPUT + ISMANULOCK + format());
    EXPECT_GE(isfd, 0) << name << ' ' << iserrno;
    Rows found = rows(isfd);
    ::isclose(isfd);
    EXPECT_EQ(faults(name), "");
    return found;
  }
};
class LogMaker {
 public:
  LogMaker() { bytes_ = {0xFB, 0x85, 0x9E, 0x78}; }

  // A record of process `process`; `fill` adds the payload. Linked ones name the one before them.
  template <typename Fill>
  void add(LogType type, int process, bool linked, Fill fill) {
    const std::size_t at = bytes_.size();
    LogRecordBuilder builder{bytes_, type};
    fill(builder);
    EXPECT_TRUE(builder.finish());
    Link& last = chains_[process];
    stamp_record(&bytes_[at], process, 0, 1, linked ? last : Link{});
    if (linked) last = {static_cast<std::int64_t>(at), static_cast<int>(bytes_.size() - at)};
  }
  // Another process gets a number, or the chain is as it was before a record that was taken back.
  Link& chain(int process) { return chains_[process]; }
  void mark(LogType type, int process) {
    add(type, process, true, [](LogRecordBuilder&) {});
  }
  void opens(LogType type, int process, int open, const char* name) {
    add(type, process, false, [&](LogRecordBuilder& builder) {
      builder.put_word(open);
      builder.put_word(0);
      builder.put_name(name);
    });
  }
  void image(LogType type, int process, int open, int number, const std::string& record,
             bool linked = true) {
    add(type, process, linked, [&](LogRecordBuilder& builder) {
      builder.put_word(open);
      builder.put_long(number);
      builder.put_word(static_cast<int>(record.size()));
      put(builder, record);
    });
  }
  void update(int process, int open, int number, const std::string& old, const std::string& record,
              bool linked = true) {
    add(LogType::kUpdate, process, linked, [&](LogRecordBuilder& builder) {
      builder.put_word(open);
      builder.put_long(number);
      builder.put_word(static_cast<int>(old.size()));
      builder.put_word(static_cast<int>(record.size()));
      put(builder, old);
      put(builder, record);
    });
  }
  void raw(const Image& bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
  void save() const { write_file("log", bytes_); }

 private:
  static void put(LogRecordBuilder& builder, const std::string& text) {
    builder.put_bytes({reinterpret_cast<const Byte*>(text.data()), text.size()});
  }

  Image bytes_;
  std::map<int, Link> chains_;
};

}  // namespace testing_support
