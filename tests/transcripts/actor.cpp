// actor: a process that does library calls and meets failing system calls as scripts.py tells it.
//
//   actor fixed|varying WHICH LINE...
//
// Each LINE is the descriptor of a socket, a message an order; this process obeys what comes by
// LINE number WHICH, one that it forks has another. Answers "ok", what there is to show, or "!" and
// iserrno, or "~" and iserrno where a call succeeds with one. "waits" comes ahead of an answer when
// a lock request has to wait for another process, "paused" when the process stands before a system
// call as it was told to; the next message makes it go on. tests/scripts/README.md tells the words;
// modes and errors come as numbers.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/support/between.h"
#include "tests/support/session.h"

namespace testing_support {
namespace {

Row row_of(const std::string& word) {
  Row row;
  std::sscanf(word.c_str(), "%d.%d.%d", &row.id, &row.group, &row.counter);
  return row;
}

// "id", "group", "number" for the order of record numbers, or "START,LENGTH" or
// "START,LENGTH,TYPE" for a part of the record, behind "unique," one that may not repeat.
keydescr key_of(const std::string& name) {
  if (name == "id") return id_key();
  if (name == "group") return group_key();
  if (name == "number") return {};
  const bool unique = name.starts_with("unique,");
  keydescr key{static_cast<std::int16_t>(unique ? 0 : KF_DUPS), 1, {}, 0, 0};
  std::sscanf(name.c_str() + (unique ? 7 : 0), "%hd,%hd,%hd", &key.part[0].start,
              &key.part[0].length, &key.part[0].type);
  return key;
}

// What a call is told, and what it has to show.
struct Asked {
  Session& session;
  std::istream& words;
  bool varying = false;
  std::string shown = "ok";

