// The look-up from a status to its counters over a real tree: every route,
// every failure with its message, level and line, nothing created and
// nothing thrown on any path.
#include "ShmTestPrefix.h"

#include <Intf/Counter>
#include <Kel/Dir.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace Interface;

struct Msg {
   int level;
   int line;
   std::string text;
   bool operator==(Msg const &) const = default;
};
std::ostream & operator<<(std::ostream & os, Msg const & m) {
   return os << "(" << m.level << ", " << m.line << ", \"" << m.text << "\")";
}

// Every message of the look-up facility, split into level, line and text.
struct Capture {
   Capture() {
      Kel::traceLevelIs("Intf::Counter", 2);
      Kel::traceSinkIs([this](const char * fac, int level, Kel::String8 const & s) {
         if (std::string_view(fac) != "Intf::Counter") return;
         std::string t = s.str();
         std::string const head = "src-includes/Intf/Counter:";
         EXPECT_EQ(t.rfind(head, 0), 0u) << t;
         size_t sp = t.find(' ');
         size_t colon = t.find(": ", sp);
         int line = std::stoi(t.substr(head.size(), sp - head.size()));
         std::string fn = t.substr(sp + 1, colon - sp - 1);
         EXPECT_TRUE(fn == "counterCommon" || fn == "getIntfAclDrops") << t;
         msgs.push_back({level, line, t.substr(colon + 2)});
      });
   }
   ~Capture() {
      Kel::traceSinkIs(nullptr);
      Kel::traceLevelIs("Intf::Counter", 0);
   }
   std::vector<Msg> msgs;
};

size_t countEntities(Kel::Entity const * e) {
   size_t n = 1;
   e->kelForEachChild([](void * ctx, Kel::Entity * c) { *static_cast<size_t *>(ctx) += countEntities(c); },
                      &n);
   return n;
}

Zenet::IntfId eth(int n) { return Zenet::IntfId(std::string_view("Ethernet" + std::to_string(n))); }

IntfStatus::Ptr statusIn(Kel::Ptr<AgentIntfStatusDir> const & d, Zenet::IntfId id) {
   auto s = intfStatusFactory(id, nullptr, 0);
   d->intfStatusIs(s);
   return s;
}

// The names of two entries of a directory in the order the directory
// iterates them: slices are searched in that order.
std::pair<std::string, std::string> iterationOrder() {
   auto probe = Kel::makePtr<Kel::Dir>("probe");
   probe->mkdir("s1");
   probe->mkdir("s2");
   auto it = probe->entryIteratorConst();
   std::string first = it.key().str();
   return {first, first == "s1" ? "s2" : "s1"};
}

