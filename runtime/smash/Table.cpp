// The Smash table engine; the design note is in Smash/Table.h.
#include <Smash/Table.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <unordered_set>

namespace Smash {

namespace {

constexpr uint64_t genMagic = 0x4e45474853414d53ull;  // "SMASHGEN"
constexpr uint64_t ctlMagic = 0x4c54434853414d53ull;  // "SMASHCTL"
constexpr uint32_t formatVersion = 2;
constexpr uint32_t maxCapacity = 1u << 28;
constexpr uint32_t maxRing = 1u << 24;
constexpr uint32_t maxRowBytes = 1u << 16;
constexpr int readTries = 10000;

enum SlotState : uint32_t { empty = 0, live = 1, tombstone = 2 };

struct CtlHeader {
   uint64_t magic;
   uint32_t version;
   uint32_t keyBytes;
   uint32_t valueBytes;
   std::atomic<uint32_t> generation;
   std::atomic<uint32_t> writerPid;
   uint32_t pad;
   char rowType[64];
};

struct GenHeader {
   uint64_t magic;
   uint32_t version;
   uint32_t headerBytes;
   char rowType[64];
   uint32_t keyBytes;
   uint32_t valueBytes;
   uint32_t capacity;
   uint32_t ringCapacity;
   uint32_t generation;
   uint32_t slotBytes;
   uint32_t ringEntryBytes;
   uint32_t pad;
   uint64_t totalBytes;
   std::atomic<uint64_t> ringHead;
   std::atomic<uint32_t> count;
   std::atomic<uint32_t> sealed;
};
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<uint64_t>::is_always_lock_free,
              "shared-memory words must be lock-free atomics");
static_assert(sizeof(GenHeader) == 136);
static_assert(sizeof(CtlHeader) == 96);

uint64_t align(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }
bool powerOfTwo(uint64_t v) { return v && !(v & (v - 1)); }

struct Layout {
   uint64_t valueOffset, slotBytes, ringEntryBytes, slotsOffset, ringOffset, total;
   Layout(uint32_t keyBytes, uint32_t valueBytes, uint32_t capacity, uint32_t ring) {
      // The key and the value each start on a word: a reader copies a value
      // straight out of its slot a word at a time.
      valueOffset = 8 + align(keyBytes, 8);
      slotBytes = valueOffset + align(valueBytes, 8);
      ringEntryBytes = align(8 + uint64_t(keyBytes), 8);
      slotsOffset = align(sizeof(GenHeader), 64);
      ringOffset = slotsOffset + uint64_t(capacity) * slotBytes;
      total = ringOffset + uint64_t(ring) * ringEntryBytes;
   }
};

uint64_t hashKey(void const * key, uint32_t n) {
   uint64_t h = 0xcbf29ce484222325ull;
   auto const * p = static_cast<uint8_t const *>(key);
   if (n == 8) {
      std::memcpy(&h, p, 8);
   } else {
      for (uint32_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
   }
   // Final mix: every key bit reaches the low bits the slot index uses.
   h ^= h >> 30;
   h *= 0xbf58476d1ce4e5b9ull;
   h ^= h >> 27;
   h *= 0x94d049bb133111ebull;
   h ^= h >> 31;
   return h;
}

// Word-wise relaxed atomic copies: shared memory written by another
// process is only ever read or written through atomics (copyIn and
// copyOut below are the unaligned-side variants).
void loadWords(void * to, void const * from, uint64_t bytes) {
   auto * d = static_cast<uint64_t *>(to);
   auto * s = static_cast<uint64_t const *>(from);
   for (uint64_t i = 0; i < bytes / 8; ++i) d[i] = __atomic_load_n(s + i, __ATOMIC_RELAXED);
}

std::string shapeText(TableShape const & s) {
   return s.rowType + " (" + std::to_string(s.keyBytes) + "+" + std::to_string(s.valueBytes) + " bytes)";
}

// "g<N>", the part name of generation N.
std::string genPart(uint32_t gen) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "g%u", gen);
   return buf;
}

std::string & prefixRef() {
   static std::string p = "/intf-";
   return p;
}

} // namespace

