// Random schedules of processes that change one file under one log, in and outside of transactions,
// and are killed; others get their numbers.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "tests/txlog/recoveries.h"

namespace testing_support {
namespace {

struct Value {
  int id = 0, group = 0;
  bool operator==(const Value&) const = default;
};
using Content = std::optional<Value>;
using Contents = std::map<int, Value>;

struct Change {
  int number = 0;
  Content before, after;
  bool linked = false;
  int writer = 0;
};

// Several processes that change one file, and are killed. The world knows what they really did; so
// it can tell what a recovery must come to, from what each record that is applied proves.
class World {
 public:
  explicit World(unsigned seed) : random_(seed) {
    for (int i = 1; i <= 3; ++i) live_[i] = recovered_[i] = {i, 0};
    for (int slot = 0; slot < 3; ++slot) slots_[slot] = {next_letter_++, ++writers_};
  }
  void step() {
    Process& process = slots_[any(3)];
    if (process.taking_back) return take_back(process);
    const int pick = any(20);
    if (pick == 0) return kill(process);
    if (pick < 3 && !process.begun) return begin(process);
    if (pick < 5 && process.begun) return commit(process);
    if (pick < 6 && process.begun) return roll_back(process);
    change(process);
  }
  void finish() {
    for (Process& process : slots_) {
      if (process.taking_back) take_back(process);
    }
  }
  [[nodiscard]] const std::string& log() const { return log_; }
  [[nodiscard]] std::string recovered() const {
    std::string text;
    for (const auto& [number, value] : recovered_) {
      text += (text.empty() ? "" : " ") + text_of(number, value);
    }
    return text;
  }

 private:
  struct Process {
    char letter = 'A';
    int writer = 0;
    bool begun = false, marked = false, used = false, mixed = false, taking_back = false;
    std::vector<int> held{};  // changes_ of the transaction
    Change last{};
    int last_index = -1;  // of the last, if it was applied and not made
    std::set<int> locks{};
  };

