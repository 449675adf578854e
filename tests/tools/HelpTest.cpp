// The tool's conventions, for every command it lists: help in three
// spellings on stdout with status 0, misuse in one line with status 2; and
// the commands that reach into another process (trace --pid, counters
// --watch), run against this test process.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Activity/Counter.h"
#include "Cog/Trace.h"
#include "support/ToolRun.h"

COG_TRACE_HANDLE("ToolsHelpTest");

namespace {

using testsupport::runRoutinglib;
using testsupport::ToolRun;

// The commands `routinglib help` lists.
std::vector<std::string> listedCommands() {
  const ToolRun help = runRoutinglib("help");
  EXPECT_EQ(help.status, 0);
  std::vector<std::string> names;
  std::istringstream in(help.output.substr(help.output.find("commands:\n")));
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line) && line.rfind("  ", 0) == 0) {
    names.push_back(line.substr(2, line.find(' ', 2) - 2));
  }
  return names;
}

// The tool's stdout alone.
ToolRun runStdout(const std::string& args) { return runRoutinglib(args, "2>/dev/null"); }

bool hasLine(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

bool oneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

TEST(ToolHelp, EveryCommandHasHelpInEachSpelling) {
  const std::vector<std::string> names = listedCommands();
  for (const char* known : {"counters", "fec", "memtab", "rebase", "trace", "types", "value"}) {
    EXPECT_NE(std::find(names.begin(), names.end(), known), names.end()) << known;
  }
  for (const std::string& name : names) {
    const ToolRun help = runStdout("help " + name);
    EXPECT_EQ(help.status, 0) << name;
    EXPECT_EQ(help.output.rfind("usage: routinglib " + name, 0), 0u) << name << ": " << help.output;
    for (const char* spelling : {" -h", " --help"}) {
      const ToolRun again = runStdout(name + spelling);
      EXPECT_EQ(again.status, 0) << name << spelling;
      EXPECT_EQ(again.output, help.output) << name << spelling;
    }
  }
  for (const char* all : {"help", "--help", "-h"}) {
    const ToolRun run = runStdout(all);
    EXPECT_EQ(run.status, 0) << all;
    EXPECT_EQ(run.output.rfind("usage: routinglib <command>", 0), 0u) << all;
  }
  const ToolRun version = runRoutinglib("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.output.rfind("routinglib ", 0), 0u);
  EXPECT_TRUE(oneLine(version.output)) << version.output;
}

TEST(ToolHelp, MisuseIsOneLineOnStderrWithStatus2) {
  // A refused invocation of each command; a command not named here is
  // given an option no command has.
  const std::map<std::string, std::vector<std::string>> misuse = {
      {"counters", {"", "12 13", "12 --count 3", "x"}},
      {"fec", {"", "--json", "-5"}},
      {"memtab", {"", "list extra", "dump"}},
      {"rebase", {"", "--max-ucmp 4 --deviation 2 1"}},
      {"trace", {"--pid", "--pid x", "a=1 b=2", "'a=x'"}},
      {"types", {"a b", "--describe"}},
      {"value", {"", "Routing::RouteKey"}},
  };
  for (const std::string& name : listedCommands()) {
    auto it = misuse.find(name);
    const std::vector<std::string> cases =
        it != misuse.end() ? it->second : std::vector<std::string>{"--no-such-option"};
    for (const std::string& args : cases) {
      const std::string command = name + " " + args;
      const ToolRun quiet = runStdout(command);
      EXPECT_EQ(quiet.status, 2) << command;
      EXPECT_EQ(quiet.output, "") << command;  // nothing on stdout
      const ToolRun run = runRoutinglib(command);
      EXPECT_TRUE(oneLine(run.output)) << command << ": " << run.output;
      EXPECT_EQ(run.output.rfind("routinglib " + name + ": ", 0), 0u) << command << ": " << run.output;
    }
  }
  for (const char* args : {"", "no-such-command", "help no-such-command", "help a b"}) {
    const ToolRun run = runRoutinglib(args);
    EXPECT_EQ(run.status, 2) << args;
  }
  EXPECT_TRUE(oneLine(runRoutinglib("no-such-command").output));
}

TEST(ToolTrace, ListsAndSetsTheLevelsOfAnotherProcess) {
  const std::string pid = std::to_string(getpid());
  cogDefaultTraceHandle().levelIs(Cog::Trace::kOff);
  Cog::Trace::poll();
  const ToolRun before = runRoutinglib("trace --pid " + pid);
  EXPECT_EQ(before.status, 0);
  EXPECT_TRUE(hasLine(before.output, "ToolsHelpTest -1")) << before.output;

  const ToolRun set = runRoutinglib("trace --pid " + pid + " 'ToolsHelp*=4,NoSuchHandle=2'");
  EXPECT_EQ(set.status, 0) << set.output;
  EXPECT_TRUE(hasLine(set.output, "ToolsHelpTest 4")) << set.output;
  // This process takes the request in at its next trace site.
  EXPECT_TRUE(COG_TRACE_ENABLED(4));
  EXPECT_FALSE(COG_TRACE_ENABLED(5));

  // A change made here shows there.
  cogDefaultTraceHandle().levelIs(7);
  const ToolRun json = runRoutinglib("trace --json --pid " + pid);
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.output.rfind("{\"pid\": " + pid + ", \"handles\": {", 0), 0u) << json.output;
  EXPECT_NE(json.output.find("\"ToolsHelpTest\": 7"), std::string::npos) << json.output;
  cogDefaultTraceHandle().levelIs(Cog::Trace::kOff);
}

TEST(ToolCounters, WatchShowsCountersAsTheyChange) {
  Activity::Counter& counter = Activity::CounterWriter::process().counter("toolsHelpWatch");
  const std::string command = testsupport::programPrefix() + "'" + ROUTINGLIB_TOOL +
                              "' counters " + std::to_string(getpid()) +
                              " --watch --interval 5 --count 1 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[512];
  std::string listed;
  // The first reading lists every counter; the watcher compares later ones with it.
  while (listed != "toolsHelpWatch 0\n" && std::fgets(line, sizeof line, pipe) != nullptr) {
    listed = line;
  }
  ASSERT_EQ(listed, "toolsHelpWatch 0\n");
  counter.increment(3);
  std::string rest;
  while (std::fgets(line, sizeof line, pipe) != nullptr) rest += line;
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(rest, "toolsHelpWatch +3 3\n");

  const ToolRun json = runRoutinglib("counters --json " + std::to_string(getpid()));
  EXPECT_EQ(json.status, 0);
  EXPECT_NE(json.output.find("\"toolsHelpWatch\": 3"), std::string::npos) << json.output;
}

}  // namespace
