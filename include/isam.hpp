// isam.hpp: the indexed-file library for C++20, a thin header-only layer on isam.h.
//
// It owns opens and locks (they end with their scope), types the fields of records and the parts of
// keys, turns unexpected failures into exceptions and leaves the expected ones as results:
//
//   constexpr zentra::Text<0, 8> number;
//   constexpr zentra::Text<8, 24> name;
//   constexpr zentra::Int32<32> orders;
//   constexpr auto by_number = zentra::Key::of(number);
//   constexpr auto by_name = zentra::Key::of(name).duplicates().compressed();
//
//   auto file = zentra::File::open("customer");
//   if (auto found = file.find(by_number, "00000042")) std::cout << found->get(name);
//   for (auto record : file.by(by_name).from("M")) std::cout << record.get(orders);
//
// As with isam.h, one thread of a process uses the library at a time, and locks belong to the
// process. Offsets and lengths are bytes; record numbers count from 1.
#pragma once

#if __cplusplus < 202002L
#error "isam.hpp needs a compiler for C++20 or later: -std=c++20"
#else

#include <string_view>

#include "isam.h"
#include "isam/failures.hpp"
#include "isam/fields.hpp"
#include "isam/file.hpp"
#include "isam/key.hpp"
#include "isam/lock.hpp"
#include "isam/ranges.hpp"
#include "isam/transaction.hpp"

namespace zentra {

// Name and number of the library's version.
[[nodiscard]] inline std::string_view version() { return isversion(); }

}  // namespace zentra

#endif
