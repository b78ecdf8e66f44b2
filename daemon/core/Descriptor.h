#pragma once

#include <unistd.h>

/// A file descriptor that is closed with its owner. One thread owns it.
class Descriptor {
 public:
  /// Takes `number` over; a negative number means failure, with the reason in errno.
  explicit Descriptor(int number) : descriptor(number) {}
  ~Descriptor() {
    if (isOpen()) {
      close(descriptor);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool isOpen() const { return descriptor >= 0; }
  int get() const { return descriptor; }

 private:
  const int descriptor;  // constant after construction
};
