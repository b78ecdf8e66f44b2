#include "core/signals.h"

void installEmptySignalMask() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

SignalBlock SignalBlock::sigterm() {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  return SignalBlock(blocked);
}

SignalBlock SignalBlock::all() {
  sigset_t blocked;
  sigfillset(&blocked);
  return SignalBlock(blocked);
}

SignalBlock::SignalBlock(const sigset_t& blocked) : saved() {
  pthread_sigmask(SIG_BLOCK, &blocked, &saved);
}

SignalBlock::~SignalBlock() {
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}
