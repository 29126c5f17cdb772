// Counter cells in shared memory: found by key through the cell manager,
// read lock-free by other processes while a writer changes them.
#include "ChildProcess.h"
#include "ShmTestPrefix.h"

#include <Brik/ShmemCounter.h>
#include <Mavo/ShmemMan.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <filesystem>
#include <thread>

namespace {

// The smallest counter type: its cell comes from a manager by key.
struct Cell {
   Mavo::ShmemMan * man;
   Kel::String8 key;
   uint64_t counterAddr(bool forRead) const { return man->counterAddr(key, 208, forRead); }
};

struct Managers : ShmTestPrefix {
   explicit Managers(std::string p) : path(std::move(p)) { Mavo::ShmemMan::remove(path); }
   ~Managers() { Mavo::ShmemMan::remove(path); }
   std::string path;
};

// Values whose two halves agree: a torn read shows.
uint64_t countValue(uint64_t n) { return (n << 32) | n; }

} // namespace

// Writers are killed -9 at full speed, anywhere in a write (also between a
// cell's two copies), and the next one goes on from what readers see; every
// other writer writes only one of the two counters. Readers in other
// processes never see a value torn, nor either counter go backwards.
TEST(ShmemCounter, ReadersNeverSeeACounterTornOrGoBackwardsWhileWritersAreKilled) {
   Managers m("test/cells");
   { Mavo::ShmemMan(m.path, true).counterAddr("Ethernet1-q0", 208, false); }
   struct Counts {
      std::atomic<bool> done;
      uint64_t reads[2], torn[2], backwards[2];
   };
   IntfTest::Shared<Counts> counts;
   std::vector<pid_t> readers;
   for (int r = 0; r < 2; ++r) {
      readers.push_back(IntfTest::spawn([&, r] {
         Mavo::ShmemMan man(m.path, false);
         Cell c{&man, "Ethernet1-q0"};
         for (uint64_t last[2] = {}; !counts->done; ++counts->reads[r]) {
            uint64_t v[2] = {Brik::shmemCounterVal(&c, Brik::Slot::pkts), Brik::shmemCounterVal(&c, Brik::Slot::bytes)};
            for (int k = 0; k < 2; ++k) {
               counts->torn[r] += (v[k] >> 32) != (v[k] & 0xffffffff);
               counts->backwards[r] += v[k] < last[k];
               last[k] = v[k];
            }
         }
         return 0;
      }));
   }
   std::mt19937 rng(5);
   int writers = 0;
   for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5); std::chrono::steady_clock::now() < end;
        ++writers) {
      bool both = writers % 2 == 0;
      pid_t pid = IntfTest::spawn([&] {
         Mavo::ShmemMan man(m.path, true);
         Cell c{&man, "Ethernet1-q0"};
         uint64_t pkts = Brik::shmemCounterVal(&c, Brik::Slot::pkts) & 0xffffffff;
         uint64_t bytes = Brik::shmemCounterVal(&c, Brik::Slot::bytes) & 0xffffffff;
         for (;;) {
            if (both) Brik::shmemCounterValIs(&c, countValue(++pkts), Brik::Slot::pkts);
            Brik::shmemCounterValIs(&c, countValue(++bytes), Brik::Slot::bytes);
         }
         return 0;
      });
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
      IntfTest::stop(pid);
   }
   counts->done = true;
   for (int r = 0; r < 2; ++r) {
      EXPECT_EQ(IntfTest::exitCode(readers[r]), 0);
      EXPECT_GT(counts->reads[r], 1000u);
      EXPECT_EQ(counts->torn[r], 0u) << "torn reads";
      EXPECT_EQ(counts->backwards[r], 0u) << "counters going backwards, " << writers << " writers killed";
   }
}