  int any(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
  static std::string text_of(int number, const Value& value) {
    return std::to_string(number) + ':' + std::to_string(value.id) + '.' +
           std::to_string(value.group);
  }
  static Content at(const Contents& contents, int number) {
    const auto found = contents.find(number);
    return found == contents.end() ? Content{} : found->second;
  }
  static void put(Contents& contents, int number, const Content& value) {
    contents.erase(number);
    if (value) contents[number] = *value;
  }
  static int owner(const Contents& contents, int id, int besides) {
    for (const auto& [number, value] : contents) {
      if (value.id == id && number != besides) return number;
    }
    return 0;
  }
  void say(const Process& process, bool linked, const std::string& text) {
    log_ += std::string(1, linked ? process.letter : static_cast<char>(process.letter + 32)) +
            text + ' ';
  }

  [[nodiscard]] const Change& change_of(int i) const {
    return changes_[static_cast<std::size_t>(i)];
  }

  // ---- What the processes do.

  void begin(Process& process) { process.begun = true; }

  void commit(Process& process) {
    if (process.marked) say(process, true, "]");
    for (const int i : std::exchange(process.held, {})) {
      if (open_.erase(i) != 0) apply(i);
    }
    end(process);
  }

  void roll_back(Process& process) {
    if (process.mixed) return;
    Contents after = live_;
    for (auto i = process.held.rbegin(); i != process.held.rend(); ++i) {
      const Change& change = change_of(*i);
      if (!change.linked) continue;
      put(after, change.number, change.before);
      const bool refused = change.before && owner(after, change.before->id, change.number) != 0;
      if (refused || !open_.contains(*i)) return;  // somebody has what it gave up
    }
    live_ = after;
    if (process.marked) say(process, true, "~");
    for (const int i : std::exchange(process.held, {})) {
      if (open_.erase(i) != 0 && !change_of(i).linked) apply(i);
    }
    end(process);
  }

  static void end(Process& process) {
    process.begun = process.marked = process.mixed = false;
    process.locks.clear();
  }

  // Another process follows, often with the same number.
  void kill(Process& process) {
    const bool same_number = process.used && (any(2) == 0 || next_letter_ > 'Z');
    if (!same_number && next_letter_ > 'Z') return;
    process = {same_number ? process.letter : next_letter_++, ++writers_};
    if (same_number) say(process, true, "#");
  }

  void change(Process& process) {
    Change change;
    change.number = 1 + any(9);
    change.writer = process.writer;
    change.linked = !process.used || any(3) != 0;
    for (const Process& other : slots_) {
      if (&other != &process && other.locks.contains(change.number)) return;
    }
    change.before = at(live_, change.number);
    const int id = any(2) == 0 && change.before ? change.before->id : 1 + any(9);
    if (!change.before || any(3) != 0) change.after = {id, ++groups_};
    if (change.after && owner(live_, id, change.number) != 0) return;
    const Change& last = process.last;
    if (!change.linked && !change.after && last.number == change.number && !last.before) return;
    if (process.begun && !std::exchange(process.marked, true)) say(process, true, "[");
    log(process, change);
    process.used = true;
    process.last = change;
    if (process.begun && change.linked) process.locks.insert(change.number);
    for (const int i : process.held) {
      process.mixed |=
          !change.linked && change_of(i).linked && change_of(i).number == change.number;
    }
    // What is taken back tells of the record all the same; that is not followed here.
    const bool tells =
        unmade_.contains(change.number) || !open_changes(change.number, INT_MAX).empty();
    const int pick = process.begun && tells ? 2 : any(12);
    if (pick > 1) return make(process, change);
    process.taking_back = pick == 0;
    if (!process.begun) {
      const int i = add(change);
      process.last_index = i;
      apply(i, process.taking_back);
      if (at(recovered_, change.number) == change.after) unmade_[change.number] = i;
    }
    if (pick == 1) kill(process);
  }

  void log(const Process& process, const Change& change) {
    const Content& first = change.before ? change.before : change.after;
    const char* const kind = !change.before ? "+" : change.after ? "*" : "-";
    std::string text = kind + text_of(change.number, *first);
    if (*kind == '*') {
      text += '>' + std::to_string(change.after->id) + '.' + std::to_string(change.after->group);
    }
    say(process, change.linked, text);
  }

  int add(const Change& change) {
    changes_.push_back(change);
    return static_cast<int>(changes_.size()) - 1;
  }

  void make(Process& process, const Change& change) {
    put(live_, change.number, change.after);
    const int i = add(change);
    if (!process.begun) return apply(i);
    open_.insert(i);
    process.held.push_back(i);
  }

  // The last change was not made.
  void take_back(Process& process) {
    process.taking_back = false;
    say(process, process.last.linked, "!");
    const auto found = unmade_.find(process.last.number);
    if (found == unmade_.end() || found->second != process.last_index) return;
    go_back(found->first, found->second, INT_MAX);
  }

  // ---- What a recovery makes of it.

  // A change is applied: whatever happened to the record before stands too.
  void apply(int i, bool proves_nothing = false) {
    const Change change = change_of(i);
    std::vector<int> earlier = open_changes(change.number, i);
    Content seen = change.before;
    std::size_t first = earlier.size();
    while (first > 0 && seen != at(recovered_, change.number)) {
      seen = change_of(earlier[--first]).before;
    }
    for (const int one : earlier) open_.erase(one);
    place_all({earlier.begin() + static_cast<std::ptrdiff_t>(first), earlier.end()});
    // One that is taken back need not be possible.
    const bool in_use = !change.before && at(recovered_, change.number);
    const bool clashes = change.after && owner(recovered_, change.after->id, change.number) != 0;
    if (!proves_nothing || (!in_use && !clashes)) return place(i);
    if (change.before && unmade_.erase(change.number) != 0) {
      put(recovered_, change.number, change.before);
    }
  }

  // With changes outside of a transaction go those that its process made before.
  void place_all(std::set<int> chosen) {
    for (const int one : std::set<int>{chosen}) {
      const Change& last = change_of(one);
      for (const int i : std::set<int>{open_}) {
        const Change& change = change_of(i);
        const auto keeps = [&](int j) {
          const Change& other = change_of(j);
          return j < i && other.linked && other.writer == change.writer &&
                 other.number == change.number;
        };
        const bool goes = i < one && !last.linked && !change.linked &&
                          change.writer == last.writer && std::ranges::none_of(open_, keeps);
        if (goes) chosen.insert(i);
      }
    }
    for (const int one : chosen) open_.erase(one);
    for (const int one : chosen) apply(one);
  }

  // Makes a change in the recovered file. Who has the key there has given it up, or never had it.
  void place(int i) {
    const Change change = change_of(i);
    if (unmade_.erase(change.number) != 0) put(recovered_, change.number, change.before);
    for (int other = 1; change.after && other != 0;) {
      other = owner(recovered_, change.after->id, change.number);
      if (other == 0) break;
      const std::vector<int> earlier = open_changes(other, i);
      const auto unmade = unmade_.find(other);
      const bool follows =
          !earlier.empty() && change_of(earlier.front()).before == at(recovered_, other);
      if (follows) {
        open_.erase(earlier.front());
        place_all({earlier.front()});
      } else if (unmade != unmade_.end() && unmade->second < i) {
        go_back(other, unmade->second, i);
      } else {
        return go_on(i);  // it was taken since: the record was changed once more
      }
    }
    put(recovered_, change.number, change.after);
  }

  // The record is what it was before a change that was not made; unless somebody has that key, as
  // it was changed otherwise then.
  void go_back(int number, int unmade, int until) {
    const Content before = change_of(unmade).before;
    unmade_.erase(number);
    put(recovered_, number, before);
    if (!before || owner(recovered_, before->id, number) == 0) return;
    for (const int j : open_changes(number, until)) {
      if (change_of(j).before != before) continue;
      open_.erase(j);
      return place_all({j});
    }
    const auto other = unmade_.find(owner(recovered_, before->id, number));
    if (other != unmade_.end()) go_back(other->first, other->second, until);
  }

  void go_on(int i) {
    for (const int j : std::set<int>{open_}) {
      const bool next = j > i && change_of(j).number == change_of(i).number;
      if (next && open_.erase(j) != 0) return place(j);
    }
  }

  // Changes of a record that were made and not applied, before a certain one.
  std::vector<int> open_changes(int number, int before) {
    std::vector<int> found;
    for (const int i : open_) {
      if (i < before && change_of(i).number == number) found.push_back(i);
    }
    return found;
  }

  std::mt19937 random_;
  std::string log_;
  char next_letter_ = 'A';
  int groups_ = 0, writers_ = 0;
  std::array<Process, 3> slots_;
  std::vector<Change> changes_;  // that were made
  std::set<int> open_;           // ... inside transactions, and are not applied yet
  Contents live_, recovered_;
  std::map<int, int> unmade_;  // changes applied that were not made, by number
};

class Schedules : public Evidence {};
INSTANTIATE_TEST_SUITE_P(Formats, Schedules, ::testing::Values(false));

unsigned schedules() {
  const char* const text = std::getenv("KESTRO_SCHEDULES");
  return text == nullptr ? 1000U : static_cast<unsigned>(std::atoi(text));
}

TEST_P(Schedules, LeadToWhatTheirRecordsProve) {
  for (unsigned seed = 1; seed <= schedules() && !HasFailure(); ++seed) {
    World world{seed};
    for (unsigned steps = 5 + seed % 60; steps > 0; --steps) world.step();
    world.finish();
    EXPECT_EQ(outcome(world.log()), world.recovered()) << seed << ": " << world.log();
  }
}

}  // namespace
}  // namespace testing_support
