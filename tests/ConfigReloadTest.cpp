// The configuration file followed as operators and tools write it: read
// once a change is finished, never half-written, never taken for empty
// while an editor rewrites it in place, and a file that cannot be read is
// reported with the system's reason.
#include "ConfigReload.h"

#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

using namespace std::chrono_literals;

namespace {

struct Followed {
   explicit Followed(std::string const & path)
         : reload(loop, path, [this](IntfApp::ConfigFile const & c) { applied.push_back(c.intfs.size()); },
                  [this](IntfApp::ConfigError const & e) { refused.push_back(e.what()); }, {20ms, 300ms}) {}
   // Runs the loop for `ms`, or until `n` files are applied.
   void run(int ms, size_t n = size_t(-1)) {
      loop.runUntil([&] { return applied.size() >= n; }, ms);
   }
   Kel::ActivityLoop loop;
   std::vector<size_t> applied;  // interfaces of each file applied
   std::vector<std::string> refused;
   IntfApp::ConfigReload reload;
};

void write(std::string const & p, char const * text) { std::ofstream(p) << text; }

} // namespace

TEST(ConfigReload, FinishedChangesOfItsFileAreReadAndOthersAreNot) {
   IntfTest::TempDir d;
   std::string file = d.path + "/intf.conf";
   write(file, "Ethernet1 mtu=1500\n");
   Followed f(file);
   ASSERT_TRUE(f.reload.valid()) << f.reload.error();

   write(file, "Ethernet1 mtu=9000\nEthernet2\n");  // in place
   f.run(5000, 1);
   write(d.path + "/other.conf", "x");
   write(d.path + "/intf.conf.tmp", "Ethernet1\nEthernet2\nEthernet3\n");
   ASSERT_EQ(std::rename((d.path + "/intf.conf.tmp").c_str(), file.c_str()), 0);  // replaced
   f.run(5000, 2);
   EXPECT_EQ(f.applied, (std::vector<size_t>{2, 3}));

   // Being written: nothing is read until the writer closes it.
   int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(::write(fd, "Ethernet1\n", 10), 10);
   f.run(200);
   EXPECT_EQ(f.applied.size(), 2u);
   ASSERT_EQ(::write(fd, "Ethernet2\n", 10), 10);
   ::close(fd);
   f.run(5000, 3);
   EXPECT_EQ(f.applied.back(), 2u);

   // Removed: reported with the system's reason, nothing applied.
   ::unlink(file.c_str());
   f.loop.runUntil([&] { return !f.refused.empty(); }, 5000);
   EXPECT_EQ(f.refused, std::vector<std::string>{file + ":0: cannot be read: " + std::strerror(ENOENT)});
   EXPECT_EQ(f.applied.size(), 3u);

   IntfApp::ConfigReload nowhere(f.loop, "/nonexistent-dir/intf.conf", {}, {});
   EXPECT_FALSE(nowhere.valid());
   EXPECT_EQ(nowhere.error(), "cannot watch /nonexistent-dir: No such file or directory");
}

TEST(ConfigReload, AFileEmptiedByAChangeIsTakenAsEmptyOnlyWhenItStaysSo) {
   IntfTest::TempDir d;
   std::string file = d.path + "/intf.conf";
   write(file, "Ethernet1\n");
   Followed f(file);
   ASSERT_TRUE(f.reload.load());
   write(file, "");
   f.run(150);
   EXPECT_EQ(f.applied.size(), 1u);
   write(file, "Ethernet1\nEthernet2\n");  // the editor's write, after a moment
   f.run(5000, 2);
   // Emptied again: the second of suspicion starts anew.
   write(file, "");
   f.run(200);
   EXPECT_EQ(f.applied.size(), 2u);
   f.run(5000, 3);
   EXPECT_EQ(f.applied, (std::vector<size_t>{1, 2, 0}));
}

TEST(ConfigReload, AHundredInPlaceEditsNeverApplyAnEmptyOrHalfWrittenFile) {
   IntfTest::TempDir d;
   std::string file = d.path + "/intf.conf";
   std::string whole = "Ethernet1 description=\"first half\"\nEthernet2 description=\"second half\"\n";
   write(file, whole.c_str());
   Followed f(file);
   ASSERT_TRUE(f.reload.load());
   std::atomic<bool> done{false};
   std::atomic<size_t> seen{f.applied.size()};
   std::thread editor([&] {
      // As an editor saving in place: truncate, then write in two parts;
      // the next save once this one is read (or after 2 s).
      for (int i = 0; i < 100; ++i) {
         size_t before = seen;
         int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
         size_t half = whole.size() / 2;
         (void)!::write(fd, whole.data(), half);
         std::this_thread::sleep_for(1ms);
         (void)!::write(fd, whole.data() + half, whole.size() - half);
         ::close(fd);
         for (int w = 0; w < 2000 && seen == before; ++w) std::this_thread::sleep_for(1ms);
      }
      done = true;
   });
   while (!done) {
      f.loop.runOnce(5);
      seen = f.applied.size();
   }
   editor.join();
   f.run(500);
   long whole2 = std::count(f.applied.begin(), f.applied.end(), 2u);
   std::cout << "100 in-place edits: " << f.applied.size() - 1 << " reloads, " << long(f.applied.size()) - whole2
             << " of them with other than the 2 interfaces\n";
   EXPECT_EQ(f.applied.size(), 101u) << "each finished save read once";
   EXPECT_EQ(whole2, long(f.applied.size()));
   EXPECT_TRUE(f.refused.empty()) << f.refused.front();
}
