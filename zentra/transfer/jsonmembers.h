// jsonmembers: the members of an object that stands on one line, with values that a field may have.
//
//   JsonMembers members;
//   members.begin(line);
//   while (members.next()) use(members.name(), members.kind(), members.value());
//   if (!members.why().empty()) return refused(members.why());
//
// A value is a string, a number as it stands, true, false, null, or {"hex":"0aff"}. Memory is kept
// from line to line.
//
// Keeps   texts are UTF-8; names and values are valid until the next begin(), and as long as the
//         line
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "layout/value.h"

namespace zentra {

class JsonMembers {
 public:
  // Where the line is no such object it has no members, and why() tells what is wrong.
  void begin(std::string_view line);
  // False behind the last one.
  [[nodiscard]] bool next() { return ++at_ <= count_; }

  [[nodiscard]] std::string_view name() const { return members_[at_ - 1].name; }
  [[nodiscard]] layout::Kind kind() const { return members_[at_ - 1].kind; }
  [[nodiscard]] std::string_view value() const { return members_[at_ - 1].value; }
  [[nodiscard]] const std::string& why() const { return why_; }

 private:
  class Events;

  struct Member {
    std::string_view name{};
    layout::Kind kind = layout::Kind::kNull;
    std::string_view value{};
    // What they are made of where they do not stand in the line as they are.
    std::string own_name{};
    std::string own_value{};
  };

  [[nodiscard]] Member& add();
  [[nodiscard]] bool take_usual(std::string_view line);

  std::deque<Member> members_;  // none moves; those from count_ on are of other lines
  std::size_t count_ = 0;
  std::size_t at_ = 0;  // from 1
  std::string why_;
};

}  // namespace zentra
