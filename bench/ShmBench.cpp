// Shared memory: counter cells and the Smash table against what a user
// would otherwise use (a plain atomic load, an in-process hash map, a
// database server on loopback).
#include "Bench.h"

#include <Brik/ShmemCounter.h>
#include <Mavo/ShmemMan.h>
#include <Smash/Table.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr uint32_t rows = 100000;

// One interface's counter row, as the counter tables hold it.
struct Row {
   uint64_t key;
   uint64_t counters[13];
   double rates[5];
};

struct Prefix {
   Prefix() { Smash::shmPrefixIs("/intf-bench-" + std::to_string(::getpid()) + "-"); }
};

// A cell with its address cached, as a counter entity keeps it.
struct CachedCell {
   uint64_t addr;
   uint64_t counterAddr(bool) const { return addr; }
};

struct Cells {
   Cells() : man("bench/cells", true) { cell.addr = man.counterAddr("Ethernet1-q0", 208, false); }
   ~Cells() { Mavo::ShmemMan::remove("bench/cells"); }
   Prefix prefix;
   Mavo::ShmemMan man;
   CachedCell cell{};
};

// Made once, kept for the whole run, removed from shared memory at exit.
Cells & cells() {
   static Cells * c = [] {
      auto * made = new Cells;
      std::atexit([] { Mavo::ShmemMan::remove("bench/cells"); });
      return made;
   }();
   return *c;
}

struct Tables {
   Tables() : writer("bench/table", "Bench::Row", 1024), reader("bench/table", "Bench::Row") {
      std::mt19937_64 rng(7);
      for (uint32_t i = 0; i < rows; ++i) {
         Row r{};
         r.key = rng();
         r.counters[0] = i;
         keys.push_back(r.key);
         writer.put(r);
         plain[r.key] = r;
      }
      reader.engine().refresh();
      std::shuffle(keys.begin(), keys.end(), rng);
   }
   ~Tables() { Smash::removeTable("bench/table"); }
   Prefix prefix;
   Smash::Writer<uint64_t, Row> writer;
   Smash::Reader<uint64_t, Row> reader;
   std::unordered_map<uint64_t, Row> plain;
   std::vector<uint64_t> keys;
};

Tables & tables() {
   static Tables * t = [] {
      auto * made = new Tables;
      std::atexit([] { Smash::removeTable("bench/table"); });
      return made;
   }();
   return *t;
}

uint64_t nowNs() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return uint64_t(t.tv_sec) * 1000000000u + uint64_t(t.tv_nsec);
}

// A writer process updates one cell flat out; this process reads it and
// counts values whose halves disagree.
double tornReads() {
   Cells & c = cells();
   pid_t pid = ::fork();
   if (pid == 0) {
      CachedCell w = c.cell;
      for (uint64_t i = 1;; ++i) Brik::shmemCounterValIs(&w, (i << 32) | (i & 0xffffffff), Brik::Slot::pkts);
   }
   uint64_t reads = 0, torn = 0;
   uint64_t end = nowNs() + 500000000;
   while (nowNs() < end) {
      for (int i = 0; i < 1000; ++i) {
         uint64_t v = Brik::shmemCounterVal(&c.cell, Brik::Slot::pkts);
         torn += (v >> 32) != (v & 0xffffffff);
      }
      reads += 1000;
   }
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   std::printf("shm: %.1f million cell reads per second in one reader while another process writes, %lu torn\n",
               double(reads) / 0.5 / 1e6, (unsigned long)torn);
   return double(torn);
}

