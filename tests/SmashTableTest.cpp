// The shared-memory table engine with real processes: writers rewriting,
// stopped and killed at full speed while readers find and scan and a
// shadow's consumer follows every change; objects that cannot be trusted;
// writers that fail; tables removed and made again; names.
#include "ChildProcess.h"
#include "Pipe.h"
#include "ShmTestPrefix.h"

#include <Mavo/ShmemMan.h>
#include <Smash/TableColl.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <thread>

namespace {

using namespace IntfTest;

// A row whose fields must agree with each other: a torn copy shows.
struct Row {
   uint64_t key;
   uint64_t value;
   uint64_t check;  // ~value ^ key
   uint64_t pad[5];
};
Row row(uint64_t key, uint64_t value) { return Row{key, value, ~value ^ key, {}}; }
bool whole(Row const & r, uint64_t key) { return r.key == key && r.check == (~r.value ^ key); }

constexpr char const * rowType = "Test::Row";
using W = Smash::Writer<uint64_t, Row>;
using R = Smash::Reader<uint64_t, Row>;
using S = Smash::Shadow<uint64_t, Row>;

using Clock = std::chrono::steady_clock;

// An object of a table mapped read-write, as another process could.
uint8_t * mapped(std::string const & path, std::string const & part, size_t bytes) {
   int fd = ::open(("/dev/shm" + Smash::objectName(path, part)).c_str(), O_RDWR);
   void * p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   ::close(fd);
   return static_cast<uint8_t *>(p);
}

// A writer process that keeps rewriting rows 0..stable-1 and adds and
// removes rows stable..2*stable-1 (so that slots are re-assigned and the
// table grows and sheds tombstones), until killed. It takes over whatever
// table is there, and says when the stable rows exist.
pid_t churningWriter(std::string const & path, uint64_t stable, uint64_t seed, Pipe const & ready) {
   pid_t pid = spawn([=, &ready] {
      W w(path, rowType, 64, 1024);
      for (uint64_t k = 0; k < stable; ++k) w.put(row(k, k));
      ready.send("ready");
      std::mt19937_64 rng(seed);
      for (uint64_t i = stable;; ++i) {
         w.put(row(i % stable, i));
         w.put(row(stable + rng() % stable, i));
         w.remove(stable + rng() % stable);
      }
      return 0;
   });
   EXPECT_EQ(ready.receive(), "ready");
   return pid;
}

} // namespace

