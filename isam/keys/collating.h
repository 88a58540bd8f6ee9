// collating: comparing by the application's collating tables.
//
// Trees do not use these tables; an application compares fields of its own with them.
#pragma once

#include "isam.h"
#include "isam/base/format.h"

namespace isam {

// Takes the 256 weights of a collated type, which are not copied: false for any other type.
bool clregister(int type, const Byte* table);

// Whether every collated part of a key has its table: 0, or -1 with 117.
int clkeycheck(const keydescr& k);

// Compares `len` bytes by the table of a collated type: -1, 0 or 1. 0 with 117 without a table.
int clcompare(int type, const Byte* a, const Byte* b, int len);

}  // namespace isam
