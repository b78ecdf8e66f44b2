// The least that a static plugin can be: writes the time of its start, in nanoseconds of the
// monotonic clock.

#include <cstdio>
#include <ctime>

int main() {
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  std::printf("%ld\n", start.tv_sec * 1'000'000'000 + start.tv_nsec);
}
