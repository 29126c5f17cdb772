// The interface configuration: defaults, the one-level fallback of the
// enabled states, the boolean mutators through the virtual slots, and the
// requester collection.
#include <Intf/IntfConfig.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using Interface::IntfConfig;
using Interface::IntfEnabledState;
using Zenet::IntfId;
using S = IntfEnabledState;

namespace {

// Records what reaches the virtual slots, and what reactors hear.
class RecordingConfig : public IntfConfig {
 public:
   using IntfConfig::IntfConfig;
   void adminEnabledStateLocalIs(IntfEnabledState const & v) override {
      slots.push_back("adminLocal=" + stringValue(v).str());
      IntfConfig::adminEnabledStateLocalIs(v);
   }
   void enabledStateLocalIs(IntfEnabledState const & v) override {
      slots.push_back("local=" + stringValue(v).str());
      IntfConfig::enabledStateLocalIs(v);
   }
   void requestorNotify(Kel::String8 const & k) override {
      slots.push_back("notify:" + k.str());
      IntfConfig::requestorNotify(k);
   }
   std::vector<std::string> slots;
};

struct Heard : IntfConfig::NotifieeConst {
   void onAdminEnabledStateLocal() override { calls.push_back("admin"); }
   void onEnabledStateLocal() override { calls.push_back("enabled"); }
   void onRequestor(Kel::String8 k) override { calls.push_back("requestor:" + k.str()); }
   std::vector<std::string> calls;
};

using Calls = std::vector<std::string>;

} // namespace

TEST(IntfConfig, EachEnabledStateFallsBackToItsOwnFieldOfTheDefaultConfig) {
   // The admin and plain enabled states are set to different values on both
   // configurations, so a fallback that reads the other field shows.
   struct Case {
      S admin, enabled;              // local states of the configuration
      bool withDefault;
      S defAdmin, defEnabled;        // local states of the default
      S wantAdmin, wantEnabled;
   };
   const S U = S::unknownEnabledState, E = S::enabled, D = S::shutdown;
   const Case cases[] = {
       {U, U, false, U, U, U, U},
       {U, U, true, U, U, U, U},
       {U, U, true, D, E, D, E},
       {U, U, true, E, D, E, D},
       {U, E, true, D, U, D, E},
       {D, U, true, U, E, D, E},
       {E, U, true, D, D, E, D},
       {U, D, true, E, E, E, D},
       {D, E, false, U, U, D, E},
   };
   for (auto const & k : cases) {
      auto c = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
      auto d = Kel::makePtr<IntfConfig>(IntfId("Ethernet2"));
      if (k.withDefault) c->defaultConfigIs(d);
      c->adminEnabledStateLocalIs(k.admin);
      c->enabledStateLocalIs(k.enabled);
      d->adminEnabledStateLocalIs(k.defAdmin);
      d->enabledStateLocalIs(k.defEnabled);
      std::string what = stringValue(k.admin).str() + "/" + stringValue(k.enabled).str() +
                         (k.withDefault ? " over " : " alone ") + stringValue(k.defAdmin).str() +
                         "/" + stringValue(k.defEnabled).str();
      EXPECT_EQ(c->adminEnabledState(), k.wantAdmin) << what;
      EXPECT_EQ(c->enabledState(), k.wantEnabled) << what;
      EXPECT_EQ(c->adminEnabled(), k.wantAdmin != D) << what;
      EXPECT_EQ(c->enabled(), k.wantEnabled != D) << what;
   }
}

TEST(IntfConfig, OnlyOneLevelOfDefaultIsConsulted) {
   auto first = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
   auto second = Kel::makePtr<IntfConfig>(IntfId("Ethernet2"));
   auto third = Kel::makePtr<IntfConfig>(IntfId("Ethernet3"));
   first->defaultConfigIs(second);
   second->defaultConfigIs(third);
   third->adminEnabledStateLocalIs(S::shutdown);
   EXPECT_EQ(second->adminEnabledState(), S::shutdown);
   EXPECT_EQ(first->adminEnabledState(), S::unknownEnabledState);
   EXPECT_TRUE(first->adminEnabled());
}

TEST(IntfConfig, BooleanMutatorsGoThroughTheVirtualSlotsAndFollowTheNoOpRule) {
   auto c = Kel::makePtr<RecordingConfig>(IntfId("Ethernet1"));
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(Kel::Ptr<IntfConfig const>(c));
   c->adminEnabledIs(false);
   c->adminEnabledIs(false);
   c->adminEnabledIs(true);
   c->enabledIs(false);
   EXPECT_EQ(c->slots, (Calls{"adminLocal=shutdown", "adminLocal=shutdown", "adminLocal=enabled",
                              "local=shutdown"}));
   EXPECT_EQ(heard->calls, (Calls{"admin", "admin", "enabled"}));
   EXPECT_EQ(c->adminEnabledStateLocal(), S::enabled);
   EXPECT_FALSE(c->enabled());
}

TEST(IntfConfig, RequestorsAreAnnouncedThroughTheVirtualNotifyOnlyWhenTheyChange) {
   auto c = Kel::makePtr<RecordingConfig>(IntfId("Ethernet1"));
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(Kel::Ptr<IntfConfig const>(c));
   c->requestorIs("x", true);
   c->requestorIs("x", true);
   c->requestorIs("x", false);
   c->requestorDel("absent");
   c->requestorIs("y", true);
   c->requestorDelAll();
   EXPECT_EQ(c->requestorSize(), 0u);
   // Delete-all goes one key at a time, in the collection's order.
   Calls tail(heard->calls.begin() + 3, heard->calls.end());
   std::sort(tail.begin(), tail.end());
   EXPECT_EQ(Calls(heard->calls.begin(), heard->calls.begin() + 3),
             (Calls{"requestor:x", "requestor:x", "requestor:y"}));
   EXPECT_EQ(tail, (Calls{"requestor:x", "requestor:y"}));
   EXPECT_EQ(c->slots.size(), 5u);
}

TEST(IntfConfig, PrettyNameAddsTheDescriptionInParentheses) {
   auto c = Interface::intfConfigFactory(IntfId("Ethernet3/1"));
   EXPECT_EQ(c->name(), Kel::Name("Ethernet3/1"));
   EXPECT_EQ(c->prettyName(), Kel::String8("Ethernet3/1"));
   c->descriptionIs("a b");
   EXPECT_EQ(c->prettyName(), Kel::String8("Ethernet3/1 (a b)"));
   c->descriptionIs("");
   EXPECT_EQ(c->prettyName(), Kel::String8("Ethernet3/1"));
}
