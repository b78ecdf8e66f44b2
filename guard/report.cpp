#include "guard/report.h"

#include <sys/wait.h>

#include <algorithm>
#include <initializer_list>
#include <string_view>

#include "guard/capture.h"
#include "guard/names.h"
#include "guard/options.h"
#include "guard/say.h"
#include "guard/watch.h"

namespace {

/// The line before the output when the run did not end by itself.
void sayWhyItEnded(const Options& options, const Outcome& outcome) {
  if (outcome.interruptedBy != 0) {
    say({"UNKNOWN - interrupted by SIG", signalName(outcome.interruptedBy), "\n"});
  } else if (outcome.hasTimedOut) {
    say({"UNKNOWN - timed out after ", Digits(options.timeLimitSeconds), " s\n"});
  } else if (WIFSIGNALED(outcome.status)) {
    const int signal = WTERMSIG(outcome.status);
    say({"UNKNOWN - ", options.plugin[0], " was terminated by SIG", signalName(signal), " (signal ",
         Digits(signal), ")\n"});
  }
}

bool endedByItself(const Outcome& outcome) {
  return outcome.interruptedBy == 0 && !outcome.hasTimedOut && WIFEXITED(outcome.status);
}

/// Writes pieces of output and remarks, each remark on lines of its own.
class Page {
 public:
  void add(std::string_view text) {
    if (!text.empty()) {
      say({text});
      isAtLineStart = text.back() == '\n';
    }
  }
  void startLine() {
    if (!isAtLineStart) {
      add("\n");
    }
  }
  void remark(std::initializer_list<std::string_view> pieces) {
    startLine();
    say({"[koduguard: "});
    say(pieces);
    say({"]\n"});
  }

 private:
  bool isAtLineStart = true;
};

void sayOutput(const Options& options, const Outcome& outcome, std::string_view output,
               std::string_view errors, std::size_t dropped) {
  Page page;
  page.add(output);
  if (!errors.empty()) {
    page.startLine();
    page.add(errors);
  }
  if (dropped > 0) {
    page.remark({"output cut at ", Digits(options.outputLimit), " bytes, ",
                 Digits(static_cast<long>(dropped)), " dropped; -o sets the limit"});
  }
  if (outcome.hasSurvivors) {
    page.remark({"some processes of the plugin could not be ended; find them with ps"});
  } else if (outcome.leftProcesses) {
    page.remark({"ended processes that kept the output open after the plugin had ended"});
  }
}

/// True for what the daemon treats as no output and retries.
bool isNothing(std::string_view output) {
  return output.empty() || output == "''";
}

}  // namespace

int report(const Options& options, const Outcome& outcome, const Capture& output,
           const Capture& errors) {
  const auto limit = static_cast<std::size_t>(options.outputLimit);
  const std::string_view shownErrors(errors.kept().data(),
                                     std::min(errors.kept().size(), limit - output.kept().size()));
  const std::size_t dropped =
      output.dropped() + errors.dropped() + errors.kept().size() - shownErrors.size();

  sayWhyItEnded(options, outcome);
  if (endedByItself(outcome) && isNothing(output.kept()) && errors.kept().empty()) {
    say({options.plugin[0], " printed nothing, exit code ", Digits(WEXITSTATUS(outcome.status)),
         "\n"});
    sayOutput(options, outcome, "", "", dropped);
  } else {
    sayOutput(options, outcome, output.kept(), shownErrors, dropped);
  }
  return endedByItself(outcome) ? WEXITSTATUS(outcome.status) : kUnknown;
}