void shmPrefixIs(std::string prefix) {
   if (prefix.empty() || prefix[0] != '/') prefix = "/" + prefix;
   prefixRef() = std::move(prefix);
}
std::string const & shmPrefix() { return prefixRef(); }

std::string objectName(std::string_view path, std::string_view part) {
   // A path that starts with '/' carries its prefix: a table another
   // process named is found whatever this process's prefix.
   std::string name = path.starts_with('/') ? "/" : shmPrefix();
   if (path.starts_with('/')) path.remove_prefix(1);
   for (char c : path) name += c == '/' ? '.' : c;
   name += '.';
   name += part;
   if (name.size() > 250) {
      // Too long for a name: keep the start and a hash of the whole.
      uint64_t h = hashKey(name.data(), uint32_t(name.size()));
      char buf[24];
      std::snprintf(buf, sizeof buf, "~%016llx", (unsigned long long)h);
      name = name.substr(0, 200) + buf;
   }
   return name;
}

// One mapped generation object.
class Mapping {
 public:
   ~Mapping() {
      if (base) ::munmap(base, size);
      if (fd >= 0) ::close(fd);
   }
   GenHeader * header() const { return static_cast<GenHeader *>(base); }
   uint8_t * slot(uint64_t i) const {
      return static_cast<uint8_t *>(base) + layout->slotsOffset + (i & (capacity - 1)) * layout->slotBytes;
   }
   uint8_t * ringEntry(uint64_t seq) const {
      return static_cast<uint8_t *>(base) + layout->ringOffset + (seq & (ring - 1)) * layout->ringEntryBytes;
   }
   static std::atomic<uint32_t> * seqOf(uint8_t * slot) { return reinterpret_cast<std::atomic<uint32_t> *>(slot); }

   int fd = -1;
   void * base = nullptr;
   size_t size = 0;
   uint32_t capacity = 0, ring = 0, generation = 0;
   std::unique_ptr<Layout> layout;
   TableShape shape;
};

