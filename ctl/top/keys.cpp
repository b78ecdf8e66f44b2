// What each key of the live table does: the part of TopModel behind press().
#include <fmt/format.h>

#include <algorithm>

#include "ctl/terminal/printable.h"
#include "ctl/top/model.h"

namespace {

constexpr int kSorts = static_cast<int>(TopSort::kLast) + 1;

}  // namespace

TopAction TopModel::press(int key) {
  message.clear();
  if (!text.empty()) {
    text.clear();
    return TopAction::kNone;
  }
  if (isFiltering) {
    return pressInFilter(key);
  }
  return question ? pressInQuestion(key) : pressInTable(key);
}

TopAction TopModel::pressInFilter(int key) {
  if (key == kKeyEnter || key == kKeyEscape) {
    isFiltering = false;
    if (key == kKeyEscape) {
      wanted.filter.clear();
    }
    return TopAction::kRefresh;
  }
  if (key == kKeyBackspace) {
    while (!wanted.filter.empty() &&
           (static_cast<unsigned char>(wanted.filter.back()) & 0xc0U) == 0x80U) {
      wanted.filter.pop_back();
    }
    if (!wanted.filter.empty()) {
      wanted.filter.pop_back();
    }
  } else if (key >= ' ') {
    wanted.filter += static_cast<char>(key);
  }
  return TopAction::kNone;
}

TopAction TopModel::pressInQuestion(int key) {
  const TopAction action = *question;
  question.reset();
  if (key == 'y') {
    return action;
  }
  message = "nothing was changed";
  return TopAction::kNone;
}

TopAction TopModel::ask(TopAction action, const std::string& verb) {
  if (const auto row = selected()) {
    question = action;
    message = fmt::format("{} task {} ({})? y/n", verb, row->id, oneLine(row->name));
  }
  return TopAction::kNone;
}

TopAction TopModel::show(TopView view) {
  wanted.view = view;
  wanted.sort = view == TopView::kLatest ? TopSort::kLast : TopSort::kUrgency;
  wanted.isReversed = false;
  position = 0;
  return TopAction::kRefresh;
}

TopAction TopModel::pressInTable(int key) {
  const int last = std::max(0, static_cast<int>(rows.size()) - 1);
  switch (key) {
    case 'q':
      return TopAction::kQuit;
    case kKeyUp:
    case 'k':
      position = std::max(0, position - 1);
      return TopAction::kNone;
    case kKeyDown:
    case 'j':
      position = std::min(last, position + 1);
      return TopAction::kNone;
    case 'a':
      return show(TopView::kAll);
    case 'l':
      return show(TopView::kLate);
    case 'r':
      return show(TopView::kRunning);
    case 'f':
      return show(TopView::kFailing);
    case 't':
      return show(TopView::kLatest);
    case 's':
      wanted.sort = static_cast<TopSort>((static_cast<int>(wanted.sort) + 1) % kSorts);
      return TopAction::kRefresh;
    case 'S':
      wanted.isReversed = !wanted.isReversed;
      return TopAction::kRefresh;
    case '/':
      isFiltering = true;
      return TopAction::kNone;
    case kKeyEscape:
      wanted.filter.clear();
      return TopAction::kRefresh;
    case kKeyEnter:
    case 'e':
      return selected() ? TopAction::kExplain : TopAction::kNone;
    case 'p':
      return ask(TopAction::kPause, "pause");
    case 'u':
      return ask(TopAction::kResume, "resume");
    case 'x':
      return ask(TopAction::kRun, "run");
    default:
      return TopAction::kNone;
  }
}
