#pragma once

// A program that links Heap.cpp has an operator new of its own.

/// False in a program whose sanitizer needs its own operator new: the two declarations below have
/// no effect there.
bool isHeapWatched();

/// The number of calls of operator new by the calling thread.
long heapRequests();

/// Makes operator new throw std::bad_alloc in the calling thread after a number of successful
/// requests, during its lifetime. Only one object at a time.
class HeapLimit {
 public:
  explicit HeapLimit(long granted);
  ~HeapLimit();
  HeapLimit(const HeapLimit&) = delete;
  HeapLimit& operator=(const HeapLimit&) = delete;
};