namespace {

// Checks a generation's header against the expected shape and the object's
// real size; fills in the mapping's trusted copies of its sizes.
std::string validate(Mapping & m, TableShape const & shape) {
   if (m.size < sizeof(GenHeader)) return "table object smaller than its header";
   GenHeader const * h = m.header();
   if (h->magic != genMagic) return "not a table object (bad magic)";
   if (h->version != formatVersion) return "table format version " + std::to_string(h->version) + ", expected " + std::to_string(formatVersion);
   if (h->headerBytes != sizeof(GenHeader)) return "bad header size";
   char type[65] = {};
   std::memcpy(type, h->rowType, 64);
   if (shape.rowType != type) return "table of " + std::string(type) + ", expected " + shape.rowType;
   if (h->keyBytes != shape.keyBytes || h->valueBytes != shape.valueBytes) {
      return "row of " + std::to_string(h->keyBytes) + "+" + std::to_string(h->valueBytes) + " bytes, expected " + shapeText(shape);
   }
   if (!powerOfTwo(h->capacity) || h->capacity > maxCapacity) return "bad capacity";
   if (!powerOfTwo(h->ringCapacity) || h->ringCapacity > maxRing) return "bad ring capacity";
   Layout l(h->keyBytes, h->valueBytes, h->capacity, h->ringCapacity);
   if (h->slotBytes != l.slotBytes || h->ringEntryBytes != l.ringEntryBytes || h->totalBytes != l.total) {
      return "table layout does not match its sizes";
   }
   if (l.total > m.size) return "table object smaller than its layout";
   m.capacity = h->capacity;
   m.ring = h->ringCapacity;
   m.generation = h->generation;
   m.layout = std::make_unique<Layout>(l);
   m.shape = shape;
   return "";
}

std::unique_ptr<Mapping> mapObject(std::string const & name, bool write, std::string * why) {
   auto m = std::make_unique<Mapping>();
   m->fd = ::shm_open(name.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
   if (m->fd < 0) {
      *why = name + ": " + std::strerror(errno);
      return nullptr;
   }
   struct stat st;
   if (::fstat(m->fd, &st) != 0 || st.st_size <= 0) {
      *why = name + ": empty";
      return nullptr;
   }
   m->size = size_t(st.st_size);
   m->base = ::mmap(nullptr, m->size, write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, m->fd, 0);
   if (m->base == MAP_FAILED) {
      m->base = nullptr;
      *why = name + ": " + std::strerror(errno);
      return nullptr;
   }
   return m;
}

std::unique_ptr<Mapping> createGeneration(std::string const & path, TableShape const & shape, uint32_t gen,
                                          uint32_t capacity, uint32_t ring) {
   std::string name = objectName(path, genPart(gen));
   ::shm_unlink(name.c_str());  // a leftover of a crashed writer
   int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
   if (fd < 0) throw Error("cannot create " + name + ": " + std::strerror(errno));
   Layout l(shape.keyBytes, shape.valueBytes, capacity, ring);
   if (::ftruncate(fd, off_t(l.total)) != 0) {
      int e = errno;
      ::close(fd);
      ::shm_unlink(name.c_str());
      throw Error("cannot size " + name + ": " + std::strerror(e));
   }
   ::close(fd);
   std::string why;
   auto m = mapObject(name, true, &why);
   if (!m) throw Error(why);
   GenHeader * h = m->header();
   h->magic = genMagic;
   h->version = formatVersion;
   h->headerBytes = sizeof(GenHeader);
   std::memset(h->rowType, 0, sizeof h->rowType);
   std::memcpy(h->rowType, shape.rowType.data(), std::min<size_t>(shape.rowType.size(), 63));
   h->keyBytes = shape.keyBytes;
   h->valueBytes = shape.valueBytes;
   h->capacity = capacity;
   h->ringCapacity = ring;
   h->generation = gen;
   h->slotBytes = uint32_t(l.slotBytes);
   h->ringEntryBytes = uint32_t(l.ringEntryBytes);
   h->totalBytes = l.total;
   std::string err = validate(*m, shape);
   if (!err.empty()) throw Error(err);
   return m;
}

// Copies slot `i` if its sequence word holds still: state, key and value
// into `row` (slotBytes long). False after too many tries.
bool readSlot(Mapping const & m, uint64_t i, uint8_t * row) {
   uint8_t * s = m.slot(i);
   auto * seq = Mapping::seqOf(s);
   for (int t = 0; t < readTries; ++t) {
      uint32_t a = seq->load(std::memory_order_acquire);
      if (a & 1) continue;
      loadWords(row, s, m.layout->slotBytes);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (seq->load(std::memory_order_relaxed) == a) return true;
   }
   return false;
}

// Stores `bytes` from anywhere to a word-aligned place in shared memory a
// word at a time; the last word is padded with zeros. Null `from` stores
// zeros.
void copyIn(uint8_t * to, void const * from, uint32_t bytes) {
   auto * w = reinterpret_cast<uint64_t *>(to);
   auto const * f = static_cast<uint8_t const *>(from);
   uint32_t words = bytes / 8, tail = bytes % 8;
   for (uint32_t i = 0; i < words; ++i) {
      uint64_t v = 0;
      if (f) std::memcpy(&v, f + 8 * i, 8);
      __atomic_store_n(w + i, v, __ATOMIC_RELAXED);
   }
   if (tail) {
      uint64_t v = 0;
      if (f) std::memcpy(&v, f + 8 * words, tail);
      __atomic_store_n(w + words, v, __ATOMIC_RELAXED);
   }
}

void writeSlot(Mapping const & m, uint64_t i, uint32_t state, void const * key, void const * value) {
   uint8_t * s = m.slot(i);
   auto * seq = Mapping::seqOf(s);
   uint32_t w = seq->load(std::memory_order_relaxed);
   seq->store(w | 1, std::memory_order_relaxed);
   std::atomic_thread_fence(std::memory_order_release);
   copyIn(s + 8, key, m.shape.keyBytes);
   copyIn(s + m.layout->valueOffset, value, m.shape.valueBytes);
   __atomic_store_n(reinterpret_cast<uint32_t *>(s + 4), state, __ATOMIC_RELAXED);
   seq->store((w | 1) + 1, std::memory_order_release);
}

// Key comparison with the common sizes (an interface identifier, a
// 64-bit number) done in line.
bool sameKey(uint8_t const * a, void const * b, uint32_t n) {
   if (n == 4) {
      uint32_t x, y;
      std::memcpy(&x, a, 4);
      std::memcpy(&y, b, 4);
      return x == y;
   }
   if (n == 8) {
      uint64_t x, y;
      std::memcpy(&x, a, 8);
      std::memcpy(&y, b, 8);
      return x == y;
   }
   return std::memcmp(a, b, n) == 0;
}

uint32_t stateOf(uint8_t const * row) {
   uint32_t st;
   std::memcpy(&st, row + 4, 4);
   return st;
}

// Copies `bytes` from a word-aligned place in shared memory a word at a
// time, to anywhere. The last word is read whole (slots are padded to words).
void copyOut(void * to, uint8_t const * from, uint32_t bytes) {
   auto * d = static_cast<uint8_t *>(to);
   auto const * w = reinterpret_cast<uint64_t const *>(from);
   uint32_t words = bytes / 8, tail = bytes % 8;
   for (uint32_t i = 0; i < words; ++i) {
      uint64_t v = __atomic_load_n(w + i, __ATOMIC_RELAXED);
      std::memcpy(d + 8 * i, &v, 8);
   }
   if (tail) {
      uint64_t v = __atomic_load_n(w + words, __ATOMIC_RELAXED);
      std::memcpy(d + 8 * words, &v, tail);
   }
}

enum class Look { empty, other, match, unavailable };

// Slot `i` read under its sequence word: empty, another row, or the row of
// `key`, whose value is then copied to `value`. Only a read the word shows
// whole counts; a copy that raced a write is made again, so `value` holds
// a whole row when the answer is `match` (and may hold anything after
// `unavailable`).
Look lookSlot(Mapping const & m, uint64_t i, void const * key, void * value) {
   uint8_t * s = m.slot(i);
   auto * seq = Mapping::seqOf(s);
   uint32_t const kb = m.shape.keyBytes;
   uint64_t const keyWordBytes = m.layout->valueOffset - 8;
   // Keys are small; a large one is compared in a per-thread buffer.
   alignas(8) uint8_t small[64];
   uint8_t * k = small;
   if (keyWordBytes > sizeof small) {
      thread_local std::vector<uint8_t> big;
      big.resize(keyWordBytes);
      k = big.data();
   }
   for (int t = 0; t < readTries; ++t) {
      uint32_t a = seq->load(std::memory_order_acquire);
      if (a & 1) continue;
      uint32_t st = __atomic_load_n(reinterpret_cast<uint32_t const *>(s + 4), __ATOMIC_RELAXED);
      Look r = Look::other;
      if (st == empty) {
         r = Look::empty;
      } else if (st == live) {
         loadWords(k, s + 8, keyWordBytes);
         if (sameKey(k, key, kb)) {
            copyOut(value, s + m.layout->valueOffset, m.shape.valueBytes);
            r = Look::match;
         }
      }
      std::atomic_thread_fence(std::memory_order_acquire);
      if (seq->load(std::memory_order_relaxed) == a) return r;
   }
   return Look::unavailable;
}

// The slot holding `key`, or where it would go: returns (index, found).
// `firstFree` gets the first tombstone or empty slot of the chain.
std::pair<uint64_t, bool> probe(Mapping const & m, void const * key, uint64_t * firstFree) {
   uint64_t h = hashKey(key, m.shape.keyBytes);
   *firstFree = UINT64_MAX;
   for (uint64_t n = 0; n < m.capacity; ++n) {
      uint64_t i = (h + n) & (m.capacity - 1);
      uint8_t * s = m.slot(i);
      uint32_t st = __atomic_load_n(reinterpret_cast<uint32_t *>(s + 4), __ATOMIC_RELAXED);
      if (st == empty) {
         if (*firstFree == UINT64_MAX) *firstFree = i;
         return {i, false};
      }
      if (st == tombstone) {
         if (*firstFree == UINT64_MAX) *firstFree = i;
         continue;
      }
      if (sameKey(s + 8, key, m.shape.keyBytes)) return {i, true};
   }
   return {UINT64_MAX, false};
}

int openControl(std::string const & path, bool write, std::string * why) {
   std::string name = objectName(path, "ctl");
   int fd = ::shm_open(name.c_str(), (write ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC, 0644);
   if (fd < 0) *why = name + ": " + std::strerror(errno);
   return fd;
}

} // namespace

void removeTable(std::string_view path) {
   std::string p(path);
   std::string why;
   int fd = openControl(p, false, &why);
   uint32_t gen = 0;
   if (fd >= 0) {
      struct stat st;
      if (::fstat(fd, &st) == 0 && size_t(st.st_size) >= sizeof(CtlHeader)) {
         void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ, MAP_SHARED, fd, 0);
         if (c != MAP_FAILED) {
            gen = static_cast<CtlHeader *>(c)->generation.load();
            ::munmap(c, sizeof(CtlHeader));
         }
      }
      ::close(fd);
   }
   for (uint32_t g = gen > 4 ? gen - 4 : 1; g <= gen + 1; ++g) ::shm_unlink(objectName(p, genPart(g)).c_str());
   ::shm_unlink(objectName(p, "ctl").c_str());
}

// ---- writer -----------------------------------------------------------------------------------

TableWriter::TableWriter(std::string path, TableShape shape, uint32_t initialCapacity, uint32_t ring)
      : path_(std::move(path)), shape_(std::move(shape)), ringCapacity_(ring) {
   if (shape_.keyBytes == 0 || shape_.keyBytes + uint64_t(shape_.valueBytes) > maxRowBytes) {
      throw Error("row of " + shapeText(shape_) + " not supported");
   }
   if (!powerOfTwo(ringCapacity_) || ringCapacity_ > maxRing) throw Error("ring capacity must be a power of two");
   uint32_t cap = 16;
   while (cap < initialCapacity && cap < maxCapacity) cap *= 2;
   std::string why;
   lockFd_ = openControl(path_, true, &why);
   if (lockFd_ < 0) throw Error("cannot open table control " + why);
   if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
      ::close(lockFd_);
      lockFd_ = -1;
      throw Error("table " + path_ + " already has a writer");
   }
   struct stat st;
   ::fstat(lockFd_, &st);
   bool fresh = size_t(st.st_size) < sizeof(CtlHeader);
   if (fresh && ::ftruncate(lockFd_, sizeof(CtlHeader)) != 0) throw Error("cannot size table control");
   void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ | PROT_WRITE, MAP_SHARED, lockFd_, 0);
   if (c == MAP_FAILED) throw Error("cannot map table control");
   auto * ctl = static_cast<CtlHeader *>(c);
   uint32_t gen = 0;
   if (!fresh) {
      char type[65] = {};
      std::memcpy(type, ctl->rowType, 64);
      if (ctl->magic != ctlMagic || ctl->version != formatVersion) {
         ::munmap(c, sizeof(CtlHeader));
         throw Error("table " + path_ + ": control object of another format");
      }
      if (shape_.rowType != type || ctl->keyBytes != shape_.keyBytes || ctl->valueBytes != shape_.valueBytes) {
         ::munmap(c, sizeof(CtlHeader));
         throw Error("table " + path_ + " holds " + type + ", not " + shapeText(shape_));
      }
      gen = ctl->generation.load(std::memory_order_acquire);
      gen_ = mapObject(objectName(path_, genPart(gen)), true, &why);
      if (gen_) {
         std::string err = validate(*gen_, shape_);
         if (!err.empty()) gen_.reset();
      }
   } else {
      ctl->magic = ctlMagic;
      ctl->version = formatVersion;
      ctl->keyBytes = shape_.keyBytes;
      ctl->valueBytes = shape_.valueBytes;
      std::memset(ctl->rowType, 0, sizeof ctl->rowType);
      std::memcpy(ctl->rowType, shape_.rowType.data(), std::min<size_t>(shape_.rowType.size(), 63));
   }
   ctl->writerPid.store(uint32_t(::getpid()), std::memory_order_relaxed);
   ::munmap(c, sizeof(CtlHeader));
   if (!gen_) {
      gen_ = createGeneration(path_, shape_, gen + 1, cap, ringCapacity_);
      void * cc = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ | PROT_WRITE, MAP_SHARED, lockFd_, 0);
      static_cast<CtlHeader *>(cc)->generation.store(gen + 1, std::memory_order_release);
      ::munmap(cc, sizeof(CtlHeader));
      return;
   }
   // Attached to a table a previous writer left: repair rows it left
   // half-written, and recount.
   uint32_t count = 0;
   std::vector<uint8_t> key(shape_.keyBytes);
   for (uint64_t i = 0; i < gen_->capacity; ++i) {
      uint8_t * s = gen_->slot(i);
      auto * seq = Mapping::seqOf(s);
      uint32_t w = seq->load(std::memory_order_relaxed);
      uint32_t st2 = __atomic_load_n(reinterpret_cast<uint32_t *>(s + 4), __ATOMIC_RELAXED);
      if (w & 1) {
         std::memcpy(key.data(), s + 8, shape_.keyBytes);
         writeSlot(*gen_, i, tombstone, key.data(), nullptr);
         ++repaired_;
         ++tombstones_;
         publish(key.data());
         continue;
      }
      if (st2 == live) ++count;
      if (st2 == tombstone) ++tombstones_;
   }
   gen_->header()->count.store(count, std::memory_order_relaxed);
}

