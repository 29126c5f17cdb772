// Watching the configuration file: written in place, replaced by a rename,
// removed; other files of the directory are not reported.
#include "FileWatch.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace {

struct TempDir {
   std::string path;
   TempDir() {
      char t[] = "/tmp/intf-watch-XXXXXX";
      path = ::mkdtemp(t);
   }
   ~TempDir() { std::system(("rm -rf " + path).c_str()); }
};

void write(std::string const & p, char const * text) { std::ofstream(p) << text; }

int settle(Kel::ActivityLoop & loop) {
   int rounds = 0;
   while (loop.runOnce(20) > 0 && rounds < 50) ++rounds;
   return rounds;
}

} // namespace

TEST(FileWatch, ReportsWritesRenamesAndRemovalsOfItsFileOnly) {
   TempDir d;
   std::string file = d.path + "/intf.conf";
   write(file, "Ethernet1 mtu=1500\n");
   int calls = 0;
   IntfApp::FileWatch w(file, [&] { ++calls; });
   ASSERT_TRUE(w.valid()) << w.error();
   Kel::ActivityLoop loop;
   loop.add(&w);

   write(file, "Ethernet1 mtu=9000\n");
   settle(loop);
   EXPECT_EQ(calls, 1);

   write(d.path + "/other.conf", "x");
   settle(loop);
   EXPECT_EQ(calls, 1);

   write(d.path + "/intf.conf.tmp", "Ethernet1 mtu=1400\n");
   ASSERT_EQ(std::rename((d.path + "/intf.conf.tmp").c_str(), file.c_str()), 0);
   settle(loop);
   EXPECT_EQ(calls, 2);

   ::unlink(file.c_str());
   settle(loop);
   EXPECT_EQ(calls, 3);
}

TEST(FileWatch, ADirectoryThatDoesNotExistIsReported) {
   IntfApp::FileWatch w("/nonexistent-dir/intf.conf", [] {});
   EXPECT_FALSE(w.valid());
   EXPECT_EQ(w.error(), "cannot watch /nonexistent-dir: No such file or directory");
}
