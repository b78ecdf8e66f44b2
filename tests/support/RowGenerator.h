#pragma once

#include <random>
#include <string>
#include <utility>
#include <vector>

/// Draws tasks with any text, time and number of the columns' types, most of them at or beyond a
/// limit of the tables. The same seed produces the same sequence.
class RowGenerator {
 public:
  /// `plugins`: executables, of which most rows have one.
  RowGenerator(unsigned seed, std::vector<std::string> plugins);

  /// A text of up to a megabyte, without a zero byte: ASCII, control characters, all of Unicode,
  /// quotes.
  std::string text(std::size_t longest);
  std::string fileName();
  std::string pluginPath();
  /// SQL literals, or NULL.
  std::string interval();
  std::string retries();
  std::string retryInterval();
  std::string nextExec();

  /// The values of (plugin_name, plugin_path) of a new plugin.
  std::string pluginValues();
  /// The values of (cron_interval, cron_next_exec, cron_log_file, cron_retries,
  /// cron_retries_interval, cron_parameter) of a new task.
  std::string taskValues();
  /// A change of one of these columns, for an UPDATE.
  std::string assignment();

  /// A number from 0 to below `count`.
  int below(int count);

 private:
  std::string character();
  std::string parameter();
  template <typename Choice>
  const Choice& oneOf(const std::vector<Choice>& choices) {
    return choices[static_cast<std::size_t>(below(static_cast<int>(choices.size())))];
  }

  std::mt19937 engine;
  std::vector<std::string> executables;
};

/// `text` as an SQL literal.
std::string sqlLiteral(const std::string& text);
