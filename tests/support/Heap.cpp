#include "tests/support/Heap.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr long kNoLimit = std::numeric_limits<long>::max();
thread_local long requests = 0;
thread_local long requestLimit = kNoLimit;

}  // namespace

// Weak, for a sanitizer that is linked into the program with an operator new of its own.

[[gnu::weak]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return ++requests > requestLimit ? nullptr : std::malloc(size == 0 ? 1 : size);
}

[[gnu::weak]] void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

[[gnu::weak]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::weak]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
[[gnu::weak]] void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}

bool isHeapWatched() {
  const long before = requests;
  operator delete(operator new(1));
  return requests > before;
}

long heapRequests() {
  return requests;
}

HeapLimit::HeapLimit(long granted) {
  requestLimit = requests + granted;
}

HeapLimit::~HeapLimit() {
  requestLimit = kNoLimit;
}
