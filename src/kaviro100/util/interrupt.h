// Ctrl-C (SIGINT) handling shared by every long operation of the library: solves and file reads.
// One handler is installed for the whole process while at least one InterruptScope exists, and
// the handler that was there before comes back when the last one ends, whatever the order in
// which scopes on different threads end. The handler only sets the flags of the live scopes.
#pragma once

#include <atomic>
#include <optional>

namespace kvr {

class InterruptScope {
 public:
  // Ctrl-C sets *flag while the scope lives (also when the process ignored SIGINT before: an
  // armed solve or read asked to be stoppable). The flag must outlive the scope.
  explicit InterruptScope(std::atomic<bool> *flag);
  ~InterruptScope();
  InterruptScope(const InterruptScope &) = delete;
  InterruptScope &operator=(const InterruptScope &) = delete;

 private:
  int slot_ = -1;
};

// File reads: KVRsetreadsignal arms the calling thread; the next read on it then stops on Ctrl-C.
void arm_read_interrupt();

// Lives for one read. When the thread was armed, Ctrl-C makes read_interrupted() true on this
// thread until the scope ends.
class ReadInterruptScope {
 public:
  ReadInterruptScope();
  ~ReadInterruptScope();
  ReadInterruptScope(const ReadInterruptScope &) = delete;
  ReadInterruptScope &operator=(const ReadInterruptScope &) = delete;

 private:
  std::optional<InterruptScope> scope_;
  bool outer_ = false;
};

// True once Ctrl-C arrived during the current read of this thread.
bool read_interrupted();

}  // namespace kvr
