// The configuration and status directories: null refusal, replace versus
// same, generation markers, counter settings, and the device-indexed
// directories with their identity-compared records.
#include <Intf/IntfStatusDir.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using namespace Interface;
using Zenet::IntfId;
using Keys = std::vector<std::string>;

namespace {

template <class E>
std::string refusal(std::function<void()> f) {
   try {
      f();
   } catch (E const & e) {
      return e.message().str();
   }
   return "accepted";
}

// Every key-level callback of the aggregate directories, as text.
struct Heard : AllIntfConfigDir::NotifieeConst {
   void onIntfConfig(IntfId id) override { keys.push_back(id.stringValue().str()); }
   Keys keys;
};

} // namespace

TEST(IntfStatusDir, ANullEntityIsRefusedWithTheFixedText) {
   auto configs = Kel::makePtr<AllIntfConfigDir>("config");
   auto statuses = Kel::makePtr<AllIntfStatusDir>("status");
   auto locals = Kel::makePtr<AllIntfStatusLocalDir>("local");
   auto kernel = Kel::makePtr<KernelIntfStatusDir>("kernel");
   const std::pair<std::function<void()>, const char *> cases[] = {
       {[&] { configs->intfConfigIs(nullptr); },
        "null _intfConfig parameter to mutator for Interface::AllIntfConfigDir::intfConfig not "
        "allowed\""},
       {[&] { statuses->intfStatusIs(nullptr); },
        "null _intfStatus parameter to mutator for Interface::AllIntfStatusDir::intfStatus not "
        "allowed\""},
       {[&] { locals->intfStatusLocalIs(nullptr); },
        "null _intfStatusLocal parameter to mutator for "
        "Interface::AllIntfStatusLocalDir::intfStatusLocal not allowed\""},
       {[&] { kernel->intfStatusIs("et1", nullptr); },
        "null _intfStatus parameter to mutator for Interface::KernelIntfStatusDir::intfStatus not "
        "allowed\""},
   };
   for (auto const & [call, text] : cases) EXPECT_EQ(refusal<Kel::RangeException>(call), text);
   EXPECT_EQ(configs->modificationCount() + statuses->modificationCount() +
                 locals->modificationCount() + kernel->modificationCount(),
             0u);
}

TEST(IntfStatusDir, TheSameEntryChangesNothingAnotherOfTheSameKeyReplacesIt) {
   auto dir = Kel::makePtr<AllIntfConfigDir>("config");
   auto heard = Kel::makePtr<Heard>();
   heard->notifierIs(AllIntfConfigDir::PtrConst(dir));
   auto first = intfConfigFactory(IntfId("Ethernet1"));
   auto second = intfConfigFactory(IntfId("Ethernet1"));
   dir->intfConfigIs(first);
   dir->intfConfigIs(first);
   EXPECT_EQ(first->parent(), dir);
   dir->intfConfigIs(second);
   EXPECT_EQ(dir->intfConfig(IntfId("Ethernet1")), second);
   EXPECT_FALSE(first->parent());
   dir->intfConfigDel(IntfId("Ethernet2"));  // absent: nothing
   EXPECT_EQ(heard->keys, (Keys{"Ethernet1", "Ethernet1"}));
   EXPECT_EQ(dir->intfConfigSize(), 1u);
}

TEST(IntfStatusDir, KernelDirectoryReferencesStatusesByDeviceName) {
   struct KernelHeard : KernelIntfStatusDir::NotifieeConst {
      void onIntfStatus(Kel::String8 k) override { keys.push_back(k.str()); }
      Keys keys;
   };
   auto owner = Kel::makePtr<AllIntfStatusDir>("status");
   auto status = intfStatusFactory(IntfId("Ethernet1"), nullptr, 0);
   owner->intfStatusIs(status);
   auto kernel = Kel::makePtr<KernelIntfStatusDir>("kernel");
   auto heard = Kel::makePtr<KernelHeard>();
   heard->notifierIs(KernelIntfStatusDir::PtrConst(kernel));
   kernel->intfStatusIs("et1", status);
   kernel->intfStatusIs("et1", status);
   kernel->intfStatusDel("et1");
   kernel->intfStatusNew("et2", status);  // stored, not announced
   EXPECT_EQ(kernel->intfStatus("et2"), status);
   EXPECT_EQ(heard->keys, (Keys{"et1", "et1"}));
   EXPECT_EQ(status->parent(), owner);  // referenced, never reparented
}

