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

TEST(IntfConfig, EnabledStatesFallBackToTheDefaultConfigsLocalState) {
   struct Case {
      S local;
      bool withDefault;
      S defaultLocal;
      S state;
      bool flag;
   };
   const Case cases[] = {
       {S::unknownEnabledState, false, S::unknownEnabledState, S::unknownEnabledState, true},
       {S::unknownEnabledState, true, S::unknownEnabledState, S::unknownEnabledState, true},
       {S::unknownEnabledState, true, S::shutdown, S::shutdown, false},
       {S::unknownEnabledState, true, S::enabled, S::enabled, true},
       {S::enabled, true, S::shutdown, S::enabled, true},
       {S::shutdown, true, S::enabled, S::shutdown, false},
       {S::shutdown, false, S::unknownEnabledState, S::shutdown, false},
   };
   for (auto const & k : cases) {
      auto c = Kel::makePtr<IntfConfig>(IntfId("Ethernet1"));
      auto d = Kel::makePtr<IntfConfig>(IntfId("Ethernet2"));
      if (k.withDefault) c->defaultConfigIs(d);
      c->adminEnabledStateLocalIs(k.local);
      c->enabledStateLocalIs(k.local);
      d->adminEnabledStateLocalIs(k.defaultLocal);
      d->enabledStateLocalIs(k.defaultLocal);
      std::string what = stringValue(k.local).str() + (k.withDefault ? " over " : " alone ") +
                         stringValue(k.defaultLocal).str();
      EXPECT_EQ(c->adminEnabledState(), k.state) << what;
      EXPECT_EQ(c->enabledState(), k.state) << what;
      EXPECT_EQ(c->adminEnabled(), k.flag) << what;
      EXPECT_EQ(c->enabled(), k.flag) << what;
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
