#include "core/logFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <utility>

#include "core/FileException.h"
#include "core/localTime.h"
#include "core/signals.h"

namespace {

constexpr std::array<std::string_view, 8> kLevelWords = {
    "DEBUG", "INFO", "NOTICE", "WARNING", "ERRORS", "CRITICAL", "ALERT", "ERMERGENCY"};

std::string_view levelWord(signed char level) {
  const auto index = static_cast<unsigned char>(level);
  return index < kLevelWords.size() ? kLevelWords.at(index) : "INFO";
}

/// The local time in asctime's layout, without its newline, written into `buffer`.
std::string_view timestamp(long offset, std::array<char, 64>& buffer) {
  const std::tm local = calendarTime(std::time(nullptr) + offset);
  const char* text = asctime_r(&local, buffer.data());
  const std::string_view line = text == nullptr ? "" : text;
  return line.substr(0, line.rfind('\n'));
}

}  // namespace

logFile::logFile(std::string path) : logFile(1, std::move(path)) {}

logFile::logFile(char threshold, std::string path)
    : level(static_cast<signed char>(threshold)), fileName(std::move(path)) {
  open();
  readZone();  // for HandlerQuit's line, should it be the first
}

logFile::~logFile() {
  close(file);
}

void logFile::write(char lineLevel, std::string_view message) {
  if (writes(lineLevel)) {
    write(levelWord(static_cast<signed char>(lineLevel)), message);
  }
}

void logFile::writeInHandler(char lineLevel, std::string_view message) {
  if (writes(lineLevel)) {
    writeLine(lastUtcOffset(), levelWord(static_cast<signed char>(lineLevel)), message);
  }
}

void logFile::write(std::string_view tag, std::string_view message) {
  // Before the mutex: reading the zone needs the heap, and a thread that holds the heap's lock can
  // have been interrupted by HandlerQuit, which waits for the mutex.
  writeLine(utcOffset(std::time(nullptr)), tag, message);
}

void logFile::writeLine(long offset, std::string_view tag, std::string_view message) {
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  std::array<char, 64> buffer{};
  append({timestamp(offset, buffer), "#", tag, "#", message});
}

void logFile::write(std::string_view message) {
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  append({message});
}

std::size_t logFile::size() {
  const std::filesystem::path path(fileName);  // on the heap, so before the mutex
  const SignalBlock noSigterm = SignalBlock::sigterm();
  const std::lock_guard lock(mutex);
  return std::filesystem::file_size(path);
}

std::string logFile::getFileName() const {
  return fileName.substr(fileName.rfind('/'));
}

std::string logFile::getDirectory() const {
  return fileName.substr(0, fileName.rfind('/'));
}

void logFile::open() {
  file = ::open(fileName.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (file < 0) {
    throw FileException("error open file: " + fileName);
  }
}

bool logFile::endsInsideLine() const {
  struct stat status {};
  char last = '\n';  // what cannot be read, such as a pipe, has no lines to end
  if (fstat(file, &status) == 0 && status.st_size > 0) {
    [[maybe_unused]] const ssize_t length = pread(file, &last, 1, status.st_size - 1);
  }
  return last != '\n';
}

void logFile::append(std::initializer_list<std::string_view> parts) {
  std::array<iovec, 8> line{};
  std::size_t count = 0;
  std::size_t size = 0;
  const auto add = [&](std::string_view part) {
    line.at(count++) = {const_cast<char*>(part.data()), part.size()};
    size += part.size();
  };
  if (!isLastLineWhole && endsInsideLine()) {
    add("\n");
  }
  std::ranges::for_each(parts, add);
  add("\n");
  // One write for all parts: what does not fit is lost, and nothing is written twice.
  ssize_t written = writev(file, line.data(), static_cast<int>(count));
  if (written < 0 && errno == EBADF) {
    open();
    written = writev(file, line.data(), static_cast<int>(count));
  }
  isLastLineWhole = written == static_cast<ssize_t>(size);
}
