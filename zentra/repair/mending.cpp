#include "zentra/repair/mending.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "checker/interrupt.h"
#include "common/holders.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/pool/buffers.h"
#include "zentra/check/deep.h"
#include "zentra/keys/writekeys.h"
#include "zentra/pair/readpair.h"
#include "zentra/repair/pagemend.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

// Keeps what is found.
class Kept : public Notes {
 public:
  explicit Kept(std::vector<Entry>& to) : Notes(nullptr), entries_(to) {}
  void entry(const Entry& entry) override {
    constexpr std::size_t kMost = 100;
    Notes::entry(entry);
    if (entries_.size() < kMost && entry.kind == Entry::Kind::kFinding) entries_.push_back(entry);
  }

 private:
  std::vector<Entry>& entries_;
};

// What the checks, which come later, will take from the dictionary too.
void take_geometry() {
  isam::Geometry& geometry = filep->geometry;
  geometry.idxsize = dictp->d_idxsize();
  geometry.reclen = dictp->d_recsize();
  geometry.varlen = dictp->d_maxrecsize() > 0;
  geometry.maxreclen = geometry.varlen ? dictp->d_maxrecsize() : geometry.reclen;
}

}  // namespace

void Mending::run() {
  constexpr checker::Options kHow{.qflag = 1};
  const checker::Outcome outcome = checker::ckfile(name_, kHow, *this, this);
  if (done_ || !why_.empty()) return;
  if (is_refused_ && !in_use_) say_why_not_opened();
  say(outcome.whole || last_found_.empty() ? "it could not be finished" : last_found_);
}

// The check tells only that the pair could not be opened to be changed.
void Mending::say_why_not_opened() {
  for (const std::string& path : {isam::mkidxname(name_), isam::mkdatname(name_)}) {
    const common::FileHold file{common::open_file(path.c_str(), O_RDWR | O_NONBLOCK)};
    if (!file) say_errno(path);
  }
}

bool Mending::say_errno(const std::string& path) {
  say(fmt::format("{}: {}", shown(path), std::strerror(errno)));
  return false;
}

// The copy is the current index already: the index is looked at by its name.
bool Mending::is_as_seen() {
  struct stat status {};
  const std::string index = isam::mkidxname(filep->name);
  Seen now = plan_.seen;
  if (common::system_calls().stat(index.c_str(), &status) != 0) return say_errno(index);
  now.index = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
  if (common::system_calls().fstat(filep->data.fd, &status) != 0) return say_errno(name_);
  now.data = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
  now.stamp = dictp->d_modcount();
  if (now == plan_.seen) return true;
  say("the pair has changed since the plan was made; another run plans anew");
  return false;
}

// A device that gave wrong bytes while the plan was made costs no record.
bool Mending::is_as_planned() {
  if (are_still_unreadable(plan_.bad)) return true;
  say("a record that could not be read can be read now; another run plans anew");
  return false;
}

bool Mending::repair_begins(const std::string& kept) {
  if (plan_.record_length != 0) dictp->set_d_recsize(plan_.record_length);
  take_geometry();
  if (!is_as_seen() || !is_as_planned()) return false;
  if (changes_data() && !change_data(kept)) return false;
  mend_lost_pages(plan_.lost_pages);
  return change_dictionary();
}

// First the notes, then the losses, then the data file itself.
bool Mending::change_data(const std::string& kept) {
  const std::string note = data_file_of(kept);
  auto changes = changes_for(plan_.bad);
  if (!changes) return say_errno(isam::mkdatname(name_));
  changes_ = std::move(*changes);
  if (!changes_.empty()) {
    const checker::SignalBlock block;
    if (note_changes(kept, changes_) != 0) return say_errno(note);
    data_note_ = note;
    checker::remove_when_interrupted(note);
  }
  if (losses_.append(losses_of(name_), plan_.bad) != 0) return say_errno(losses_of(name_));
  if (changes_.empty()) return true;
  checker::put_back_when_interrupted(filep->data.fd, &changes_.before());
  data_changed_ = true;
  if (make_changes(filep->data.fd, changes_) != 0) return say_errno(isam::mkdatname(name_));
  isam::bfignor(*filep);  // the pool may have what has been changed past it
  return true;
}

bool Mending::change_dictionary() {
  if (plan_.duplicate_width != 0) dictp->set_d_dupsize(plan_.duplicate_width);
  if (plan_.ends_audit) dictp->clear_d_auditnode();
  isam::dictmodify();
  if (plan_.marks_key_nodes) mark_key_nodes();
  if (plan_.keys.empty() || write_keys(plan_.keys) == 0) return true;
  say(error_text(iserrno));
  isam::clear_errors();
  return false;
}

bool Mending::rebuilds(checker::List list) const {
  switch (list) {
    case checker::List::kRecords:
      return plan_.record_list;
    case checker::List::kNodes:
      return plan_.node_list;
    default:
      return plan_.storage_lists;
  }
}

void Mending::repair_mends(const checker::Check& check) {
  if (check.varlen && plan_.storage_lists) mend_pages(check);
}

// All is read anew from the copy.
bool Mending::approves() {
  isam::bfignor(*filep);
  if (isam::dictread() != 0) {
    say(error_text(iserrno));
    return false;
  }
  Kept notes{left_};
  DeepCollector collector{notes, isam::RecordLocks{}};
  constexpr checker::Options kHow{.nflag = 1, .qflag = 1};
  checker::Check check(kHow, collector);
  const bool whole = check_whole(check, collector, &collector, [] {});
  isam::clear_errors();
  if (whole && collector.status() == Status::kSound) {
    const checker::Summary summary = checker::summary_of(check);
    totals_ = {{"records", std::int64_t{summary.records_used}},
               {"indexes", std::int64_t{collector.indexes()}},
               {"nodes", std::int64_t{summary.nodes_used}}};
    return true;
  }
  say("the result would not check clean: " + notes.first());
  return false;
}

// What a signal would take back or remove stays.
void Mending::is_repaired() {
  done_ = true;
  checker::put_back_when_interrupted(-1, nullptr);
  if (!data_note_.empty()) checker::forget_file(data_note_);
}

bool Mending::repair_ends(const std::string& kept) {
  kept_ = kept;
  if (done_) return false;
  const bool is_back = !data_changed_ || take_back_changes(filep->data.fd, changes_) == 0;
  if (!is_back) {
    why_ = fmt::format("{}: {}; its bytes of before stand in {}: zentra undo --force",
                       shown(isam::mkdatname(name_)), std::strerror(errno), shown(data_note_));
  }
  checker::put_back_when_interrupted(-1, nullptr);
  if (!data_note_.empty()) checker::forget_file(data_note_);
  if (!is_back) return true;
  losses_.take_back();
  if (!data_note_.empty()) common::system_calls().unlink(data_note_.c_str());
  return false;
}

void Mending::found(const checker::Finding& finding) {
  last_found_ = checker::text_of(finding.code).wording;
  is_refused_ = finding.code == checker::Code::kCannotOpen;
}

void Mending::failed(std::int32_t code, std::int32_t /*place*/) {
  if (code == isam::kFileInUse) in_use_ = true;
  last_found_ = error_text(code);
}

}  // namespace zentra
