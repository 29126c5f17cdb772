// Factories: every registered entity type names its factory after itself
// (IntfStatusDir: intfStatusDirFactory) and can be made from generic
// constructor arguments; each factory makes the type it is named for, from
// the arguments of a public constructor and no others.
#include "TestTypes.h"

#include <Group/Group.h>
#include <Intf/CliSaveIntfConfigWalk.h>
#include <Intf/IntfGroup.h>
#include <Intf/IntfQueueCounter.h>
#include <Intf/IntfStatusDir.h>
#include <Intf/SmashIntfCounter.h>
#include <Kel/Dir.h>
#include <Kel/GenericIf.h>
#include <Mavo/ShmemManager.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <string>
#include <vector>

using Kel::GenericIf;
using Kel::KelType;

namespace KelTest {

// A status directory that forgot its factory: its base's does not stand in.
#define KEL_ATTRS_FactorylessStatusDir(X)
class FactorylessStatusDir : public Interface::IntfStatusDir {
   KEL_ENTITY(FactorylessStatusDir, Interface::IntfStatusDir, "KelTest::FactorylessStatusDir",
              KEL_ATTRS_FactorylessStatusDir)
 public:
   explicit FactorylessStatusDir(Kel::Name n) : Interface::IntfStatusDir(std::move(n)) {}
};

// A factory written by hand because it does more than construct.
#define KEL_ATTRS_Stamped(X) X(Scalar, stamp, Stamp, uint32_t, 0)
class Stamped : public Kel::Entity {
   KEL_ENTITY(Stamped, Kel::Entity, "KelTest::Stamped", KEL_ATTRS_Stamped)
 public:
   explicit Stamped(Kel::Name n) : Kel::Entity(std::move(n)) {}
};
inline Stamped::Ptr stampedFactory(Kel::Name n) {
   auto s = Kel::makePtr<Stamped>(std::move(n));
   s->stampIs(42);
   return s;
}
KEL_FACTORY_NAME(stampedFactory, Stamped);

} // namespace KelTest

namespace {

// The factory name the convention gives a (qualified) type or function name.
std::string unqualified(std::string_view n) {
   auto pos = n.rfind("::");
   return std::string(pos == std::string_view::npos ? n : n.substr(pos + 2));
}
std::string conventionalFactory(std::string_view typeName) {
   std::string s = unqualified(typeName);
   if (!s.empty()) s[0] = char(std::tolower(static_cast<unsigned char>(s[0])));
   return s + "Factory";
}

// Entity types among `types` that name no factory, or not the conventional one.
std::vector<std::string> withoutConventionalFactory(std::vector<KelType const *> const & types) {
   std::vector<std::string> bad;
   for (auto const * t : types) {
      if (t->kind() != KelType::Kind::entity) continue;
      if (t->factoryName().str() != conventionalFactory(t->name().view())) {
         bad.push_back(t->name().str() + " names '" + t->factoryName().str() + "'");
      }
   }
   return bad;
}

std::vector<KelType const *> registeredEntityTypes() {
   std::vector<KelType const *> out;
   for (auto const * t : Kel::registeredTypes()) {
      if (t->kind() == KelType::Kind::entity) out.push_back(t);
   }
   return out;
}

// A generic constructor argument of each type the model's constructors take.
GenericIf::PtrConst sampleArg(KelType const * t) {
   using Kel::toGeneric;
   if (t->kind() == KelType::Kind::entity) return toGeneric(Kel::Ptr<Kel::Entity>());
   const std::pair<KelType const *, std::function<GenericIf::PtrConst()>> samples[] = {
       {Kel::typeOf<Kel::String8>(), [] { return toGeneric(Kel::String8("Ethernet1")); }},
       {Kel::typeOf<Kel::Name>(), [] { return toGeneric(Kel::Name("Ethernet1")); }},
       {Kel::typeOf<Zenet::IntfId>(), [] { return toGeneric(Zenet::IntfId("Ethernet1")); }},
       {Kel::typeOf<uint32_t>(), [] { return toGeneric(uint32_t(3)); }},
       {Kel::typeOf<uint8_t>(), [] { return toGeneric(uint8_t(3)); }},
       {Kel::typeOf<Interface::PktType>(), [] { return toGeneric(Interface::PktType::mc); }},
       {Kel::typeOf<Group::GroupKey>(),
        [] { return toGeneric(Group::GroupKey(Group::GroupType::groupTypeIntf, "Ethernet1")); }},
   };
   for (auto const & [type, make] : samples) {
      if (type == t) return make();
   }
   return nullptr;
}

// Types that are made only in code: their identity rows belong to a base.
const std::vector<std::string> notCreatableByTypeName = {"KelTest::SubThing"};

} // namespace

// The factories are typed: each returns its own type and takes only the
// arguments of one of the type's public constructors.
static_assert(std::is_same_v<decltype(Interface::intfCounterDirFactory(Zenet::IntfId())),
                             Interface::IntfCounterDir::Ptr>);
static_assert(std::is_same_v<decltype(Smash::Interface::allIntfCounterDirFactory("x")),
                             Kel::Ptr<Smash::Interface::AllIntfCounterDir>>);
