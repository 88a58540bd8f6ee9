// check_here: kestro's check in this process, where a test stands between it and the system.
#pragma once

#include <string>

#include "checker/dialogue.h"
#include "checker/driver.h"

namespace testing_support {

// As `kestro -nq` or `kestro -yq`.
inline checker::Outcome check_here(const std::string& base, char answers) {
  checker::Options options{.qflag = 1};
  (answers == 'y' ? options.yflag : options.nflag) = 1;
  checker::Dialogue dialogue(options);
  return checker::ckfile(base, options, dialogue);
}

}  // namespace testing_support
