#pragma once

// A program that links Heap.cpp has an operator new of its own.

/// False in a program whose sanitizer insists on its operator new: the two below do nothing there.
bool isHeapWatched();

/// How often the calling thread has asked operator new for memory.
long heapRequests();

/// Makes operator new throw std::bad_alloc in the calling thread while it lives, once it has
/// granted a number of requests. One at a time.
class HeapLimit {
 public:
  explicit HeapLimit(long granted);
  ~HeapLimit();
  HeapLimit(const HeapLimit&) = delete;
  HeapLimit& operator=(const HeapLimit&) = delete;
};