// Rows 0..1999 exist throughout: every look-up finds each whole, every scan
// visits each (or names it), while writers rewrite them flat out, are
// stopped anywhere and killed anywhere, and the next writer takes over. One
// reader looks up through the collection counter adapters use, with a hint
// per row as they keep.
TEST(SmashTable, ReadersFindAndScanEveryExistingRowWhileWritersRewriteStopAndDie) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/rows");
   constexpr uint64_t stable = 2000;
   struct Counts {
      std::atomic<bool> done;
      struct {
         uint64_t finds, missed, torn, scans, unlisted;
      } r[2];
   };
   Shared<Counts> counts;
   Pipe ready;
   pid_t writer = churningWriter(path, stable, 1, ready);
   std::vector<pid_t> readers;
   for (int r = 0; r < 2; ++r) {
      readers.push_back(spawn([&, r] {
         R reader(path, rowType);
         Smash::TableColl<uint64_t, Row> coll;
         coll.open(Smash::Role::reader, path, rowType);
         std::vector<Smash::FindHint> hints(stable);
         auto & c = counts->r[r];
         while (!counts->done) {
            for (uint64_t k = 0; k < stable; ++k, ++c.finds) {
               Row got;
               auto f = r == 0 ? coll.find(k, &got, &hints[k]) : reader.find(k, &got);
               c.missed += f != Smash::Found::row;
               c.torn += f == Smash::Found::row && !whole(got, k);
            }
            if (r == 0) continue;
            std::vector<bool> seen(stable);
            auto unreadable = reader.forEach([&](Row const & got) {
               c.torn += !whole(got, got.key);
               if (got.key < stable) seen[got.key] = true;
            });
            // A row it could not read is no row left out, but no healthy
            // writer makes one.
            c.unlisted += std::count(seen.begin(), seen.end(), false) + unreadable.size();
            ++c.scans;
         }
         return 0;
      }));
   }
   // Stop the writer (anywhere in a row) or kill it and start the next,
   // every few milliseconds for five seconds.
   std::mt19937 rng(7);
   int stops = 0, kills = 0;
   for (auto end = Clock::now() + std::chrono::seconds(5); Clock::now() < end;) {
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
      bool kill = rng() % 2;
      ::kill(writer, kill ? SIGKILL : SIGSTOP);
      if (kill) ::waitpid(writer, nullptr, 0);
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));  // readers read meanwhile
      if (kill) {
         writer = churningWriter(path, stable, rng(), ready);
         ++kills;
      } else {
         ::kill(writer, SIGCONT);
         ++stops;
      }
   }
   counts->done = true;
   for (pid_t p : readers) EXPECT_EQ(exitCode(p), 0);
   stop(writer);
   for (auto const & c : counts->r) {
      SCOPED_TRACE(std::to_string(c.finds) + " finds, " + std::to_string(c.scans) + " scans, " + std::to_string(stops) +
                   " stops, " + std::to_string(kills) + " kills");
      EXPECT_GT(c.finds, stable);
      EXPECT_EQ(c.missed, 0u) << "existing rows answered absent or unavailable";
      EXPECT_EQ(c.torn, 0u);
      EXPECT_EQ(c.unlisted, 0u) << "rows a scan left out or could not read";
   }
   EXPECT_GT(counts->r[1].scans, 0u);
}

namespace {

// A shadow's consumer: applies every reported key by looking it up (through
// `look`) and keeping what it finds in `mine` (value by key, 0: absent).
void follow(S & s, uint64_t * mine, std::function<Smash::Found(uint64_t, Row *)> look,
            std::function<void()> meanwhile = [] {}) {
   s.poll([&](uint64_t const & k) {
      meanwhile();
      Row got;
      mine[k] = look(k, &got) == Smash::Found::row ? got.value : 0;
   });
}

// The slots of a table another writer left (rows 0..99 of 64 bytes, value
// key + 1, at 192 + 152 i: head word, value word, key, two copies), changed
// in place as a writer stopped or killed in the middle leaves them.
struct LeftTable {
   explicit LeftTable(std::string const & path) {
      W w(path, rowType, 256);
      for (uint64_t k = 0; k < 100; ++k) w.put(row(k, k + 1));
      base = mapped(path, "g1", bytes);
   }
   ~LeftTable() { ::munmap(base, bytes); }
   uint64_t * slot(uint64_t i) { return reinterpret_cast<uint64_t *>(base + 192 + 152 * i); }
   uint64_t & head(uint64_t i) { return slot(i)[0]; }
   uint64_t slotOf(uint64_t k) {
      for (uint64_t i = 0;; ++i) {
         if ((head(i) & 3) == 1 && slot(i)[2] == k) return i;
      }
   }
   static constexpr size_t bytes = 192 + 152 * 256;
   uint8_t * base;
};

} // namespace

