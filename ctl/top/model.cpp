#include "ctl/top/model.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "ctl/terminal/printable.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr int kFrame = 4;  // lines beside the rows: heading, blank, head of the table, last line

constexpr const char* kHelp =
    "q quit  a all l late r running f failing t latest  s sort S reverse  / filter  "
    "Enter explain  p pause u resume x run";

constexpr std::array<const char*, 5> kViews = {"all", "late", "running", "failing", "latest"};
constexpr std::array<const char*, 5> kSorts = {"urgency", "id", "name", "due", "last"};

Colour colourOf(const TopRow& row) {
  const std::string word = stateWord(row);
  if (word == "late" || word == "running" || word == "retry") {
    return Colour::kYellow;
  }
  return word == "failing" ? Colour::kRed : Colour::kNone;
}

/// For how long it has been in its state.
std::string forText(const TopRow& row, long now) {
  if (row.isLate || row.isRunning) {
    return durationText(row.dueSeconds);
  }
  return row.isFailing && row.failingSince ? durationText(std::max(0L, now - *row.failingSince))
                                           : "-";
}

/// Lines of text that fit the width.
std::vector<std::string> broken(const std::string& sentence, int width) {
  std::vector<std::string> lines;
  for (std::string rest = oneLine(sentence); !rest.empty();) {
    std::string line = cutTo(rest, width);
    if (const auto blank = line.rfind(' ');
        line.size() < rest.size() && blank != std::string::npos) {
      line.resize(blank + 1);
    }
    if (line.empty()) {
      break;  // not even one character fits
    }
    rest.erase(0, line.size());
    lines.push_back(line);
  }
  return lines;
}

}  // namespace

void TopModel::setHeight(int lines) {
  wanted.limit = std::max(1, lines - kFrame);
}

void TopModel::setRows(std::vector<TopRow> newRows, long now) {
  // The selection stays with its task, wherever that goes.
  const auto before = selected();
  rows = std::move(newRows);
  moment = now;
  const auto same = std::find_if(rows.begin(), rows.end(),
                                 [&](const TopRow& row) { return before && row.id == before->id; });
  if (same != rows.end()) {
    position = static_cast<int>(same - rows.begin());
  }
  position = std::clamp(position, 0, std::max(0, static_cast<int>(rows.size()) - 1));
}

std::optional<TopRow> TopModel::selected() const {
  return rows.empty() ? std::nullopt : std::optional(rows[static_cast<std::size_t>(position)]);
}

std::string TopModel::heading() const {
  return fmt::format("{}: {} late, {} running, {} failed  |  {}, by {}{}{}  |  {} {}",
                     counted(counts.tasks, "task"), counts.late, counts.running, counts.failed,
                     kViews.at(static_cast<std::size_t>(wanted.view)),
                     kSorts.at(static_cast<std::size_t>(wanted.sort)),
                     wanted.isReversed ? " reversed" : "",
                     wanted.filter.empty() ? "" : ", with " + oneLine(wanted.filter),
                     moment == 0 ? "" : shortTime(moment, moment), zoneName());
}

std::string TopModel::lastLine() const {
  if (isFiltering) {
    return "filter: " + oneLine(wanted.filter) + "_";
  }
  return message.empty() ? kHelp : oneLine(message);
}

void TopModel::addTable(std::vector<TopLine>& screen, int width) const {
  constexpr auto kRight = Table::Align::kRight;
  Table table({{"ID", kRight},
               {"NAME"},
               {"STATE"},
               {"FOR", kRight},
               {"LAST DUE"},
               {"NEXT DUE"},
               {"FAILED 24H", kRight}});
  for (const TopRow& row : rows) {
    table.add({std::to_string(row.id), cutTo(oneLine(row.name), 40), stateWord(row),
               forText(row, moment), shortTime(row.lastDue, moment), shortTime(row.due, moment),
               std::to_string(row.failuresDay)});
  }
  const std::vector<std::string> rendered = table.renderPlain(width);
  screen.push_back({rendered.front(), Colour::kBold});
  for (std::size_t i = 0; i < rows.size(); ++i) {
    screen.push_back({rendered[i + 1], colourOf(rows[i]), static_cast<int>(i) == position});
  }
}

std::vector<TopLine> TopModel::lines(int width, int height) const {
  std::vector<TopLine> screen = {{cutTo(heading(), width), Colour::kBold}, {}};
  if (text.empty()) {
    addTable(screen, width);
  } else {
    for (const std::string& sentence : text) {
      for (const std::string& line : broken(sentence, width)) {
        screen.push_back({line});
      }
    }
  }
  screen.resize(static_cast<std::size_t>(std::max(1, height - 1)));
  screen.push_back({cutTo(text.empty() ? lastLine() : "any key: back to the table", width)});
  return screen;
}
