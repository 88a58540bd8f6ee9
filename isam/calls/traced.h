// traced: the public calls as a trace shows them.
//
//   extern "C" int iswrite(int isfd, char* record) {
//     return traced("iswrite", isfd, record, Carries::kRecord, [=] { return ...; });
//   }
//
// Without a trace this costs one branch. Calls made within a call that shows do not show. A failure
// is noted for isexplain() (isam/calls/explain).
#pragma once

#include <cstdint>

#include "isam.h"
#include "isam/calls/explain.h"
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
  kDescription,   // a key description, which the call may fill in
  kReceivesInfo,  // nothing yet: a struct dictinfo
  // The buffer is a struct recordset, of records:
  kRecords,  // each as long as it is to be written
  kReceivesMany,
  kKeysAndReceivesMany,
};

constexpr int kNoNumber = INT32_MIN;  // a call that concerns no open

struct Exchange {
  const char* call;
  int number;  // the open, or the mode that a file is opened with
  const void* buffer;
  Carries carries;
};

void trace_entry(const Exchange& exchange);
void trace_exit(const Exchange& exchange, int result);

template <typename Body>
[[gnu::noinline, gnu::cold]] int call_traced(const char* call, int number, const void* buffer,
                                             Carries carries, Body body) {
  if (!trace::on()) return body();
  const Exchange exchange{call, number, buffer, carries};
  trace_entry(exchange);
  const int result = trace::untraced(body);
  trace_exit(exchange, result);
  return result;
}

// Runs a call, and shows it in the trace if there is one. A body that captures by value leaves
// everything in registers. The body notes its failures itself.
template <typename Body>
int traced_only(const char* call, int number, const void* buffer, Carries carries, Body body) {
  if (trace::state == trace::State::kOff) [[likely]] {
    return body();
  }
  return call_traced(call, number, buffer, carries, body);
}

// The same, and notes a failure.
template <typename Body>
int traced(const char* call, int number, const void* buffer, Carries carries, Body body) {
  const int result = traced_only(call, number, buffer, carries, body);
  if (result < 0 || (carries >= Carries::kRecords && iserrno != 0)) [[unlikely]] {
    const auto* const name = static_cast<const char*>(carries == Carries::kName ? buffer : nullptr);
    note_failure(call, number, carries == Carries::kName && name == nullptr ? "" : name);
  }
  return result;
}

// A call without a buffer.
template <typename Body>
int traced(const char* call, int number, Body body) {
  return traced(call, number, nullptr, Carries::kNothing, body);
}

}  // namespace isam
