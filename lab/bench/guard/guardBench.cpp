// What koduguard costs, on top of the same plugin without it:
//   nothing   a static plugin that does nothing
//   memory    a static plugin that reads /proc/meminfo, for what small ones do
//
// One operation is one run as the daemon makes it: pipe, child, exec with an empty environment,
// read to the end, wait. Runs with and without the guard take turns. "start" is the time until the
// plugin's main, "run" until its end is known. Medians; the number of runs of each is the argument,
// 2000 when there is none.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

/// Microseconds.
struct Sample {
  double start = 0;
  double run = 0;
};

long now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

std::string readAll(int file) {
  std::string text;
  std::array<char, 1024> chunk{};
  for (ssize_t length = 0; (length = read(file, chunk.data(), chunk.size())) > 0;) {
    text.append(chunk.data(), static_cast<std::size_t>(length));
  }
  return text;
}

/// Ends the program when the plugin's last word is no time.
Sample run(const std::vector<const char*>& arguments) {
  std::array<int, 2> ends{};
  std::array<char*, 1> emptyEnvironment{};
  const long begin = now();
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    std::abort();
  }
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(ends[1], STDOUT_FILENO);
    execve(arguments[0], const_cast<char**>(arguments.data()), emptyEnvironment.data());
    _exit(127);
  }
  close(ends[1]);
  const std::string text = readAll(ends[0]);
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  const long end = now();
  const auto digits = text.find_last_not_of("0123456789\n") + 1;  // 0 when it is all digits
  const long started = std::stol(text.substr(digits));
  return {static_cast<double>(started - begin) / 1000, static_cast<double>(end - begin) / 1000};
}

double median(std::vector<Sample> samples, double Sample::*field) {
  const auto middle = samples.begin() + static_cast<long>(samples.size() / 2);
  std::nth_element(samples.begin(), middle, samples.end(),
                   [=](const Sample& a, const Sample& b) { return a.*field < b.*field; });
  return *middle.*field;
}

void compare(const char* name, const char* plugin, int runs) {
  std::vector<Sample> plain;
  std::vector<Sample> guarded;
  for (int i = 0; i < runs; ++i) {
    plain.push_back(run({plugin, nullptr}));
    guarded.push_back(run({KODU_BENCH_GUARD, "-t", "30", "--", plugin, nullptr}));
  }
  const double wholeRun = median(plain, &Sample::run);
  const double moreStart = median(guarded, &Sample::start) - median(plain, &Sample::start);
  const double moreRun = median(guarded, &Sample::run) - wholeRun;
  std::printf("%-8s %9.0f %12.0f %5.0f%% %12.0f %5.0f%%\n", name, wholeRun, moreStart,
              100 * moreStart / wholeRun, moreRun, 100 * moreRun / wholeRun);
}

}  // namespace

int main(int count, char** arguments) {
  const int runs = count > 1 ? std::max(std::atoi(arguments[1]), 1) : 2000;
  std::printf("%-8s %9s %12s %6s %12s %6s\n", "plugin", "run [us]", "guard start", "of run",
              "guard whole", "of run");
  compare("nothing", KODU_BENCH_NOTHING, runs);
  compare("memory", KODU_BENCH_MEMORY, runs);
}