// A slot caught in the middle of being (re)assigned hides no other row and
// ends no probe; a row whose value was being replaced reads whole; the
// next writer drops the row in flight and shadows hear of it.
TEST(SmashTable, ASlotLeftMidChangeHidesNoOtherRowAndTheNextWriterDropsIt) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/left");
   LeftTable t(path);
   R r(path, rowType);
   S s(path, rowType);
   uint64_t held[100] = {};
   auto look = [&](uint64_t k, Row * got) { return s.find(k, got); };
   follow(s, held, look);
   EXPECT_EQ(std::count(held, held + 100, 0), 0);
   Row got;
   // Every other slot in flight, for each row in turn.
   for (uint64_t k = 0; k < 100; ++k) {
      uint64_t mine = t.slotOf(k);
      for (uint64_t i = 0; i < 256; ++i) t.head(i) |= i == mine ? 0 : 4;
      EXPECT_EQ(r.find(k, &got), Smash::Found::row) << k;
      EXPECT_TRUE(whole(got, k)) << k;
      EXPECT_EQ(r.find(1000, &got), Smash::Found::none);
      for (uint64_t i = 0; i < 256; ++i) t.head(i) &= ~uint64_t(4);
   }
   // Row 7 was being removed; row 8's next value was half written.
   uint64_t seven = t.slotOf(7), eight = t.slotOf(8);
   t.head(seven) |= 4;
   t.slot(eight)[1] |= 1;
   std::memset(t.slot(eight) + 3 + 8 * (1 - ((t.slot(eight)[1] >> 1) & 1)), 0x77, 64);
   EXPECT_EQ(r.find(7, &got), Smash::Found::none);
   ASSERT_EQ(r.find(8, &got), Smash::Found::row);
   EXPECT_TRUE(whole(got, 8));
   EXPECT_EQ(got.value, 9u);
   W next(path, rowType);
   EXPECT_EQ(next.engine().repaired(), 1u);
   EXPECT_EQ(next.size(), 99u);
   follow(s, held, look);
   EXPECT_EQ(std::count(held, held + 100, 0), 1);
   EXPECT_EQ(held[7], 0u);
   ASSERT_EQ(r.find(8, &got), Smash::Found::row);
   EXPECT_EQ(got.value, 9u);
}

// A consumer that applies every reported key holds exactly the table after
// a poll, though the ring (64 entries) overflows again and again and writers
// die at any point, with changes they made but never announced, and the
// next writer takes over.
TEST(SmashTable, AShadowsConsumerEndsWithExactlyTheTableThroughOverflowsAndCrashes) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/shadow");
   constexpr uint64_t keys = 3000;
   {
      // Row 1 is re-added between the shadow's scan and the consumer's
      // look-up, then removed again while the ring overflows: its removal is
      // still told, to a consumer looking up through the shadow and to one
      // using a reader of its own; so is row 7's, added and told through the
      // ring. Row 5, looked up through the shadow before the first poll and
      // removed, is told too.
      W w(path, rowType, 64, 64);
      for (bool viaShadow : {true, false}) {
         SCOPED_TRACE(viaShadow ? "through the shadow" : "through a reader");
         w.put(row(1, 1));
         w.put(row(5, 5));
         S s(path, rowType);
         R other(path, rowType);
         uint64_t mine[101] = {};
         auto look = [&](uint64_t k, Row * r) { return viaShadow ? s.find(k, r) : other.find(k, r); };
         auto overflow = [&] {
            for (uint64_t i = 1; i <= 100; ++i) w.put(row(100, i));
         };
         Row got;
         if (viaShadow) mine[5] = look(5, &got) == Smash::Found::row;
         w.remove(5);
         follow(s, mine, look);
         w.put(row(7, 7));
         follow(s, mine, look);
         w.put(row(7, 8));  // a new value of a row is told as well
         follow(s, mine, look);
         EXPECT_EQ(mine[7], 8u);
         w.remove(1);
         w.remove(7);
         overflow();
         follow(s, mine, look, [&] { w.put(row(1, 2)); });
         EXPECT_EQ(mine[1], 2u);
         w.remove(1);
         overflow();
         follow(s, mine, look);
         EXPECT_EQ(std::count(mine, mine + 101, 0), 100) << mine[1] << mine[5] << mine[7];
      }
   }
   // Writers add, replace and remove rows flat out, announcing in rounds
   // of 50 as a collection's commit does, and are killed anywhere.
   auto churn = [&](W & w, std::mt19937_64 & rng, uint64_t n) {
      std::vector<uint64_t> changed;
      for (uint64_t i = 0; i < n; ++i) {
         uint64_t k = rng() % keys;
         Row v = row(k, rng() | 1);
         if (rng() % 3) {
            w.engine().put(&k, &v, false);
         } else {
            w.engine().remove(&k, false);
         }
         changed.push_back(k);
         if (changed.size() == 50) {
            for (uint64_t c : changed) w.engine().announce(&c);
            changed.clear();
         }
      }
   };
   struct Consumer {
      std::atomic<bool> done;
      uint64_t resyncs, mine[keys];
   };
   Shared<Consumer> c;
   pid_t shadow = spawn([&] {
      S s(path, rowType);
      auto look = [&](uint64_t k, Row * r) { return s.find(k, r); };
      while (!c->done) follow(s, c->mine, look);
      follow(s, c->mine, look);  // one poll after the last change
      c->resyncs = s.resyncs();
      return 0;
   });
   std::mt19937 rng(3);
   int kills = 0;
   for (auto end = Clock::now() + std::chrono::seconds(5); Clock::now() < end; ++kills) {
      uint64_t seed = rng();
      pid_t writer = spawn([&] {
         W w(path, rowType, 64, 64);
         std::mt19937_64 r(seed);
         for (;;) churn(w, r, 1000);
         return 0;
      });
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
      stop(writer);
   }
   // The last writer takes over, changes some more, and stays.
   W last(path, rowType, 64, 64);
   std::mt19937_64 r(11);
   churn(last, r, 1000);
   c->done = true;
   EXPECT_EQ(exitCode(shadow), 0);
   int wrong = 0;
   for (uint64_t k = 0; k < keys; ++k) {
      Row got;
      wrong += (last.find(k, &got) == Smash::Found::row ? got.value : 0) != c->mine[k];
   }
   EXPECT_EQ(wrong, 0) << kills << " writers killed, " << c->resyncs << " resyncs";
   EXPECT_GT(c->resyncs, 2u);
}

