// The FEC-mode reactors through their life: the mode derived from the agent
// model, attach and detach of inputs, zombies, the entry traces, and the
// restart machine learning a mode and then ending the process (exit status
// 0) on a change, but not on a rewrite of the same value.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cog/Trace.h"
#include "RoutingLib/FecModeSm.h"

using namespace Memtab::Fib;

namespace {

L3::ProtocolAgentModelType model(const char* name) { return L3::ProtocolAgentModelType(Cog::String(name)); }

struct ModeWatcher : FecModeStatus::NotifieeConst {
  int calls = 0;
  void onFecMode() override { ++calls; }
};

struct Fixture {
  Cog::Ptr<L3::Config> config = L3::configFactory(Cog::Name("l3"));
  Cog::Ptr<FecModeStatus> status = fecModeStatusFactory(Cog::Name("fecMode"));
  Cog::Ptr<ModeWatcher> watcher = Cog::allocate<ModeWatcher>();
  Fixture() { watcher->notifierIs(status); }
};

TEST(FecModeSm, AgentModelGivesTheMode) {
  EXPECT_EQ(L3::ProtocolAgentModelType(), model("ribd"));
  Fixture f;
  f.config->protocolAgentModelIs(model("multi-agent"));
  auto sm = Ira::fecModeSmFactory(f.config, f.status);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(f.status->fecMode(), fecModeUnified());
  EXPECT_EQ(static_cast<unsigned>(f.status->fecMode()), 2u);
  f.config->protocolAgentModelIs(model("ribd"));
  EXPECT_EQ(f.status->fecMode(), fecModePerVrf());
  EXPECT_EQ(static_cast<unsigned>(f.status->fecMode()), 1u);
  EXPECT_EQ(f.watcher->calls, 2);
  EXPECT_EQ(sm->cogFwkActivity(), 1u);

  // A rewrite of the same model does not reach the machine; a second
  // machine on the same status writes the mode already there and notifies
  // nobody.
  f.config->protocolAgentModelIs(model("ribd"));
  auto twin = Ira::fecModeSmFactory(f.config, f.status);
  EXPECT_EQ(f.watcher->calls, 2);
  EXPECT_EQ(sm->cogFwkActivity(), 1u);
}

TEST(FecModeSm, InputsAttachAndDetach) {
  Fixture f;
  auto sm = Ira::fecModeSmFactory(nullptr, f.status);
  // Nothing to read: the mode stays unset.
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(f.status->fecMode(), fecModeInvalid());

  sm->l3ConfigIs(f.config);
  f.config->protocolAgentModelIs(model("multi-agent"));
  EXPECT_EQ(f.status->fecMode(), fecModeUnified());

  sm->l3ConfigDel();
  EXPECT_EQ(sm->l3Config(), nullptr);
  f.config->protocolAgentModelIs(model("ribd"));
  EXPECT_EQ(f.status->fecMode(), fecModeUnified());

  // A replaced configuration is the only one listened to.
  auto other = L3::configFactory(Cog::Name("other"));
  sm->l3ConfigIs(other);
  other->protocolAgentModelIs(model("multi-agent"));
  other->protocolAgentModelIs(model("ribd"));
  EXPECT_EQ(f.status->fecMode(), fecModePerVrf());
  f.config->protocolAgentModelIs(model("multi-agent"));
  EXPECT_EQ(f.status->fecMode(), fecModePerVrf());

  // A zombie ignores its notifications.
  sm->cogDoZombieReactors(true);
  other->protocolAgentModelIs(model("multi-agent"));
  EXPECT_EQ(f.status->fecMode(), fecModePerVrf());
}

TEST(FecModeSmDeathTest, UnknownAgentModelAsserts) {
  Fixture f;
  f.config->protocolAgentModelIs(model("bgp"));
  EXPECT_DEATH(Ira::fecModeSmFactory(f.config, f.status),
               "FecModeSm:55: .*handleProtocolAgentModel.*: Assertion `0' failed");
  f.config->protocolAgentModelIs(model("ribd"));
  auto sm = Ira::fecModeSmFactory(f.config, f.status);
  EXPECT_DEATH(f.config->protocolAgentModelIs(model("")), "FecModeSm:55: .*Assertion `0' failed");
  EXPECT_DEATH(f.config->protocolAgentModelIs(model("Multi-Agent")), "Assertion `0' failed");
}

TEST(FecModeSm, HandlersTraceTheirSignature) {
  Cog::Trace::levelIs("FecModeSm", 8);
  Cog::Trace::CaptureSink sink;
  Fixture f;
  auto sm = Ira::fecModeSmFactory(f.config, f.status);
  auto restart = Ira::fecModeRestartSmFactory(f.status);
  f.status->fecModeIs(fecModePerVrf());  // no change, so no notification and no exit
  Cog::Trace::levelIs("FecModeSm", Cog::Trace::kOff);
  EXPECT_EQ(sink.texts(), (std::vector<std::string>{
                              "void Ira::FecModeSm::handleInitialized()",
                              "void Ira::FecModeSm::handleProtocolAgentModel()",
                              "void Ira::FecModeRestartSm::handleInitialized()",
                              "void Ira::FecModeRestartSm::handleFecMode() new fecMode is "
                              "fecModePerVrf old fecMode is fecModeInvalid",
                          }));
  for (const Cog::Trace::Record& r : sink.records()) {
    EXPECT_STREQ(r.handle->name(), "FecModeSm");
    EXPECT_EQ(r.level, 8);
    EXPECT_EQ(r.text.find(r.function), r.text.find("::handle") + 2) << r.text;
  }
}

// The restart machine's life, each ending expected in its own process.
TEST(FecModeRestartSmDeathTest, LearnsThenExitsOnChange) {
  Fixture f;
  f.status->fecModeIs(fecModeUnified());
  auto sm = Ira::fecModeRestartSmFactory(f.status);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(sm->oldFecMode(), fecModeUnified());
  // A rewrite of the same value notifies nobody: no exit.
  f.status->fecModeIs(fecModeUnified());
  EXPECT_EQ(sm->oldFecMode(), fecModeUnified());
  EXPECT_EXIT(f.status->fecModeIs(fecModePerVrf()), ::testing::ExitedWithCode(0), "");
  // Any notification after learning exits, even one back to unset.
  EXPECT_EXIT(f.status->fecModeIs(fecModeInvalid()), ::testing::ExitedWithCode(0), "");
}

TEST(FecModeRestartSmDeathTest, StartsUnsetAndLearnsTheFirstMode) {
  Fixture f;
  auto sm = Ira::fecModeRestartSmFactory(f.status);
  EXPECT_EQ(sm->oldFecMode(), fecModeInvalid());
  f.status->fecModeIs(fecModePerVrf());
  EXPECT_EQ(sm->oldFecMode(), fecModePerVrf());
  EXPECT_EQ(sm->cogFwkActivity(), 1u);
  EXPECT_EXIT(f.status->fecModeIs(fecModeUnified()), ::testing::ExitedWithCode(0), "");

  // Detached, it hears nothing; attached to another status it listens there.
  sm->fecModeStatusDel();
  f.status->fecModeIs(fecModeUnified());
  auto other = fecModeStatusFactory(Cog::Name("other"));
  sm->fecModeStatusIs(other);
  EXPECT_EXIT(other->fecModeIs(fecModeUnified()), ::testing::ExitedWithCode(0), "");
  // A zombie does not exit.
  sm->cogDoZombieReactors(true);
  other->fecModeIs(fecModeUnified());
  EXPECT_EQ(sm->oldFecMode(), fecModePerVrf());
}

// End to end: the configuration changes the agent model under a running
// consumer, which restarts.
TEST(FecModeRestartSmDeathTest, AgentModelChangeRestartsTheConsumer) {
  Fixture f;
  auto deriver = Ira::fecModeSmFactory(f.config, f.status);
  auto restart = Ira::fecModeRestartSmFactory(f.status);
  EXPECT_EQ(restart->oldFecMode(), fecModePerVrf());
  f.config->protocolAgentModelIs(model("ribd"));
  EXPECT_EXIT(f.config->protocolAgentModelIs(model("multi-agent")), ::testing::ExitedWithCode(0), "");
}

}  // namespace
