// keysfile: key descriptions as lines of text, as `--keys FILE` reads them.
//
//   0,8,char                      an index of one part: first byte, length, type
//   32,2,int,desc+16,8,char,dups  two parts, with duplicates
//   number                        the order of record numbers, of the primary key only
//
// Behind a part's type stands `desc` where it descends. Behind the last part stand the words of the
// index: `dups`, and what is compressed: `repeat`, `lead`, `tail`, or `compress` for all three.
// Comments begin with #.
#pragma once

#include <string>
#include <string_view>

#include "isam.h"

namespace zentra {

[[nodiscard]] std::string line_of(const keydescr& k);

// A line that is neither empty nor a comment.
struct KeyOfLine {
  keydescr key{};
  std::string why{};  // not empty: it is none
};
[[nodiscard]] KeyOfLine key_of_line(std::string_view line);

}  // namespace zentra
