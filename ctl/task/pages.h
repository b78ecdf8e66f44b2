#pragma once

#include <string>

#include "ctl/task/selection.h"

struct Options;

/// What of a selection has been shown.
struct Page {
  long tasks = 0;
  int lastId = 0;  // of the last of them
};

/// The selection of the options; without a limit and --all, of what fits the terminal.
Selection pageOf(const Options& options);

/// "… and 999,950 more: --all, or --after 50" when the limit of the selection has left tasks out;
/// otherwise "".
std::string restText(Session& session, const Selection& selection, const Page& page,
                     const Totals& totals);