TEST(IntfStatusDir, ConfigRequestFlagsAreAnnouncedOnlyWhenTheyChange) {
   struct RequestHeard : IntfConfigDirBase::NotifieeConst {
      void onIntfConfigRequest(IntfConfigRequest r) override { keys.push_back(r.requestor().str()); }
      Keys keys;
   };
   auto dir = Kel::makePtr<IntfConfigDirBase>("requests");
   auto heard = Kel::makePtr<RequestHeard>();
   heard->notifierIs(IntfConfigDirBase::PtrConst(dir));
   IntfConfigRequest r(IntfId("Ethernet1"), "cli");
   dir->intfConfigRequestIs(r, true);
   dir->intfConfigRequestIs(IntfConfigRequest(IntfId("Ethernet1"), "cli"), true);
   dir->intfConfigRequestIs(r, false);
   EXPECT_EQ(heard->keys, (Keys{"cli", "cli"}));
   EXPECT_FALSE(dir->intfConfigRequest(r));
}

TEST(IntfStatusDir, GenerationMarkerWrapsAndAnUnchangedMarkerIsNotAnnounced) {
   struct MarkerHeard : IntfStatusDirBase::NotifieeConst {
      void onGenIdMarker() override { ++n; }
      int n = 0;
   };
   auto dir = Kel::makePtr<IntfStatusDir>("eth");
   auto heard = Kel::makePtr<MarkerHeard>();
   heard->notifierIs(IntfStatusDirBase::PtrConst(dir));
   dir->genIdMarkerIs(4294967294u);
   EXPECT_EQ(dir->genIdMarkerInc(0), 4294967294u);
   EXPECT_EQ(heard->n, 1);
   EXPECT_EQ(dir->genIdMarkerInc(1), 4294967295u);
   EXPECT_EQ(dir->genIdMarkerInc(1), 0u);
   EXPECT_EQ(dir->genIdMarkerInc(5), 5u);
   EXPECT_EQ(heard->n, 4);
}

TEST(IntfStatusDir, CounterSettingsStartAtTheirDefaultsAndTheCacheStaysLocal) {
   auto dir = Kel::makePtr<IntfStatusDir>("eth");
   EXPECT_EQ(dir->dropCounterDirPath(), Kel::String8("Smash/interface/status/counter/acldrop"));
   EXPECT_EQ(dir->counterDirPath(), Kel::String8(""));
   IntfStatusDir::PtrConst ro = dir;
   auto counters = Kel::makePtr<AllIntfCounterDir>("intf");
   ro->counterDirIs(counters);
   EXPECT_EQ(dir->counterDir(), counters);
   EXPECT_EQ(dir->modificationCount(), 0u);
   Keys replicated;
   for (auto const & d : IntfStatusDir::_fwkType()->attributes()) {
      if (d.replicated()) replicated.push_back(d.name);
   }
   EXPECT_EQ(replicated, (Keys{"genIdMarker", "counterDirPath", "dropCounterDirPath"}));
}

// ---- device-indexed ------------------------------------------------------------------------

namespace {

struct DeviceHeard : DeviceIntfStatusDir::NotifieeConst {
   void onIntfStatusAndDeviceName(IntfId id) override { keys.push_back(id.stringValue().str()); }
   void onIntfStatusByIfIndex(uint32_t i) override { keys.push_back(std::to_string(i)); }
   Keys keys;
};

using Record = DeviceIntfStatusDir::IntfStatusAndDeviceName;

} // namespace

