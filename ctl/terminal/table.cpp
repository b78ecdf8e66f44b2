#include "ctl/terminal/table.h"

#include <algorithm>
#include <utility>

#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"

namespace {

constexpr int kGap = 2;

std::string padded(const std::string& text, int width, Table::Align align) {
  const std::string blanks(static_cast<std::size_t>(std::max(0, width - widthOf(text))), ' ');
  return align == Table::Align::kRight ? blanks + text : text + blanks;
}

/// One line under construction: counts the columns without the colours.
class Line {
 public:
  Line(int limit, bool hasColours) : maxWidth(limit), withColours(hasColours) {}

  void add(const std::string& text, Colour colour) {
    const std::string shown = maxWidth > 0 ? cutTo(text, std::max(0, maxWidth - width)) : text;
    width += widthOf(shown);
    content += withColours ? coloured(shown, colour).text : shown;
  }

  std::string content;

 private:
  int maxWidth;
  bool withColours;
  int width = 0;
};

}  // namespace

Table::Cell::Cell(std::string content, Colour colourOfText)
    : text(oneLine(content)), colour(colourOfText) {}

std::vector<int> Table::widths() const {
  std::vector<int> result;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    int width = widthOf(columns[i].title);
    for (const auto& line : lines) {
      width = std::max(width, widthOf(line[i].text));
    }
    result.push_back(width);
  }
  return result;
}

std::vector<std::string> Table::render(int maxWidth) const {
  return renderWith(widths(), true, maxWidth, true);
}

std::vector<std::string> Table::renderPlain(int maxWidth) const {
  return renderWith(widths(), true, maxWidth, false);
}

std::vector<std::string> Table::renderWith(const std::vector<int>& columnWidths, bool withHead,
                                           int maxWidth, bool withColours) const {
  const auto renderLine = [&](const auto& cellAt) {
    Line line(maxWidth, withColours);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const Cell& cell = cellAt(i);
      const bool isLast = i + 1 == columns.size();
      const std::string text = isLast && columns[i].align == Align::kLeft
                                   ? cell.text
                                   : padded(cell.text, columnWidths[i], columns[i].align);
      line.add(text, cell.colour);
      line.add(isLast ? "" : std::string(kGap, ' '), Colour::kNone);
    }
    line.content.erase(line.content.find_last_not_of(' ') + 1);
    return line.content;
  };
  std::vector<std::string> rendered;
  if (withHead) {
    rendered.push_back(
        renderLine([&](std::size_t i) { return Cell(columns[i].title, Colour::kBold); }));
  }
  for (const auto& cells : lines) {
    rendered.push_back(renderLine([&](std::size_t i) -> const Cell& { return cells[i]; }));
  }
  return rendered;
}

void Table::print() {
  const bool isFirst = printedWidths.empty();
  if (isFirst) {
    printedWidths = widths();
  }
  for (const std::string& line :
       renderWith(printedWidths, isFirst, isTerminal() ? terminalSize().columns : 0, true)) {
    ::print("{}\n", Styled(line));
  }
  lines.clear();
}
