#pragma once

#include <string>
#include <vector>

#include "ctl/terminal/terminal.h"

/// A table for people: columns as wide as their widest cell, two spaces between them, no trailing
/// spaces. Owned by one thread.
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

  /// Adds a line with one cell a column. Line breaks in cells become spaces.
  void add(std::vector<Cell> cells) { lines.push_back(std::move(cells)); }

  /// Head and lines, each truncated to `maxWidth` columns if that is above 0.
  std::vector<std::string> render(int maxWidth = 0) const;

  /// The same without colours and attributes.
  std::vector<std::string> renderPlain(int maxWidth) const;

  /// Prints it, truncated to the width of the terminal if there is one, and forgets its lines: the
  /// lines that are added after it go on below these, with the same widths and without a head.
  void print();

 private:
  std::vector<int> widths() const;
  std::vector<std::string> renderWith(const std::vector<int>& columnWidths, bool withHead,
                                      int maxWidth, bool withColours) const;

  std::vector<Column> columns;  // constant after construction
  std::vector<std::vector<Cell>> lines;
  std::vector<int> printedWidths;  // of what was printed; empty before
};
