// rawwriter: the raw text of the current pair, record by record (zentra-raw(5)).
#pragma once

#include <functional>
#include <memory>

#include "zentra/pair/pairshape.h"
#include "zentra/transfer/dumpwriter.h"

namespace zentra {

// Needs records in the order of their numbers. `damaged` hears of the first index that does not
// tell the order of its equal keys.
[[nodiscard]] std::unique_ptr<DumpWriter> raw_writer(PairShape shape,
                                                     std::function<void(int index)> damaged);

}  // namespace zentra