// A header that another process changes while a reader checks it: each
// field is read once, so the reader either refuses the table or uses sizes
// that fit its mapping, and never faults.
TEST(SmashTable, AHeaderChangedWhileItIsCheckedIsReadOnce) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/header");
   W w(path, rowType, 16, 16);
   for (uint64_t k = 0; k < 5; ++k) w.put(row(k, k));
   pid_t child = spawn([&] {
      auto * h = reinterpret_cast<uint32_t *>(mapped(path, "g" + std::to_string(w.engine().generation()), 4096));
      std::atomic<bool> over{false};
      std::thread flip([&] {
         // The capacity (header bytes 88 to 91) between its own value and
         // one far past the object's end.
         for (uint32_t i = 0; !over; ++i) __atomic_store_n(&h[22], i % 2 ? 16u : 1u << 20, __ATOMIC_RELAXED);
      });
      for (int i = 0; i < 20000; ++i) {
         S s(path, rowType);
         s.poll([&](uint64_t const & k) {
            Row got;
            s.find(k, &got);
         });
         s.engine().forEach([](void const *, void const *) {});
      }
      over = true;
      flip.join();
      return 0;
   });
   EXPECT_EQ(exitCode(child), 0);
}

namespace {

// Runs `body` in a child that gets ten seconds (a hang fails), as `uid`
// when given; the child's exit code, or 100 + its signal.
int inChild(std::function<int()> body, uid_t uid = uid_t(-1)) {
   return exitCode(spawn([&] {
      ::alarm(10);
      if (uid != uid_t(-1) && (::setgroups(0, nullptr) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0)) return 90;
      return body();
   }));
}

// What `f` throws, "" when it does not.
std::string errorOf(std::function<void()> f) {
   try {
      f();
   } catch (Smash::Error const & e) {
      return e.what();
   }
   return "";
}
std::string writerError(std::string const & path, Smash::TableShape const & shape = {rowType, 8, sizeof(Row)}) {
   return errorOf([&] { Smash::TableWriter(path, shape); });
}

} // namespace