static_assert(std::is_same_v<decltype(Interface::allIntfCounterDirFactory("x")),
                             Kel::Ptr<Interface::AllIntfCounterDir>>);
template <class... A>
concept MakesStatus = requires(A &&... a) { Interface::intfStatusFactory(std::forward<A>(a)...); };
static_assert(MakesStatus<Zenet::IntfId, std::nullptr_t, uint32_t>);
static_assert(MakesStatus<Zenet::IntfId, Interface::IntfConfig::Ptr, int>);
static_assert(!MakesStatus<Zenet::IntfId>);
static_assert(!MakesStatus<Kel::Name>);
template <class... A>
concept MakesConfig = requires(A &&... a) { Interface::intfConfigFactory(std::forward<A>(a)...); };
static_assert(MakesConfig<Zenet::IntfId> && MakesConfig<Kel::Name, Zenet::IntfId>);
static_assert(!MakesConfig<const char *>);  // an identifier is never guessed from text
// A derived type does not inherit its base's factory name.
static_assert(Kel::factoryNameOf<KelTest::FactorylessStatusDir>() == nullptr);
static_assert(std::string_view(Kel::factoryNameOf<Interface::IntfStatusDir>()) ==
              "intfStatusDirFactory");

TEST(FactoryRegistry, EveryRegisteredEntityTypeNamesItsConventionalFactory) {
   auto types = registeredEntityTypes();
   std::vector<std::string> names;
   for (auto const * t : types) names.push_back(t->name().str());
   // The walk sees the whole model, not only a part of it.
   for (const char * n : {"Kel::Dir", "Kel::EntityWalk", "Group::Config", "Mavo::ShmemManager",
                          "Interface::IntfConfig", "Interface::DeviceVrfIntfStatusDir",
                          "Interface::AllIntfQueueCounterDir", "Interface::SmashIntfCounterDirDir",
                          "Smash::Interface::AllIntfCounterSnapshotDir", "IntfGroup::StatusDir",
                          "Interface::CliSaveIntfConfigWalk"}) {
      EXPECT_NE(std::find(names.begin(), names.end(), n), names.end()) << n;
   }
   EXPECT_GE(types.size(), 44u);
   EXPECT_EQ(withoutConventionalFactory(types), std::vector<std::string>{});
}

TEST(FactoryRegistry, ATypeWithoutItsOwnFactoryIsReported) {
   EXPECT_EQ(withoutConventionalFactory({KelTest::FactorylessStatusDir::_fwkType(),
                                         Interface::IntfStatusDir::_fwkType()}),
             std::vector<std::string>{"KelTest::FactorylessStatusDir names ''"});
}

TEST(FactoryRegistry, AHandWrittenFactoryIsRegisteredByNameAndKeepsWhatItDoes) {
   Kel::registerTypes<KelTest::Stamped>();
   auto const * t = Kel::findType("KelTest::Stamped");
   ASSERT_TRUE(t);
   EXPECT_EQ(t->factoryName(), Kel::String8("stampedFactory"));
   EXPECT_EQ(KelTest::stampedFactory("s")->stamp(), 42u);
}

// Every registered entity type is made from generic arguments of its
// constructor's types, and each argument lands in its row (or the name).
TEST(FactoryRegistry, EveryRegisteredEntityTypeIsCreatableByTypeName) {
   for (auto const * t : registeredEntityTypes()) {
      std::string type = t->name().str();
      EXPECT_EQ(Kel::findType(type), t) << type;
      if (!t->newEntity) {
         EXPECT_NE(std::find(notCreatableByTypeName.begin(), notCreatableByTypeName.end(), type),
                   notCreatableByTypeName.end())
             << type << " cannot be created by type name";
         continue;
      }
      std::vector<std::string> argNames;
      std::vector<GenericIf::PtrConst> args;
      for (auto const & n : t->constructorArgNames()) argNames.push_back(n.str());
      for (auto const * at : t->constructorArgTypes()) args.push_back(sampleArg(at));
      if (args.empty()) {  // made from its name alone
         argNames = {"name"};
         args = {Kel::toGeneric(Kel::String8("Ethernet1"))};
      }
      if (std::find(args.begin(), args.end(), nullptr) != args.end()) {
         ADD_FAILURE() << type << ": no sample argument for one of its constructor's types";
         continue;
      }
      auto e = t->newEntity(GenericIf::List(args));
      ASSERT_TRUE(e) << type;
      EXPECT_EQ(e->fwkType(), t) << type;
      Kel::GenericEntity<Kel::Entity> g(e);
      for (size_t i = 0; i < args.size(); ++i) {
         if (t->attribute(argNames[i])) {
            EXPECT_EQ(g.attribute(argNames[i])->strRep(), args[i]->strRep()) << type << "." << argNames[i];
         } else {
            EXPECT_EQ(argNames[i], "name") << type;
            EXPECT_EQ(e->name(), Kel::Name("Ethernet1")) << type;
         }
      }
   }
}

