// collating: the application's collating tables, one for each collated type: KT_COLL1 to KT_COLL7.
//
// `iscollate` registers a table here. No tree and no call compares by one: parts of a collated type
// do not decide the order of keys (isam/keys/keys). The order of a locale is none of these tables;
// it stands in locale/collation.
#pragma once

#include "isam.h"
#include "isam/base/format.h"

namespace isam {

// Registers the 256 weights of a collated type. They are not copied and must stay. False for any
// other type.
bool clregister(int type, const Byte* table);

// 0 when every collated part of a key has its table, else -1 with 117. Descending parts are not
// looked at.
int clkeycheck(const keydescr& k);

// Compares `len` bytes by the table of a collated type: -1, 0 or 1. Without a table it returns 0
// as for equal bytes, and only iserrno 117 tells the difference.
int clcompare(int type, const Byte* a, const Byte* b, int len);

}  // namespace isam