// What /dev/shm lets any local user put at a table's names (FIFOs, links,
// objects others may write, objects of another user) and tables that do
// not match: each is refused with its reason, at once, and left where it
// is; a reader trusts the owner it is told to.
TEST(SmashTable, ObjectsThatCannotBeTrustedOrDoNotMatchAreRefusedWithTheReason) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/trust");
   std::string ctl = Smash::objectName(path, "ctl"), file = "/dev/shm" + ctl, is = "table test/trust: " + ctl + ": ";
   auto table = [&](mode_t mode) {
      { W w(path, rowType); }
      ::chmod(file.c_str(), mode);
   };
   struct Case {
      char const * what;
      std::function<void()> make;
      std::string reader, writer;  // their errors, "" when they accept
   };
   std::vector<Case> cases = {
       {"nothing", [] {}, is + "No such file or directory", ""},
       {"a FIFO", [&] { ::mkfifo(file.c_str(), 0666); }, is + "not a regular file", is + "not a regular file"},
       {"a link", [&] { (void)!::symlink("/etc/passwd", file.c_str()); }, is + "a symbolic link", is + "a symbolic link"},
       {"a table others may write", [&] { table(0666); }, is + "writable by others (mode 0666)",
        is + "writable by group or others (mode 0666)"},
       {"a table its group may write", [&] { table(0664); }, "", is + "writable by group or others (mode 0664)"},
       {"a table of another row type", [&] { Smash::Writer<uint64_t, uint64_t>(path, "Test::Other"); },
        "table test/trust holds Test::Other, not Test::Row (8+64 bytes)",
        "table test/trust holds Test::Other, not Test::Row (8+64 bytes)"},
       {"a control object of another format",
        [&] {
           table(0644);
           mapped(path, "ctl", 96)[8] = 2;  // the version
        },
        "table test/trust: control object of another format", "table test/trust: control object of another format"},
       {"an empty control object (its writer died making it): a writer starts afresh",
        [&] {
           table(0644);
           (void)!::truncate(file.c_str(), 0);
        },
        "table test/trust: control object too small", ""},
       {"a control object naming no generation (its writer died before making one)",
        [&] {
           table(0644);
           reinterpret_cast<uint32_t *>(mapped(path, "ctl", 96))[5] = 0;
        },
        "table test/trust has no generation yet", ""},
       {"a generation whose header lies about its capacity (a writer starts afresh)",
        [&] {
           table(0644);
           uint8_t * h = mapped(path, "g1", 4096);
           h[88] = 3;  // the capacity
           ::munmap(h, 4096);
        },
        "table test/trust: bad capacity", ""},
   };
   if (::geteuid() != 0) {
      std::printf("[ SKIPPED  ] the objects of another user: the test is not running as root\n");
   } else {
      cases.push_back({"another user's table", [&] { inChild([&] { return W(path, rowType).size(); }, 65534); },
                       is + "owned by user 65534, not by the trusted user 0",
                       is + "owned by user 65534, not by this writer's user 0"});
   }
   for (auto const & c : cases) {
      SCOPED_TRACE(c.what);
      Smash::removeTable(path);
      c.make();
      // In a child: one that hangs fails.
      EXPECT_EQ(inChild([&] {
                   R r(path, rowType);
                   Row got;
                   if (!r.valid() && r.find(1, &got) != Smash::Found::none) return 2;
                   std::string err = writerError(path);
                   if (r.valid() == c.reader.empty() && (r.valid() || r.error() == c.reader) && err == c.writer) return 0;
                   std::printf("reader: %s\nwriter: %s\n", r.error().c_str(), err.c_str());
                   std::fflush(stdout);
                   return 1;
                }),
                0);
      struct stat st;
      EXPECT_EQ(::lstat(file.c_str(), &st), 0) << "the object was left where it was (or made)";
   }
   if (::geteuid() != 0) return;
   // A reader told to trust that user reads its table.
   inChild([&] { return W(path, rowType).put(row(1, 666)), 0; }, 65534);
   Smash::shmOwnerIs(65534);
   R trusting(path, rowType);
   Smash::shmOwnerIs(0);
   Row got;
   EXPECT_EQ(trusting.find(1, &got), Smash::Found::row) << trusting.error();
   // Cells: a segment another user made first is not adopted.
   std::string cells = "test/trust-cells";
   inChild([&] {
      int fd = ::open(("/dev/shm" + Smash::objectName(cells, "seg0")).c_str(), O_CREAT | O_RDWR, 0666);
      return ::fchmod(fd, 0666) + ::ftruncate(fd, 65536 * 208);
   }, 65534);
   EXPECT_EQ(Mavo::ShmemMan(cells, true).counterAddr("Ethernet1-q", 208, false), 0u);
   Mavo::ShmemMan::remove(cells);
}

