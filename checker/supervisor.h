// supervisor: who has a repair made on a copy from its first step on, has a say in what is made
// anew, and looks at the result before it comes into the pair.
//
//   the pair is locked, the copy is the current index -> repair_begins() -> the checks, with
//   remakes() and rebuilds() -> repair_mends() -> lists and indexes made anew -> approves() -> ...
//   -> repair_ends()
//
// Such a repair is never made in place, and the index of before is always kept.
#pragma once

#include <string>

namespace checker {

struct Check;

enum class List { kRecords, kNodes, kStorage };

class Supervisor {
 public:
  virtual ~Supervisor() = default;

  // Whether repair_begins() changes the data file. Then the index of before gets its name first.
  [[nodiscard]] virtual bool changes_data() const = 0;
  // Before the checks: may change the data file, and the dictionary and nodes of the copy. `kept`:
  // the path of the index of before, empty when it has none yet. False: nothing is repaired.
  [[nodiscard]] virtual bool repair_begins(const std::string& kept) = 0;
  // Whether index n, or a list, is to be made anew although the checks find nothing wrong.
  [[nodiscard]] virtual bool remakes(int n) const = 0;
  [[nodiscard]] virtual bool rebuilds(List list) const = 0;
  // Behind the checks: may change nodes of the copy that no list and no tree to be remade has.
  virtual void repair_mends(const Check& check) = 0;
  // The copy is complete and on the disk. False: it does not come into the pair.
  [[nodiscard]] virtual bool approves() = 0;
  // The copy takes the index's place; signals wait.
  virtual void is_repaired() = 0;
  // The last call, made while the pair is still locked; also after a false repair_begins(). `kept`:
  // as above. Whether the index of before is needed though nothing is repaired.
  [[nodiscard]] virtual bool repair_ends(const std::string& kept) = 0;

 protected:
  Supervisor() = default;
  Supervisor(const Supervisor&) = default;
  Supervisor& operator=(const Supervisor&) = default;
};

}  // namespace checker
