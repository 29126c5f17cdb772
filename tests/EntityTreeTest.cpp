// The entity tree: directories, paths, single constructed children.
#include "TestTypes.h"

#include <Kel/Dir.h>

#include <gtest/gtest.h>

using KelTest::Holder;
using KelTest::Leaf;
using Zenet::IntfId;

TEST(EntityTree, PathsResolveRelativelyAbsolutelyAndUpwards) {
   auto top = Kel::globalDir()->mkdir("treeTest/interface/status/eth");
   auto phy = top->mkdir("phy");
   EXPECT_EQ(phy->fullName(), Kel::String8("/treeTest/interface/status/eth/phy"));
   auto leaf = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   phy->entryIs(leaf);
   EXPECT_EQ(Kel::globalDir()->entity("/treeTest/interface/status/eth/phy/Ethernet1"), leaf);
   EXPECT_EQ(phy->entity("Ethernet1"), leaf);
   EXPECT_EQ(phy->entity("../../eth/phy/Ethernet1"), leaf);
   EXPECT_EQ(leaf->entity("/treeTest"), Kel::globalDir()->entity("treeTest"));
   EXPECT_FALSE(phy->entity("Ethernet2"));
   EXPECT_FALSE(phy->entity("Ethernet1/deeper"));
   EXPECT_EQ(top->mkdir("phy"), phy);  // an existing directory is reused
   EXPECT_THROW(phy->mkdir("Ethernet1/x"), Kel::RangeException);
   Kel::globalDir()->entryDel("treeTest");
   EXPECT_FALSE(Kel::globalDir()->entity("/treeTest"));
   // Directories no one else holds went with the tree; eth, held here, lost its parent.
   EXPECT_EQ(phy->fullName(), Kel::String8("eth/phy"));
}

TEST(EntityTree, SingleChildIsKeptWhileItsNameMatchesAndReplacedOtherwise) {
   struct Count : Holder::NotifieeConst {
      void onChild() override { ++n; }
      int n = 0;
   };
   auto h = Kel::makePtr<Holder>("h");
   auto c = Kel::makePtr<Count>();
   c->notifierIs(h);
   EXPECT_FALSE(h->child());
   auto a = h->childIs(Kel::Name("Ethernet1"));
   EXPECT_EQ(h->childIs(Kel::Name("Ethernet1")), a);
   EXPECT_EQ(c->n, 1);
   EXPECT_EQ(a->parent(), h);
   auto b = h->childIs(Kel::Name("Ethernet2"));
   EXPECT_NE(a, b);
   EXPECT_FALSE(a->parent());
   EXPECT_EQ(h->entity("Ethernet2"), b);
   h->childDel();
   EXPECT_FALSE(h->child());
   EXPECT_EQ(c->n, 3);
}

TEST(EntityTree, CacheIsFilledThroughAConstHandleAndNeverAnnounced) {
   auto h = Kel::makePtr<Holder>("h");
   Holder::PtrConst ro = h;
   auto leaf = Kel::makePtr<Leaf>(IntfId("Ethernet1"));
   ro->memoIs(leaf);
   EXPECT_EQ(h->memo(), leaf);
   EXPECT_EQ(h->modificationCount(), 0u);
   EXPECT_FALSE(Holder::_fwkType()->attribute("memo")->replicated());
}