TableWriter::~TableWriter() {
   gen_.reset();
   if (lockFd_ >= 0) ::close(lockFd_);  // releases the writer lock
}

void TableWriter::publish(void const * key) {
   GenHeader * h = gen_->header();
   uint64_t head = h->ringHead.load(std::memory_order_relaxed);
   uint8_t * e = gen_->ringEntry(head);
   auto * seq = reinterpret_cast<std::atomic<uint64_t> *>(e);
   seq->store(0, std::memory_order_relaxed);  // being rewritten
   std::atomic_thread_fence(std::memory_order_release);
   copyIn(e + 8, key, shape_.keyBytes);
   seq->store(head + 1, std::memory_order_release);
   h->ringHead.store(head + 1, std::memory_order_release);
}

void TableWriter::put(void const * key, void const * value, bool announce) {
   uint64_t freeSlot;
   auto [i, found] = probe(*gen_, key, &freeSlot);
   if (found) {
      writeSlot(*gen_, i, live, key, value);
      if (announce) publish(key);
      return;
   }
   GenHeader * h = gen_->header();
   uint32_t count = h->count.load(std::memory_order_relaxed);
   if (uint64_t(count + tombstones_ + 1) * 2 > gen_->capacity || freeSlot == UINT64_MAX) {
      uint32_t cap = gen_->capacity;
      while (uint64_t(count + 1) * 4 > cap && cap < maxCapacity) cap *= 2;
      grow(cap);
      return put(key, value, announce);
   }
   bool reused = __atomic_load_n(reinterpret_cast<uint32_t *>(gen_->slot(freeSlot) + 4), __ATOMIC_RELAXED) == tombstone;
   writeSlot(*gen_, freeSlot, live, key, value);
   if (reused) --tombstones_;
   h->count.store(count + 1, std::memory_order_relaxed);
   if (announce) publish(key);
}