  std::string word() {
    std::string next;
    words >> next;
    return next;
  }
  int number() { return std::stoi(word()); }
  // Of a variable, which no call has to do with.
  int show_variable(int number) {
    ::iserrno = 0;
    return show(0, number);
  }
  int show(int result, long number) {
    shown = std::to_string(number);
    return result;
  }
  int read(int mode, int id = 0) {
    const int result = session.read(mode, id);
    shown = std::to_string(session.row.id) + '.' + std::to_string(session.row.group) + '.' +
            std::to_string(session.row.counter);
    return result;
  }
  int open(int (Session::*call)(int)) {
    session = {.base = word(), .varying = varying};
    return (session.*call)(number());
  }
};

int load_one(int isfd, char* record) {
  std::int32_t length = ::isreclen;
  recordset set{1, record, kMaximum, &::isrecnum, &length};
  return ::isload(isfd, &set) == 1 ? 0 : -1;
}

// The calls by the names under which a script knows them, those of a kind together. None is found
// for a name that is no call's.
const std::map<std::string, int (*)()> kAlone = {
    {"cleanup", ::iscleanup}, {"logclose", ::islogclose}, {"recover", ::isrecover},
    {"begin", ::isbegin},     {"commit", ::iscommit},     {"rollback", ::isrollback},
    {"susplog", ::issusplog}, {"resumlog", ::isresumlog}};
const std::map<std::string, int (*)(int)> kOfAnOpen = {
    {"close", ::isclose},   {"delcurr", ::isdelcurr},     {"lock", ::islock},
    {"unlock", ::isunlock}, {"release", ::isrelease},     {"flush", ::isflush},
    {"altinc", ::isaltinc}, {"loadbegin", ::isloadbegin}, {"loaddrop", ::isloaddrop}};
const std::map<std::string, int (*)(int, char*)> kWithRecord = {
    {"write", ::iswrite},     {"wrcurr", ::iswrcurr}, {"rewrite", ::isrewrite},
    {"rewcurr", ::isrewcurr}, {"load", load_one},     {"delete", ::isdelete}};
const std::map<std::string, int (*)(int, keydescr*)> kWithKey = {{"addindex", ::isaddindex},
                                                                 {"delindex", ::isdelindex},
                                                                 {"cluster", ::iscluster},
                                                                 {"tstindex", ::iststindex}};
const std::map<std::string, int (*)(const char*)> kWithName = {{"erase", ::iserase},
                                                               {"logopen", ::islogopen}};
const std::map<std::string, int (*)(int, std::int32_t*)> kGiving = {
    {"uniqueid", ::isuniqueid}, {"curruniq", ::iscurruniq}, {"altchk", ::isaltchk}};
const std::map<std::string, int (*)(Asked&)> kOthers = {
    {"open", [](Asked& a) { return a.open(&Session::open); }},
    {"build", [](Asked& a) { return a.open(&Session::build); }},
    {"build-plain", [](Asked& a) { return a.open(&Session::build_empty); }},
    {"read", [](Asked& a) { return a.read(a.number()); }},
    {"find",
     [](Asked& a) {
       const int mode = RD_EQUAL | a.number();
       return a.read(mode, a.number());
     }},
    {"start",
     [](Asked& a) {
       const keydescr key = key_of(a.word());
       const int mode = a.number();
       a.session.row = row_of(a.word());
       return a.session.start(key, mode);
     }},
    {"count",  // one more, in the current record
     [](Asked& a) {
       ++a.session.row.counter;
       return a.session.put(a.session.row, ::isrewcurr);
     }},
    {"loadend",
     [](Asked& a) {
       std::vector<std::int32_t> refused(9);
       const int count = ::isloadend(a.session.isfd, refused.data(), 9);
       for (int i = 0; i < std::min(count, 9); ++i) {
         a.shown += (i == 0 ? " but " : " ") + std::to_string(refused[static_cast<std::size_t>(i)]);
       }
       return count;
     }},
    {"rename",
     [](Asked& a) {
       const std::string from = a.word();
       return ::isrename(from.c_str(), a.word().c_str());
     }},
    {"xgetlen", [](Asked& a) { return a.show(::isxgetlen(), 0); }},
    {"delrec", [](Asked& a) { return ::isdelrec(a.session.isfd, a.number()); }},
    {"relrec", [](Asked& a) { return ::isrelrec(a.session.isfd, a.number()); }},
    {"setunique", [](Asked& a) { return ::issetunique(a.session.isfd, a.number()); }},
    {"filelocked",
     [](Asked& a) {
       const int result = ::isfilelocked(a.session.isfd, a.number());
       return a.show(result, result);
     }},
    {"audit",
     [](Asked& a) {
       const int mode = a.number();
       std::string name = a.word() + std::string(200, '\0');
       a.words.clear();
       const int result = ::isaudit(a.session.isfd, name.data(), mode);
       if (mode == AUDGETNAME) a.shown = name.c_str();
       return mode == AUDINFO ? a.show(result, name[0]) : result;
     }},
    {"keyinfo",
     [](Asked& a) {
       keydescr key{};
       return ::iskeyinfo(a.session.isfd, &key, a.number());
     }},
    {"status",
     [](Asked& a) {
       a.show_variable(0);
       a.shown = {isstat1, isstat2, isstat3, isstat4};
       return 0;
     }},
    {"explain",
     [](Asked& a) {
       const std::string said = ::isexplain();
       a.show_variable(0);
       a.shown = said;
       return 0;
     }},
    {"place", [](Asked& a) { return a.show_variable(::iserrio); }},
    {"batch", [](Asked& a) { return ::isbatch(a.number()); }},
    {"vclose", [](Asked& a) { return ::isvclose(a.number()); }},
    {"recnum", [](Asked& a) { return a.show_variable(::isrecnum); }},
    {"number", [](Asked& a) { return a.show_variable(a.session.isfd); }},
    {"records", [](Asked& a) {
       dictinfo info{};
       const int result = ::isdictinfo(a.session.isfd, &info);
       return a.show(result, info.di_nrecords);
     }}};

int do_call(const std::string& name, Asked& asked) {
  Session& session = asked.session;
  const auto find = [&](const auto& calls) {
    const auto at = calls.find(name);
    return at == calls.end() ? nullptr : at->second;
  };
  if (const auto call = find(kAlone)) return call();
  if (const auto call = find(kOfAnOpen)) return call(session.isfd);
  if (const auto call = find(kWithRecord)) return session.put(row_of(asked.word()), call);
  if (const auto call = find(kWithName)) return call(asked.word().c_str());
  if (const auto call = find(kOthers)) return call(asked);
  if (const auto call = find(kWithKey)) {
    keydescr key = key_of(asked.word());
    const int result = call(session.isfd, &key);
    if (result >= 0 && name == "cluster") session.isfd = result;
    return result;
  }
  const auto call = find(kGiving);
  if (call == nullptr) throw std::runtime_error("what is " + name + "?");
  std::int32_t given = 0;
  const int result = call(session.isfd, &given);
  return asked.show(result, given);
}

// ---- Calls by the system.

// The names are those of tests/transcripts/failing_calls.c, and some for single kinds of locks.
bool is_of(const SystemCall& call, const std::string& kind) {
  static const std::map<std::string, SystemCall::Kind> kinds = {
      {"open", SystemCall::kOpen},     {"nameless", SystemCall::kNameless},
      {"read", SystemCall::kRead},     {"write", SystemCall::kWrite},
      {"copy", SystemCall::kCopy},     {"lock", SystemCall::kLock},
      {"clone", SystemCall::kClone},   {"link", SystemCall::kLink},
      {"rename", SystemCall::kRename}, {"unlink", SystemCall::kUnlink},
      {"sync", SystemCall::kSync},     {"cut", SystemCall::kCut},
      {"stat", SystemCall::kStat}};
  const auto at = kinds.find(kind);
  if (at != kinds.end()) return at->second == call.kind;
  if (kind == "grow") return call.kind == SystemCall::kWrite && call.grows();
  if (call.kind != SystemCall::kLock || call.lock->l_type == F_UNLCK) return false;
  if (kind == "taken-lock") return true;
  constexpr off_t kRecords = 0x40000000, kOpenLock = 0x7FFFFFFF;
  if (kind == "open-lock") return call.at == kOpenLock;
  return kind == "record-lock" && call.lock->l_len == 1 && call.at >= kRecords &&
         call.at != kOpenLock;
}

// A kind of call on files whose name ends so.
struct Concern {
  std::string kind;
  std::string file;
  bool operator()(const SystemCall& call) const {
    return is_of(call, kind) && (file == "*" || call.name().ends_with(file));
  }
};

// A rule under which calls fail.
struct Fault {
  Concern calls = {};
  int error = 0;  // below 0: a signal
  // '#': the call of that number alone, '+': from there on, 'x': so many times, '@': what ends
  // behind that byte, '*': always, '/': each third, and the rest transfer a third
  char when = '*';
  long number = 0;
  long met = 0;

