#pragma once

#include <string>
#include <vector>

#include "ctl/terminal/terminal.h"

/// A table for people: columns as wide as their widest cell, two blanks between them, no trailing
/// blanks. Owned by one thread.
class Table {
 public:
  enum class Align { kLeft, kRight };

  struct Column {
    std::string title;
    Align align = Align::kLeft;
  };

  struct Cell {
    // Not explicit: most cells are plain text.
    Cell(std::string content, Colour colourOfText = Colour::kNone);  // NOLINT(*-explicit-*)

    std::string text;
    Colour colour;
  };

  explicit Table(std::vector<Column> heads) : columns(std::move(heads)) {}

  /// Adds a line with one cell a column. Line breaks in cells become blanks.
  void add(std::vector<Cell> cells) { lines.push_back(std::move(cells)); }

  /// Head and lines, one text each, cut to `maxWidth` columns when that is above 0.
  std::vector<std::string> render(int maxWidth = 0) const;

  /// Prints it, cut to the terminal's width where there is one.
  void print() const;

 private:
  std::vector<int> widths() const;

  std::vector<Column> columns;  // constant after construction
  std::vector<std::vector<Cell>> lines;
};