bool TableWriter::remove(void const * key, bool announce) {
   uint64_t freeSlot;
   auto [i, found] = probe(*gen_, key, &freeSlot);
   if (!found) return false;
   writeSlot(*gen_, i, tombstone, key, nullptr);
   ++tombstones_;
   GenHeader * h = gen_->header();
   h->count.store(h->count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
   if (announce) publish(key);
   return true;
}

void TableWriter::clear() {
   std::vector<std::vector<uint8_t>> keys;
   forEach([&](void const * k, void const *) {
      keys.emplace_back(static_cast<uint8_t const *>(k), static_cast<uint8_t const *>(k) + shape_.keyBytes);
   });
   for (auto const & k : keys) remove(k.data());
}

Found TableWriter::find(void const * key, void * value) const {
   uint64_t freeSlot;
   auto [i, found] = probe(*gen_, key, &freeSlot);
   if (!found) return Found::none;
   std::memcpy(value, gen_->slot(i) + gen_->layout->valueOffset, shape_.valueBytes);
   return Found::row;
}

void TableWriter::forEach(std::function<void(void const *, void const *)> const & fn) const {
   for (uint64_t i = 0; i < gen_->capacity; ++i) {
      uint8_t * s = gen_->slot(i);
      if (__atomic_load_n(reinterpret_cast<uint32_t *>(s + 4), __ATOMIC_RELAXED) == live) {
         fn(s + 8, s + gen_->layout->valueOffset);
      }
   }
}

uint32_t TableWriter::size() const { return gen_->header()->count.load(std::memory_order_relaxed); }
uint32_t TableWriter::capacity() const { return gen_->capacity; }
uint32_t TableWriter::generation() const { return gen_->generation; }

void TableWriter::grow(uint32_t capacity) {
   uint32_t next = gen_->generation + 1;
   auto fresh = createGeneration(path_, shape_, next, capacity, ringCapacity_);
   uint32_t count = 0;
   forEach([&](void const * k, void const * v) {
      uint64_t freeSlot;
      auto [i, found] = probe(*fresh, k, &freeSlot);
      (void)i;
      (void)found;
      writeSlot(*fresh, freeSlot, live, k, v);
      ++count;
   });
   fresh->header()->count.store(count, std::memory_order_relaxed);
   // Readers see the new generation once the control says so; the old one
   // is sealed and unlinked (mappings of it stay valid until dropped).
   void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ | PROT_WRITE, MAP_SHARED, lockFd_, 0);
   if (c == MAP_FAILED) throw Error("cannot map table control");
   static_cast<CtlHeader *>(c)->generation.store(next, std::memory_order_release);
   ::munmap(c, sizeof(CtlHeader));
   gen_->header()->sealed.store(1, std::memory_order_release);
   ::shm_unlink(objectName(path_, genPart(gen_->generation)).c_str());
   gen_ = std::move(fresh);
   tombstones_ = 0;
}

