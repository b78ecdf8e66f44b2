// A static plugin as small ones are: reads /proc/meminfo and writes one line with a figure, which
// ends in the time of its start as in staticNothing.cpp.

#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

int main() {
  timespec start{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  std::ifstream file("/proc/meminfo");
  std::map<std::string, double> memory;
  std::string key;
  for (double value = 0; file >> key >> value; file.ignore(80, '\n')) {
    memory[key] = value;
  }
  const double percent = 100 * memory["MemAvailable:"] / memory["MemTotal:"];
  const int code = percent < 5 ? 2 : percent < 10 ? 1 : 0;
  std::cout << (code == 0 ? "OK" : "LOW") << " - " << percent
            << "% available | available=" << percent
            << "%;10;5 started=" << start.tv_sec * 1'000'000'000 + start.tv_nsec << '\n';
  return code;
}
