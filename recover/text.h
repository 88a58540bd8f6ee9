// text: how bytes, times, names and keys from a file are shown.
//
// Needs   nothing: any bytes and numbers will do
// Gives   printable ASCII only, and line ends from dump_text() alone, so that no file can send its
//         bytes to a terminal
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/bytes.h"
#include "isam.h"

namespace recover {

// Seconds since 1970 as UTC, such as "2026-11-21T11:19:10Z".
[[nodiscard]] std::string time_text(std::uint32_t seconds);
// The bytes in double quotes. A quote or a backslash among them gets a backslash in front, a byte
// that is not printable becomes \xNN.
[[nodiscard]] std::string quoted(std::string_view bytes);
// Parts (start, length, type) and flags, such as "key (0,8,char) (8,4,long,descending) duplicates".
// A key without parts is "key of record numbers".
[[nodiscard]] std::string key_text(const keydescr& key);
// A code as in iserrno with its text, such as `105 "Corrupted isam file"`; 0 alone is just `0`.
[[nodiscard]] std::string code_text(std::int32_t code);
// Lines of 16 bytes each, indented and ended: the place in `bytes` and the bytes, both in hex, then
// the bytes as characters, with a dot for each that is not printable.
[[nodiscard]] std::string dump_text(common::ConstBytes bytes);

}  // namespace recover