  static int halve(SystemCall& call) {
    call.count = (call.count + 1) / 2;
    return 0;
  }
  int of(SystemCall& call) {
    if (!calls(call)) return 0;
    // Of the locks only the wait for a call's turn goes on after a signal. Before it the lock is
    // asked for, here in vain.
    if (when == '/' && call.kind == SystemCall::kLock && call.flags != F_SETLKW) {
      return call.flags == F_SETLK && call.at == 0 ? EAGAIN : 0;
    }
    ++met;
    if (when == '/') call.count = (call.count + 2) / 3;
    const bool now = when == '*' || (when == '#' && met == number) ||
                     (when == '+' && met >= number) || (when == 'x' && met <= number) ||
                     (when == '/' && met % 3 == 0) ||
                     (when == '@' && call.at + static_cast<off_t>(call.count) > number);
    // Of the room for the first of many a half is there.
    if (now && when == '+' && met == number && calls.kind == "grow") return halve(call);
    if (!now || error >= 0) return now ? error : 0;
    ::raise(-error);
    return 0;
  }
};

class Actor {
 public:
  Actor(std::vector<int> lines, std::size_t which, bool varying)
      : lines_(std::move(lines)), line_(lines_[which]), varying_(varying) {
    stand_between([this](SystemCall& call) { return before(call); });
    ::alarm(120);
  }