// ---- reader -----------------------------------------------------------------------------------

TableReader::TableReader(std::string path, TableShape shape) : path_(std::move(path)), shape_(std::move(shape)) {
   attach();
}

TableReader::~TableReader() {
   gen_.reset();
   if (ctl_) ::munmap(const_cast<void *>(ctl_), sizeof(CtlHeader));
   if (ctlFd_ >= 0) ::close(ctlFd_);
}

bool TableReader::valid() const { return gen_ != nullptr; }
uint32_t TableReader::generation() const { return gen_ ? gen_->generation : 0; }

bool TableReader::attach() {
   if (!ctl_) {
      ctlFd_ = openControl(path_, false, &error_);
      if (ctlFd_ < 0) return false;
      struct stat st;
      if (::fstat(ctlFd_, &st) != 0 || size_t(st.st_size) < sizeof(CtlHeader)) {
         error_ = "table " + path_ + ": control object too small";
         ::close(ctlFd_);
         ctlFd_ = -1;
         return false;
      }
      void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ, MAP_SHARED, ctlFd_, 0);
      if (c == MAP_FAILED) {
         error_ = "table " + path_ + ": cannot map control";
         ::close(ctlFd_);
         ctlFd_ = -1;
         return false;
      }
      auto const * ctl = static_cast<CtlHeader const *>(c);
      char type[65] = {};
      std::memcpy(type, ctl->rowType, 64);
      if (ctl->magic != ctlMagic || ctl->version != formatVersion || shape_.rowType != type ||
          ctl->keyBytes != shape_.keyBytes || ctl->valueBytes != shape_.valueBytes) {
         error_ = "table " + path_ + " holds " + (ctl->magic == ctlMagic ? std::string(type) : "something else") +
                  ", not " + shapeText(shape_);
         ::munmap(c, sizeof(CtlHeader));
         ::close(ctlFd_);
         ctlFd_ = -1;
         return false;
      }
      ctl_ = c;
   }
   auto const * ctl = static_cast<CtlHeader const *>(ctl_);
   // A writer that grows several times in a row may unlink the generation
   // just read from the control; read it again, a bounded number of times.
   for (int tries = 0; tries < 64; ++tries) {
      uint32_t gen = const_cast<CtlHeader *>(ctl)->generation.load(std::memory_order_acquire);
      if (gen_ && gen_->generation == gen) return true;
      std::string why;
      auto m = mapObject(objectName(path_, genPart(gen)), false, &why);
      if (!m) {
         error_ = why;
         continue;  // switched meanwhile: read the control again
      }
      std::string err = validate(*m, shape_);
      if (!err.empty() || m->generation != gen) {
         error_ = "table " + path_ + ": " + (err.empty() ? std::string("generation mismatch") : err);
         return gen_ != nullptr;
      }
      gen_ = std::shared_ptr<Mapping>(std::move(m));
      error_.clear();
      return true;
   }
   return gen_ != nullptr;
}

