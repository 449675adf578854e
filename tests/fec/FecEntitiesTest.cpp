// FecModeStatus and FecIdCollection: notification on change only, the
// attribute-log id of fecMode, the collection operations and iterators.
#include <gtest/gtest.h>

#include "Cog/Dir.h"
#include "Cog/GenericIf.h"
#include "Cog/NboAttrLogSa.h"
#include "RoutingLib/FecBasicTypes.h"

using namespace Memtab::Fib;

namespace {

struct ModeWatcher : FecModeStatus::NotifieeConst {
  int calls = 0;
  void onFecMode() override { ++calls; }
};

TEST(FecModeStatus, NotifiesOnlyOnChange) {
  auto status = fecModeStatusFactory(Cog::Name("fec"));
  EXPECT_EQ(status->name().str(), "fec");
  EXPECT_EQ(status->fecMode(), fecModeInvalid());
  auto w = Cog::allocate<ModeWatcher>();
  w->notifierIs(status);
  status->fecModeIs(fecModeInvalid());
  EXPECT_EQ(w->calls, 0);
  status->fecModeIs(fecModeUnified());
  status->fecModeIs(fecModeUnified());
  EXPECT_EQ(w->calls, 1);
  status->fecModeIs(fecModePerVrf());
  EXPECT_EQ(w->calls, 2);
  status->nameIsFromBackup(Cog::Name("restored"));
  EXPECT_EQ(status->name().str(), "restored");
  EXPECT_TRUE(status->cogHasAttrLogInterface());
  EXPECT_EQ(status->fwkType()->member("fecMode")->index, 258u);
}

TEST(FecModeStatus, MadeInADirectoryByTypeName) {
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("status"));
  auto e = dir->entityNew("Memtab::Fib::FecModeStatus", Cog::Name("fec"));
  auto* status = dynamic_cast<FecModeStatus*>(e.ptr());
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->name().str(), "fec");
  EXPECT_EQ(dir->entity(Cog::Name("fec")), e);
  EXPECT_EQ(dir->entityNew("Memtab::Fib::FecModeStatus", Cog::Name("fec")), e);
}

TEST(FecModeStatus, AttributeLogMirror) {
  auto source = fecModeStatusFactory(Cog::Name("fec"));
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = source->cogNboAttrLogSaIs(0, 0, out);
  source->fecModeIs(fecModeUnified());
  // id 258, op set, then the mode as a 32-bit word
  EXPECT_EQ(out->bytes(), (std::vector<std::uint8_t>{0, 0, 1, 2, 0, 0, 0, 0, 2}));

  auto header = Cog::allocate<Cog::NboAttrLog::Out>();
  sa->cogInstantiateSerialize(header);
  auto made = Cog::entityFromAttrLog(Cog::allocate<Cog::NboAttrLog::In>(header->bytes()));
  auto mirror = Cog::Ptr<FecModeStatus>(static_cast<FecModeStatus*>(made.ptr()));
  EXPECT_EQ(mirror->name().str(), "fec");
  auto proxy = mirror->cogNboAttrLogSaIs(Cog::NboAttrLogSaFlag::readOnly, 0, nullptr);
  proxy->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
  EXPECT_EQ(mirror->fecMode(), fecModeUnified());
  // A read-only adapter refuses local changes, naming the attribute.
  try {
    mirror->fecModeIs(fecModePerVrf());
    FAIL();
  } catch (const Cog::ReadOnlyException& e) {
    EXPECT_STREQ(e.what(), "fecMode");
  }
  auto remote = fecModeStatusFactory(Cog::Name("remote"));
  auto remoteSa = remote->cogNboAttrLogSaIs(Cog::NboAttrLogSaFlag::readOnlyRemoteProxy, 0, nullptr);
  EXPECT_THROW(remoteSa->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes())),
               Cog::WriteUpdateFromReadOnlyProxyException);
  EXPECT_EQ(remote->fecMode(), fecModeInvalid());
}

TEST(FecModeStatus, FlowOutWhenTheLogIsFull) {
  auto source = fecModeStatusFactory(Cog::Name("fec"));
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = source->cogNboAttrLogSaIs(0, 0, out);
  sa->capacityIs(0);  // no room: changes wait as dirty marks
  source->fecModeIs(fecModePerVrf());
  EXPECT_TRUE(sa->dirty(258));
  EXPECT_EQ(out->size(), 0u);
  EXPECT_FALSE(sa->handleAttrFlowOut(0));
  EXPECT_EQ(sa->flowOutState().current, 258u);  // stopped at the first dirty attribute
  sa->capacityIs(1024);
  EXPECT_TRUE(sa->handleAttrFlowOut(sa->flowOutState().current));
  EXPECT_FALSE(sa->dirty(258));
  EXPECT_EQ(out->size(), 9u);
}

TEST(FecIdCollection, SetOperationsAndIterators) {
  auto c = fecIdCollectionFactory();
  FecId a = FecId::nexthopGroupIdToFecId(1), b = FecId::nexthopGroupIdToFecId(2);
  EXPECT_EQ(c->fecIdIs(a), a);
  c->fecIdIs(a);
  c->fecIdIs(b);
  EXPECT_EQ(c->fecId().size(), 2u);
  EXPECT_TRUE(c->fecIdHas(b));
  c->fecIdDel(b);
  EXPECT_FALSE(c->fecIdHas(b));

  auto g = Cog::genericIfOf(c);
  c->fecIdIs(b);
  std::set<std::string> seen;
  for (auto it = g->iterator("fecId"); it->iterNonnull(); it->iterInc()) {
    seen.insert(it->iterKey()->strRep().str());
    EXPECT_TRUE(it->iterObj()->equals(*it->iterKey()));
  }
  EXPECT_EQ(seen, (std::set<std::string>{valueToStrep(a).str(), valueToStrep(b).str()}));
  auto it = g->iterator("fecId");
  it->iterDel();
  it->iterDel();
  EXPECT_FALSE(it->iterNonnull());
  EXPECT_TRUE(c->fecId().empty());
  // Through a read-only handle the iterator may not delete.
  c->fecIdIs(a);
  auto ro = Cog::genericIfOf(Cog::Ptr<const FecIdCollection>(c));
  EXPECT_THROW(ro->iterator("fecId")->iterDel(), Cog::ReadOnlyException);
}

}  // namespace
