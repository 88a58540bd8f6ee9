// pagemend: storage pages whose slots or counts are damaged, put in order.
//
// Needs   the current index to be a copy; records whose parts cannot be read do not refer to them
//         any more. The lists of storage pages are made anew afterwards
// Keeps   every piece that a record names, in the slot by which it names it
#pragma once

#include "checker/check.h"

namespace zentra {

void mend_pages(const checker::Check& check);

}  // namespace zentra