bool TableReader::refresh() { return attach(); }

Found TableReader::find(void const * key, void * value) {
   if (!gen_ && !attach()) return Found::none;
   uint64_t h = hashKey(key, shape_.keyBytes);
   for (int round = 0; round < 4; ++round) {
      // No reference is taken on the mapping: nothing below can switch
      // the generation before the look-up is over (attach() comes after).
      Mapping const & m = *gen_;
      Found result = Found::none;
      for (uint64_t n = 0; n < m.capacity; ++n) {
         Look l = lookSlot(m, h + n, key, value);
         if (l == Look::unavailable) {
            result = Found::unavailable;
            break;
         }
         if (l == Look::empty) break;
         if (l == Look::match) {
            result = Found::row;
            break;
         }
      }
      // A look-up that raced a switch to a new generation is done again there.
      auto const * ctl = static_cast<CtlHeader const *>(ctl_);
      if (const_cast<CtlHeader *>(ctl)->generation.load(std::memory_order_acquire) == m.generation) return result;
      if (!attach()) return result;
   }
   return Found::unavailable;
}

void TableReader::forEach(std::function<void(void const *, void const *)> const & fn) {
   if (!gen_ && !attach()) return;
   attach();
   std::shared_ptr<Mapping> keep = gen_;
   Mapping const & m = *keep;
   std::vector<uint8_t> row(m.layout->slotBytes);
   for (uint64_t i = 0; i < m.capacity; ++i) {
      if (!readSlot(m, i, row.data())) continue;
      if (stateOf(row.data()) == live) fn(row.data() + 8, row.data() + m.layout->valueOffset);
   }
}

