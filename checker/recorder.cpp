#include "checker/recorder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <new>
#include <utility>

#include "checker/check.h"
#include "checker/jsonline.h"
#include "common/io.h"
#include "common/printable.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/base/format.h"
#include "isam/files/files.h"

namespace checker {
namespace {

using std::chrono::steady_clock;

std::vector<std::string> base_names(std::vector<std::string> names) {
  for (std::string& name : names) cut_suffix(name);
  return names;
}

std::string now() {
  const std::time_t seconds = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 32> room{};
  return {room.data(), std::strftime(room.data(), room.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

// Whether a pair that cannot be opened is none: one of its files is there, but is no file.
bool is_none(const std::string& name) {
  for (const std::string& path : {isam::mkidxname(name), isam::mkdatname(name)}) {
    struct stat status {};
    const bool is_there = common::system_calls().stat(path.c_str(), &status) == 0;
    if (is_there && !S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) return true;
  }
  return false;
}

}  // namespace

// Does the work on the report; no memory for it is no trouble of the run's.
template <typename Work>
void Recorder::record(Work work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    if (file_.is_open()) file_.give_up(ENOMEM);
  }
}

Recorder::Recorder(Listener& inner, const std::string& path, std::vector<std::string> names)
    : inner_(inner), names_(base_names(std::move(names))), file_(path, names_) {
  record([&] {
    JsonLine line;
    line.add("schema", kSchema).add("type", "begin").add("command", "kestro");
    line.add("pairs", std::ssize(names_)).add("time", now()).add("process", ::getpid());
    file_.append(line.text());
    file_.flush();
  });
}

Recorder::~Recorder() {
  record([&] {
    JsonLine line("end");
    line.add(tally_.fields()).add("status", static_cast<int>(tally_.worst()));
    file_.append(line.add("verdict", verdict_of(tally_.worst())).text());
    file_.flush();
  });
}

void Recorder::pair_begins() {
  record([&] {
    pair_ = {};
    ++number_;
    JsonLine line("pair");
    line.add("pair", std::int64_t(number_)).add("pairs", std::ssize(names_));
    file_.append(line.add("name", FileBytes{.bytes = names_[number_ - 1]}).text());
    file_.flush();
  });
}

std::string Recorder::verdict_in_words(const Outcome& outcome) const {
  if (!pair_.why.empty()) return pair_.why;
  if (pair_.agreed != 0 && !outcome.repaired) return "damaged; the repair has failed";
  switch (pair_.status) {
    case Status::kSound:
      return "sound";
    case Status::kDamaged:
      return pair_.agreed == 0 ? "damaged; nothing is repaired"
                               : "damaged; what was agreed to is repaired";
    case Status::kNeedsSalvage:
      return pair_.agreed == 0 ? "no sound pair, and nothing that repair heals: it needs salvage"
                               : "what was agreed to is repaired; what is left needs salvage";
    default:
      return "could not be checked to its end";
  }
}

Fields Recorder::totals(const Outcome& outcome) const {
  Fields fields{{"findings", pair_.findings}};
  const auto add = [&](const char* name, std::int64_t value) { fields.emplace_back(name, value); };
  if (pair_.summary) {
    add("records", pair_.summary->records_used);
    add("free-records", pair_.summary->records_free);
    add("indexes", pair_.indexes);
    add("nodes", pair_.summary->nodes_used);
    add("free-nodes", pair_.summary->nodes_free);
    if (pair_.summary->varlen) add("storage-pages", pair_.summary->pages);
  }
  add("agreed", pair_.agreed);
  add("declined", outcome.declined);
  fields.emplace_back("repaired", pair_.agreed != 0 && outcome.repaired);
  fields.emplace_back("seconds",
                      std::chrono::duration<double>(steady_clock::now() - pair_.start).count());
  return fields;
}

// What the system did not let the checks read counts neither as sound nor as damaged.
void Recorder::pair_ends(const Outcome& outcome) {
  record([&] {
    if (outcome.system_error != 0 && !pair_.has_system_error) {
      add(entry_of_failure(outcome.system_error, 0));
    }
    tally_.add(pair_.status, pair_.findings);
    JsonLine line("pair-end");
    line.add("pair", std::int64_t(number_)).add(totals(outcome));
    line.add("message", verdict_in_words(outcome));
    line.add("status", static_cast<int>(pair_.status));
    file_.append(line.add("verdict", verdict_of(pair_.status)).text());
    file_.flush();
  });
}

void Recorder::add(const Entry& entry) {
  if (entry.kind == Entry::Kind::kFinding) {
    ++pair_.findings;
    pair_.status = worse(pair_.status, entry.status);
  }
  JsonLine line(name_of(entry.kind));
  file_.append(line.add("pair", std::int64_t(number_)).add(entry).text());
}

void Recorder::found(const Finding& finding) {
  inner_.found(finding);
  record([&] {
    Entry entry = entry_of(finding);
    if (finding.code == Code::kCannotOpen && is_none(names_[number_ - 1])) {
      entry.status = Status::kNeedsSalvage;
    }
    add(entry);
  });
}

bool Recorder::answer(Question question) {
  const bool yes = inner_.answer(question);
  if (yes) ++pair_.agreed;
  record([&] {
    // Agreed to, it is no finding of the check's.
    if (yes && question == Question::kLockMethod) {
      Entry entry = entry_of(
          {.code = Code::kOtherLockMethod,
           .numbers = {.found = isam::dictp->d_lockmethod(), .expected = isam::kLockMethod}});
      entry.status = Status::kDamaged;
      add(entry);
    }
    const bool of_index = question == Question::kDeleteIndex || question == Question::kRemakeIndex;
    JsonLine line("answer");
    line.add("pair", std::int64_t(number_)).add("code", text_of(question).code);
    if (of_index) line.add("index", pair_.index);
    file_.append(line.add("answer", yes ? "yes" : "no").text());
    file_.flush();
  });
  return yes;
}

// Before the first pass it is why the pair is not checked.
void Recorder::note_failure(std::int32_t code, std::int32_t place) {
  pair_.has_system_error = pair_.has_system_error || is_of_system(code);
  if (pair_.has_begun) return add(entry_of_failure(code, place));
  pair_.why = error_text(code);
  if (code == isam::kFileInUse) {
    pair_.status = Status::kInUse;
  } else if (is_of_system(code)) {
    pair_.status = Status::kUnfinished;
  } else {
    add({.code = "pair.none",
         .status = Status::kNeedsSalvage,
         .text = dictionary_error_text(code)});
    pair_.why.clear();
  }
}

void Recorder::failed(std::int32_t code, std::int32_t place) {
  inner_.failed(code, place);
  record([&] { note_failure(code, place); });
}

void Recorder::begins(Pass pass) {
  inner_.begins(pass);
  pair_.has_begun = true;
}

void Recorder::index_begins(int n, const keydescr& k) {
  inner_.index_begins(n, k);
  pair_.index = n;
  ++pair_.indexes;
}

void Recorder::remark(const std::string& text) {
  inner_.remark(text);
  record([&] {
    add({.kind = Entry::Kind::kNote, .code = "repair.remark", .text = common::shown(text)});
  });
}

void Recorder::ends(const Summary* summary) {
  inner_.ends(summary);
  if (summary != nullptr) pair_.summary = *summary;
}

}  // namespace checker
