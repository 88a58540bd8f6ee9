// log_script: logs in words, and what recoveries make of them.
#pragma once

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/txlog/log_maker.h"

namespace testing_support {

// A log in words. Each begins with the letter of a process; a small letter stands for its open
// outside of transactions. Records are given as number:id.group.
//
//   A[  A]  A~      begin, commit, rollback
//   A+4:7.0         insert          A-4:7.0   delete
//   A*4:7.0>8.0     rewrite
//   A!              the opposite of its last image, which was taken back
//   A#              from here on another process with its number; A= the same one, which opens its
//                   files again; A5 the next open is by this number, which stays open beside others
//   Ac  Ai  Ae      cluster, a unique index over groups, erase
class Script {
 public:
  explicit Script(const std::string& text) {
    std::istringstream words{text};
    for (std::string word; words >> word;) add(word);
  }
  void save() const { log_.save(); }

 private:
  static constexpr int kLinked = 3, kUnlinked = 4;

  static std::string record(std::string_view text) {
    const std::string one{text};
    return row(std::atoi(one.c_str()), std::atoi(one.c_str() + one.find('.') + 1));
  }

  void add(const std::string& word) {
    const bool linked = word[0] < 'a';
    const int process = 100 + (linked ? word[0] - 'A' : word[0] - 'a');
    const int open = !linked ? kUnlinked : number_[process] != 0 ? number_[process] : kLinked;
    const std::string rest = word.substr(2);
    const std::size_t colon = rest.find(':'), arrow = rest.find('>');
    const int number = std::atoi(rest.c_str());
    switch (word[1]) {
      case '[':
        return log_.mark(LogType::kBegin, process);
      case ']':
        return log_.mark(LogType::kCommit, process);
      case '~':
        return log_.mark(LogType::kRollback, process);
      case '#':
        log_.chain(process) = {};
        [[fallthrough]];
      case '=':
        opened_.erase({process, kLinked});
        opened_.erase({process, kUnlinked});
        return;
      case '5':
        number_[process] = 5;
        return;
      case 'e':
        return log_.add(LogType::kErased, process, false,
                        [](LogRecordBuilder& builder) { builder.put_name("pair"); });
      case '!':
        return image(last_[process].inverted(), process);
      default:
        break;
    }
    if (opened_.insert({process, open}).second) log_.opens(LogType::kOpened, process, open, "pair");
    if (word[1] == 'c' || word[1] == 'i') {
      const bool clusters = word[1] == 'c';
      const keydescr groups{0, 1, {{kGroupAt + 1, 7, KT_CHAR}}, 0, 0};
      return log_.add(clusters ? LogType::kClustered : LogType::kIndexAdded, process, false,
                      [&](LogRecordBuilder& builder) {
                        builder.put_word(open);
                        builder.put_key(clusters ? id_key() : groups);
                      });
    }
    const std::string first = record(rest.substr(colon + 1));
    Logged next{open, number, linked, "", "", log_.chain(process)};
    if (word[1] != '+') next.old = first;
    if (word[1] == '+') next.fresh = first;
    if (word[1] == '*') next.fresh = record(rest.substr(arrow + 1));
    last_[process] = next;
    image(next, process);
  }

  struct Logged {
    int open = 0, number = 0;
    bool linked = false;
    std::string old, fresh;
    Link chain;

    [[nodiscard]] Logged inverted() const { return {open, number, linked, fresh, old, chain}; }
  };
  // An opposite is linked as its image was, and is no part of the chain.
  void image(const Logged& one, int process) {
    const bool opposite = log_.chain(process).offset != one.chain.offset;
    log_.chain(process) = one.chain;
    if (one.old.empty()) {
      log_.image(LogType::kInsert, process, one.open, one.number, one.fresh, one.linked);
    } else if (one.fresh.empty()) {
      log_.image(LogType::kDelete, process, one.open, one.number, one.old, one.linked);
    } else {
      log_.update(process, one.open, one.number, one.old, one.fresh, one.linked);
    }
    if (opposite) log_.chain(process) = one.chain;
  }

  LogMaker log_;
  std::set<std::pair<int, int>> opened_;
  std::map<int, Logged> last_;
  std::map<int, int> number_;  // of the open inside of transactions, unless 3
};

class Evidence : public Recovery {
 protected:
  // The records 1:1.0, 2:2.0 and 3:3.0.
  Evidence() {
    const int isfd = build("pair", 0);
    for (int id = 1; id <= 3; ++id) write(isfd, row(id, 0));
    ::isclose(isfd);
    keep_copy();
  }
  // What a log leads to: the records in the order of their numbers, or why it stops.
  std::string outcome(const std::string& script) {
    Script{script}.save();
    if (replay() != 0) return std::to_string(iserrno);
    const int isfd = ::isopen("pair", ISINPUT + ISMANULOCK);
    if (isfd < 0) return "none";
    rows(isfd);
    std::string text, record(kMaximum, 0);
    keydescr by_number{};
    ::isstart(isfd, &by_number, 0, record.data(), RD_FIRST);
    while (::isread(isfd, record.data(), RD_NEXT) == 0) {
      text += (text.empty() ? "" : " ") + std::to_string(isrecnum) + ':' +
              std::to_string(std::atoi(record.substr(0, kIdLength).c_str())) + '.' +
              std::to_string(std::atoi(record.substr(kGroupAt, 8).c_str()));
    }
    ::isclose(isfd);
    return text;
  }
};
}  // namespace testing_support
