#pragma once

#include <csignal>

/// Unblocks every signal for the calling thread. Each thread function begins with it, so SIGTERM
/// may run HandlerQuit on any thread.
void installEmptySignalMask();

/// Blocks signals for the calling thread during its lifetime, then restores the thread's mask. For
/// the few steps that HandlerQuit must not interrupt, since it would need what they hold.
class SignalBlock {
 public:
  /// Blocks SIGTERM only.
  static SignalBlock sigterm();
  /// Blocks every signal that can be blocked.
  static SignalBlock all();

  ~SignalBlock();
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

  /// The mask that the destructor restores.
  const sigset_t& previous() const { return saved; }

 private:
  explicit SignalBlock(const sigset_t& blocked);

  sigset_t saved;
};