// Direct calls, compiled here: each makes an entity of the type whose
// registry entry carries the factory's name.
TEST(FactoryRegistry, EachFactoryMakesTheTypeItIsNamedFor) {
   using namespace Interface;
   using Kel::Name;
   using Zenet::IntfId;
   struct Case {
      const char * factory;
      const char * type;
      const char * name;
      std::function<Kel::Ptr<Kel::Entity>()> make;
   };
#define FACTORY_CASE(factory, type, name, args) \
   Case{#factory, type, name, [] { return Kel::Ptr<Kel::Entity>(factory args); }}
   const Case cases[] = {
       FACTORY_CASE(globalIntfConfigFactory, "Interface::GlobalIntfConfig", "global", ("global")),
       FACTORY_CASE(intfConfigFactory, "Interface::IntfConfig", "Ethernet1", (IntfId("Ethernet1"))),
       FACTORY_CASE(intfConfigFactory, "Interface::IntfConfig", "defaultIntfConfig",
                    (Name("defaultIntfConfig"), IntfId())),
       FACTORY_CASE(intfStatusFactory, "Interface::IntfStatus", "Ethernet2",
                    (IntfId("Ethernet2"), nullptr, 7u)),
       FACTORY_CASE(intfStatusLocalFactory, "Interface::IntfStatusLocal", "Ethernet3",
                    (IntfId("Ethernet3"))),
       FACTORY_CASE(allIntfStatusLocalDirFactory, "Interface::AllIntfStatusLocalDir", "local",
                    ("local")),
       FACTORY_CASE(intfCounterDirFactory, "Interface::IntfCounterDir", "Ethernet4",
                    (IntfId("Ethernet4"))),
       FACTORY_CASE(intfCounterDirFactory, "Interface::IntfCounterDir", "Ethernet5",
                    (Name("Ethernet5"))),
       FACTORY_CASE(deviceVrfIntfStatusDirFactory, "Interface::DeviceVrfIntfStatusDir", "dev",
                    (Name("dev"), Name("red"))),
       FACTORY_CASE(intfQueueStatisticsFactory, "Interface::IntfQueueStatistics", "3-mc",
                    (Name("3-mc"), 3, PktType::mc)),
       FACTORY_CASE(allIntfCounterDirFactory, "Interface::AllIntfCounterDir", "counter",
                    ("counter")),
       FACTORY_CASE(Smash::Interface::allIntfCounterDirFactory,
                    "Smash::Interface::AllIntfCounterDir", "subintf", ("subintf")),
       FACTORY_CASE(smashIntfCounterFactory, "Interface::SmashIntfCounter", "current",
                    ("current", IntfId("Ethernet1"))),
       FACTORY_CASE(smashIntfCounterDirFactory, "Interface::SmashIntfCounterDir", "Ethernet6",
                    (IntfId("Ethernet6"))),
       FACTORY_CASE(cliSaveIntfConfigWalkFactory, "Interface::CliSaveIntfConfigWalk", "save",
                    (Name("save"))),
       FACTORY_CASE(IntfGroup::configFactory, "IntfGroup::Config", "g1", (Kel::String8("g1"))),
       FACTORY_CASE(Group::statusFactory, "Group::Status", "g2",
                    (Group::GroupKey(Group::GroupType::groupTypeIntf, "g2"))),
       FACTORY_CASE(Mavo::shmemManagerFactory, "Mavo::ShmemManager", "man",
                    ("man", Kel::String8("/cells"), 64u)),
       FACTORY_CASE(Kel::dirFactory, "Kel::Dir", "d", ("d")),
   };
#undef FACTORY_CASE
   for (auto const & c : cases) {
      auto const * t = Kel::findType(c.type);
      ASSERT_TRUE(t) << c.type;
      EXPECT_EQ(t->factoryName().str(), unqualified(c.factory)) << c.type;
      auto e = c.make();
      ASSERT_TRUE(e) << c.factory;
      EXPECT_EQ(e->fwkType(), t) << c.factory;
      EXPECT_EQ(e->name(), Kel::Name(c.name)) << c.factory;
   }
}

TEST(FactoryRegistry, FactoriesPassTheirArgumentsToTheConstructor) {
   auto config = Interface::intfConfigFactory(Zenet::IntfId("Ethernet1"));
   auto status = Interface::intfStatusFactory(Zenet::IntfId("Ethernet1"), config, 7u);
   EXPECT_EQ(status->intfId(), Zenet::IntfId("Ethernet1"));
   EXPECT_EQ(status->defaultConfig(), config);
   EXPECT_EQ(status->genId(), 7u);
   auto vrf = Interface::deviceVrfIntfStatusDirFactory(Kel::Name("dev"), Kel::Name("red"));
   EXPECT_EQ(vrf->vrfName(), Kel::Name("red"));
   auto man = Mavo::shmemManagerFactory("man", Kel::String8("/cells"), 64u);
   EXPECT_EQ(man->path(), Kel::String8("/cells"));
   EXPECT_EQ(man->cellBytes(), 64u);
   auto queue = Interface::intfQueueStatisticsFactory("3-mc", 3, Interface::PktType::mc);
   EXPECT_EQ(queue->queueId(), uint8_t(3));
   EXPECT_EQ(queue->pktType(), Interface::PktType::mc);
}
