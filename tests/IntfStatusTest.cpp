// The interface status: defaults, the write-once configuration, the
// forwarding-model inputs, what replicates, the creation replay and the
// process-local counter caches.
#include <Intf/GlobalIntfConfig.h>
#include <Intf/IntfStatus.h>
#include <Kel/NboAttrLog.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

using Interface::IntfConfig;
using Interface::IntfStatus;
using Zenet::IntfId;

namespace {

struct Heard : IntfStatus::NotifieeConst {
   void onIntfConfig() override { ++config; }
   void onForwardingModel() override { ++model; }
   void onForwardingModelInputs(Kel::String8) override { ++inputs; }
   int config = 0, model = 0, inputs = 0;
};

// Resolves every reference to one entity, as a connection's table would.
struct OneRef : Kel::NboAttrLog::RefCodec {
   explicit OneRef(Kel::Ptr<Kel::Entity> e) : e(std::move(e)) {}
   void writeRef(Kel::NboAttrLog::Out & out, Kel::Entity const *) override { out.putU8(1); }
   Kel::Ptr<Kel::Entity> readRef(Kel::NboAttrLog::In & in) override {
      in.nextU8();
      return e;
   }
   Kel::Ptr<Kel::Entity> e;
};

struct IntfStatusTest : ::testing::Test {
   IntfStatusTest() { heard->notifierIs(Kel::Ptr<IntfStatus const>(status)); }
   IntfConfig::Ptr dflt = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
   IntfConfig::Ptr a = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
   IntfConfig::Ptr b = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
   IntfStatus::Ptr status = Interface::intfStatusFactory(IntfId("Ethernet1"), dflt, 7);
   Kel::Ptr<Heard> heard = Kel::makePtr<Heard>();
};

} // namespace

TEST_F(IntfStatusTest, AFreshStatusHoldsItsConstructorValuesAndNoConfig) {
   EXPECT_EQ(status->name(), Kel::Name("Ethernet1"));
   EXPECT_EQ(status->defaultConfig(), dflt);
   EXPECT_EQ(dflt->references(), 2u);
   EXPECT_EQ(status->genId(), 7u);
   EXPECT_EQ(status->operStatus(), Interface::IntfOperStatus::intfOperUnknown);
   EXPECT_TRUE(status->active());
   EXPECT_FALSE(status->intfConfig());
}

TEST_F(IntfStatusTest, TheSameConfigAgainChangesNothing) {
   status->intfConfigIs(a);
   status->intfConfigIs(a);
   EXPECT_EQ(heard->config, 1);
}

TEST_F(IntfStatusTest, ADifferentConfigIsReportedButStaysStoredUnannounced) {
   status->intfConfigIs(a);
   try {
      status->intfConfigIs(b);
      FAIL() << "second configuration accepted";
   } catch (Kel::InternalException const & e) {
      EXPECT_EQ(e.message(),
                Kel::String8("Interface::IntfStatus.intfConfig is a write-once variable. Illegal "
                             "attempt to change it after it has already been set "));
      EXPECT_TRUE(e.ids().has(11));
   }
   EXPECT_EQ(status->intfConfig(), b);
   EXPECT_EQ(heard->config, 1);
}

TEST_F(IntfStatusTest, ClearingTheConfigIsUndoneYetAnnounced) {
   status->intfConfigIs(a);
   status->intfConfigIs(nullptr);
   EXPECT_EQ(status->intfConfig(), a);
   EXPECT_EQ(heard->config, 2);
   EXPECT_EQ(a->references(), 2u);  // ours and the status's
}

TEST_F(IntfStatusTest, ForwardingModelInputsLeaveTheModelAlone) {
   using M = Interface::IntfForwardingModel;
   status->forwardingModelInputsIs("bridging", M::intfForwardingModelBridged);
   status->forwardingModelInputsIs("bridging", M::intfForwardingModelBridged);
   EXPECT_EQ(status->forwardingModel(), M::intfForwardingModelRouted);
   EXPECT_EQ(heard->inputs, 1);
   EXPECT_EQ(heard->model, 0);
}

TEST(IntfStatusType, ExactlyTheListedAttributesReplicate) {
   std::set<std::string> replicated;
   for (auto const & d : IntfStatus::_fwkType()->attributes()) {
      if (d.replicated()) replicated.insert(d.name);
   }
   EXPECT_EQ(replicated, (std::set<std::string>{"intfConfig", "deviceName", "forwardingModel",
                                                "forwardingModelInputs", "mtu", "maxMtu",
                                                "operStatus", "operStatusChange",
                                                "operStatusUpdatedByAgent", "active"}));
   EXPECT_EQ(IntfStatus::_fwkType()->constructorArgNames(),
             (std::vector<Kel::String8>{"intfId", "defaultConfig", "genId"}));
}

TEST(IntfStatusType, ReplayedCreationReadsIdentifierDefaultConfigAndGeneration) {
   auto dflt = Kel::makePtr<IntfConfig>(IntfId("Ethernet9"));
   auto original = Interface::intfStatusFactory(IntfId("Ethernet9"), dflt, 4000000000u);
   OneRef codec(dflt);
   Kel::NboAttrLog::Out out;
   IntfStatus::_fwkType()->logWriteCtor(original.ptr(), out, &codec);

   Kel::NboAttrLog::In in(out.data(), out.size());
   auto replayed = Kel::dynamicCast<IntfStatus>(IntfStatus::_fwkType()->logNewEntity(in, &codec));
   ASSERT_TRUE(replayed);
   EXPECT_TRUE(in.atEnd());
   EXPECT_EQ(replayed->intfId(), IntfId("Ethernet9"));
   EXPECT_EQ(replayed->defaultConfig(), dflt);
   EXPECT_EQ(replayed->genId(), 4000000000u);

   // The same bytes, with the reference resolving to something else.
   OneRef wrong(Kel::makePtr<Interface::GlobalIntfConfig>("global"));
   Kel::NboAttrLog::In again(out.data(), out.size());
   try {
      IntfStatus::_fwkType()->logNewEntity(again, &wrong);
      FAIL() << "wrong type accepted";
   } catch (Kel::RangeException const & e) {
      EXPECT_EQ(e.message(), Kel::String8("Entity is the wrong type"));
   }
}

TEST_F(IntfStatusTest, CountersAreCachedLocallyWithoutAnnouncement) {
   IntfStatus::PtrConst ro = status;
   // Nothing to find yet: nothing kept, either way.
   EXPECT_FALSE(status->counter());
   EXPECT_FALSE(ro->counter());
   EXPECT_FALSE(status->intfAclDrops());
   auto counter = Kel::makePtr<Interface::IntfCounter>("current");
   auto drops = Kel::makePtr<Interface::IntfAclDrops>("drops");
   uint32_t mc = status->modificationCount();
   ro->counterIs(counter);
   ro->intfAclDropsIs(drops);
   EXPECT_EQ(status->counter(), counter);
   EXPECT_EQ(ro->counter(), counter);
   EXPECT_EQ(ro->intfAclDrops(), drops);
   EXPECT_EQ(counter->references(), 2u);
   EXPECT_EQ(status->modificationCount(), mc);
   ro->counterIs(nullptr);
   EXPECT_EQ(counter->references(), 1u);
}

TEST(IntfStatusLocal, StartsInTheDefaultNamespace) {
   auto local = Kel::makePtr<Interface::IntfStatusLocal>(IntfId("Ethernet1"));
   EXPECT_EQ(local->netNsName(), Zenet::NamespaceName::defaultNamespace());
   EXPECT_EQ(local->netNsName().name(), Kel::String8(Zenet::DEFAULT_NS));
}