  void obey() {
    for (std::string order; !(order = hear()).empty();) {
      std::string said;
      try {
        said = answer(order);
      } catch (const std::exception& error) {
        said = std::string("cannot: ") + error.what();
      }
      if (!std::exchange(said_nothing_, false)) tell(said);
    }
  }

 private:
  void tell(const std::string& message) const {
    static_cast<void>(::send(line_, message.data(), message.size(), MSG_NOSIGNAL));
  }
  [[nodiscard]] std::string hear() const {
    std::string message(4096, '\0');
    const ssize_t got = ::recv(line_, message.data(), message.size(), 0);
    message.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return message;
  }

  std::string answer(const std::string& order) {
    std::istringstream words(order);
    char who = 0;
    int which = 1;
    std::string what;
    if (words >> who; words.peek() != ' ') words >> which;
    words >> what;
    Asked asked{sessions_[which], words, varying_};
    if (instruct(what, asked)) return asked.shown;
    const int result = do_call(what, asked);
    const int error = ::iserrno;
    if (!words || !(words >> std::ws).eof()) throw std::runtime_error("too few or many words");
    if (result == kGarbled) return "garbled";
    if (result < 0) return '!' + std::to_string(error);
    return error == 0 ? asked.shown : '~' + std::to_string(error);
  }

  // What is no call: rules for the system, and the process itself.
  bool instruct(const std::string& what, Asked& asked) {
    if (what == "starts") {
      while (!(asked.words >> std::ws).eof()) {
        const std::string setting = asked.word();
        const std::size_t equals = setting.find('=');
        ::setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
      }
    } else if (what == "forks") {
      const auto other = static_cast<std::size_t>(asked.word()[0] - 'a');
      const pid_t child = ::fork();
      if (child == 0) {
        line_ = lines_.at(other);
        said_nothing_ = true;  // the parent answers
      }
      asked.show(0, child);
    } else if (what == "goes-to") {
      std::filesystem::current_path(asked.word());
    } else if (what == "pauses") {
      pause_.kind = asked.word();
      pause_.file = asked.word();
    } else if (what == "fails") {
      Fault fault;
      fault.calls.kind = asked.word();
      fault.calls.file = asked.word();
      fault.error = asked.number();
      asked.words >> fault.when >> fault.number;
      asked.words.clear();
      faults_.push_back(fault);
    } else if (what == "works") {
      faults_.clear();
    } else if (what == "met") {
      asked.show(0, faults_.back().met);
    } else if (what == "refuses") {
      refusal_.begin(asked.number());
    } else if (what == "refused") {
      asked.show(0, refusal_.end() ? 1 : 0);
    } else {
      return false;
    }
    return true;
  }

  int before(SystemCall& call) {
    if (pause_(call)) {
      pause_ = {};
      tell("paused");
      static_cast<void>(hear());
    }
    if (const int refused = refusal_.before(call); refused != 0) return refused;
    for (Fault& fault : faults_) {
      const int error = fault.of(call);
      if (error != 0) return error;
    }
    if (call.kind == SystemCall::kLock && call.flags == F_SETLKW &&
        ::fcntl(call.fd, F_SETLK, call.lock) != 0) {
      tell("waits");
    }
    return 0;
  }
  std::vector<int> lines_;  // of this process and those that it forks
  int line_;
  bool said_nothing_ = false;
  bool varying_;
  std::map<int, Session> sessions_;
  Concern pause_;
  std::vector<Fault> faults_;
  RefusedWrite refusal_;
};

}  // namespace
}  // namespace testing_support

int main(int argc, char** argv) {
  std::vector<int> lines;
  for (int i = 3; i < argc; ++i) lines.push_back(std::atoi(argv[i]));
  const bool varying = argc > 1 && std::strcmp(argv[1], "varying") == 0;
  const auto which = static_cast<std::size_t>(argc > 2 ? std::atoi(argv[2]) : 0);
  if (which >= lines.size()) return 2;
  testing_support::Actor(lines, which, varying).obey();
  return 0;
}
