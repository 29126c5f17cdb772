// Shared-memory counter cells; see Mavo/ShmemMan.h.
#include <Brik/ShmemCounter.h>
#include <Mavo/ShmemMan.h>

#include <sys/mman.h>
#include <unistd.h>

namespace Mavo {

namespace {

struct IndexRow {
   uint32_t cell;
   uint32_t cellBytes;
};

Smash::TableShape indexShape() {
   return Smash::TableShape{"Mavo::ShmemMan::Index", ShmemMan::maxKeyBytes, sizeof(IndexRow)};
}

} // namespace

struct ShmemMan::Segment {
   ~Segment() {
      if (base) ::munmap(base, bytes);
   }
   uint8_t * base = nullptr;
   size_t bytes = 0;
};

ShmemMan::ShmemMan(std::string path, bool writer, uint32_t cellBytes)
      : path_(std::move(path)), cellBytes_((cellBytes + 7) / 8 * 8) {
   if (writer) {
      writer_ = std::make_unique<Smash::TableWriter>(path_ + "/index", indexShape(), 1024, 1024);
      next_ = writer_->size();
   } else {
      reader_ = std::make_unique<Smash::TableReader>(path_ + "/index", indexShape());
   }
}

ShmemMan::~ShmemMan() = default;

void ShmemMan::remove(std::string const & path) {
   Smash::removeTable(path + "/index");
   try {
      Smash::removeObjectsOf(path);
   } catch (Smash::Error const &) {
      // a path too long for a name has no objects
   }
}

uint8_t * ShmemMan::segment(uint32_t n, bool create) {
   if (n < segments_.size() && segments_[n]) return segments_[n]->base;
   std::string name = Smash::objectName(path_, "seg" + std::to_string(n));
   size_t bytes = size_t(cellsPerSegment) * cellBytes_;
   // A writer makes its segments, or takes over its own; a reader takes
   // only a segment it can trust, and never one smaller than its cells.
   Smash::ShmFile f = create ? Smash::createObject(name, bytes, true) : Smash::openForReading(name);
   void * p = f && f.size >= bytes
                  ? ::mmap(nullptr, bytes, create ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, f.fd, 0)
                  : MAP_FAILED;
   if (f) ::close(f.fd);
   if (p == MAP_FAILED) return nullptr;
   if (segments_.size() <= n) segments_.resize(n + 1);
   segments_[n] = std::make_unique<Segment>();
   segments_[n]->base = static_cast<uint8_t *>(p);
   segments_[n]->bytes = bytes;
   return segments_[n]->base;
}

uint64_t ShmemMan::counterAddr(Kel::String8 const & key, uint32_t size, bool forRead) {
   if ((size + 7) / 8 * 8 != cellBytes_ || key.size() > maxKeyBytes || key.empty()) return 0;
   auto hit = cache_.find(key.str());
   if (hit != cache_.end()) return hit->second;
   Smash::FixedKey<maxKeyBytes> k(key.view());
   IndexRow row{};
   Smash::Found f = writer_ ? writer_->find(&k, &row) : reader_->find(&k, &row);
   if (f != Smash::Found::row) {
      if (!writer_ || forRead) return 0;
      if (next_ >= 64u * cellsPerSegment) return 0;
      row = IndexRow{next_, cellBytes_};
      writer_->put(&k, &row);  // a segment that cannot be made gives no cell below
      ++next_;
   }
   if (row.cellBytes != cellBytes_ || row.cell >= 64u * cellsPerSegment) return 0;
   uint8_t * base = segment(row.cell / cellsPerSegment, writer_ != nullptr);
   if (!base) return 0;
   uint8_t * cell = base + size_t(row.cell % cellsPerSegment) * cellBytes_;
   // A writer killed between its two copies left them disagreeing: make
   // them agree before this writer's first write to the cell.
   if (writer_ && cellBytes_ == Brik::ShmemCell::bytes) Brik::reconcileCell(cell);
   uint64_t addr = uint64_t(reinterpret_cast<uintptr_t>(cell));
   cache_.emplace(key.str(), addr);
   return addr;
}

void ShmemMan::shmemGenIdIs(Kel::String8 const & key, uint32_t size, uint32_t genId) {
   uint64_t addr = counterAddr(key, size, false);
   if (!addr) return;
   __atomic_store_n(reinterpret_cast<uint32_t *>(uintptr_t(addr)), genId, __ATOMIC_RELEASE);
}

uint64_t ShmemMan::cellFor(Kel::String8 const & key, uint32_t size, bool forRead, uint32_t * counterGenId,
                           char const * who) {
   Kel::String8 pid = Kel::String8(std::to_string(::getpid()));
   KEL_TRACE(Brik::shmemTrace(), 9, "pid:" + pid + " " + who + " key: " + key);
   uint64_t addr = counterAddr(key, size, forRead);
   if (!addr) return 0;
   auto * gen = reinterpret_cast<std::atomic<uint32_t> *>(uintptr_t(addr) + Brik::ShmemCell::genIdOffset);
   uint32_t cellGen = gen->load(std::memory_order_acquire);
   if (cellGen != 0 && cellGen == *counterGenId) return addr;
   if (forRead) {
      KEL_TRACE(Brik::shmemTrace(), 9, "counterAddr pid:" + pid + " genId mismatched! shmemGenId=" +
                                          Kel::String8(std::to_string(cellGen)) + " counterGenId()=" +
                                          Kel::String8(std::to_string(*counterGenId)));
      return 0;
   }
   uint32_t next = *counterGenId + 1;
   if (next == 0) next = 1;  // 0 means no generation is known
   gen->store(next, std::memory_order_release);
   *counterGenId = next;
   KEL_TRACE(Brik::shmemTrace(), 9, "pid:" + pid + " " + who + " sync counterGenId to be " +
                                       Kel::String8(std::to_string(next)));
   return addr;
}

} // namespace Mavo
