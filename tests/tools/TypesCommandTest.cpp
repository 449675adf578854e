// `routinglib types` and `routinglib value` run as processes: the registry
// as the tool lists and describes it, both wire forms of a value from either
// one, and refusals (one line, exit status 2).
#include <string>

#include <gtest/gtest.h>

#include "support/ToolRun.h"

namespace {

using testsupport::runRoutinglib;
using testsupport::ToolRun;

TEST(TypesCommand, ListsAndDescribesRegisteredTypes) {
  const ToolRun list = runRoutinglib("types Routing::Route");
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.output.find("value Routing::RouteKey\n"), std::string::npos) << list.output;
  EXPECT_NE(list.output.find("entity Routing::RouteList\n"), std::string::npos) << list.output;
  EXPECT_EQ(list.output.find("Memtab::Fib::FecId"), std::string::npos) << list.output;

  const ToolRun key = runRoutinglib("types --describe Routing::RouteKey");
  EXPECT_EQ(key.status, 0);
  EXPECT_EQ(key.output,
            "value Routing::RouteKey\n"
            "  2 attribute prefix: Velnet::IpGenPrefix settable\n"
            "  3 attribute preference: Routing::RoutePreference settable\n"
            "  4 constant metric: Routing::RouteMetric\n"
            "  5 function hash() -> U32\n"
            "  6 function pretty() -> Cog::String\n");

  // Inherited members come first, with their own block of indexes.
  const ToolRun input = runRoutinglib("types --describe Routing::RouteInput");
  EXPECT_NE(input.output.find("base: Routing::RouteList\n  258 collection route: "),
            std::string::npos)
      << input.output;
  EXPECT_NE(input.output.find("  386 attribute routingProto: U8 settable\n"), std::string::npos)
      << input.output;

  EXPECT_EQ(runRoutinglib("types --describe Routing::RouteType").output,
            "enumeration Routing::RouteType\n  forward = 0\n  drop = 1\n  nexthopGroup = 2\n");
}

TEST(ValueCommand, PrintsBothFormsFromEither) {
  const std::string expected =
      "text: Value('Routing::RouteKey', ** {'prefix': 10.1.0.0/16, 'preference': 20})\n"
      "attrlog: 00 00 00 01 0a 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 10 14\n";
  const ToolRun fromText = runRoutinglib(
      "value Routing::RouteKey \"Value('Routing::RouteKey', ** {'prefix': 10.1.0.0/16, "
      "'preference': 20})\"");
  EXPECT_EQ(fromText.status, 0);
  EXPECT_EQ(fromText.output, expected);
  const ToolRun fromLog = runRoutinglib(
      "value Routing::RouteKey --attrlog '00000001 0a010000 00000000 00000000 00000000 00000010 "
      "14'");
  EXPECT_EQ(fromLog.status, 0);
  EXPECT_EQ(fromLog.output, expected);
}

TEST(ValueCommand, RefusesWhatItCannotRead) {
  struct Case {
    const char* args;
    const char* error;
  };
  const Case cases[] = {
      {"value No::Such 1", "routinglib value: no registered type 'No::Such'\n"},
      {"types --describe No::Such", "routinglib types: no registered type 'No::Such'\n"},
      {"value Routing::RouteKey --attrlog 0g", "routinglib value: '0g' is not hex bytes\n"},
      {"value Routing::RouteKey --attrlog 000", "routinglib value: '000' is not hex bytes\n"},
      {"value Routing::RouteKey --attrlog 00",
       "routinglib value: attribute log truncated: number needs 4 bytes at offset 0, 1 left\n"},
      {"value Routing::RouteMetric --attrlog '00000001 ff'",
       "routinglib value: 1 bytes left after the value\n"},
      {"value Routing::RouteList x", "routinglib value: Routing::RouteList has no string form\n"},
      {"value",
       "routinglib value: usage: routinglib value [--json] NAME TEXT | value [--json] NAME "
       "--attrlog HEX\n"},
  };
  for (const Case& c : cases) {
    const ToolRun run = runRoutinglib(c.args);
    EXPECT_EQ(run.status, 2) << c.args;
    EXPECT_EQ(run.output, c.error) << c.args;
  }
  // A malformed text is refused with the parser's own words.
  const ToolRun bad = runRoutinglib("value Routing::RouteKey 'Value(x'");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.output.rfind("routinglib value: ", 0), 0u) << bad.output;
  EXPECT_EQ(bad.output.find('\n'), bad.output.size() - 1) << bad.output;
}

}  // namespace