// A writer process rewriting 2,000 rows and adding and removing as many
// others flat out (slots re-assigned, the table growing and shedding
// tombstones) while this process finds and scans for `seconds`. Returns
// (what went wrong, out of how many) for finds or for scans.
std::pair<uint64_t, uint64_t> underChurn(bool scans, double seconds) {
   constexpr uint64_t stable = 2000;
   Prefix prefix;
   char const * path = "bench/churn";
   Smash::removeTable(path);
   int ready[2];
   if (::pipe(ready) != 0) return {0, 0};
   pid_t pid = ::fork();
   if (pid == 0) {
      Smash::Writer<uint64_t, Row> w(path, "Bench::Row", 64);
      Row r{};
      for (r.key = 0; r.key < stable; ++r.key) w.put(r);
      (void)!::write(ready[1], "r", 1);
      std::mt19937_64 rng(5);
      for (uint64_t i = 0;; ++i) {
         r.key = i % stable;
         r.counters[0] = i;
         w.put(r);
         r.key = stable + rng() % stable;
         w.put(r);
         w.remove(stable + rng() % stable);
      }
   }
   char c;
   (void)!::read(ready[0], &c, 1);
   ::close(ready[0]);
   ::close(ready[1]);
   Smash::Reader<uint64_t, Row> reader(path, "Bench::Row");
   uint64_t wrong = 0, total = 0;
   uint64_t end = nowNs() + uint64_t(seconds * 1e9);
   while (nowNs() < end) {
      if (scans) {
         std::vector<bool> seen(stable);
         auto unreadable = reader.forEach([&](Row const & r) {
            if (r.key < stable) seen[r.key] = true;
         });
         wrong += std::count(seen.begin(), seen.end(), false) > 0 || !unreadable.empty();
         ++total;
      } else {
         for (uint64_t k = 0; k < stable; ++k, ++total) {
            Row r;
            wrong += reader.find(k, &r) != Smash::Found::row;
         }
      }
   }
   ::kill(pid, SIGKILL);
   ::waitpid(pid, nullptr, 0);
   Smash::removeTable(path);
   return {wrong, total};
}

double unavailablePerMillion() {
   auto [wrong, finds] = underChurn(false, 1.0);
   std::printf("shm.table: %llu of %llu look-ups of existing rows answered unavailable or absent while a "
               "writer rewrote, added and removed rows flat out\n",
               (unsigned long long)wrong, (unsigned long long)finds);
   return finds ? double(wrong) * 1e6 / double(finds) : 1e6;
}

double incompletePerMillion() {
   auto [wrong, scans] = underChurn(true, 1.0);
   std::printf("shm.scan: %llu of %llu scans of 2,000 rows present throughout left one out or could not "
               "read one, while a writer rewrote, added and removed rows flat out\n",
               (unsigned long long)wrong, (unsigned long long)scans);
   return scans ? double(wrong) * 1e6 / double(scans) : 1e6;
}

// ---- a database server on loopback, for the way other stacks read counters ----

bool sendAll(int fd, std::string const & s) {
   size_t off = 0;
   while (off < s.size()) {
      ssize_t n = ::send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
      if (n <= 0) return false;
      off += size_t(n);
   }
   return true;
}

std::string command(std::vector<std::string> const & args) {
   std::string c = "*";
   c += std::to_string(args.size());
   c += "\r\n";
   for (auto const & a : args) {
      c += '$';
      c += std::to_string(a.size());
      c += "\r\n";
      c += a;
      c += "\r\n";
   }
   return c;
}

// Reads one complete reply (an array of bulk strings, or a simple line).
bool readReply(int fd, std::string & buf) {
   buf.clear();
   char tmp[4096];
   while (true) {
      ssize_t n = ::recv(fd, tmp, sizeof tmp, 0);
      if (n <= 0) return false;
      buf.append(tmp, size_t(n));
      if (buf[0] == '+' || buf[0] == ':' || buf[0] == '-') {
         if (buf.find("\r\n") != std::string::npos) return true;
         continue;
      }
      if (buf[0] == '*') {
         // Count the lines: 1 + 2 per element.
         size_t eol = buf.find("\r\n");
         if (eol == std::string::npos) continue;
         long n2 = std::atol(buf.c_str() + 1);
         size_t lines = 0;
         for (size_t p = 0; (p = buf.find("\r\n", p)) != std::string::npos; p += 2) ++lines;
         if (lines >= size_t(1 + 2 * n2)) return true;
      }
   }
}

