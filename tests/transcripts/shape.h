// shape: the words for what a pair is like before it is damaged.
#pragma once

#include "tests/support/pair_builder.h"
#include "tests/transcripts/words.h"

namespace testing_support {

// "fixed" or "varying" and what is to be otherwise than usual.
PairSpec take_shape(Words& words);
// What is to be otherwise than in `spec`.
PairSpec take_shape(Words& words, PairSpec spec);

}  // namespace testing_support