TEST(ShmemCounter, WithoutACellReadsAreZeroAndWritesAreDroppedAndTraced) {
   Managers m("test/nocell");
   Mavo::ShmemMan readerMan(m.path, false);  // no writer: nothing exists
   Cell r{&readerMan, "Ethernet9-q1"};
   EXPECT_EQ(Brik::shmemCounterVal(&r, Brik::Slot::bytes), 0u);
   std::vector<std::string> traced;
   Kel::traceLevelIs("Brik::ShmemCounter", 9);
   Kel::traceSinkIs([&](const char *, int level, Kel::String8 const & msg) {
      if (level == 9) traced.push_back(msg.str());
   });
   Brik::shmemCounterValIs(&r, 5ull, Brik::Slot::bytes);
   Kel::traceSinkIs(nullptr);
   Kel::traceLevelIs("Brik::ShmemCounter", -1);
   ASSERT_EQ(traced.size(), 1u);
   EXPECT_EQ(traced[0].rfind("pid:" + std::to_string(::getpid()) + " ", 0), 0u);
   EXPECT_NE(traced[0].find(" null shmemPtr."), std::string::npos);
}

TEST(ShmemMan, ManyCellsFitAndEveryProcessFindsTheSameOnes) {
   Managers m("test/many");
   constexpr uint32_t cells = 150000;  // three segments
   Mavo::ShmemMan w(m.path, true);
   std::set<uint64_t> addrs;
   for (uint32_t i = 0; i < cells; ++i) {
      uint64_t a = w.counterAddr("Ethernet" + std::to_string(i) + "-q", 208, false);
      ASSERT_NE(a, 0u);
      addrs.insert(a);
      __atomic_store_n(reinterpret_cast<uint64_t *>(uintptr_t(a) + 8), uint64_t(i) + 1, __ATOMIC_RELAXED);
   }
   EXPECT_EQ(addrs.size(), cells);
   w.shmemGenIdIs("Ethernet7-q", 208, 42);
   pid_t pid = IntfTest::forkChild();
   if (pid == 0) {
      Mavo::ShmemMan r(m.path, false);
      for (uint32_t i = 0; i < cells; ++i) {
         uint64_t a = r.counterAddr("Ethernet" + std::to_string(i) + "-q", 208, true);
         if (!a || *reinterpret_cast<uint64_t *>(uintptr_t(a) + 8) != uint64_t(i) + 1) ::_exit(1);
      }
      uint64_t seven = r.counterAddr("Ethernet7-q", 208, true);
      if (*reinterpret_cast<uint32_t *>(uintptr_t(seven)) != 42) ::_exit(2);
      if (r.counterAddr("Ethernet7-q", 200, true) != 0) ::_exit(3);    // another size
      // A reader never creates, not even asked as a writer would.
      if (r.counterAddr("NoSuchKey", 208, true) || r.counterAddr("NoSuchKey", 208, false)) ::_exit(4);
      // A segment cut short is not read past its end: a new reader finds no cell in it.
      if (::truncate(("/dev/shm" + Smash::objectName(m.path, "seg0")).c_str(), 4096) != 0) ::_exit(5);
      ::_exit(Mavo::ShmemMan(m.path, false).counterAddr("Ethernet1-q", 208, true) ? 6 : 0);
   }
   EXPECT_EQ(IntfTest::exitCode(pid), 0);
   // A key of the longest length gets a cell; one byte more gets none.
   for (size_t n : {48, 49}) EXPECT_EQ(w.counterAddr(Kel::String8(std::string(n, 'k')), 208, false) != 0, n == 48) << n;
   // Removing the manager leaves none of its objects: index and segments.
   auto objects = [&] {
      std::string head = Smash::objectName(m.path, "").substr(1);
      head.pop_back();  // the separator of a part's name
      int n = 0;
      for (auto const & e : std::filesystem::directory_iterator("/dev/shm")) {
         n += e.path().filename().string().rfind(head, 0) == 0;
      }
      return n;
   };
   EXPECT_GE(objects(), 5);
   Mavo::ShmemMan::remove(m.path);
   EXPECT_EQ(objects(), 0);
}
