// The shared-memory table engine with real processes: one writer changing
// and growing a table while readers copy rows and a shadow follows every
// change; a writer killed mid-row; tables that do not match.
#include "ShmTestPrefix.h"

#include <Smash/Table.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>

namespace {

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

int readInt(int fd) {
   int v = -1;
   return ::read(fd, &v, sizeof v) == sizeof v ? v : -1;
}
void writeInt(int fd, int v) { (void)!::write(fd, &v, sizeof v); }

pid_t spawn(std::function<int()> body) {
   pid_t pid = ::fork();
   if (pid == 0) ::_exit(body());
   return pid;
}
int exitCode(pid_t pid) {
   int st = 0;
   ::waitpid(pid, &st, 0);
   return WIFEXITED(st) ? WEXITSTATUS(st) : 100 + WTERMSIG(st);
}

} // namespace

TEST(SmashTable, ReadersSeeWholeRowsAndTheShadowEveryChangeWhileTheWriterGrowsTheTable) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/table");
   constexpr uint64_t keys = 100000;
   int done[2];
   ASSERT_EQ(::pipe(done), 0);
   W writer(path, rowType, 1024, 1 << 16);  // small: it grows while readers run

   // Readers: copy random rows until the writer is done; any torn row fails.
   std::vector<pid_t> readers;
   for (int r = 0; r < 2; ++r) {
      readers.push_back(spawn([&, r] {
         R reader(path, rowType);
         if (!reader.valid()) return 2;
         std::mt19937_64 rng(r);
         uint64_t copied = 0;
         int flags = ::fcntl(done[0], F_GETFL);
         ::fcntl(done[0], F_SETFL, flags | O_NONBLOCK);
         char c;
         while (::read(done[0], &c, 1) != 1) {
            for (int i = 0; i < 1000; ++i) {
               uint64_t k = rng() % keys;
               Row got;
               if (reader.find(k, &got) == Smash::Found::row) {
                  if (!whole(got, k)) return 3;
                  ++copied;
               }
            }
         }
         return copied > 0 ? 0 : 4;
      }));
   }
   // The shadow: keeps its own copy from change reports only.
   int report[2];
   ASSERT_EQ(::pipe(report), 0);
   pid_t shadow = spawn([&] {
      S s(path, rowType);
      if (!s.valid()) return 2;
      std::map<uint64_t, uint64_t> mine;
      auto follow = [&] {
         s.poll([&](uint64_t const & k) {
            Row got;
            if (s.find(k, &got) == Smash::Found::row) {
               mine[k] = got.value;
            } else {
               mine.erase(k);
            }
         });
      };
      int flags = ::fcntl(done[0], F_GETFL);
      ::fcntl(done[0], F_SETFL, flags | O_NONBLOCK);
      char c;
      while (::read(done[0], &c, 1) != 1) follow();
      follow();
      uint64_t sum = 0;
      for (auto const & [k, v] : mine) sum += k * 31 + v;
      writeInt(report[1], int(mine.size()));
      writeInt(report[1], int(sum % 1000000007));
      writeInt(report[1], int(s.resyncs()));
      return 0;
   });

   for (uint64_t k = 0; k < keys; ++k) writer.put(row(k, k));
   for (uint64_t k = 0; k < keys; k += 3) writer.put(row(k, k * 7));
   for (uint64_t k = 1; k < keys; k += 5) writer.remove(k);
   EXPECT_GT(writer.engine().generation(), 1u);
   // Done: one byte per waiting process.
   usleep(100000);
   (void)!::write(done[1], "xxx", 3);
   ::close(report[1]);  // a shadow that died says nothing, and the reads below end
   report[1] = -1;
   for (pid_t p : readers) EXPECT_EQ(exitCode(p), 0);
   EXPECT_EQ(exitCode(shadow), 0);
   int size = readInt(report[0]), sum = readInt(report[0]), resyncs = readInt(report[0]);
   uint64_t expect = 0;
   int expectSize = 0;
   writer.engine().forEach([&](void const * k, void const * v) {
      Row r;
      std::memcpy(&r, v, sizeof r);
      expect += *static_cast<uint64_t const *>(k) * 31 + r.value;
      ++expectSize;
   });
   EXPECT_EQ(size, expectSize);
   EXPECT_EQ(sum, int(expect % 1000000007));
   EXPECT_GE(resyncs, 1);  // at least its start, and each generation switch
   for (int f : {done[0], done[1], report[0]}) ::close(f);
}

