#include "ctl/import/nagios.h"

#include <fmt/format.h>

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/sources.h"
#include "ctl/failure.h"
#include "ctl/import/import.h"
#include "task/serviceSafe.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kSample = R"(
# The site's templates.
define service {
    name                  generic
    check_interval        5
    retry_interval        1     ; minutes
    max_check_attempts    3
    contact_groups        admins
    register              0
}
define host{
	name	linux
	check_command	alive
	max_check_attempts	2
	check_interval	10
	register	0
	}
define host {
    use        linux
    host_name  web1
    address    10.0.0.1
    hostgroups web
    _RACK      a 7
}
define host {
    use        linux
    host_name  web2
    alias      Second
}
define hostgroup {
    hostgroup_name  web
    members         web2
}
define command {
    command_name  alive
    command_line  $USER1$/check_ping -H $HOSTADDRESS$ \
                  -w 100,20%
}
define command {
    command_name  http
    command_line  $USER1$/check_http -H '$HOSTNAME$' -p $ARG1$ -u "$ARG2$"
}
define service {
    use                  generic
    hostgroup_name       web
    host_name            !none,!web3
    service_description  HTTP /start
    check_command        http!80!/a b
}
)";

/// The import of object files, and its report.
class NagiosTest : public testing::Test {
 protected:
  const std::vector<ImportedTask>& import(const std::vector<std::string>& contents) {
    testing::internal::CaptureStderr();
    result = Import();
    std::vector<Source> sources;
    for (const std::string& content : contents) {
      sources.push_back({"f" + std::to_string(sources.size()), content});
    }
    importNagios(sources, "Europe/Paris", "n", result);
    result.printReport();
    report = testing::internal::GetCapturedStderr();
    return result.tasks();
  }
  std::vector<std::string> keysOf(const std::vector<std::string>& contents) {
    std::vector<std::string> keys;
    for (const ImportedTask& task : import(contents)) {
      keys.push_back(task.key);
    }
    return keys;
  }
  /// The task of one service with these directives, whose command is "test".
  Definition serviceWith(const std::string& directives, const std::string& commandLine = "/bin/t") {
    const auto& tasks =
        import({"define host {\nhost_name h\naddress 192.0.2.1\n_SNMP public\n}\n"
                "define command {\ncommand_name test\ncommand_line " +
                commandLine +
                "\n}\n"
                "define timeperiod {\ntimeperiod_name 24x7\n" +
                week("00:00-24:00") +
                "}\n"
                "define timeperiod {\ntimeperiod_name work\nmonday 09:00-17:00\n"
                "tuesday 09:00-17:00\nsaturday 10:30-12:00\n}\n"
                "define service {\nhost_name h\nservice_description s\ncheck_command test\n" +
                directives + "\n}\n$USER1$=/usr/lib/plugins\n$USER9$=se cret\n"});
    return tasks.size() == 1 ? tasks[0].definition : Definition{};
  }
  static std::string week(const std::string& times) {
    std::string text;
    for (const char* day :
         {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"}) {
      text += std::string(day) + " " + times + "\n";
    }
    return text;
  }

  Import result;
  std::string report;
};

TEST_F(NagiosTest, MakesTasksOfTheChecksOfHostsAndServices) {
  const auto& tasks = import({kSample, "$USER1$=/usr/lib/plugins\n"});
  ASSERT_EQ(tasks.size(), 4U) << report;
  EXPECT_EQ(tasks[0].key, "n/web1");
  EXPECT_EQ(tasks[0].definition, (Definition{{"plugin", "/usr/lib/plugins/check_ping"},
                                             {"name", "web1"},
                                             {"every", "10m"},
                                             {"retries", "1"},
                                             {"retry-after", "1m"},
                                             {"arguments", "-H 10.0.0.1 -w 100,20%"}}));
  EXPECT_EQ(tasks[1].definition.at("arguments"), "-H web2 -w 100,20%");
  EXPECT_THAT(tasks[2].key, testing::StartsWith("n/web1/HTTP-start-"));
  EXPECT_EQ(tasks[2].definition.at("name"), "web1 HTTP /start");
  EXPECT_EQ(tasks[2].definition.at("every"), "5m");
  EXPECT_EQ(tasks[2].definition.at("retries"), "2");
  EXPECT_EQ(tasks[2].definition.at("arguments"), "-H web1 -p 80 -u \"/a b\"");
  EXPECT_THAT(tasks[3].key, testing::StartsWith("n/web2/"));
  EXPECT_THAT(report, HasSubstr("f0:46: left out: the host none is not defined\n"));
  EXPECT_THAT(report, HasSubstr("\n4 tasks, 2 lines left out\n"));
}

TEST_F(NagiosTest, InheritsFromSeveralTemplatesTheFirstOneWins) {
  const std::string templates =
      "define service {\nname a\nregister 0\nuse base\nretry_interval 2\n}\n"
      "define service {\nname b\nregister 0\ncheck_interval 7\nretry_interval 3\n"
      "max_check_attempts 4\nevent_handler x\n}\n"
      "define service {\nname base\nregister 0\ncheck_interval 6\nhost_name h\n}\n";
  const std::string rest =
      "define host {\nhost_name h\n}\ndefine host {\nhost_name i\n}\n"
      "define command {\ncommand_name c\ncommand_line /bin/c\n}\n";
  const auto& tasks = import({templates + rest +
                              "define service {\nuse a, b\nservice_description s\nhost_name +i\n"
                              "check_command c\nevent_handler null\n}\n"});
  ASSERT_EQ(tasks.size(), 2U) << report;
  EXPECT_EQ(tasks[0].key, "n/h/s");
  EXPECT_EQ(tasks[1].key, "n/i/s");
  EXPECT_EQ(tasks[0].definition.at("every"), "6m");
  EXPECT_EQ(tasks[0].definition.at("retry-after"), "2m");
  EXPECT_EQ(tasks[0].definition.at("retries"), "3");
  EXPECT_THAT(report, Not(HasSubstr("event_handler")));
}

TEST_F(NagiosTest, ReportsTemplatesThatAreMissingOrUseThemselves) {
  import(
      {"define service {\nname a\nuse b\nregister 0\n}\n"
       "define service {\nname b\nuse a\nregister 0\n}\n"
       "define service {\nuse a,none\nservice_description s\n}\n"});
  EXPECT_THAT(report, HasSubstr("f0:1: left out: the template uses itself\n"));
  EXPECT_THAT(report, HasSubstr("f0:12: left out: the template none is not defined\n"));
  std::string chain = "define host {\nhost_name h\nuse t0\n}\n";
  for (int i = 0; i < 10000; ++i) {
    chain += "define host {\nregister 0\nname t" + std::to_string(i) + "\nuse t" +
             std::to_string(i + 1) + "\n}\n";
  }
  import({chain});
  EXPECT_THAT(report, HasSubstr("uses too many others, one by one\n"));
}

TEST_F(NagiosTest, ReplacesMacros) {
  const auto argumentsFor = [this](const std::string& command, const std::string& line) {
    Definition task = serviceWith("check_command " + command + "\n_PORT 99", line);
    return task.empty() ? report : task["plugin"] + " " + task["arguments"];
  };
  EXPECT_EQ(
      argumentsFor("test!a!b\\!c!$HOSTADDRESS$!$USER1$", "/bin/t $ARG1$ $ARG2$ $ARG3$ $ARG4$"),
      "/bin/t a b!c 192.0.2.1 /usr/lib/plugins");
  EXPECT_EQ(
      argumentsFor("test!$ARG1$", "/bin/t $SERVICEDESC$ $HOSTNAME$ $_HOSTSNMP$ $_SERVICEPORT$"),
      "/bin/t s h public 99");
  EXPECT_EQ(argumentsFor("test", "$USER1$/t '$USER9$' '5\\;6'"),
            "/usr/lib/plugins/t \"se cret\" 5;6");
  EXPECT_EQ(argumentsFor("test!-p 80", "/bin/t $ARG1$ $ARG2$ x$ARG3$"), "/bin/t -p 80 x");
  EXPECT_EQ(argumentsFor("test", "/bin/t 5$$"),
            "/bin/sh -c \"export PATH=/usr/bin:/bin; /bin/t 5$\"");
  EXPECT_THAT(argumentsFor("test", "/bin/t $HOSTSTATE$"),
              HasSubstr("left out: h s: the macro $HOSTSTATE$ has no value that is known before"));
  EXPECT_THAT(argumentsFor("test!$LASTCHECK$", "/bin/t $ARG1$"),
              HasSubstr("the macro $LASTCHECK$"));
  EXPECT_THAT(argumentsFor("none", "/bin/t"), HasSubstr("the command none is not defined"));
}

TEST_F(NagiosTest, UsesAShellWhereTheCommandNeedsOne) {
  const auto outputFor = [this](const std::string& line, const std::string& command = "test") {
    Definition task = serviceWith("check_command " + command, line);
    serviceSafe record;
    record.Setpath(task["plugin"]);
    record.Setparameter(task["arguments"]);
    record.execute();
    return task["plugin"] + ": " + record.GetStdout();
  };
  EXPECT_EQ(outputFor("/bin/echo 'a  b' c\\ d \"e\"f"), "/bin/echo: a  b c d ef\n");
  EXPECT_EQ(outputFor("/usr/bin/printf '<%s>' \"\" x"), "/bin/sh: <><x>");
  EXPECT_EQ(outputFor("/usr/bin/printf '<%s>' \"it's\" a"), "/bin/sh: <it's><a>");
  EXPECT_EQ(outputFor("/bin/echo a | /usr/bin/tr a b"), "/bin/sh: b\n");
  EXPECT_EQ(outputFor("A=1 /bin/sh -c 'echo $$A \"$$PATH\"'"), "/bin/sh: 1 /usr/bin:/bin\n");
  EXPECT_EQ(outputFor("/usr/bin/printf '<%s>' '$ARG1$' '$ARG2$'", "test!a b"), "/bin/sh: <a b><>");
}

TEST_F(NagiosTest, TakesIntervalsAndAttempts) {
  EXPECT_EQ(serviceWith("")["every"], "5m");
  EXPECT_EQ(serviceWith("")["retries"], "0");
  EXPECT_EQ(serviceWith("normal_check_interval 0.5")["every"], "30s");
  const Definition task = serviceWith("max_check_attempts 2\nretry_check_interval 0");
  EXPECT_EQ(task.at("retry-after"), "2s");
  for (const char* wrong : {"check_interval 0", "check_interval x", "check_interval 1e9",
                            "retry_interval -1", "max_check_attempts nan"}) {
    EXPECT_TRUE(serviceWith(wrong).empty()) << wrong;
    EXPECT_THAT(report, HasSubstr("from 1 second to 366 days"));
  }
  EXPECT_TRUE(serviceWith("active_checks_enabled 0").empty());
  EXPECT_THAT(report, HasSubstr("active checks are disabled"));
}

TEST_F(NagiosTest, TurnsTimePeriodsIntoCalendars) {
  EXPECT_EQ(serviceWith("check_period 24x7").count("at"), 0U);
  const Definition task = serviceWith("check_period work\ncheck_interval 30");
  EXPECT_EQ(task.at("zone"), "Europe/Paris");
  EXPECT_THAT(task.at("at"), testing::MatchesRegex("[0-9]+,[0-9]+ 9-16 \\* \\* 1-2; .* \\* \\* 6"));
  EXPECT_EQ(task.at("every"), "30m");
  EXPECT_EQ(serviceWith("check_period work\ncheck_interval 7").count("at"), 0U);
  EXPECT_THAT(report, HasSubstr("left out: h s: no calendar says every 7m within the time period "
                                "work; the task runs at all times\n"));
  serviceWith("check_period none");
  EXPECT_THAT(report, HasSubstr("within the time period none"));
}

TEST_F(NagiosTest, FindsHostsByGroupsInGroups) {
  const std::string hosts =
      "define host {\nhost_name a\nhostgroups g\n}\ndefine host {\nhost_name b\n}\n"
      "define host {\nhost_name c\n}\n"
      "define command {\ncommand_name c\ncommand_line /bin/c\n}\n"
      "define hostgroup {\nhostgroup_name g\nhostgroup_members k\n}\n"
      "define hostgroup {\nhostgroup_name k\nmembers b,none\nhostgroup_members g\n}\n";
  const auto service = [](const std::string& directive) {
    return "define service {\nservice_description s\ncheck_command c\n" + directive + "\n}\n";
  };
  EXPECT_THAT(keysOf({hosts + service("hostgroup_name g")}), ElementsAre("n/a/s", "n/b/s"));
  EXPECT_THAT(report, HasSubstr("the host none is not defined"));
  EXPECT_THAT(keysOf({hosts + service("host_name *\nhostgroup_name !g")}), ElementsAre("n/c/s"));
  EXPECT_THAT(keysOf({hosts + service("host_name a,a") + service("host_name a")}),
              ElementsAre("n/a/s"));
  EXPECT_THAT(report, HasSubstr("a s is defined already"));
  EXPECT_THAT(keysOf({hosts + service("hostgroup_name x")}), ElementsAre());
  EXPECT_THAT(report, HasSubstr("the host group x is not defined"));
}

TEST_F(NagiosTest, KeepsKeysWhenOtherThingsChange) {
  const std::string macros = "$USER1$=/usr/lib/plugins\n";
  const auto before = keysOf({kSample, macros});
  EXPECT_EQ(keysOf({macros, "define host {\nhost_name new\n}\n", kSample}), before);
}

TEST_F(NagiosTest, ReportsOtherObjectsAndLines) {
  import(
      {"define contact {\ncontact_name x\n}\ndefine servicedependency {\n}\n"
       "cfg_dir=/etc\nnonsense\ndefine { x }\ndefine host {\n"});
  EXPECT_THAT(report, HasSubstr("f0:4: left out: servicedependency has no equivalent\n"));
  EXPECT_THAT(report, HasSubstr("f0:6: left out: no definition of an object: \"cfg_dir=/etc\"\n"));
  EXPECT_THAT(report, HasSubstr("f0:7: left out: no definition"));
  EXPECT_THAT(report, HasSubstr("f0:8: left out: no definition"));
  EXPECT_THAT(report, HasSubstr("f0:9: left out: the definition does not end"));
  EXPECT_THAT(report, HasSubstr("f0: 1 definition of contacts, escalations"));
}

TEST_F(NagiosTest, ReadsLinesHoweverTheyEnd) {
  EXPECT_THAT(keysOf({"define host {\r\nhost_name h\r\ncheck_command c\r\n}\r\n"
                      "define command {\r\ncommand_name c\r\ncommand_line /bin/c\r\n}"}),
              ElementsAre("n/h"));
  EXPECT_EQ(result.tasks()[0].definition.at("plugin"), "/bin/c");
}

TEST_F(NagiosTest, LimitsWhatAFewObjectsCanStandFor) {
  std::string content = "define command {\ncommand_name c\ncommand_line /bin/c $ARG1$";
  for (int i = 0; i < 1000; ++i) {
    content += "$ARG1$";
  }
  content +=
      "\n}\ndefine host {\nhost_name h\ncheck_command c!" + std::string(100000, 'x') + "\n}\n";
  EXPECT_TRUE(import({content}).empty());
  EXPECT_THAT(report, HasSubstr("longer than an argument"));
  std::string wide = "define command {\ncommand_name c\ncommand_line /bin/c\n}\n";
  for (int i = 0; i < 400; ++i) {
    wide += "define host {\nhost_name h" + std::to_string(i) +
            "\n}\ndefine service {\nhost_name *\ncheck_command c\nservice_description s" +
            std::to_string(i) + "\n}\n";
  }
  EXPECT_THROW(import({wide}), Failure);
  testing::internal::GetCapturedStderr();
}

TEST_F(NagiosTest, LimitsWhatTemplatesCanStandFor) {
  std::string doubling = "define host {\nname t0\nregister 0\nparents +a\n}\n";
  for (int i = 1; i < 90; ++i) {
    doubling += fmt::format(
        "define host {{\nname t{0}\nregister 0\nuse t{1},t{1}\nparents +a\n}}\n", i, i - 1);
  }
  import({doubling + "define host {\nuse t89\nhost_name h\n}\n"});
  EXPECT_EQ(report, "0 tasks, 0 lines left out\n");
  std::string wide = "define host {\nname t\nregister 0\n";
  for (int i = 0; i < 1100; ++i) {
    wide += "_v" + std::to_string(i) + " x\n";
  }
  wide += "}\n";
  for (int i = 0; i < 1100; ++i) {
    wide += "define host {\nuse t\nhost_name h" + std::to_string(i) + "\n}\n";
  }
  EXPECT_THROW(import({wide}), Failure);
  testing::internal::GetCapturedStderr();
}

TEST_F(NagiosTest, SurvivesAnyBytes) {
  std::mt19937 engine{1};
  const std::string sample = std::string(kSample) + "$USER1$=/x\n";
  const std::string parts = std::string("{}\n$!\\;#,+*\0 /\"'0", 17) + "\xff\x1b";
  std::uniform_int_distribution<std::size_t> part(0, parts.size() - 1);
  std::uniform_int_distribution<std::size_t> place(0, sample.size() - 1);
  for (int i = 0; i < 500; ++i) {
    std::string content = sample;
    for (int changes = 0; changes < 5; ++changes) {
      content[place(engine)] = parts[part(engine)];
    }
    import({content});
    EXPECT_THAT(report, HasSubstr("left out\n"));
    EXPECT_EQ(report.find('\x1b'), std::string::npos);
  }
}

}  // namespace
