// A table reader against arbitrary table images: the generation object a
// reader maps holds the fuzzer's bytes (a real table's image, mutated, or
// anything), and another thread keeps rewriting words of its header while
// the reader works, as another process could. Attaching, finding, listing
// and following changes must end without a crash, a hang or a read outside
// the mapping.
#include <Smash/Table.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

struct Row {
   uint64_t key;
   uint64_t a, b;
};

constexpr char const * path = "fuzz/table";
// The input's last bytes: four (header word, value) pairs the other thread
// writes, each in turn with the word's own value.
constexpr size_t changeBytes = 4 * 5;
constexpr size_t headerBytes = 136;

// A real, small table, so that its control object names generation 1.
void makeTable() {
   static bool made = false;
   if (made) return;
   made = true;
   Smash::shmPrefixIs("/intf-fuzz-" + std::to_string(::getpid()) + "-");
   Smash::removeTable(path);
   std::atexit([] { Smash::removeTable(path); });
   Smash::Writer<uint64_t, Row> w(path, "Fuzz::Row", 16, 16);
   for (uint64_t k = 0; k < 5; ++k) w.put(Row{k, k, ~k});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
   makeTable();
   size_t image = size >= changeBytes ? size - changeBytes : size;
   std::string gen = "/dev/shm" + Smash::objectName(path, "g1");
   int fd = ::open(gen.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
   if (fd < 0) return 0;
   if (::ftruncate(fd, off_t(image)) == 0 && image > 0) (void)!::pwrite(fd, data, image, 0);
   std::atomic<bool> done{false};
   std::thread changer;
   void * header = MAP_FAILED;
   if (size >= changeBytes && image >= headerBytes) {
      header = ::mmap(nullptr, headerBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   }
   if (header != MAP_FAILED) {
      changer = std::thread([&, words = static_cast<uint32_t *>(header)] {
         uint8_t const * change = data + image;
         for (uint32_t i = 0; !done.load(std::memory_order_relaxed); ++i) {
            uint8_t const * c = change + 5 * (i % 4);
            uint32_t word = c[0] % (headerBytes / 4), value;
            std::memcpy(&value, c + 1, 4);
            uint32_t own;
            std::memcpy(&own, data + 4 * word, 4);
            __atomic_store_n(words + word, i / 4 % 2 ? value : own, __ATOMIC_RELAXED);
         }
      });
   }
   ::close(fd);
   {
      Smash::Reader<uint64_t, Row> r(path, "Fuzz::Row");
      if (r.valid()) {
         Row row;
         Smash::FindHint hint;
         for (uint64_t k = 0; k < 8; ++k) r.find(k, &row, k % 2 ? &hint : nullptr);
         r.forEach([](Row const &) {});
      }
      Smash::Shadow<uint64_t, Row> s(path, "Fuzz::Row");
      for (int i = 0; i < 2; ++i) {
         s.poll([&](uint64_t const & k) {
            Row row;
            s.find(k, &row);
         });
      }
   }
   done = true;
   if (changer.joinable()) changer.join();
   if (header != MAP_FAILED) ::munmap(header, headerBytes);
   return 0;
}
