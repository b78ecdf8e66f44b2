#include "guard/system.h"

#include <sched.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>

char** startEnvironment = nullptr;

int main(int argc, char** argv);

namespace {

alignas(16) std::array<char, 16384> childStack;

constexpr long kCloneFlags = CLONE_VM | CLONE_VFORK | SIGCHLD;

}  // namespace

void endProcess(int code) {
  for (;;) {
    kernel(SYS_exit_group, code);
  }
}

#if defined(__x86_64__) && !defined(KODU_GUARD_WITH_LIBC)

long callKernel(long number, long a, long b, long c, long d, long e, long f) {
  register long r10 asm("r10") = d;
  register long r8 asm("r8") = e;
  register long r9 asm("r9") = f;
  long result = number;
  asm volatile("syscall"
               : "+a"(result)
               : "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
               : "rcx", "r11", "memory");
  return result;
}

pid_t lendMemory(void (*child)(void*), void* argument) {
  register void (*r12)(void*) asm("r12") = child;
  register void* r13 asm("r13") = argument;
  long result = SYS_clone;
  // The new process has its own stack, so nothing of this frame may be used before the call.
  asm volatile(
      "syscall\n\t"
      "test %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "mov %%r13, %%rdi\n\t"
      "call *%%r12\n\t"
      "ud2\n"
      "1:"
      : "+a"(result)
      : "D"(kCloneFlags), "S"(childStack.data() + childStack.size()), "r"(r12), "r"(r13)
      : "rcx", "r11", "memory");
  return static_cast<pid_t>(result);
}

/// Called by the entry point with the number of arguments, which the pointers to the arguments and
/// the environment follow, as the kernel leaves them on the stack.
extern "C" [[noreturn, gnu::used]] void startGuard(long* stack) {
  const long count = *stack;
  char** arguments = reinterpret_cast<char**>(stack + 1);
  startEnvironment = arguments + count + 1;
  endProcess(main(static_cast<int>(count), arguments));
}

asm(".globl _start\n"
    "_start:\n\t"
    "xor %ebp, %ebp\n\t"
    "mov %rsp, %rdi\n\t"
    "and $-16, %rsp\n\t"
    "call startGuard\n\t"
    "ud2\n");

// What compilers call without being asked.
extern "C" {

void* memcpy(void* to, const void* from, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    static_cast<char*>(to)[i] = static_cast<const char*>(from)[i];
  }
  return to;
}

void* memset(void* to, int byte, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    static_cast<char*>(to)[i] = static_cast<char>(byte);
  }
  return to;
}

int memcmp(const void* left, const void* right, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    const int difference =
        static_cast<const unsigned char*>(left)[i] - static_cast<const unsigned char*>(right)[i];
    if (difference != 0) {
      return difference;
    }
  }
  return 0;
}

std::size_t strlen(const char* text) {
  std::size_t length = 0;
  while (text[length] != '\0') {
    ++length;
  }
  return length;
}

}  // extern "C"

#else

#include <unistd.h>

namespace {

struct Call {
  void (*child)(void*);
  void* argument;
};

int runCall(void* argument) {
  const Call& call = *static_cast<Call*>(argument);
  call.child(call.argument);
  return 0;
}

[[gnu::constructor]] void takeEnvironment() {
  startEnvironment = environ;
}

}  // namespace

long callKernel(long number, long a, long b, long c, long d, long e, long f) {
  const long result = syscall(number, a, b, c, d, e, f);
  return result < 0 ? -errno : result;
}

pid_t lendMemory(void (*child)(void*), void* argument) {
  Call call{child, argument};
  const int pid =
      clone(runCall, childStack.data() + childStack.size(), static_cast<int>(kCloneFlags), &call);
  return pid < 0 ? -errno : pid;
}

#endif