// The tree: /<root>/interface/{status,counter}/... beside shared-memory
// tables under /<root>/Smash.
struct Tree : ShmTestPrefix {
   Tree() {
      root = Kel::globalDir()->mkdir(rootName);
      iface = root->mkdir("interface");
      auto statusEth = iface->mkdir("status/eth");
      auto counterEth = iface->mkdir("counter/eth");
      auto [first, second] = iterationOrder();
      firstSlice = first;
      secondSlice = second;

      // Per-slice counters of "phy": Ethernet1 in both slices, Ethernet2 in
      // the second only, Ethernet4's directory without "current".
      auto slices = counterEth->mkdir("slice/phy");
      for (auto const & s : {first, second}) {
         auto sl = Kel::makePtr<AllIntfCounterDir>(Kel::Name(s));
         slices->entryIs(sl);
         sliceDirs[s] = sl;
      }
      current[first + "/1"] = sliceDirs[first]->intfCounterDirIs(eth(1))->intfCounterIs("current");
      current[second + "/1"] = sliceDirs[second]->intfCounterDirIs(eth(1))->intfCounterIs("current");
      current[second + "/2"] = sliceDirs[second]->intfCounterDirIs(eth(2))->intfCounterIs("current");
      sliceDirs[first]->intfCounterDirIs(eth(4))->intfCounterIs("other");
      phy = dir(statusEth, "phy");

      // The general search: counter/eth/intf holds Ethernet3.
      auto intfCounters = Kel::makePtr<AllIntfCounterDir>("intf");
      counterEth->entryIs(intfCounters);
      current["intf/3"] = intfCounters->intfCounterDirIs(eth(3))->intfCounterIs("current");
      intf = dir(statusEth, "intf");
      configured = dir(statusEth, "configured");
      configured->counterDirPathIs("counter/eth/intf");
      notACounterDir = dir(statusEth, "plain");
      counterEth->mkdir("plain");
      notACounterDir->counterDirPathIs("counter/eth/plain");  // a plain directory
      namesNothing = dir(statusEth, "nothing");
      namesNothing->counterDirPathIs("counter/eth/absent");
      auto overMissing = Kel::makePtr<SmashIntfCounterDirDir>("missing");
      overMissing->tablePathIs(table("lookup/missing"));  // a table nobody made
      counterEth->entryIs(overMissing);
      overMissingTable = dir(statusEth, "overmissing");
      overMissingTable->counterDirPathIs("counter/eth/missing");

      // Tables: sub-interfaces and VLANs, and ACL drops in slices.
      auto smash = root->mkdir("Smash");
      tableDir = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("counters");
      smash->entryIs(tableDir);
      tableDir->counterOpen(Smash::Role::writer, table("lookup/counters"));
      Smash::Interface::IntfCounter row;
      row.keyIs(eth(7));
      IntfStatistics st;
      st.inOctetsIs(7000);
      row.statisticsIs(st);
      tableDir->counterIs(row);
      subintf = dir(statusEth, "subintf");
      vlan = dir(statusEth, "vlan");

      auto drops = smash->mkdir("acl/slices");
      for (auto const & s : {first, second}) {
         auto d = Kel::makePtr<Smash::Interface::AllDropCounterDir>(Kel::Name(s));
         drops->entryIs(d);
         d->counterOpen(Smash::Role::writer, table("lookup/drops-" + s));
         dropDirs[s] = d;
      }
      Smash::Interface::DropCounter drop;
      drop.keyIs(eth(8));
      drop.inAclDropsIs(88);
      dropDirs[second]->counterIs(drop);
      // Statuses sit in /<root>/...: the drop path is <root>/<dropCounterDirPath>.
      intf->dropCounterDirPathIs("Smash/acl/slices");
   }
   ~Tree() { Kel::globalDir()->entryDel(Kel::Name(rootName)); }

   Kel::Ptr<AgentIntfStatusDir> dir(Kel::Dir::Ptr const & parent, const char * name) {
      auto d = Kel::makePtr<AgentIntfStatusDir>(name);
      parent->entryIs(d);
      return d;
   }

   std::string rootName = "lookup" + std::to_string(::getpid());
   Kel::Dir::Ptr root, iface;
   std::string firstSlice, secondSlice;
   std::map<std::string, Kel::Ptr<AllIntfCounterDir>> sliceDirs;
   std::map<std::string, Kel::Ptr<Smash::Interface::AllDropCounterDir>> dropDirs;
   std::map<std::string, IntfCounter::Ptr> current;
   Kel::Ptr<AgentIntfStatusDir> phy, intf, configured, notACounterDir, namesNothing, overMissingTable, subintf, vlan;
   Kel::Ptr<Smash::Interface::AllIntfCounterDir> tableDir;
};

struct Case {
   const char * name;
   // Prepares the tree and returns the status to look up.
   std::function<IntfStatus::Ptr(Tree &)> status;
   // The counter expected ("" for null, "table" for an adapter).
   std::string expect;
   std::function<std::vector<Msg>(Tree &)> msgs;
};

std::string full(Kel::Entity const & e) { return e.fullName().str(); }

} // namespace

