#include "ctl/top/screen.h"

// The header of ncurses defines macros for common words: it comes after all others.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ctl/failure.h"
#include "ctl/terminal/terminal.h"
#include "ctl/top/model.h"
#define NCURSES_NOMACROS 1
#include <ncurses.h>

namespace {

/// The pairs of colours, by the values of Colour.
void setColours() {
  start_color();
  use_default_colors();
  init_pair(static_cast<short>(Colour::kGreen), COLOR_GREEN, -1);
  init_pair(static_cast<short>(Colour::kRed), COLOR_RED, -1);
  init_pair(static_cast<short>(Colour::kYellow), COLOR_YELLOW, -1);
}

attr_t attributesOf(const TopLine& line) {
  attr_t attributes = line.isSelected ? A_REVERSE : A_NORMAL;
  if (line.colour == Colour::kBold) {
    attributes |= A_BOLD;
  } else if (line.colour != Colour::kNone && has_colors() && isColourWanted()) {
    attributes |= static_cast<attr_t>(COLOR_PAIR(static_cast<int>(line.colour)));
  }
  return attributes;
}

int keyOf(int read) {
  switch (read) {
    case KEY_UP:
      return kKeyUp;
    case KEY_DOWN:
      return kKeyDown;
    case KEY_ENTER:
    case '\n':
    case '\r':
      return kKeyEnter;
    case '\x1b':
      return kKeyEscape;
    case KEY_BACKSPACE:
    case '\b':
    case '\x7f':
      return kKeyBackspace;
    default:
      return read > 0 && read < 256 ? read : 0;
  }
}

}  // namespace

Screen::Screen() : terminal(newterm(nullptr, stdout, stdin)) {
  if (terminal == nullptr) {
    throw Failure(kWrongUsage, "top needs a terminal that it knows: set TERM, or use status");
  }
  setColours();
  cbreak();
  noecho();
  keypad(stdscr, TRUE);
  set_escdelay(50);
  curs_set(0);
}

Screen::~Screen() {
  endwin();
  delscreen(static_cast<SCREEN*>(terminal));
}

// As the handler does that ncurses has by itself.
void Screen::leave() {
  endwin();
}

int Screen::width() const {
  return getmaxx(stdscr);
}

int Screen::height() const {
  return getmaxy(stdscr);
}

void Screen::draw(const std::vector<TopLine>& lines) {
  werase(stdscr);
  for (int row = 0; row < static_cast<int>(lines.size()); ++row) {
    const TopLine& line = lines[static_cast<std::size_t>(row)];
    const attr_t attributes = attributesOf(line);
    wattrset(stdscr, static_cast<int>(attributes));
    mvwaddstr(stdscr, row, 0, line.text.c_str());
    if (line.isSelected) {
      mvwchgat(stdscr, row, 0, -1, attributes,
               static_cast<short>(PAIR_NUMBER(static_cast<int>(attributes))), nullptr);
    }
  }
  wattrset(stdscr, A_NORMAL);
  wrefresh(stdscr);
}

int Screen::key(int milliseconds) {
  wtimeout(stdscr, milliseconds);
  return keyOf(wgetch(stdscr));
}
