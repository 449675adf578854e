// `routinglib fec` run as a process: FEC ids decoded in both number forms,
// interface names folded back, and refusals (one line, exit status 2).
#include <string>

#include <gtest/gtest.h>

#include "support/ToolRun.h"

namespace {

using testsupport::ToolRun;

ToolRun fec(const std::string& args) {
  return testsupport::runRoutinglib("fec " + args);
}

const char* const kNexthopGroup5 =
    "fecId: 0x300000000000005 (216172782113783813)\n"
    "valid: yes\n"
    "adjType: nextHopGroupAdj (3)\n"
    "adjIndex: 5\n"
    "toStrep: 3000000-5--300000000000005\n"
    "fecIntfId: GenericIntf19/5/393216\n"
    "hierarchicalIntfId: NexthopGroup5\n";

TEST(FecCommand, DecodesFecIds) {
  for (const char* id : {"0x300000000000005", "0X300000000000005", "216172782113783813"}) {
    const ToolRun run = fec(id);
    EXPECT_EQ(run.status, 0) << id;
    EXPECT_EQ(run.output, kNexthopGroup5) << id;
  }
  // Beyond 40 bits there is no FEC interface id; a tunnel FEC still has its
  // dynamic-tunnel form. Several ids give several blocks.
  EXPECT_EQ(fec("0x600010000000000 0").output,
            "fecId: 0x600010000000000 (432346663739195392)\n"
            "valid: yes\n"
            "adjType: tunnelFibAdj (6)\n"
            "adjIndex: 1099511627776\n"
            "toStrep: 6000100-0--600010000000000\n"
            "fecIntfId: none (Invalid fecId, cannot convert to IntfId)\n"
            "hierarchicalIntfId: DynamicTunnel1099511627776\n"
            "\n"
            "fecId: 0x0 (0)\n"
            "valid: no\n"
            "adjType: fibV4Adj (0)\n"
            "adjIndex: 0\n"
            "toStrep: 0-0--0\n"
            "fecIntfId: GenericIntf19/0/0\n"
            "hierarchicalIntfId: none (no FEC)\n");
  // A top byte beyond the last adjacency type is shown, not asserted on.
  const ToolRun beyond = fec("0x1600000000000001");
  EXPECT_EQ(beyond.status, 0);
  EXPECT_NE(beyond.output.find("adjType: none (22 is beyond the last adjacency type)\n"),
            std::string::npos)
      << beyond.output;
  EXPECT_NE(fec("0x6ffffffffffffff").output.find(
                "hierarchicalIntfId: none (TunnelId::value < TunnelId::minValue or > "
                "TunnelId::maxValue not allowed)\n"),
            std::string::npos);
}

TEST(FecCommand, FoldsInterfaceNames) {
  EXPECT_EQ(fec("NexthopGroup5").output, std::string("intfId: NexthopGroup5\n") + kNexthopGroup5);
  EXPECT_EQ(fec("GenericIntf19/5/393216").output,
            std::string("intfId: GenericIntf19/5/393216\n") + kNexthopGroup5);
  const ToolRun tunnel = fec("Tunnel7");
  EXPECT_EQ(tunnel.status, 0);
  EXPECT_EQ(tunnel.output.substr(0, tunnel.output.find("valid:")),
            "intfId: Tunnel7\nfecId: 0x600900000000007 (432503893901967367)\n");
  const ToolRun none = fec("ethernet3/1");
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.output, "intfId: Ethernet3/1\nfecId: 0 (none)\n");
}

TEST(FecCommand, RefusesBadInput) {
  const char* refused[] = {
      "",  // no id at all
      "0x",
      "0x1g",
      "12ab",
      "18446744073709551616",
      "0x10000000000000000",
      "-5",
      "+5",
      "Frobnicate7",
      "Vlan5000",
      "DynamicTunnel281474976710656",  // a tunnel value of 2^48
      "5 Frobnicate7",                 // refused before anything is printed
  };
  for (const char* args : refused) {
    const ToolRun run = fec(args);
    EXPECT_EQ(run.status, 2) << args;
    EXPECT_EQ(run.output.rfind("routinglib fec: ", 0), 0u) << args << ": " << run.output;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1) << args << ": " << run.output;
  }
}

}  // namespace