TEST(CounterLookup, EveryRouteFindsItsCounterOrSaysWhyNotWithItsLevelAndLine) {
   Tree t;
   std::vector<Case> cases = {
       {"a status without a parent", [](Tree &) { return intfStatusFactory(eth(9), nullptr, 0); }, "",
        [](Tree &) { return std::vector<Msg>{{0, 100, "Ethernet9: ->parent() is null"}}; }},
       {"phy: the first slice in iteration order wins", [](Tree & t) { return statusIn(t.phy, eth(1)); },
        "first/1",
        [](Tree & t) {
           return std::vector<Msg>{{2, 133, "Searching counter slice " + t.firstSlice},
                                   {2, 148, "Found Ethernet1 in slice " + t.firstSlice}};
        }},
       {"phy: found in the second slice", [](Tree & t) { return statusIn(t.phy, eth(2)); }, "second/2",
        [](Tree & t) {
           return std::vector<Msg>{{2, 133, "Searching counter slice " + t.firstSlice},
                                   {2, 133, "Searching counter slice " + t.secondSlice},
                                   {2, 148, "Found Ethernet2 in slice " + t.secondSlice}};
        }},
       {"phy: in no slice", [](Tree & t) { return statusIn(t.phy, eth(5)); }, "",
        [](Tree & t) {
           return std::vector<Msg>{
               {2, 133, "Searching counter slice " + t.firstSlice},
               {2, 133, "Searching counter slice " + t.secondSlice},
               {0, 249, full(*t.phy) + ": ->doGetIntfCounterDir(Ethernet5) returned null"}};
        }},
       {"phy: a directory without current", [](Tree & t) { return statusIn(t.phy, eth(4)); }, "",
        [](Tree & t) {
           return std::vector<Msg>{{2, 133, "Searching counter slice " + t.firstSlice},
                                   {2, 148, "Found Ethernet4 in slice " + t.firstSlice}};
        }},
       {"phy: a malformed first slice ends the search",
        [](Tree & t) {
           // Replace the first slice with a plain directory; Ethernet2 is
           // still in the second.
           auto slices = Kel::Dir::Ptr(static_cast<Kel::Dir *>(t.iface->entity("counter/eth/slice/phy").ptr()));
           slices->entryIs(Kel::makePtr<Kel::Dir>(Kel::Name(t.firstSlice)));
           return statusIn(t.phy, eth(2));
        },
        "",
        [](Tree & t) {
           return std::vector<Msg>{{2, 133, "Searching counter slice " + t.firstSlice},
                                   {0, 142,
                                    "dynamic_cast to Interface::IntfCounterDirDirBase* failed; "
                                    "typeid is Kel::Dir*"}};
        }},
       {"phy: no slice directory",
        [](Tree & t) {
           Kel::Dir::Ptr(static_cast<Kel::Dir *>(t.iface->entity("counter/eth").ptr()))->entryDel("slice");
           return statusIn(t.phy, eth(1));
        },
        "", [](Tree &) { return std::vector<Msg>{{0, 124, "counter slice dir is null: counter/eth/slice/phy"}}; }},
       {"general: the derived path", [](Tree & t) { return statusIn(t.intf, eth(3)); }, "intf/3",
        [](Tree & t) {
           return std::vector<Msg>{{2, 228, "Constructed counterDir path counter/eth/intf for " + full(*t.intf)}};
        }},
       {"general: the cached directory is used again", [](Tree & t) { return statusIn(t.intf, eth(3)); },
        "intf/3", [](Tree &) { return std::vector<Msg>{}; }},
       {"general: a configured path", [](Tree & t) { return statusIn(t.configured, eth(3)); }, "intf/3",
        [](Tree & t) {
           return std::vector<Msg>{{2, 214, full(*t.configured) + " has counterDirPath counter/eth/intf"}};
        }},
       {"general: the directory lacks the interface", [](Tree & t) { return statusIn(t.configured, eth(6)); },
        "",
        [](Tree & t) {
           // The directory found for the previous case is cached: no new look-up.
           return std::vector<Msg>{{0, 249, full(*t.configured) + ": ->doGetIntfCounterDir(Ethernet6) returned null"}};
        }},
       {"general: a path that names nothing", [](Tree & t) { return statusIn(t.namesNothing, eth(3)); }, "",
        [](Tree & t) {
           return std::vector<Msg>{{2, 214, full(*t.namesNothing) + " has counterDirPath counter/eth/absent"},
                                   {0, 234, full(*t.namesNothing) + ": ->counterDir() is null"}};
        }},
       {"general: a path to something that is not a counter directory",
        [](Tree & t) { return statusIn(t.notACounterDir, eth(3)); }, "",
        [](Tree & t) {
           return std::vector<Msg>{{2, 214, full(*t.notACounterDir) + " has counterDirPath counter/eth/plain"},
                                   {0, 241, full(*t.notACounterDir) +
                                                ": dynamic_cast to Interface::IntfCounterDirDirBase* "
                                                "failed; typeid is Kel::Dir*"}};
        }},
       {"general: a directory over a table that cannot be opened names the object it tried",
        [](Tree & t) { return statusIn(t.overMissingTable, eth(7)); }, "",
        [](Tree & t) {
           std::string dir = full(*t.overMissingTable), object = Smash::objectName("lookup/missing", "ctl");
           return std::vector<Msg>{{2, 214, dir + " has counterDirPath counter/eth/missing"},
                                   {0, 247, dir + ": cannot open the counter table: table lookup/missing: " + object +
                                               ": No such file or directory"},
                                   {0, 249, dir + ": ->doGetIntfCounterDir(Ethernet7) returned null"}};
        }},
       {"subintf: no path", [](Tree & t) { return statusIn(t.subintf, eth(7)); }, "",
        [](Tree &) { return std::vector<Msg>{{1, 158, "SubIntf Smash counterDir path not found"}}; }},
       {"subintf: a path that names nothing",
        [](Tree & t) {
           t.subintf->counterDirPathIs("/" + t.rootName + "/Smash/absent");
           return statusIn(t.subintf, eth(7));
        },
        "", [](Tree &) { return std::vector<Msg>{{0, 165, "SubIntf Smash counterDir is null"}}; }},
       {"subintf: a path to a plain directory",
        [](Tree & t) {
           t.subintf->counterDirPathIs("/" + t.rootName + "/Smash/acl");
           return statusIn(t.subintf, eth(7));
        },
        "", [](Tree &) { return std::vector<Msg>{{0, 165, "SubIntf Smash counterDir is null"}}; }},
       {"subintf: the table",
        [](Tree & t) {
           t.subintf->counterDirPathIs("/" + t.rootName + "/Smash/counters");
           return statusIn(t.subintf, eth(7));
        },
        "table", [](Tree &) { return std::vector<Msg>{}; }},
       {"vlan: a path without Smash only warns",
        [](Tree & t) {
           // A second directory over the same table, at a path without "Smash".
           auto d = Kel::makePtr<Smash::Interface::AllIntfCounterDir>("vlans");
           t.root->mkdir("tables")->entryIs(d);
           // Named in the form that carries its prefix: the same table.
           d->counterOpen(Smash::Role::reader, Smash::shmPrefix() + t.tableDir->counterTable().path());
           t.vlan->counterDirPathIs("/" + t.rootName + "/tables/vlans");
           return statusIn(t.vlan, eth(7));
        },
        "table",
        [](Tree & t) {
           return std::vector<Msg>{
               {1, 191, "Vlan counterDirPath /" + t.rootName + "/tables/vlans does not match counterDir"}};
        }},
       {"vlan: a path that names nothing",
        [](Tree & t) {
           t.vlan->counterDirPathIs("/" + t.rootName + "/Smash/none");
           return statusIn(t.vlan, eth(7));
        },
        "", [](Tree &) { return std::vector<Msg>{{0, 196, "Vlan Smash counterDir is null"}}; }},
   };
   // The three-level walks, on trees too shallow for them.
   for (int depth = 0; depth < 3; ++depth) {
      for (std::string name : {"phy", "intf"}) {
         auto made = std::make_shared<std::pair<Kel::Ptr<Kel::Entity>, Kel::Ptr<AgentIntfStatusDir>>>();
         cases.push_back(
             {"a shallow tree",
              [depth, name, made](Tree &) {
                 Kel::Dir::Ptr parent;
                 for (int i = 0; i < depth; ++i) {
                    auto d = Kel::makePtr<Kel::Dir>(Kel::Name("d" + std::to_string(i)));
                    if (parent) parent->entryIs(d);
                    else made->first = d;
                    parent = d;
                 }
                 made->second = Kel::makePtr<AgentIntfStatusDir>(Kel::Name(name));
                 if (parent) parent->entryIs(made->second);
                 return statusIn(made->second, eth(1));
              },
              "",
              [depth, name, made](Tree &) {
                 return std::vector<Msg>{{0, name == "phy" ? 115 : 220,
                                          full(*made->second) + ": ->parent() at level " +
                                              std::to_string(depth) + " is null"}};
              }});
      }
   }

   for (auto & c : cases) {
      SCOPED_TRACE(c.name);
      auto status = c.status(t);
      size_t treeSize = countEntities(t.root.ptr());
      Capture cap;
      IntfCounter::Ptr got;
      EXPECT_NO_THROW(got = Intf::counterCommon<IntfCounter>(status));
      EXPECT_EQ(cap.msgs, c.msgs(t));
      EXPECT_EQ(countEntities(t.root.ptr()), treeSize) << "the look-up created something";
      if (c.expect.empty()) {
         EXPECT_FALSE(got);
      } else if (c.expect == "table") {
         auto * a = dynamic_cast<SmashIntfCounter *>(got.ptr());
         ASSERT_TRUE(a);
         EXPECT_EQ(a->name(), Kel::Name("current"));
         EXPECT_EQ(a->statistics().inOctets(), 7000u);
      } else {
         std::string key = c.expect;
         key.replace(0, key.find('/'), key.rfind("first", 0) == 0    ? t.firstSlice
                                       : key.rfind("second", 0) == 0 ? t.secondSlice
                                                                     : key.substr(0, key.find('/')));
         ASSERT_TRUE(t.current.count(key)) << key;
         EXPECT_EQ(got.ptr(), t.current[key].ptr());
      }
   }
}

