// koductl forecast: what is due in the next hours.

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "core/helpers.h"
#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/terminal/chart.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr std::size_t kShownMinutes = 10;
constexpr int kChartRows = 6;

/// A minute in the future.
struct Minute {
  std::string time, busiestSecond;  // UTC; no busiest second where nothing is due
  long runs = 0, busiestRuns = 0, workers = 0;
};

/// "7=12.5" as a member of a JSON object.
std::string durationMember(const std::string& duration) {
  const char* end = duration.data() + duration.size();
  int id = -1;
  const auto [sign, idError] = std::from_chars(duration.data(), end, id);
  if (idError == std::errc() && id >= 0 && sign != end && *sign == '=') {
    double seconds = -1;
    const auto [rest, error] = std::from_chars(sign + 1, end, seconds, std::chars_format::fixed);
    if (error == std::errc() && rest == end && seconds >= 0 && std::isfinite(seconds)) {
      return fmt::format("\"{}\": {}", id, seconds);
    }
  }
  throw Failure(kWrongUsage,
                fmt::format("--took takes ID=SECONDS, such as 7=12.5, not {}", duration));
}

/// ["7=12.5", "8=3"] as the object {"7": 12.5, "8": 3}.
std::string durationsObject(const std::vector<std::string>& durations) {
  std::string members;
  for (const std::string& duration : durations) {
    members += (members.empty() ? "" : ", ") + durationMember(duration);
  }
  return "{" + members + "}";
}

std::vector<Minute> readForecast(const Options& options, Session& session) {
  const Rows rows = Call("kodu_forecast")
                        .with("hours", "numeric", options.hours)
                        .with("run_seconds", "numeric", options.runSeconds)
                        .with("durations", "jsonb", durationsObject(options.took))
                        .run(session);
  std::vector<Minute> minutes;
  minutes.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    minutes.push_back({rows.text(row, "minute"), rows.text(row, "busiest_second"),
                       rows.number(row, "runs"), rows.number(row, "busiest_runs"),
                       rows.number(row, "workers")});
  }
  return minutes;
}

Json::Value toJson(const std::vector<Minute>& minutes) {
  Json::Value list(Json::arrayValue);
  for (const Minute& minute : minutes) {
    Json::Value entry;
    entry["minute"] = jsonMoment(minute.time);
    entry["runs"] = Json::Int64{minute.runs};
    entry["busiest_second"] = jsonMoment(minute.busiestSecond);
    entry["busiest_runs"] = Json::Int64{minute.busiestRuns};
    entry["workers"] = Json::Int64{minute.workers};
    list.append(entry);
  }
  return list;
}

void printBusiestMinutes(std::vector<Minute> minutes) {
  std::stable_sort(minutes.begin(), minutes.end(),
                   [](const Minute& a, const Minute& b) { return a.runs > b.runs; });
  minutes.resize(std::min(minutes.size(), kShownMinutes));
  constexpr auto kRight = Table::Align::kRight;
  Table table({{fmt::format("BUSIEST MINUTES ({})", zoneName())},
               {"RUNS", kRight},
               {"BUSIEST SECOND"},
               {"RUNS", kRight},
               {"WORKERS", kRight}});
  for (const Minute& minute : minutes) {
    table.add({localText(minute.time), std::to_string(minute.runs), localText(minute.busiestSecond),
               std::to_string(minute.busiestRuns), std::to_string(minute.workers)});
  }
  table.print();
}

void printSummary(const std::vector<Minute>& minutes, const Options& options,
                  const std::string& threadNumber) {
  long runs = 0;
  Minute busiest;
  long workers = 0;
  for (const Minute& minute : minutes) {
    runs += minute.runs;
    workers = std::max(workers, minute.workers);
    if (minute.busiestRuns > busiest.busiestRuns) {
      busiest = minute;
    }
  }
  print("{} in {} h", counted(runs, "run"), options.hours);
  if (busiest.busiestRuns > 0) {
    print("; the busiest second is {} with {}", localText(busiest.busiestSecond),
          busiest.busiestRuns);
  }
  print(".\nRuns of {} s need {}; thread_number is {}.\n\n", options.runSeconds,
        counted(workers, "worker"), threadNumber);
}

/// The runs of each minute, and below them a mark where they need more workers than there are.
void printChart(const std::vector<Minute>& minutes, const std::string& threadNumber) {
  std::vector<long> runs;
  std::vector<long> lacking;
  const int workers = stringToInt(threadNumber);
  for (const Minute& minute : minutes) {
    runs.push_back(minute.runs);
    lacking.push_back(minute.workers > workers ? 1 : 0);
  }
  const long top = *std::max_element(runs.begin(), runs.end());
  const std::size_t columns = std::min(runs.size(), chartColumns(top));
  print("RUNS A MINUTE\n");
  for (const std::string& line : chartLines(compressed(runs, columns), kChartRows, top)) {
    print("{}\n", line);
  }
  std::string marks;
  for (const long isLacking : compressed(lacking, columns)) {
    marks += isLacking != 0 ? '!' : ' ';
  }
  if (marks.find('!') != std::string::npos) {
    print("{}\n", coloured(chartScale(marks, "", 0, top), Colour::kRed));
  }
  print("{}\n",
        chartScale(localText(minutes.front().time), localText(minutes.back().time), columns, top));
  if (marks.find('!') != std::string::npos) {
    print("!: more workers are needed than there are\n");
  }
  print("\n");
}

}  // namespace

int runForecast(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  const std::vector<Minute> minutes = readForecast(options, session);
  if (options.asJson) {
    printJson(toJson(minutes));
    return kDone;
  }
  printSummary(minutes, options, session.config.threadNumber);
  if (isTerminal() && !minutes.empty()) {
    printChart(minutes, session.config.threadNumber);
  }
  printBusiestMinutes(minutes);
  return kDone;
}
