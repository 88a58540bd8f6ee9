// dialogue: the listener that kestro is: what the operator reads, is asked and answers.
//
// Keeps   every line of output ends through pnewline, which flushes, so that questions and
//         answers interleave
//
// What it says of indexes and trees (index_begins, tree_...) stands in checker/listing.cpp.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

#include "checker/check.h"
#include "checker/listener.h"
#include "checker/messages.h"

namespace checker {

// What takes the place of one %d or %s.
using Filling = std::variant<std::int64_t, std::string_view>;

// Prints a message, its %d and %s filled in order, without a line end.
void print(Message message, std::initializer_list<Filling> fillings = {});
// Prints `n` line ends and flushes standard output.
void pnewline(int n);
// Prints a message and ends its line.
void print_line(Message message, std::initializer_list<Filling> fillings = {});

class Dialogue : public Listener {
 public:
  explicit Dialogue(const Options& options) : options_(options) {}

  void found(const Finding& finding) override;
  // Asks the operator, or answers for him with -n or -y.
  [[nodiscard]] bool answer(Question question) override;
  void failed(std::int32_t code, std::int32_t place) override;

  void begins(Pass pass) override;
  void fact(Fact fact, std::int64_t value) override;
  void index_begins(int n, const keydescr& k) override;
  void index_walked(std::int32_t nodes, int levels) override;
  void mends(Mending what, int n) override;
  void remark(const std::string& text) override;
  void ends(const Summary* summary) override;

  [[nodiscard]] bool wants_trees() const override { return options_.lflag != 0; }
  void tree_node(int level, std::int32_t node, int used) override;
  void tree_item(const isam::Item& item, const keydescr& k) override;
  void tree_level(int level) override;

 private:
  const Options& options_;
  Summary shown_;  // the last one; a check that ends without one shows it again
};

}  // namespace checker
