#include "util/interrupt.h"

#include <csignal>
#include <mutex>

namespace kvr {

namespace {

constexpr int kSlots = 256;
std::atomic<std::atomic<bool> *> g_flags[kSlots];
std::mutex g_mutex;
int g_users = 0;
struct sigaction g_previous;

extern "C" void on_interrupt_signal(int) {
  for (auto &slot : g_flags) {
    std::atomic<bool> *flag = slot.load();
    if (flag) flag->store(true);
  }
}

// Per thread, so that a read on one thread never sees Ctrl-C meant for no read of its own; a
// thread-local flag also stays valid for as long as the handler could still touch it.
thread_local bool t_read_armed = false;
thread_local std::atomic<bool> t_read_flag{false};
thread_local bool t_read_active = false;

}  // namespace

InterruptScope::InterruptScope(std::atomic<bool> *flag) {
  std::lock_guard<std::mutex> lock(g_mutex);
  for (int i = 0; i < kSlots && slot_ < 0; ++i) {
    std::atomic<bool> *expected = nullptr;
    if (g_flags[i].compare_exchange_strong(expected, flag)) slot_ = i;
  }
  if (slot_ < 0) return;
  if (g_users++ == 0) {
    struct sigaction action {};
    action.sa_handler = on_interrupt_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &g_previous);
  }
}

InterruptScope::~InterruptScope() {
  if (slot_ < 0) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_flags[slot_].store(nullptr);
  if (--g_users == 0) sigaction(SIGINT, &g_previous, nullptr);
}

void arm_read_interrupt() { t_read_armed = true; }

ReadInterruptScope::ReadInterruptScope() {
  // A read inside a read (a file naming other files) shares the outer one's scope.
  if (t_read_active) return;
  outer_ = true;
  t_read_active = true;
  t_read_flag.store(false);
  if (!t_read_armed) return;
  t_read_armed = false;
  scope_.emplace(&t_read_flag);
}

ReadInterruptScope::~ReadInterruptScope() {
  if (!outer_) return;
  scope_.reset();
  t_read_active = false;
  t_read_flag.store(false);
}

bool read_interrupted() { return t_read_flag.load(std::memory_order_relaxed); }

}  // namespace kvr
