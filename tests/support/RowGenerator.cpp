#include "tests/support/RowGenerator.h"

RowGenerator::RowGenerator(unsigned seed, std::vector<std::string> plugins)
    : engine(seed), executables(std::move(plugins)) {}

int RowGenerator::below(int count) {
  // Not a distribution of the standard library: their results differ between systems.
  return static_cast<int>(engine() % static_cast<unsigned>(count));
}

std::string RowGenerator::character() {
  switch (below(8)) {
    case 0:
      return {static_cast<char>(1 + below(31))};
    case 1:
      return oneOf<std::string>({"'", "\"", "\\", "$", "%", "/", ".", " ", "\x7f", "$DATE"});
    case 2: {  // two bytes of UTF-8, controls among them
      const int point = 0x80 + below(0x780);
      return {static_cast<char>(0xC0 | (point >> 6)), static_cast<char>(0x80 | (point & 0x3F))};
    }
    case 3: {  // three
      const int point = 0x800 + below(0xD000);
      return {static_cast<char>(0xE0 | (point >> 12)),
              static_cast<char>(0x80 | ((point >> 6) & 0x3F)),
              static_cast<char>(0x80 | (point & 0x3F))};
    }
    case 4:
      return oneOf<std::string>({"\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF", "\xEF\xBB\xBF",
                                 "e\xCC\x81", "\xE2\x80\xAE", "\xEF\xBF\xBD"});
    default:
      return {static_cast<char>(' ' + below(95))};
  }
}

std::string RowGenerator::text(std::size_t longest) {
  const std::size_t length = below(20) == 0 ? longest : static_cast<std::size_t>(below(40));
  std::string result;
  while (result.size() < length) {
    result += character();
  }
  return result;
}

std::string RowGenerator::fileName() {
  static const std::vector<std::string> kPieces = {"$DATE",      "$DATE",
                                                   "$DATE",      "$SERVICEID",
                                                   "$SERVICEID", "archive",
                                                   "last",       "/",
                                                   "./",         ".",
                                                   "..",         "-",
                                                   "_",          "1",
                                                   "2",          "61",
                                                   "x",          "y",
                                                   "out",        ".txt",
                                                   "\xC3\xA9",   "\xF0\x9F\x98\x80",
                                                   " ",          "$",
                                                   "$date",      "DATE",
                                                   "~",          "*",
                                                   "\\",         "'",
                                                   "\n",         "sub/"};
  switch (below(6)) {
    case 0:
      return "$SERVICEID_$DATE.txt";
    case 2: {
      std::string name = "$SERVICEID" + text(60) + "$DATE";
      name.resize(below(2) == 0 ? 240 : 241, 'x');
      return name;
    }
    case 1: {
      std::string name;
      for (int piece = below(7); piece >= 0; --piece) {
        name += oneOf(kPieces);
      }
      return name;
    }
    default:  // usually accepted
      std::string name = text(40) + "$DATE";
      std::erase_if(name, [](char c) { return c == '/' || c == '.' || (c >= 0 && c < ' '); });
      return name +
             oneOf<std::string>({"", "$SERVICEID", ".txt", "$DATE", "-$SERVICEID$SERVICEID"});
  }
}

std::string RowGenerator::pluginPath() {
  if (below(10) > 0) {
    return oneOf(executables);
  }
  const std::vector<std::string> odd = {"/",
                                        "/nowhere/at all",
                                        "relative",
                                        "",
                                        ".",
                                        "/etc/passwd",
                                        "/dev/null",
                                        "/bin/true/x",
                                        "/" + std::string(4094, 'p'),
                                        "/" + std::string(4095, 'p'),
                                        text(300)};
  return oneOf(odd);
}

std::string RowGenerator::interval() {
  static const std::vector<std::string> kOdd = {"1 s",
                                                "2 s",
                                                "0.5 s",
                                                "1.5 s",
                                                "0",
                                                "-1 s",
                                                "366 days",
                                                "1 month",
                                                "1 year",
                                                "367 days",
                                                "365 days 24 hours",
                                                "-12 months 365 days",
                                                "-12 months 365 days 6 hours",
                                                "-120 months 3601 days",
                                                "-365 days 8761 hours",
                                                "1 month -30 days 1 s",
                                                "-71582788 months 2147483647 days",
                                                "1 day -86399 s",
                                                "8784 hours",
                                                "31622400 s",
                                                "1000000 hours"};
  const bool isOdd = below(6) == 0;
  return "'" + (isOdd ? oneOf(kOdd) : std::to_string(1 + below(7200)) + " s") + "'";
}

std::string RowGenerator::retries() {
  return oneOf<std::string>({"NULL", "0", "0", "0", "1", "2", "5", "-1", "2147483647"});
}

std::string RowGenerator::retryInterval() {
  // No valid value from 2 s to a minute: in a burst such a retry can be overdue when its run ends,
  // and two failures within one second end the daemon, see docs/operating.md.
  if (below(3) > 0) {
    return oneOf<std::string>({"NULL", "'1 minute'", "'1 hour 0.5 s'", "'366 days'"});
  }
  return oneOf<std::string>({"NULL", "'0'", "'1 s'", "'1.9 s'", "'-1 s'", "'1 minute'",
                             "'1 hour 0.5 s'", "'366 days'", "'367 days'", "'1 month'",
                             "'-12 months 365 days'", "'-71582788 months 2147483647 days'"});
}

std::string RowGenerator::nextExec() {
  const std::string seconds = std::to_string(1 + below(5));
  const std::string soon = "now() + interval '" + seconds + ".5 s'";
  return oneOf<std::string>({soon, soon, "now() - interval '" + seconds + " days'", "'1970-01-01'",
                             "'1970-01-01 00:00:00.5'", "'1999-12-31 23:59:59.999999'",
                             "'2035-12-31 23:59:59'", "'2036-01-01'",
                             "'2036-01-01 00:00:00.000001'", "'2037-06-01'",
                             "'2038-01-19 03:14:07'", "'infinity'", "'1969-12-31 23:59:59'"});
}

std::string RowGenerator::parameter() {
  switch (below(200)) {
    case 0:
      return "NULL";
    case 1:
      return sqlLiteral(text(1000000));
    case 2:
      return sqlLiteral(std::string(static_cast<std::size_t>(999999 + below(3)), ' '));
    default:
      return sqlLiteral(text(2000));
  }
}

// One draw per statement: the compiler may choose the order of evaluation within an expression.

std::string RowGenerator::pluginValues() {
  std::string values = sqlLiteral(text(1000)) + ", ";
  values += sqlLiteral(pluginPath());
  return values;
}

std::string RowGenerator::taskValues() {
  std::string values = interval() + ", ";
  values += nextExec() + ", ";
  values += sqlLiteral(fileName()) + ", ";
  values += retries() + ", ";
  values += retryInterval() + ", ";
  values += parameter();
  return values;
}

std::string RowGenerator::assignment() {
  switch (below(6)) {
    case 0:
      return "cron_interval = " + interval();
    case 1:
      return "cron_next_exec = " + nextExec();
    case 2:
      return "cron_log_file = " + sqlLiteral(fileName());
    case 3:
      return "cron_retries = " + retries();
    case 4:
      return "cron_retries_interval = " + retryInterval();
    default:
      return "cron_parameter = " + parameter();
  }
}

std::string sqlLiteral(const std::string& text) {
  std::string literal = "'";
  for (const char c : text) {
    literal += c == '\'' ? "''" : std::string(1, c);
  }
  return literal + "'";
}