TEST(DeviceIntfStatusDir, RecordsCompareTheirStatusByIdentity) {
   auto s1 = intfStatusFactory(IntfId("Ethernet1"), nullptr, 0);
   auto s2 = intfStatusFactory(IntfId("Ethernet1"), nullptr, 0);
   EXPECT_EQ(Record(s1, "et1", 3), Record(s1, "et1", 3));
   EXPECT_NE(Record(s1, "et1", 3), Record(s2, "et1", 3));
   EXPECT_NE(Record(s1, "et1", 3), Record(s1, "et1", 4));

   auto dir = Kel::makePtr<DeviceIntfStatusDir>("dev");
   auto heard = Kel::makePtr<DeviceHeard>();
   heard->notifierIs(DeviceIntfStatusDir::PtrConst(dir));
   dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), Record(s1, "et1", 3));
   dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), Record(s1, "et1", 3));
   dir->intfStatusAndDeviceNameIs(IntfId("Ethernet1"), Record(s2, "et1", 3));
   dir->intfStatusByIfIndexIs(3, Record(s2, "et1", 3));
   dir->intfStatusByIfIndexDel(3);
   EXPECT_EQ(heard->keys, (Keys{"Ethernet1", "Ethernet1", "3", "3"}));
   EXPECT_EQ(dir->intfStatusAndDeviceName(IntfId("Ethernet1")).intfStatus(), s2);
   EXPECT_EQ(dir->intfStatusByIfIndexSize(), 0u);
   EXPECT_EQ(s2->references(), 2u);  // ours and the identifier entry's
}

TEST(DeviceIntfStatusDir, RecordTextNamesTheStatusByItsPath) {
   auto top = Kel::globalDir()->mkdir("deviceDirTest");
   auto statuses = Kel::makePtr<AllIntfStatusDir>("status");
   top->entryIs(statuses);
   auto status = intfStatusFactory(IntfId("Ethernet1"), nullptr, 0);
   statuses->intfStatusIs(status);

   Record r(status, "et1", 7);
   Kel::String8 text = valueToStrep(r);
   EXPECT_EQ(text, Kel::String8("Value('Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName', "
                                "** {'intfStatus': '/deviceDirTest/status/Ethernet1', "
                                "'deviceName': 'et1', 'ifIndex': 7})"));
   Record back;
   Kel::strepToValue(text, &back);
   EXPECT_EQ(back, r);
   EXPECT_EQ(valueToStrep(Record()),
             Kel::String8("Value('Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName', "
                          "** {'intfStatus': None, 'deviceName': '', 'ifIndex': 0})"));
   Kel::strepToValue(valueToStrep(Record()), &back);
   EXPECT_EQ(back, Record());

   const std::pair<const char *, const char *> bad[] = {
       {"Value('Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName', ** {'ifIndex': 7",
        "premature end of value type IntfStatusAndDeviceName"},
       {"Value('Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName', ** {'vrf': 1})",
        "IntfStatusAndDeviceName has no such attribute: vrf"},
       {"Value('Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName', ** {'intfStatus': "
        "'/deviceDirTest'})",
        "Entity is the wrong type"},
   };
   for (auto const & [input, message] : bad) {
      Kel::String8 t(input);
      std::string got = refusal<Kel::RangeException>([&] { Kel::strepToValue(t, &back); });
      EXPECT_NE(got.find(message), std::string::npos) << got;
   }
   Kel::globalDir()->entryDel("deviceDirTest");
}

TEST(DeviceVrfIntfStatusDir, TheChildIsKeptWhileItsNameMatches) {
   struct VrfHeard : DeviceVrfIntfStatusDir::NotifieeConst {
      void onDeviceIntfStatusDir() override { ++n; }
      int n = 0;
   };
   auto vrf = Kel::makePtr<DeviceVrfIntfStatusDir>("red", "vrfRed");
   auto heard = Kel::makePtr<VrfHeard>();
   heard->notifierIs(DeviceVrfIntfStatusDir::PtrConst(vrf));
   EXPECT_FALSE(vrf->deviceIntfStatusDir());
   auto a = vrf->deviceIntfStatusDirIs("dev");
   EXPECT_EQ(vrf->deviceIntfStatusDirIs("dev"), a);
   auto b = vrf->deviceIntfStatusDirIs("dev2");
   EXPECT_NE(a, b);
   EXPECT_EQ(vrf->deviceIntfStatusDir(), b);
   EXPECT_EQ(heard->n, 2);
   EXPECT_EQ(vrf->name(), Kel::Name("red"));
   EXPECT_EQ(vrf->vrfName(), Kel::Name("vrfRed"));
}
