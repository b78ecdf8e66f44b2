#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/terminal/terminal.h"
#include "ctl/top/feed.h"

/// What a key asks for beyond the table itself.
enum class TopAction { kNone, kRefresh, kExplain, kPause, kResume, kRun, kQuit };

/// A key that is no character.
enum TopKey { kKeyUp = -1, kKeyDown = -2, kKeyEnter = -3, kKeyEscape = -4, kKeyBackspace = -5 };

/// A line of the screen. Its text is printable.
struct TopLine {
  std::string text;
  Colour colour = Colour::kNone;
  bool isSelected = false;
};

/// The state of the live table, without terminal and database. Owned by one thread.
class TopModel {
 public:
  /// What the database is to be asked.
  const TopQuery& query() const { return wanted; }
  /// Lets the query ask for as many tasks as the screen has lines.
  void setHeight(int lines);

  void setRows(std::vector<TopRow> newRows, long now);
  void setCounts(const TopCounts& newCounts) { counts = newCounts; }
  /// A sentence in the last line, until a key is pressed.
  void setMessage(const std::string& sentence) { message = sentence; }
  /// Sentences instead of the table, until a key is pressed.
  void showText(std::vector<std::string> sentences) { text = std::move(sentences); }

  /// Takes a key: a character, or one of TopKey.
  TopAction press(int key);

  /// The task that an action is about; nothing in an empty table.
  std::optional<TopRow> selected() const;

  /// The whole screen, cut to its width.
  std::vector<TopLine> lines(int width, int height) const;

 private:
  // Defined in ctl/top/keys.cpp, with press().
  TopAction pressInFilter(int key);
  TopAction pressInQuestion(int key);
  TopAction pressInTable(int key);
  TopAction ask(TopAction action, const std::string& verb);
  TopAction show(TopView view);
  void addTable(std::vector<TopLine>& screen, int width) const;
  std::string heading() const;
  std::string lastLine() const;

  TopQuery wanted;
  std::vector<TopRow> rows;
  TopCounts counts;
  long moment = 0;
  int position = 0;  // of the selected row
  std::string message;
  std::vector<std::string> text;
  bool isFiltering = false;
  std::optional<TopAction> question;  // waits for a "y"
};
