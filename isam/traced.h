// traced: the public calls as a trace shows them.
//
//   extern "C" int iswrite(int isfd, char* record) {
//     return traced({"iswrite", isfd, record, Carries::kRecord}, [&] { return ...; });
//   }
//
// Without a trace this costs one branch. Calls made within a call that shows do not show.
#pragma once

#include <cstdint>

#include "trace/trace.h"

namespace isam {

// What the buffer of a call holds.
enum class Carries {
  kNothing,   // of the application's
  kName,      // a file's name, zero-terminated
  kKey,       // a record of which the key matters
  kRecord,    // a record, as long as it is to be written
  kReceives,  // nothing yet: the record that is read
  kKeyAndReceives,
};

constexpr int kNoNumber = INT32_MIN;

struct Exchange {
  const char* call;
  int number = kNoNumber;  // the open, or the mode that a file is opened with
  const char* buffer = nullptr;
  Carries carries = Carries::kNothing;
};

void trace_entry(const Exchange& exchange);
void trace_exit(const Exchange& exchange, int result);

template <typename Body>
[[gnu::noinline, gnu::cold]] int call_traced(const Exchange& exchange, Body body) {
  trace_entry(exchange);
  const int result = body();
  trace_exit(exchange, result);
  return result;
}

template <typename Body>
int traced(const Exchange& exchange, Body body) {
  return trace::on() ? call_traced(exchange, body) : body();
}

}  // namespace isam
