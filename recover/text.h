// text: how bytes, times, names and keys from a file are shown.
//
// Needs   nothing: any bytes and numbers will do
// Gives   printable ASCII only, so that no file can send its bytes to a terminal
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/bytes.h"
#include "isam.h"

namespace recover {

// Seconds since 1970 as UTC, such as "2026-11-21T11:19:10Z".
[[nodiscard]] std::string time_text(std::uint32_t seconds);
// In double quotes; what is not printable as \xNN.
[[nodiscard]] std::string quoted(std::string_view bytes);
// Parts and flags, such as "key (0,8,char) (8,4,long,descending) duplicates".
[[nodiscard]] std::string key_text(const keydescr& key);
// A code as in iserrno, such as `105 "Corrupted isam file"`.
[[nodiscard]] std::string code_text(std::int32_t code);
// Lines of 16 bytes: the place in `bytes`, the bytes in hex and as characters.
[[nodiscard]] std::string dump_text(common::ConstBytes bytes);

}  // namespace recover
