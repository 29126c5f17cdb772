// A table reader against arbitrary table images: the generation object a
// reader maps holds the fuzzer's bytes (a real table's image, mutated, or
// anything). Attaching, finding, listing and following changes must end
// without a crash, a hang or a read outside the mapping.
#include <Smash/Table.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Row {
   uint64_t key;
   uint64_t a, b;
};

constexpr char const * path = "fuzz/table";

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
   std::string gen = Smash::objectName(path, "g1");
   int fd = ::shm_open(gen.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
   if (fd < 0) return 0;
   if (::ftruncate(fd, off_t(size)) == 0 && size > 0) (void)!::pwrite(fd, data, size, 0);
   ::close(fd);
   Smash::Reader<uint64_t, Row> r(path, "Fuzz::Row");
   if (r.valid()) {
      Row row;
      for (uint64_t k = 0; k < 8; ++k) r.find(k, &row);
      r.forEach([](Row const &) {});
   }
   Smash::Shadow<uint64_t, Row> s(path, "Fuzz::Row");
   s.poll([](uint64_t const &) {});
   s.poll([](uint64_t const &) {});
   return 0;
}