// A writer that fails gives back its lock and leaves no object it made;
// bounds end with a result or an error.
TEST(SmashTable, AFailedWriterGivesBackEverythingAndBoundsEnd) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/fail");
   std::string ctl = "/dev/shm" + Smash::objectName(path, "ctl"), g1 = "/dev/shm" + Smash::objectName(path, "g1");
   struct stat st;
   // Its first generation cannot be made: nothing stays, and the next writer can start.
   ASSERT_EQ(::mkdir(g1.c_str(), 0700), 0);
   EXPECT_EQ(writerError(path), "table test/fail: cannot create " + Smash::objectName(path, "g1") + ": File exists");
   EXPECT_NE(::stat(ctl.c_str(), &st), 0) << "a control object naming no generation was left";
   ::rmdir(g1.c_str());
   // Sizes no table can have are refused before anything is made.
   struct Bad {
      Smash::TableShape shape;
      uint32_t ring, max;
      std::string error;
   } const bad[] = {
      {{rowType, 0, 8}, 16, 16, "row of Test::Row (0+8 bytes) not supported"},
      {{rowType, 8, 65529}, 16, 16, "row of Test::Row (8+65529 bytes) not supported"},
      {{rowType, 8, 8}, 24, 16, "ring capacity must be a power of two up to 16777216"},
      {{rowType, 8, 8}, 1u << 25, 16, "ring capacity must be a power of two up to 16777216"},
      {{rowType, 8, 8}, 16, 8, "maximum capacity must be a power of two from 16 to 268435456"},
      {{rowType, 8, 8}, 16, 24, "maximum capacity must be a power of two from 16 to 268435456"},
      {{rowType, 8, 8}, 16, 1u << 29, "maximum capacity must be a power of two from 16 to 268435456"},
   };
   for (auto const & b : bad) {
      EXPECT_EQ(errorOf([&] { Smash::TableWriter(path, b.shape, 16, b.ring, b.max); }), b.error);
   }
   EXPECT_NE(::stat(ctl.c_str(), &st), 0);
   { W w(path, rowType); }
   // A writer of another shape is refused, and gives the lock back.
   EXPECT_EQ(writerError(path, {"Test::Other", 8, 8}), "table test/fail holds Test::Row, not Test::Other (8+8 bytes)");
   EXPECT_EQ(writerError(path), "");
   W w(path, rowType, 16, 16, 16);
   EXPECT_EQ(writerError(path), "table test/fail already has a writer");
   // A table grows to keep its rows at most a quarter of its slots.
   W grows(shm.table("test/grow"), rowType, 16);
   for (uint64_t k = 0; k < 9; ++k) grows.put(row(k, k));
   EXPECT_EQ(grows.engine().capacity(), 64u);
   // A table of at most 16 slots holds 8 rows.
   for (uint64_t k = 0; k < 8; ++k) w.put(row(k, k));
   EXPECT_EQ(errorOf([&] { w.put(row(8, 8)); }), "table test/fail is full: 8 rows, at most 8");
   EXPECT_EQ(w.size(), 8u);
   // After the last generation number comes 1; a writer taking over 120
   // rows sizes its table for them.
   std::string wrap = shm.table("test/wrap");
   {
      W first(wrap, rowType);
      for (uint64_t k = 0; k < 120; ++k) first.put(row(k, k));
   }
   reinterpret_cast<uint32_t *>(mapped(wrap, "g1", 4096))[24] = 0xffffffff;  // the header's generation
   reinterpret_cast<uint32_t *>(mapped(wrap, "ctl", 96))[5] = 0xffffffff;
   ::rename(("/dev/shm" + Smash::objectName(wrap, "g1")).c_str(),
            ("/dev/shm" + Smash::objectName(wrap, "g4294967295")).c_str());
   // One whose bound is below the rows it would take over is refused.
   EXPECT_EQ(errorOf([&] { W(wrap, rowType, 16, 16, 128); }), "table test/wrap is full: 120 rows, at most 64");
   {
      W next(wrap, rowType, 16);
      EXPECT_EQ(next.engine().generation(), 1u);
      EXPECT_EQ(next.engine().capacity(), 512u);
      Row got;
      EXPECT_EQ(R(wrap, rowType).find(7, &got), Smash::Found::row);
   }
   // Removing a table whose control names the last generation numbers ends.
   uint8_t * c = mapped(path, "ctl", 96);
   reinterpret_cast<uint32_t *>(c)[5] = 0xfffffffe;  // the generation
   ::munmap(c, 96);
   EXPECT_EQ(inChild([&] {
                Smash::removeTable(path);
                return 0;
             }),
             0);
   EXPECT_NE(::stat(ctl.c_str(), &st), 0);
}