// ---- shadow -----------------------------------------------------------------------------------

TableShadow::TableShadow(std::string path, TableShape shape) : TableReader(std::move(path), std::move(shape)) {}

void TableShadow::resync(std::function<void(void const *)> const & changed) {
   ++resyncs_;
   std::shared_ptr<Mapping> keep = gen_;
   uint64_t head = keep->header()->ringHead.load(std::memory_order_acquire);
   std::unordered_set<std::string> present;
   forEach([&](void const * k, void const *) {
      present.emplace(static_cast<char const *>(k), shape_.keyBytes);
   });
   std::unordered_set<std::string> all(present);
   for (auto const & k : known_) all.insert(k);
   for (auto const & k : all) changed(k.data());
   known_ = std::move(present);
   next_ = head;
   seenGeneration_ = keep->generation;
   started_ = true;
}

size_t TableShadow::poll(std::function<void(void const *)> const & changed) {
   if (!attach() || !gen_) return 0;
   if (!started_ || seenGeneration_ != gen_->generation) {
      resync(changed);
      return 1;
   }
   std::shared_ptr<Mapping> keep = gen_;  // callbacks may move gen_ on
   Mapping const & m = *keep;
   uint64_t head = m.header()->ringHead.load(std::memory_order_acquire);
   if (head < next_ || head - next_ > m.ring) {
      resync(changed);
      return 1;
   }
   size_t n = 0;
   std::vector<uint8_t> key(m.layout->ringEntryBytes - 8);
   for (uint64_t s = next_; s < head; ++s) {
      uint8_t * e = m.ringEntry(s);
      auto * seq = reinterpret_cast<std::atomic<uint64_t> *>(e);
      uint64_t a = seq->load(std::memory_order_acquire);
      loadWords(key.data(), e + 8, key.size());
      std::atomic_thread_fence(std::memory_order_acquire);
      if (a != s + 1 || seq->load(std::memory_order_relaxed) != a) {
         // Overwritten while we were behind: start from the whole table.
         resync(changed);
         return n + 1;
      }
      known_.emplace(reinterpret_cast<char const *>(key.data()), shape_.keyBytes);
      changed(key.data());
      ++n;
   }
   next_ = head;
   return n;
}

} // namespace Smash
