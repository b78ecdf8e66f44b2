#include "core/logFile.h"

#include <array>
#include <ctime>
#include <filesystem>
#include <utility>

#include "core/FileException.h"
#include "core/signals.h"

namespace {

constexpr std::array<std::string_view, 8> kLevelWords = {
    "DEBUG", "INFO", "NOTICE", "WARNING", "ERRORS", "CRITICAL", "ALERT", "ERMERGENCY"};

std::string_view levelWord(signed char level) {
  const auto index = static_cast<unsigned char>(level);
  return index < kLevelWords.size() ? kLevelWords.at(index) : "INFO";
}

/// The local time in asctime's layout, without its newline, written into `buffer`.
std::string_view timestamp(std::array<char, 64>& buffer) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  const char* text = asctime_r(&local, buffer.data());
  const std::string_view line = text == nullptr ? "" : text;
  return line.substr(0, line.rfind('\n'));
}

}  // namespace

logFile::logFile(std::string path) : logFile(1, std::move(path)) {}

logFile::logFile(char threshold, std::string path)
    : level(static_cast<signed char>(threshold)), fileName(std::move(path)) {
  // The first local time reads the time zone into the heap, which HandlerQuit's line must not do.
  const std::time_t anyTime = 0;
  std::tm unused{};
  localtime_r(&anyTime, &unused);
  open();
}

void logFile::write(char lineLevel, std::string_view message) {
  if (writes(lineLevel)) {
    write(levelWord(static_cast<signed char>(lineLevel)), message);
  }
}

void logFile::write(std::string_view tag, std::string_view message) {
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  prepare();
  std::array<char, 64> buffer{};
  stream << timestamp(buffer) << '#' << tag << '#' << message << '\n' << std::flush;
}

void logFile::write(std::string_view message) {
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  prepare();
  stream << message << '\n' << std::flush;
}

std::size_t logFile::size() {
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  return std::filesystem::file_size(fileName);
}

std::string logFile::getFileName() const {
  return fileName.substr(fileName.rfind('/'));
}

std::string logFile::getDirectory() const {
  return fileName.substr(0, fileName.rfind('/'));
}

void logFile::open() {
  stream.open(fileName, std::ios::in | std::ios::out | std::ios::app);
  if (!stream.is_open()) {
    throw FileException("error open file: " + fileName);
  }
}

void logFile::prepare() {
  // A line that a full disk has swallowed must not silence those after it.
  stream.clear();
  if (!stream.is_open()) {
    open();
  }
}
