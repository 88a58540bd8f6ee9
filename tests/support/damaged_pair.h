// damaged_pair: pairs of many shapes, each damaged in its own way by its number alone.
#pragma once

#include <string>

namespace testing_support {

// Writes BASE.idx and BASE.dat.
void write_damaged_pair(int number, const std::string& base, int most_records = 160);

}  // namespace testing_support