TEST(CounterLookup, AclDropsComeFromTheSliceHoldingTheInterfaceOrSayWhyNot) {
   Tree t;
   {
      Capture cap;
      auto s = statusIn(t.intf, eth(8));
      auto drops = Intf::getIntfAclDrops<IntfAclDrops>(s);
      ASSERT_TRUE(drops);
      EXPECT_EQ(drops->inAclDrops(), 88u);
      std::vector<Msg> want{{2, 49, "Searching counter slice " + t.firstSlice},
                            {2, 49, "Searching counter slice " + t.secondSlice},
                            {2, 63, "Found Ethernet8 in slice " + t.secondSlice}};
      EXPECT_EQ(cap.msgs, want);
      // A fresh row on every read.
      Smash::Interface::DropCounter row;
      row.keyIs(eth(8));
      row.inAclDropsIs(99);
      t.dropDirs[t.secondSlice]->counterIs(row);
      EXPECT_EQ(drops->inAclDrops(), 99u);
   }
   {
      Capture cap;
      auto lone = intfStatusFactory(eth(8), nullptr, 0);
      EXPECT_FALSE(Intf::getIntfAclDrops<IntfAclDrops>(lone));
      EXPECT_EQ(cap.msgs, (std::vector<Msg>{{0, 18, "Ethernet8: ->parent() is null"}}));
   }
   {
      Capture cap;
      t.intf->dropCounterDirPathIs("nowhere");
      EXPECT_FALSE(Intf::getIntfAclDrops<IntfAclDrops>(statusIn(t.intf, eth(8))));
      EXPECT_EQ(cap.msgs, (std::vector<Msg>{{0, 72, "Interface acl drop Smash counterDir is null"}}));
   }
   {
      Capture cap;
      t.intf->dropCounterDirPathIs("interface/status");  // entries are not drop tables
      EXPECT_FALSE(Intf::getIntfAclDrops<IntfAclDrops>(statusIn(t.intf, eth(8))));
      ASSERT_FALSE(cap.msgs.empty());
      EXPECT_EQ(cap.msgs.back().line, 58);
      EXPECT_EQ(cap.msgs.back().level, 0);
      EXPECT_NE(cap.msgs.back().text.find("dynamic_cast to Smash::Interface::AllDropCounterDir* failed; typeid is "),
                std::string::npos);
   }
}

TEST(CounterLookup, AStatusReadsItsCountersThroughTheLookUp) {
   Tree t;
   auto s = statusIn(t.intf, eth(3));
   auto c = s->counter();
   ASSERT_TRUE(c);
   EXPECT_EQ(c.ptr(), t.current["intf/3"].ptr());
   // In an aggregate directory a status has no counters to find.
   auto all = Kel::makePtr<AllIntfStatusDir>("all");
   auto s2 = intfStatusFactory(eth(3), nullptr, 0);
   all->intfStatusIs(s2);
   Capture cap;
   EXPECT_FALSE(s2->counter());
   EXPECT_EQ(cap.msgs, (std::vector<Msg>{{1, 101,
                                          "all/Ethernet3: its directory (Interface::AllIntfStatusDir) is not a "
                                          "status directory (Interface::IntfStatusDirBase): no counters to find"}}));
}