TEST(SmashTable, AWriterKilledMidRowLeavesTheOtherRowsAndIsRepairedByTheNext) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/crash");
   int ready[2];
   ASSERT_EQ(::pipe(ready), 0);
   pid_t writer = spawn([&]() -> int {
      W w(path, rowType, 4096);
      for (uint64_t k = 0; k < 1000; ++k) w.put(row(k, k));
      writeInt(ready[1], 1);
      for (uint64_t i = 0;; ++i) w.put(row(i % 1000, i));  // until killed
   });
   ASSERT_EQ(readInt(ready[0]), 1);
   usleep(20000);
   ::kill(writer, SIGKILL);
   EXPECT_EQ(exitCode(writer), 100 + SIGKILL);

   // Make one row look half-written, as a kill inside its write leaves it.
   std::string gen = Smash::objectName(path, "g" + std::to_string(R(path, rowType).engine().generation()));
   int fd = ::shm_open(gen.c_str(), O_RDWR, 0);
   ASSERT_GE(fd, 0);
   struct stat st;
   ::fstat(fd, &st);
   auto * base = static_cast<uint8_t *>(::mmap(nullptr, st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
   ::close(fd);
   R reader(path, rowType);
   uint64_t victim = UINT64_MAX;
   // The slots start at 192; each is 8 + 8 + 64 bytes.
   for (uint64_t i = 0; victim == UINT64_MAX; ++i) {
      uint8_t * slot = base + 192 + i * 80;
      uint32_t state;
      std::memcpy(&state, slot + 4, 4);
      if (state == 1) {
         std::memcpy(&victim, slot + 8, 8);
         __atomic_fetch_or(reinterpret_cast<uint32_t *>(slot), 1u, __ATOMIC_SEQ_CST);
      }
   }
   int unavailable = 0, rows = 0;
   for (uint64_t k = 0; k < 1000; ++k) {
      Row got;
      auto f = reader.find(k, &got);
      if (f == Smash::Found::unavailable) ++unavailable;
      if (f == Smash::Found::row && whole(got, k)) ++rows;
   }
   // Our victim, and sometimes the row the kill really interrupted.
   EXPECT_GE(unavailable, 1);
   EXPECT_LE(unavailable, 2);
   EXPECT_EQ(rows, 1000 - unavailable);
   Row got;
   EXPECT_EQ(reader.find(victim, &got), Smash::Found::unavailable);

   // A new writer attaches: the row in flight is gone, every other row stays.
   W again(path, rowType);
   EXPECT_EQ(again.engine().repaired(), uint32_t(unavailable));
   EXPECT_EQ(again.size(), uint32_t(1000 - unavailable));
   EXPECT_EQ(reader.find(victim, &got), Smash::Found::none);
   again.put(row(victim, 5));
   EXPECT_EQ(reader.find(victim, &got), Smash::Found::row);
   EXPECT_TRUE(whole(got, victim));
   ::munmap(base, st.st_size);
   ::close(ready[0]);
   ::close(ready[1]);
}

TEST(SmashTable, TablesThatDoNotMatchAreRefusedWithTheReason) {
   ShmTestPrefix shm;
   std::string path = shm.table("test/shape");
   W w(path, rowType);
   w.put(row(1, 1));
   EXPECT_THROW(W(path, rowType), Smash::Error);  // one writer only
   try {
      W(path, rowType);
   } catch (Smash::Error const & e) {
      EXPECT_STREQ(e.what(), "table test/shape already has a writer");
   }
   Smash::Reader<uint64_t, uint64_t> other(path, "Test::Other");
   EXPECT_FALSE(other.valid());
   EXPECT_EQ(other.error(), "table test/shape holds Test::Row, not Test::Other (8+8 bytes)");
   R missing(shm.table("test/none"), rowType);
   EXPECT_FALSE(missing.valid());
   Row got;
   EXPECT_EQ(missing.find(1, &got), Smash::Found::none);

   // A generation whose header lies about its size is refused.
   std::string gen = Smash::objectName(path, "g1");
   int fd = ::shm_open(gen.c_str(), O_RDWR, 0);
   ASSERT_GE(fd, 0);
   auto * base = static_cast<uint32_t *>(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
   ::close(fd);
   uint32_t saved = base[22];  // capacity (bytes 88 to 91 of the header)
   base[22] = 3;
   R corrupt(path, rowType);
   EXPECT_FALSE(corrupt.valid());
   EXPECT_EQ(corrupt.error(), "table test/shape: bad capacity");
   base[22] = saved;
   R fine(path, rowType);
   EXPECT_TRUE(fine.valid()) << fine.error();
   ::munmap(base, 4096);
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