// A reader attached to a table that is removed (or whose objects are
// deleted by hand) follows the table made again at the same path.
TEST(SmashTable, AReaderFollowsATableRemovedAndMadeAgain) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/again");
   auto w = std::make_unique<W>(path, rowType);
   w->put(row(1, 100));
   R r(path, rowType);
   Smash::FindHint hint;
   Row got;
   auto value = [&](uint64_t k) { return r.find(k, &got, &hint) == Smash::Found::row ? got.value : 0; };
   EXPECT_EQ(value(1), 100u);
   w->put(row(2, 300));
   EXPECT_EQ(value(2), 300u) << "the hint of another key's look-up was used";
   // Refreshed while its table is still there, a reader keeps its mapping
   // and the hints into it.
   EXPECT_TRUE(r.engine().refresh());
   EXPECT_TRUE(hint.keep->current);
   // In a process started without stdin, the reader's first object is
   // opened on descriptor 0, which is a descriptor like any other.
   EXPECT_EQ(exitCode(spawn([&] {
                ::close(0);
                R fresh(path, rowType);
                Row r0;
                return fresh.find(1, &r0) == Smash::Found::row && r0.value == 100 ? 0 : 1;
             })),
             0);
   // So is a writer's, which gives its lock back when it goes.
   std::string second = shm.table("test/again-fd0");
   EXPECT_EQ(exitCode(spawn([&] {
                ::close(0);
                { W first(second, rowType); }
                return writerError(second).empty() ? 0 : 1;
             })),
             0);
   for (bool byHand : {false, true}) {
      SCOPED_TRACE(byHand ? "deleted by hand" : "removed");
      w.reset();
      if (byHand) {
         Smash::removeObjectsOf(path);
      } else {
         Smash::removeTable(path);
         EXPECT_EQ(value(1), 0u);
      }
      w = std::make_unique<W>(path, rowType);
      w->put(row(1, 200));
      if (byHand) {
         EXPECT_TRUE(r.engine().refresh());
      }
      EXPECT_EQ(value(1), 200u);
      w->put(row(1, 201));
      EXPECT_EQ(value(1), 201u);
   }
}

