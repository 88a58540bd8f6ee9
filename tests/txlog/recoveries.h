// recoveries: what a recovery makes of a log, over pairs restored from a copy.
#pragma once

#include <string>

#include "tests/support/log_words.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {

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
};

class Evidence : public Recovery {
 protected:
  Evidence() {
    build_pair("pair", varying(), 3);
    keep_copy();
  }
  // What a log in words leads to, as the cases in evidence.txt tell it.
  std::string outcome(const std::string& words) {
    const int mode = (words.find("-k ") == words.npos ? 0 : RCV_SKIP) +
                     (words.find("-a ") == words.npos ? 0 : RCV_ANY);
    write_file("log", log_of(words));
    const bool recovered = replay(mode) == 0;
    std::string text = recovered ? contents_of("pair") : std::to_string(iserrno);
    if (!recovered) {
      EXPECT_EQ((std::string{isstat1, isstat2, isstat3, isstat4}), "9090") << words;
    }
    EXPECT_EQ(std::filesystem::exists("isrecvr_err.log"), mode != 0);
    if (mode != 0) {
      text += notes();
      ::islogclose();
      EXPECT_EQ(::islogopen("log"), 0);
      EXPECT_EQ(::isrecvr(mode), -1) << "the notes of before are kept";
      EXPECT_EQ(iserrno, ISELOGOPEN);
      std::filesystem::remove("isrecvr_err.log");
    }
    return text;
  }

 private:
  // Each record of the error log, and behind it the message about it.
  static std::string notes() {
    const Image log = read_file("isrecvr_err.log");
    std::string text;
    for (std::size_t at = 4, length = 0; at < log.size(); at += length) {
      length = static_cast<std::size_t>(get2(&log[at]));
      EXPECT_EQ(get2(&log[at + length - 2]), static_cast<int>(length));
      const auto from = [&](std::size_t first, std::size_t end) {
        return std::string(&log[at + first], &log[at + end]);
      };
      const bool tells = from(2, 4) == "LM";
      text += tells ? '=' + std::to_string(get2(&log[at + 28])) + ' ' + from(38, length - 2)
                    : ' ' + from(2, 4);
    }
    return text;
  }
};

}  // namespace testing_support
