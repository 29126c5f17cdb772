// Watching every member of a collection, present and future; range-for over
// collections; the generic reactor that hears any attribute by name.
#include <Intf/IntfStatusDir.h>
#include <Kel/CollectionWatcher.h>
#include <Kel/GenericReactor.h>

#include <gtest/gtest.h>

#include <set>
#include <sstream>

using namespace Interface;
using Zenet::IntfId;

namespace {

std::ostringstream heard;

struct MtuWatch : IntfConfig::NotifieeConst {
   void onMtu() override { heard << notifier()->name() << " mtu=" << notifier()->mtu() << ";"; }
};

Kel::Ptr<IntfConfig> config(char const * name, uint32_t mtu) {
   auto c = intfConfigFactory(IntfId(name));
   c->mtuIs(mtu);
   return c;
}

} // namespace

TEST(CollectionWatcher, EveryMemberPresentOrFutureHasItsReactorUntilItGoes) {
   heard.str("");
   auto dir = Kel::makePtr<AllIntfConfigDir>(Kel::Name("config"));
   dir->intfConfigIs(config("Ethernet1", 1500));
   auto w = Kel::watchCollection(AllIntfConfigDir::PtrConst(dir), &AllIntfConfigDir::intfConfig,
                                 AllIntfConfigDir::kelId_intfConfig,
                                 [](Kel::Ptr<IntfConfig const> const &) { return Kel::makePtr<MtuWatch>(); });
   EXPECT_EQ(w->watched(), 1u);  // the member already there
   dir->intfConfig(IntfId("Ethernet1"))->mtuIs(9000);
   dir->intfConfigIs(config("Ethernet2", 1500));  // a new member
   dir->intfConfig(IntfId("Ethernet2"))->mtuIs(1400);
   auto old = dir->intfConfig(IntfId("Ethernet1"));
   dir->intfConfigIs(config("Ethernet1", 100));  // replaced under the same key
   old->mtuIs(1);                                // the old one is no longer watched
   dir->intfConfig(IntfId("Ethernet1"))->mtuIs(2);
   EXPECT_EQ(w->reactor(IntfId("Ethernet1"))->notifier(), dir->intfConfig(IntfId("Ethernet1")));
   dir->intfConfigDel(IntfId("Ethernet2"));
   EXPECT_EQ(w->watched(), 1u);
   EXPECT_EQ(heard.str(), "Ethernet1 mtu=9000;Ethernet2 mtu=1400;Ethernet1 mtu=2;");

   auto quiet = Kel::watchCollection(AllIntfConfigDir::PtrConst(dir), &AllIntfConfigDir::intfConfig,
                                     AllIntfConfigDir::kelId_intfConfig,
                                     [](Kel::Ptr<IntfConfig const> const &) { return Kel::makePtr<MtuWatch>(); },
                                     false);
   EXPECT_EQ(quiet->watched(), 0u);  // members already there not heard when not asked

   dir = nullptr;  // the directory goes, and with it every member
   EXPECT_EQ(w->watched(), 0u);
}

TEST(CollectionWatcher, CollectionsWorkInRangeFor) {
   auto dir = Kel::makePtr<AllIntfConfigDir>(Kel::Name("config"));
   for (char const * n : {"Ethernet3", "Ethernet1", "Ethernet2"}) dir->intfConfigIs(config(n, 1500));
   std::set<std::string> names;
   for (auto const & m : dir->intfConfigRange()) names.insert(m.key().stringValue().str() + "/" + m.ptr()->name().str());
   EXPECT_EQ(names, (std::set<std::string>{"Ethernet1/Ethernet1", "Ethernet2/Ethernet2", "Ethernet3/Ethernet3"}));
   auto empty = Kel::makePtr<AllIntfConfigDir>(Kel::Name("none"));
   for ([[maybe_unused]] auto const & m : empty->intfConfigRange()) ADD_FAILURE() << "an empty collection has no members";
}

namespace {
struct Everything : Kel::GenericReactor {
   std::ostringstream log;
   void onAttributeValue(Kel::String8 const & name, Kel::GenericIf::Ptr const & value,
                         Kel::GenericIf::Ptr const & key) override {
      log << name;
      if (key) log << "[" << key->strRep() << "]";
      log << "=" << (value ? value->strRep() : Kel::String8("none")) << ";";
   }
};
} // namespace

TEST(GenericReactor, HearsEveryAttributeByNameWithItsValueAndKeyInTextForm) {
   auto c = intfConfigFactory(IntfId("Ethernet1"));
   auto r = Kel::makePtr<Everything>();
   r->notifierIs(c);
   c->mtuIs(9000);
   c->descriptionIs("uplink");
   c->requestorIs("lag", true);
   c->requestorDel("lag");
   c->loadIntervalIs(LoadInterval(false, 30));
   EXPECT_EQ(r->log.str(),
             "mtu=9000;description='uplink';requestor['lag']=True;requestor['lag']=False;"
             "loadInterval=Value('Interface::LoadInterval', ** {'useDefault': False, 'val': 30.0});");
}