TEST(SmashTable, EachPathHasObjectsOfItsOwnOrNone) {
   ShmTestPrefix shm;
   // Paths that a name mapping could merge.
   std::vector<std::string> paths = {"x/Ethernet1/1", "x/Ethernet1.1", "x/Ethernet1%2E1", "x.Ethernet1.1",
                                     std::string("x/a\0b", 5), "x/a"};
   std::set<std::string> names;
   for (auto const & p : paths) names.insert(Smash::objectName(p, "ctl"));
   EXPECT_EQ(names.size(), paths.size());
   // Names an operator can read: '/' becomes '.', and '.', '%' and control
   // characters their hexadecimal code; a path from '/' carries its own prefix.
   std::string prefix = Smash::shmPrefix();
   for (auto [path, name] : {std::pair<std::string, std::string>{"x/Ethernet1.1", prefix + "x.Ethernet1%2E1.ctl"},
                             {"x/50%", prefix + "x.50%25.ctl"},
                             {std::string("x/a\0b\x7f", 6), prefix + "x.a%00b%7F.ctl"},
                             {"/other-x/y", "/other-x.y.ctl"}}) {
      EXPECT_EQ(Smash::objectName(path, "ctl"), name);
   }
   // A name too long is refused, not shortened.
   std::string longPath(300, 'p');
   EXPECT_EQ(writerError(longPath), "shared-memory name for " + longPath + " is " +
                                        std::to_string(Smash::objectName("", "ctl").size() + 299) +
                                        " bytes long; at most 255 fit");
   R tooLong(longPath, rowType);
   EXPECT_FALSE(tooLong.valid());
   Row got;
   EXPECT_EQ(tooLong.find(1, &got), Smash::Found::none);
}

TEST(SmashTable, RowsOfEverySizeComeBackExactlyAndKeysDifferingInOneByteStayApart) {
   // Key sizes with a fast comparison (4, 8) and without (3, 12); rows small
   // enough to be read through the stack and larger than that.
   struct Case {
      uint32_t keyBytes, valueBytes;
   };
   for (Case c : {Case{4, 152}, Case{8, 16}, Case{3, 5}, Case{12, 40}, Case{8, 1000}}) {
      SCOPED_TRACE("key " + std::to_string(c.keyBytes) + ", value " + std::to_string(c.valueBytes));
      ShmTestPrefix shm;
      std::string path = shm.table("test/sizes");
      Smash::TableShape shape{"Test::Sized", c.keyBytes, c.valueBytes};
      Smash::TableWriter w(path, shape, 64);
      Smash::TableReader r(path, shape);
      auto key = [&](uint8_t last) {
         std::vector<uint8_t> k(c.keyBytes, 0x5a);
         k.back() = last;
         return k;
      };
      auto value = [&](uint8_t seed) {
         std::vector<uint8_t> v(c.valueBytes);
         for (size_t i = 0; i < v.size(); ++i) v[i] = uint8_t(seed * 31 + i);
         return v;
      };
      for (uint8_t i = 0; i < 40; ++i) w.put(key(i).data(), value(i).data());
      ASSERT_TRUE(r.valid()) << r.error();
      for (uint8_t i = 0; i < 40; ++i) {
         std::vector<uint8_t> got(c.valueBytes, 0xee);
         ASSERT_EQ(r.find(key(i).data(), got.data()), Smash::Found::row) << int(i);
         EXPECT_EQ(got, value(i)) << int(i);
      }
      std::vector<uint8_t> untouched(c.valueBytes, 0xee), got = untouched;
      EXPECT_EQ(r.find(key(200).data(), got.data()), Smash::Found::none);
      EXPECT_EQ(got, untouched);
   }
}
