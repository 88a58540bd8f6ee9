// repair: where the changes of a run go, and how they come into the pair.
//
//   questions answered -> begin() -> lists and indexes made anew -> end()
//
// Everything that a repair changes lies in the index file. It is made in a copy, which takes the
// index's place in one step when it is complete and on the disk: a run that is ended before that,
// or meets an error of the system, leaves the pair as it was. A change of the dictionary alone is
// one write. Where no copy can be made, or the finished one cannot take the index's place, the
// index file itself is changed: what needs room is gathered first, and the mark of unfinished
// changes (isam/pool/mark) stands in it meanwhile.
//
// Needs   the pair locked for this process alone
// Keeps   R1 no file is left over but what is kept on purpose (checker/keptindex); what a killed
//            run leaves, the next one removes, except for a kept index that had its name
//         R2 who has opened the old index and waits for its locks does not go on with it: its
//            dictionary is unmade before they go
//         R3 nothing is replaced when the name has come to lead to another file
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "checker/check.h"
#include "checker/interrupt.h"
#include "checker/keptindex.h"
#include "checker/temporaryfile.h"

namespace checker {

class Repair {
 public:
  explicit Repair(Check& check) : check_(check) {}

  // Removes what a killed run has left beside the pair of this base name.
  static void remove_leftovers(const std::string& name);
  // Before the checks: with a supervisor makes the copy and lets him begin. False when nothing may
  // be changed.
  [[nodiscard]] bool prepare();
  // After the last question: makes the copy, unless there is one. False when nothing may be
  // changed; end() tells why.
  [[nodiscard]] bool begin();
  // Whether an error of the system has ended it.
  [[nodiscard]] bool has_failed() const;
  // Ends it by an error that is not in iserrno.
  void give_up(int system_error);
  // Brings what was changed into the pair, or forgets it; tells a failure. `whole`: every step was
  // taken. Only then may the mark that others left in the index go.
  void end(bool whole);
  // Whether what was changed is in the pair for good.
  [[nodiscard]] bool is_repaired() const { return is_repaired_; }

 private:
  static constexpr char kIncomplete[] = "the repair in place is not complete: run kestro again";

  [[nodiscard]] bool is_supervised() const { return check_.supervisor != nullptr; }
  [[nodiscard]] std::string said_when_interrupted(const char* state) const {
    const char* const program = is_supervised() ? "zentra" : "kestro";
    return std::string("\n") + program + ": " + index_ + ": interrupted; " + state + "\n";
  }
  void fail(int system_error);
  void remark(const std::string& text) { check_.listener.remark(text); }
  [[nodiscard]] bool clears_mark(bool whole) const;
  [[nodiscard]] bool is_to_be_kept();
  [[nodiscard]] const char* as_it_was() const;
  [[nodiscard]] bool write_out();
  [[nodiscard]] bool sync(int fd);
  void sync_folder();
  [[nodiscard]] bool mark_index();
  void remove_mark();

  // What the repair changes.
  enum class Place {
    kPair,    // nothing before end(); then at most the dictionary and the node of the trail's name
    kCopy,    // a copy of the index
    kInPlace  // the index itself
  };

  [[nodiscard]] int copy_index();
  [[nodiscard]] bool begin_in_place(int reason);
  [[nodiscard]] bool take_kept();
  void bring_in(bool whole);
  void end_dictionary(bool whole);
  void end_in_place(bool whole);
  void end_copy(bool whole);
  [[nodiscard]] bool complete_copy(bool whole);
  void put_in_place();
  void write_over(int reason);
  static void forget_changes();
  void leave_as_it_was();
  void tell_not_kept();
  void tell_failure(const char* state);
  void note_repaired();
  void conclude();

  Check& check_;
  std::string index_;  // the file itself, past symbolic links
  Place place_ = Place::kPair;
  bool refused_ = false;      // nothing is written
  bool is_repaired_ = false;  // ... for good
  bool keeps_ = false;        // the index as it was is to be kept
  int locked_ = -1;  // descriptor of the index, which has its locks, while the copy's serves
  std::unique_ptr<TemporaryFile> copy_;
  KeptIndex kept_;
  std::optional<Interrupt> interrupt_;
};

}  // namespace checker