double versusDatabase() {
   if (::system("command -v redis-server >/dev/null 2>&1") != 0) {
      std::printf("smash: redis-server is not installed: no comparison\n");
      return 0;
   }
   int port = 20000 + ::getpid() % 20000;
   std::string start = "redis-server --port " + std::to_string(port) +
                       " --save '' --appendonly no --daemonize yes --pidfile /tmp/intf-bench-redis-" +
                       std::to_string(port) + ".pid >/dev/null";
   if (::system(start.c_str()) != 0) return 0;
   int fd = -1;
   for (int i = 0; i < 100 && fd < 0; ++i) {
      fd = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(uint16_t(port));
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
         ::close(fd);
         fd = -1;
         ::usleep(20000);
      }
   }
   double figure = 0;
   if (fd >= 0) {
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::vector<std::string> hset = {"HSET", "COUNTERS:Ethernet1"};
      char const * names[] = {"inOctets", "inUcastPkts", "inMulticastPkts", "inBroadcastPkts",
                              "inDiscards", "inErrors", "outOctets", "outUcastPkts",
                              "outMulticastPkts", "outBroadcastPkts", "outDiscards", "outErrors",
                              "inBitsRate", "outBitsRate", "inPktsRate", "outPktsRate"};
      for (auto const * n : names) {
         hset.push_back(n);
         hset.push_back("123456789");
      }
      std::string reply;
      sendAll(fd, command(hset));
      readReply(fd, reply);
      std::string get = command({"HGETALL", "COUNTERS:Ethernet1"});
      constexpr int n = 5000;
      uint64_t t0 = nowNs();
      for (int i = 0; i < n; ++i) {
         if (!sendAll(fd, get) || !readReply(fd, reply)) break;
      }
      double dbNs = double(nowNs() - t0) / n;
      Tables & t = tables();
      Row r;
      uint64_t key = t.keys[0];
      constexpr int m = 1000000;
      uint64_t t1 = nowNs();
      uint64_t sum = 0;
      for (int i = 0; i < m; ++i) {
         t.reader.find(key, &r);
         sum += r.counters[0];
      }
      double ourNs = double(nowNs() - t1) / m;
      benchmark::DoNotOptimize(sum);
      figure = dbNs / ourNs;
      std::printf("smash: one interface's counter row: %.0f ns from the table, %.0f ns by HGETALL "
                  "from a database server on loopback\n",
                  ourNs, dbNs);
      ::close(fd);
   }
   std::string stop = "kill $(cat /tmp/intf-bench-redis-" + std::to_string(port) +
                      ".pid) 2>/dev/null; rm -f /tmp/intf-bench-redis-" + std::to_string(port) + ".pid";
   (void)!::system(stop.c_str());
   return figure;
}

} // namespace

namespace IntfBench {

void registerShmBenches() {
   addPair(
       "shm.cell.read", "2",
       [](benchmark::State & st) {
          CachedCell const * c = &cells().cell;
          benchmark::DoNotOptimize(c);
          for (auto _ : st) benchmark::DoNotOptimize(Brik::shmemCounterVal(c, Brik::Slot::pkts));
       },
       [](benchmark::State & st) {
          auto const * p = reinterpret_cast<uint64_t const *>(uintptr_t(cells().cell.addr) + 8 + Brik::Slot::pkts + 4);
          benchmark::DoNotOptimize(p);
          for (auto _ : st) benchmark::DoNotOptimize(__atomic_load_n(p, __ATOMIC_RELAXED));
       });
   addFigure("shm.cell.torn", "0", &tornReads);
   addPair(
       "smash.find.100k", "1.5",
       [](benchmark::State & st) {
          Tables & t = tables();
          size_t i = 0;
          Row r;
          for (auto _ : st) {
             t.reader.find(t.keys[i++ % rows], &r);
             benchmark::DoNotOptimize(r);
          }
       },
       [](benchmark::State & st) {
          Tables & t = tables();
          size_t i = 0;
          Row r;
          for (auto _ : st) {
             auto it = t.plain.find(t.keys[i++ % rows]);
             if (it != t.plain.end()) r = it->second;
             benchmark::DoNotOptimize(r);
          }
       });
   addPair(
       "smash.update.100k", "2",
       [](benchmark::State & st) {
          Tables & t = tables();
          size_t i = 0;
          Row r{};
          for (auto _ : st) {
             r.key = t.keys[i++ % rows];
             r.counters[1] = i;
             t.writer.put(r);
          }
       },
       [](benchmark::State & st) {
          Tables & t = tables();
          size_t i = 0;
          Row r{};
          for (auto _ : st) {
             r.key = t.keys[i++ % rows];
             r.counters[1] = i;
             t.plain[r.key] = r;
             benchmark::ClobberMemory();
          }
       });
   addFigure("smash.vs_db", "1000", &versusDatabase, Sense::AtLeast);
   addFigure("shm.table.unavailable_per_million", "0", &unavailablePerMillion);
   addFigure("shm.scan.incomplete_per_million", "0", &incompletePerMillion);
}

} // namespace IntfBench
