// `routinglib rebase` run as a process: its output lines, its JSON, and its
// refusals (one line on stderr, exit status 2, the library never reached).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ToolRun.h"

namespace {

using testsupport::ToolRun;

ToolRun routinglib(const std::string& args) {
  return testsupport::runRoutinglib("rebase " + args);
}

TEST(RebaseCommand, PrintsStatusAndWeights) {
  struct Case {
    const char* args;
    const char* output;
  };
  const Case cases[] = {
      {"--max-ucmp 16 --deviation 0.05 10 3 1", "status: rebaseSuccess\nweights: 9 3 1\n"},
      // options may follow the weights
      {"10 3 1 --deviation 0.05 --max-ucmp 16", "status: rebaseSuccess\nweights: 9 3 1\n"},
      {"--max-ucmp 3 --deviation 0.2 --unsigned 5 4 3 2 1",
       "status: rebaseTruncated\nweights: 1 1 1 0 0\n"},
      {"--max-ucmp 2 --deviation 0.1 1 1", "status: rebaseUnconverged\nweights: 1 1\n"},
      {"--max-ucmp 64 --deviation 0 --float 0.5 0.25", "status: rebaseSuccess\nweights: 2 1\n"},
      {"--max-ucmp 64 --deviation 1 2 1", "status: rebaseSuccess\nweights: 1 1\n"},
      {"--max-ucmp 4 --deviation 0.1 0 1", "status: rebaseUnconverged\nweights: 1 3\n"},
      {"--max-ucmp 0 --deviation 0 7", "status: rebaseTruncated\nweights: 0\n"},
      // the balanced rebase: the best worst share within the budget, in lowest terms
      {"--max-ucmp 16 --balanced 10 3 1", "status: rebaseSuccess\nweights: 10 3 1\n"},
      {"--max-ucmp 65535 --balanced --unsigned 6 2 0", "status: rebaseSuccess\nweights: 3 1 0\n"},
      {"--balanced --float 0.5 0.25 --max-ucmp 64", "status: rebaseSuccess\nweights: 2 1\n"},
      {"--max-ucmp 10 --balanced 1000 1", "status: rebaseSuccess\nweights: 9 1\n"},
      {"--max-ucmp 2 --balanced 1 5 3", "status: rebaseTruncated\nweights: 0 1 1\n"},
  };
  for (const Case& c : cases) {
    const ToolRun run = routinglib(c.args);
    EXPECT_EQ(run.status, 0) << c.args;
    EXPECT_EQ(run.output, c.output) << c.args;
  }
}

TEST(RebaseCommand, JsonIsOneObjectOnOneLine) {
  EXPECT_EQ(routinglib("--json --max-ucmp 16 --deviation 0.05 10 3 1").output,
            "{\"status\": \"rebaseSuccess\", \"weights\": [9, 3, 1]}\n");
  EXPECT_EQ(routinglib("--max-ucmp 1 --deviation 0 --json 4").output,
            "{\"status\": \"rebaseUnconverged\", \"weights\": [1]}\n");
}

TEST(RebaseCommand, RefusesWhatTheLibraryWouldAbortOnOrCannotRead) {
  const char* refused[] = {
      "--max-ucmp 4 --deviation 1.5 1 2",
      "--max-ucmp 4 --deviation -0.1 1 2",
      "--max-ucmp 4 --deviation nan 1 2",
      "--max-ucmp 4 --deviation 0.1x 1 2",
      "--max-ucmp 4 --deviation 1e99 1 2",
      "--max-ucmp 4 --deviation",
      "--max-ucmp 4 --deviation 0.1",
      "--max-ucmp 4 --deviation 0.1 0 0 0",
      "--max-ucmp 4 --deviation 0.1 1.5 -1.5",
      "--max-ucmp 4 --deviation 0.1 1 3x",
      "--max-ucmp 4 --deviation 0.1 1 inf",
      "--max-ucmp 4 --deviation 0.1 --unsigned 1 -1",
      "--max-ucmp 4 --deviation 0.1 --unsigned 4294967296",
      "--max-ucmp 4 --deviation 0.1 --unsigned 1.5",
      "--max-ucmp 4 --deviation 0.1 --float 1e39",
      "--max-ucmp 4 --deviation 0.1 --float --unsigned 1",
      "--max-ucmp -4 --deviation 0.1 1",
      "--max-ucmp 18446744073709551616 --deviation 0.1 1",
      "--max-ucmp 4x --deviation 0.1 1",
      "--deviation 0.1 1 2",
      "--max-ucmp 4 1 2",
      "--max-ucmp 4 --deviation 0.1 --frobnicate 1",
      // negative weights, whatever their kind (the library's loop would take
      // double ones, but no next hop has a negative weight)
      "--max-ucmp 8 --deviation 0.5 -1 3",
      "--max-ucmp 8 --deviation 0.5 -0 3",
      "--max-ucmp 8 --deviation 0.5 --float 3 -0.25",
      "--max-ucmp 8 --balanced 3 -1",
      // the balanced rebase takes no deviation, the loop needs one
      "--max-ucmp 8 --balanced --deviation 0.1 1 2",
      "--max-ucmp 8 --balanced 0 0",
      "--balanced 1 2",
  };
  for (const char* args : refused) {
    const ToolRun run = routinglib(args);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_EQ(run.output.rfind("routinglib rebase: ", 0), 0u) << args << ": " << run.output;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1) << args << ": " << run.output;
  }
}

}  // namespace
