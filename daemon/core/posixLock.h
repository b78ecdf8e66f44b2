#pragma once

#include <pthread.h>

#include <system_error>

/// Holds a POSIX mutex while it lives. Throws std::system_error when the mutex cannot be locked.
class PosixLock {
 public:
  explicit PosixLock(pthread_mutex_t& lockedMutex) : mutex(lockedMutex) {
    if (const int error = pthread_mutex_lock(&mutex); error != 0) {
      throw std::system_error(error, std::generic_category(), "pthread_mutex_lock");
    }
  }
  ~PosixLock() { pthread_mutex_unlock(&mutex); }
  PosixLock(const PosixLock&) = delete;
  PosixLock& operator=(const PosixLock&) = delete;

 private:
  pthread_mutex_t& mutex;
};
