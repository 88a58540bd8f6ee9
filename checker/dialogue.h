// dialogue: what the operator reads, is asked and answers.
//
// Keeps   every line of output ends through pnewline, which flushes, so that questions and
//         answers interleave
// Never   lets an error be printed twice: prterr clears what it printed
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

#include "checker/messages.h"

namespace checker {

// How often each option letter was given; only zero or not matters.
struct Options {
  int iflag = 0;  // check the index file only
  int lflag = 0;  // list the entries of every b-tree
  int nflag = 0;  // answer no to every question, open for input only
  int yflag = 0;  // answer yes to every question
  int qflag = 0;  // no program header
  int sflag = 0;  // change the index node size first
};
extern Options options;

// What the dialogue over one file has come to.
struct Tally {
  int declined = 0;               // questions answered no
  std::int32_t system_error = 0;  // the first
};
extern Tally tally;

using Filling = std::variant<std::int64_t, std::string_view>;

// Prints a message, its %d and %s filled in order, without a line end.
void print(Message message, std::initializer_list<Filling> fillings = {});
// Prints `n` line ends and flushes standard output.
void pnewline(int n);
// Prints a message and ends its line.
void print_line(Message message, std::initializer_list<Filling> fillings = {});

// "ERROR: " and the message, on a line of its own behind an empty one.
void err(Message message);
void errn(Message message, std::int64_t number);

// A line on standard error about the current pair, for what the report has no words for.
void remark(const std::string& text);

// Whether an iserrno tells of the system's trouble, not of the files'.
[[nodiscard]] bool is_of_system(std::int32_t code);

// Remembers that the library's current error, if it is one of the system, came.
void note_system_error();
// Clears the library's current error without a word, noted as above.
void pass_over_error();
// Prints the library's current error, if any, and clears it, noted as above.
void prterr();

// Asks the operator, or answers for him with -n or -y: true for yes.
[[nodiscard]] bool ask(Message question);

}  // namespace checker
