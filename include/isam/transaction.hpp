// transaction: logs and transactions that end with their scope. Part of isam.hpp.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "isam.h"
#include "isam/failures.hpp"

namespace zentra {

// Keeps the process's log open. There is one at a time; files of Logging::kTransactions and
// kUnlogged are opened after it.
//
//   zentra::Log log("changes.log");
//   auto accounts = File::open("accounts", Access::kReadWrite, Locking::kManual,
//                              Logging::kTransactions);
//   zentra::Transaction transaction;
//   ...                              what throws or returns here undoes it all
//   transaction.commit();
class Log {
 public:
  // The file must exist; an empty one becomes a log.
  explicit Log(const std::string& path) {
    if (islogopen(path.c_str()) < 0) throw Error("islogopen " + path);
  }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log() {
    if (open_) islogclose();
  }

  // Closes now, so that a failure is told.
  void close() {
    if (std::exchange(open_, false) && islogclose() < 0) throw Error("islogclose");
  }

 private:
  bool open_ = true;
};

// A transaction of the process, in all its files of Logging::kTransactions: undone at the end of
// its scope unless it has been committed (not while the log is suspended: then it stays open). It
// has its scope within that of the Log. A second one at the same time throws std::logic_error.
class Transaction {
 public:
  Transaction() {
    if (running_) throw std::logic_error("zentra: a transaction within a transaction");
    if (isbegin() < 0) throw Error("isbegin");
    running_ = true;
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (!open_) return;
    isrollback();
    end();
  }

  // Ends the transaction; its changes stand. When it throws with ISELOGWRITE or, while the log is
  // suspended, with ISENOLOG, the transaction is still open and may be committed again or rolled
  // back. When it throws with another reason it has ended and its changes stand, but what they give
  // up could not all be freed, or the disk may lack them.
  void commit() {
    expect_open();
    const bool done = iscommit() == 0;
    if (done || (iserrno != ISELOGWRITE && iserrno != ISENOLOG)) end();
    if (!done) throw Error("iscommit");
  }
  // Undoes the changes now, the last first, so that a failure is told. When it throws, the
  // transaction has ended all the same (but for ISENOLOG, as above); the change that could not be
  // undone may stand, and those made before it.
  void roll_back() {
    expect_open();
    const bool done = isrollback() == 0;
    if (done || iserrno != ISENOLOG) end();
    if (!done) throw Error("isrollback");
  }

 private:
  void expect_open() const {
    if (!open_) throw std::logic_error("zentra: the transaction has ended");
  }
  void end() { open_ = running_ = false; }

  inline static bool running_ = false;
  bool open_ = true;
};

}  // namespace zentra
