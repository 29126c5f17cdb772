// The Smash table engine; the design note is DESIGN.md beside this file.
#include <Smash/Table.h>

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

namespace Smash {

namespace {

constexpr uint64_t genMagic = 0x4e45474853414d53ull;  // "SMASHGEN"
constexpr uint64_t ctlMagic = 0x4c54434853414d53ull;  // "SMASHCTL"
constexpr uint32_t formatVersion = 3;
constexpr uint32_t maxRing = 1u << 24;
constexpr uint32_t maxRowBytes = 1u << 16;
// A value copy that raced the writer twice is tried again this often
// before the look-up says "unavailable".
constexpr int copyTries = 1000;
// A look-up restarts when its row was re-assigned under it, or the table
// switched generations; this often at most.
constexpr int lookupRounds = 16;

// The slot's head word: a count of (re)assignments times 8, the "being
// assigned" bit, and the state. Key and state change only while the bit is
// set; the value is replaced through the slot's two copies without it.
enum SlotState : uint64_t { empty = 0, live = 1, tombstone = 2 };
constexpr uint64_t assigning = 4;
constexpr uint64_t stateMask = 3;

struct CtlHeader {
   uint64_t magic;
   uint32_t version;
   uint32_t keyBytes;
   uint32_t valueBytes;
   // The current generation; 0 while there is none (a writer starting, or
   // the table removed).
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

// Slot: head word, value word, key, value copy 0, value copy 1; each part
// starts on a word, so every copy in or out is a word at a time.
struct Layout {
   uint64_t keyOffset = slotKeyOffset, valueOffset, valueStride, slotBytes, ringEntryBytes, slotsOffset, ringOffset, total;
   Layout(uint32_t keyBytes, uint32_t valueBytes, uint32_t capacity, uint32_t ring) {
      valueOffset = keyOffset + align(keyBytes, 8);
      valueStride = align(valueBytes, 8);
      slotBytes = valueOffset + 2 * valueStride;
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

std::string shapeText(TableShape const & s) {
   return s.rowType + " (" + std::to_string(s.keyBytes) + "+" + std::to_string(s.valueBytes) + " bytes)";
}

// "g<N>", the part name of generation N.
std::string genPart(uint32_t gen) {
   char buf[16];
   std::snprintf(buf, sizeof buf, "g%u", gen);
   return buf;
}

// The generation after `g`; 0 means "none" and is skipped.
uint32_t nextGeneration(uint32_t g) { return g + 1 == 0 ? 1 : g + 1; }

// Each mapping of this process has its own number, so that a shadow tells
// a new generation from the one it followed (a table removed and made
// again restarts its generation numbers).
uint64_t nextSerial() {
   static std::atomic<uint64_t> serial{0};
   return ++serial;
}

std::atomic<uint64_t> * word(uint8_t * p) { return reinterpret_cast<std::atomic<uint64_t> *>(p); }
std::atomic<uint64_t> const * word(uint8_t const * p) { return reinterpret_cast<std::atomic<uint64_t> const *>(p); }

// Word-wise relaxed atomic copies between shared memory (word-aligned) and
// anywhere: shared memory another process writes is only ever touched
// through atomics. The last word is padded with zeros going in, and read
// whole coming out (slot parts are padded to words).
void copyIn(uint8_t * to, void const * from, uint64_t bytes) {
   auto const * f = static_cast<uint8_t const *>(from);
   for (uint64_t i = 0; i < bytes; i += 8) {
      uint64_t v = 0;
      std::memcpy(&v, f + i, std::min<uint64_t>(8, bytes - i));
      word(to + i)->store(v, std::memory_order_relaxed);
   }
}
void copyOut(void * to, uint8_t const * from, uint64_t bytes) {
   auto * d = static_cast<uint8_t *>(to);
   uint64_t i = 0;
   for (; i + 8 <= bytes; i += 8) {
      uint64_t v = word(from + i)->load(std::memory_order_relaxed);
      std::memcpy(d + i, &v, 8);
   }
   if (i < bytes) {
      uint64_t v = word(from + i)->load(std::memory_order_relaxed);
      std::memcpy(d + i, &v, bytes - i);
   }
}

// The key in a slot against the caller's key, word by word.
bool sameKey(uint8_t const * slotKey, void const * key, uint32_t n) {
   auto const * k = static_cast<uint8_t const *>(key);
   uint32_t i = 0;
   for (; i + 8 <= n; i += 8) {
      uint64_t a = word(slotKey + i)->load(std::memory_order_relaxed), b;
      std::memcpy(&b, k + i, 8);
      if (a != b) return false;
   }
   if (i < n) {
      uint64_t a = word(slotKey + i)->load(std::memory_order_relaxed);
      return std::memcmp(&a, k + i, n - i) == 0;
   }
   return true;
}

} // namespace

// A reader's mapped control object.
class Control {
 public:
   ~Control() {
      if (base) ::munmap(base, sizeof(CtlHeader));
      if (fd >= 0) ::close(fd);
   }
   std::atomic<uint32_t> & generation() const { return static_cast<CtlHeader *>(base)->generation; }
   int fd = -1;
   void * base = nullptr;
};

// One mapped generation object, with the sizes its header gave, checked
// once and kept here: nothing read from shared memory is used unchecked.
class Mapping : public MappingState {
 public:
   Mapping() : serial(nextSerial()) {}
   ~Mapping() {
      if (base) ::munmap(base, size);
      if (fd >= 0) ::close(fd);
   }
   GenHeader * header() const { return static_cast<GenHeader *>(base); }
   uint8_t * slot(uint64_t i) const {
      return static_cast<uint8_t *>(base) + layout.slotsOffset + (i & (capacity - 1)) * layout.slotBytes;
   }
   uint8_t * ringEntry(uint64_t seq) const {
      return static_cast<uint8_t *>(base) + layout.ringOffset + (seq & (ring - 1)) * layout.ringEntryBytes;
   }
   static std::atomic<uint64_t> * head(uint8_t * slot) { return word(slot); }
   static std::atomic<uint64_t> * valueWord(uint8_t * slot) { return word(slot + 8); }
   // The copy of the value readers take: the low bit of the version.
   uint8_t * copy(uint8_t * slot, uint64_t valueWord) const {
      return slot + layout.valueOffset + ((valueWord >> 1) & 1) * layout.valueStride;
   }

   uint64_t const serial;
   std::shared_ptr<Control const> control;  // a reader's: kept mapped with the generation
   int fd = -1;
   void * base = nullptr;
   size_t size = 0;
   uint32_t capacity = 0, ring = 0, generation = 0, keyBytes = 0, valueBytes = 0;
   Layout layout{0, 0, 0, 0};
};

namespace {

// Checks a generation's header, read once into a private copy, against the
// expected shape and the object's real size; fills in the mapping's sizes
// from the copy.
std::string validate(Mapping & m, TableShape const & shape) {
   if (m.size < sizeof(GenHeader)) return "table object smaller than its header";
   // Every field is read exactly once; later checks use only the copy.
   struct {
      uint64_t magic, totalBytes;
      uint32_t version, headerBytes, keyBytes, valueBytes, capacity, ringCapacity, generation, slotBytes,
          ringEntryBytes;
      char rowType[64];
   } h;
   alignas(8) uint8_t raw[sizeof(GenHeader)];
   copyOut(raw, static_cast<uint8_t const *>(m.base), sizeof raw);
#define SMASH_FIELD_(f) std::memcpy(&h.f, raw + offsetof(GenHeader, f), sizeof h.f)
   SMASH_FIELD_(magic);
   SMASH_FIELD_(totalBytes);
   SMASH_FIELD_(version);
   SMASH_FIELD_(headerBytes);
   SMASH_FIELD_(keyBytes);
   SMASH_FIELD_(valueBytes);
   SMASH_FIELD_(capacity);
   SMASH_FIELD_(ringCapacity);
   SMASH_FIELD_(generation);
   SMASH_FIELD_(slotBytes);
   SMASH_FIELD_(ringEntryBytes);
   SMASH_FIELD_(rowType);
#undef SMASH_FIELD_
   if (h.magic != genMagic) return "not a table object (bad magic)";
   if (h.version != formatVersion) {
      return "table format version " + std::to_string(h.version) + ", expected " + std::to_string(formatVersion);
   }
   if (h.headerBytes != sizeof(GenHeader)) return "bad header size";
   char type[65] = {};
   std::memcpy(type, h.rowType, 64);
   if (shape.rowType != type) return "table of " + std::string(type) + ", expected " + shape.rowType;
   if (h.keyBytes != shape.keyBytes || h.valueBytes != shape.valueBytes) {
      return "row of " + std::to_string(h.keyBytes) + "+" + std::to_string(h.valueBytes) + " bytes, expected " +
             shapeText(shape);
   }
   if (!powerOfTwo(h.capacity) || h.capacity > TableWriter::maxCapacityLimit) return "bad capacity";
   if (!powerOfTwo(h.ringCapacity) || h.ringCapacity > maxRing) return "bad ring capacity";
   Layout l(h.keyBytes, h.valueBytes, h.capacity, h.ringCapacity);
   if (h.slotBytes != l.slotBytes || h.ringEntryBytes != l.ringEntryBytes || h.totalBytes != l.total) {
      return "table layout does not match its sizes";
   }
   if (l.total > m.size) return "table object smaller than its layout";
   m.capacity = h.capacity;
   m.ring = h.ringCapacity;
   m.generation = h.generation;
   m.keyBytes = h.keyBytes;
   m.valueBytes = h.valueBytes;
   m.layout = l;
   return "";
}

// Maps an opened object; null (and `why`) when it cannot be.
std::unique_ptr<Mapping> mapFile(ShmFile && f, bool write, std::string * why) {
   if (!f) {
      *why = f.why;
      return nullptr;
   }
   auto m = std::make_unique<Mapping>();
   m->fd = f.fd;
   m->size = f.size;
   if (m->size == 0) {
      *why = "empty table object";
      return nullptr;
   }
   m->base = ::mmap(nullptr, m->size, write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, m->fd, 0);
   if (m->base == MAP_FAILED) {
      m->base = nullptr;
      *why = std::string("cannot map: ") + std::strerror(errno);
      return nullptr;
   }
   return m;
}

std::unique_ptr<Mapping> createGeneration(std::string const & path, TableShape const & shape, uint32_t gen,
                                          uint32_t capacity, uint32_t ring) {
   std::string name = objectName(path, genPart(gen));
   removeObject(name);  // a leftover of a writer that died before publishing it
   Layout l(shape.keyBytes, shape.valueBytes, capacity, ring);
   std::string why;
   auto m = mapFile(createObject(name, l.total, false), true, &why);
   if (!m) throw Error("table " + path + ": " + why);
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
   if (!err.empty()) {
      removeObject(name);
      throw Error("table " + path + ": " + err);
   }
   return m;
}

// ---- the slot protocol ------------------------------------------------------------------------

// Writer: (re)assigns a slot: a new state, and with a key and a value for a
// live row. Readers skip the slot meanwhile; one that was copying the old
// row sees the head word move and does not use its copy.
void assign(Mapping const & m, uint8_t * s, uint64_t state, void const * key, void const * value) {
   auto * head = Mapping::head(s);
   uint64_t h = head->load(std::memory_order_relaxed);
   head->store(h | assigning, std::memory_order_release);
   std::atomic_thread_fence(std::memory_order_release);
   if (key) copyIn(s + m.layout.keyOffset, key, m.keyBytes);
   if (value) copyIn(m.copy(s, Mapping::valueWord(s)->load(std::memory_order_relaxed)), value, m.valueBytes);
   head->store(((h >> 3) + 1) << 3 | state, std::memory_order_release);
}

// Writer: replaces a live row's value. The value word is the copy's version
// times 2 plus a "being written" bit: the writer marks it, writes the copy
// readers are not using, and moves to the next version, which names that
// copy. A reader's copy stays good until the writer marks the version after
// next (the only write to the copy it reads), so a writer stopped anywhere
// in here never keeps readers from the row.
void replaceValue(Mapping const & m, uint8_t * s, void const * value) {
   auto * vw = Mapping::valueWord(s);
   uint64_t v = vw->load(std::memory_order_relaxed) & ~uint64_t(1);
   vw->store(v | 1, std::memory_order_release);
   std::atomic_thread_fence(std::memory_order_release);
   copyIn(m.copy(s, v + 2), value, m.valueBytes);
   vw->store(v + 2, std::memory_order_release);
}

enum class Copy { whole, reassigned, contended };

// Reader: copies the value of a slot whose head word was `h` into `value`,
// and `key` too when given. `whole` when the copy is of one version and the
// slot still holds the same row (head unchanged).
Copy copyRow(Mapping const & m, uint8_t * s, uint64_t h, void * value, void * key) {
   auto const * head = Mapping::head(s);
   auto const * vw = Mapping::valueWord(s);
   for (int t = 0; t < copyTries; ++t) {
      uint64_t v1 = vw->load(std::memory_order_acquire);
      if (key) copyOut(key, s + m.layout.keyOffset, m.keyBytes);
      copyOut(value, m.copy(s, v1), m.valueBytes);
      std::atomic_thread_fence(std::memory_order_acquire);
      uint64_t v2 = vw->load(std::memory_order_relaxed);
      if (head->load(std::memory_order_relaxed) != h) return Copy::reassigned;
      // The copy named by version n is next written once the word reaches
      // 2n + 3: anything below that leaves it whole.
      if (v2 - (v1 & ~uint64_t(1)) < 3) return Copy::whole;
   }
   return Copy::contended;
}

// The writer's probe (its own slots hold still): the slot holding `key`, or
// where it would go. `firstFree` gets the first tombstone or empty slot of
// the chain, UINT64_MAX when there is none.
std::pair<uint64_t, bool> probe(Mapping const & m, void const * key, uint64_t * firstFree) {
   uint64_t h = hashKey(key, m.keyBytes);
   *firstFree = UINT64_MAX;
   for (uint64_t n = 0; n < m.capacity; ++n) {
      uint64_t i = (h + n) & (m.capacity - 1);
      uint8_t * s = m.slot(i);
      uint64_t st = Mapping::head(s)->load(std::memory_order_relaxed) & stateMask;
      if (st == empty) {
         if (*firstFree == UINT64_MAX) *firstFree = i;
         return {i, false};
      }
      if (st == tombstone) {
         if (*firstFree == UINT64_MAX) *firstFree = i;
         continue;
      }
      if (sameKey(s + m.layout.keyOffset, key, m.keyBytes)) return {i, true};
   }
   return {UINT64_MAX, false};
}

// ---- the control object -----------------------------------------------------------------------

// A private copy of a control object's fixed fields.
struct CtlFields {
   uint64_t magic;
   uint32_t version, keyBytes, valueBytes;
   char rowType[65];
};

CtlFields controlCopy(void const * ctl) {
   alignas(8) uint8_t raw[sizeof(CtlHeader)];
   copyOut(raw, static_cast<uint8_t const *>(ctl), sizeof raw);
   CtlFields c{};
   std::memcpy(&c.magic, raw + offsetof(CtlHeader, magic), 8);
   std::memcpy(&c.version, raw + offsetof(CtlHeader, version), 4);
   std::memcpy(&c.keyBytes, raw + offsetof(CtlHeader, keyBytes), 4);
   std::memcpy(&c.valueBytes, raw + offsetof(CtlHeader, valueBytes), 4);
   std::memcpy(c.rowType, raw + offsetof(CtlHeader, rowType), 64);
   return c;
}

std::string checkControl(CtlFields const & c, TableShape const & shape, std::string const & path) {
   if (c.magic != ctlMagic || c.version != formatVersion) return "table " + path + ": control object of another format";
   if (shape.rowType != c.rowType || c.keyBytes != shape.keyBytes || c.valueBytes != shape.valueBytes) {
      return "table " + path + " holds " + c.rowType + ", not " + shapeText(shape);
   }
   return "";
}

std::atomic<uint32_t> & generationOf(void const * ctl) {
   return const_cast<CtlHeader *>(static_cast<CtlHeader const *>(ctl))->generation;
}

} // namespace

void removeTable(std::string_view path) {
   std::string name;
   try {
      name = objectName(path, "ctl");
   } catch (Error const &) {
      return;  // no table can have such a name
   }
   // Readers still attached learn from the control object that the table
   // is gone (generation 0) and look for a new one.
   ShmFile f = openForWriting(name);
   if (f && f.size >= sizeof(CtlHeader)) {
      void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ | PROT_WRITE, MAP_SHARED, f.fd, 0);
      if (c != MAP_FAILED) {
         generationOf(c).store(0, std::memory_order_release);
         ::munmap(c, sizeof(CtlHeader));
      }
   }
   if (f) ::close(f.fd);
   removeObjectsOf(path);
}

// ---- writer -----------------------------------------------------------------------------------

TableWriter::TableWriter(std::string path, TableShape shape, uint32_t initialCapacity, uint32_t ring,
                         uint32_t maxCapacity)
      : path_(std::move(path)), shape_(std::move(shape)), ringCapacity_(ring), maxCapacity_(maxCapacity) {
   if (shape_.keyBytes == 0 || shape_.keyBytes + uint64_t(shape_.valueBytes) > maxRowBytes) {
      throw Error("row of " + shapeText(shape_) + " not supported");
   }
   if (!powerOfTwo(ringCapacity_) || ringCapacity_ > maxRing) {
      throw Error("ring capacity must be a power of two up to " + std::to_string(maxRing));
   }
   if (!powerOfTwo(maxCapacity_) || maxCapacity_ < 16 || maxCapacity_ > maxCapacityLimit) {
      throw Error("maximum capacity must be a power of two from 16 to " + std::to_string(maxCapacityLimit));
   }
   uint32_t cap = 16;
   while (cap < initialCapacity && cap < maxCapacity_) cap *= 2;
   std::string ctlName = objectName(path_, "ctl");
   ShmFile f = createObject(ctlName, sizeof(CtlHeader), true);
   if (!f) throw Error("table " + path_ + ": " + f.why);
   ctlFd_ = f.fd;
   bool locked = false;
   // Whatever fails below gives back what was taken: the lock, the mapping,
   // and a control object this constructor made. (The constructor then
   // throws, so the writer's fields are never used again.)
   struct Undo {
      TableWriter * w;
      std::string const & ctlName;
      bool const & created;
      bool const & locked;
      bool done = false;
      ~Undo() {
         if (done) return;
         w->gen_.reset();
         if (w->ctl_) ::munmap(w->ctl_, sizeof(CtlHeader));
         if (created && locked) removeObject(ctlName);
         ::close(w->ctlFd_);
      }
   } undo{this, ctlName, f.created, locked};
   if (::flock(ctlFd_, LOCK_EX | LOCK_NB) != 0) throw Error("table " + path_ + " already has a writer");
   locked = true;
   ctl_ = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ | PROT_WRITE, MAP_SHARED, ctlFd_, 0);
   if (ctl_ == MAP_FAILED) {
      ctl_ = nullptr;
      throw Error("table " + path_ + ": cannot map its control object");
   }
   auto * ctl = static_cast<CtlHeader *>(ctl_);
   CtlFields copy = controlCopy(ctl_);
   std::unique_ptr<Mapping> old;
   if (copy.magic == 0) {
      // Made just now, or by a writer that died before writing it.
      ctl->generation.store(0, std::memory_order_relaxed);
      ctl->magic = ctlMagic;
      ctl->version = formatVersion;
      ctl->keyBytes = shape_.keyBytes;
      ctl->valueBytes = shape_.valueBytes;
      std::memset(ctl->rowType, 0, sizeof ctl->rowType);
      std::memcpy(ctl->rowType, shape_.rowType.data(), std::min<size_t>(shape_.rowType.size(), 63));
   } else {
      std::string err = checkControl(copy, shape_, path_);
      if (!err.empty()) throw Error(err);
      uint32_t gen = ctl->generation.load(std::memory_order_acquire);
      if (gen != 0) {
         std::string why;
         old = mapFile(openForWriting(objectName(path_, genPart(gen))), true, &why);
         // A generation that cannot be trusted or read is not taken over:
         // the table starts empty.
         if (old && (!validate(*old, shape_).empty() || old->generation != gen)) old.reset();
      }
   }
   ctl->writerPid.store(uint32_t(::getpid()), std::memory_order_relaxed);
   startGeneration(cap, old.get());
   undo.done = true;
}

TableWriter::~TableWriter() {
   gen_.reset();
   if (ctl_) ::munmap(ctl_, sizeof(CtlHeader));
   if (ctlFd_ >= 0) ::close(ctlFd_);  // releases the writer lock
}

// Writes a new generation of at least `capacity` slots with the whole rows
// of `from` (the current generation, or one a previous writer left),
// publishes it, and seals and removes the generation it replaces.
void TableWriter::startGeneration(uint32_t capacity, Mapping const * from) {
   auto * ctl = static_cast<CtlHeader *>(ctl_);
   uint32_t cur = ctl->generation.load(std::memory_order_relaxed);
   // The rows to carry over, and room for them.
   uint32_t rows = 0, dropped = 0;
   for (uint64_t i = 0; from && i < from->capacity; ++i) {
      uint64_t h = Mapping::head(from->slot(i))->load(std::memory_order_acquire);
      if (h & assigning) {
         ++dropped;  // a row being added or removed when its writer died
      } else if ((h & stateMask) == live) {
         ++rows;
      }
   }
   uint64_t cap = capacity;
   while (uint64_t(rows) * 4 > cap && cap < maxCapacity_) cap *= 2;
   if (uint64_t(rows) * 2 > cap) {
      throw Error("table " + path_ + " is full: " + std::to_string(rows) + " rows, at most " +
                  std::to_string(maxCapacity_ / 2));
   }
   uint32_t next = nextGeneration(cur);
   auto fresh = createGeneration(path_, shape_, next, uint32_t(cap), ringCapacity_);
   uint32_t count = 0;
   std::vector<uint64_t> key(align(shape_.keyBytes, 8) / 8), value(align(shape_.valueBytes, 8) / 8);
   for (uint64_t i = 0; from && i < from->capacity && count < rows; ++i) {
      uint8_t * s = from->slot(i);
      uint64_t h = Mapping::head(s)->load(std::memory_order_acquire);
      if ((h & assigning) || (h & stateMask) != live) continue;
      if (copyRow(*from, s, h, value.data(), key.data()) != Copy::whole) continue;
      uint64_t freeSlot;
      probe(*fresh, key.data(), &freeSlot);
      assign(*fresh, fresh->slot(freeSlot), live, key.data(), value.data());
      ++count;
   }
   fresh->header()->count.store(count, std::memory_order_relaxed);
   // Readers see the new generation once the control names it; the old one
   // is sealed and removed (mappings of it stay valid until dropped).
   ctl->generation.store(next, std::memory_order_release);
   if (from) const_cast<Mapping *>(from)->header()->sealed.store(1, std::memory_order_release);
   if (cur != 0) removeObject(objectName(path_, genPart(cur)));
   gen_ = std::move(fresh);
   tombstones_ = 0;
   repaired_ += dropped;
}

void TableWriter::publish(void const * key) {
   GenHeader * h = gen_->header();
   uint64_t head = h->ringHead.load(std::memory_order_relaxed);
   uint8_t * e = gen_->ringEntry(head);
   auto * seq = word(e);
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
      replaceValue(*gen_, gen_->slot(i), value);
      if (announce) publish(key);
      return;
   }
   GenHeader * h = gen_->header();
   uint32_t count = h->count.load(std::memory_order_relaxed);
   if (uint64_t(count + tombstones_ + 1) * 2 > gen_->capacity || freeSlot == UINT64_MAX) {
      // Grow, or only shed tombstones when the rows still fit.
      uint64_t cap = gen_->capacity;
      while (uint64_t(count + 1) * 4 > cap && cap < maxCapacity_) cap *= 2;
      if (uint64_t(count + 1) * 2 > cap) {
         throw Error("table " + path_ + " is full: " + std::to_string(count) + " rows, at most " +
                     std::to_string(maxCapacity_ / 2));
      }
      startGeneration(uint32_t(cap), gen_.get());
      h = gen_->header();
      probe(*gen_, key, &freeSlot);
   }
   uint8_t * s = gen_->slot(freeSlot);
   if ((Mapping::head(s)->load(std::memory_order_relaxed) & stateMask) == tombstone) --tombstones_;
   assign(*gen_, s, live, key, value);
   h->count.store(count + 1, std::memory_order_relaxed);
   if (announce) publish(key);
}

bool TableWriter::remove(void const * key, bool announce) {
   uint64_t freeSlot;
   auto [i, found] = probe(*gen_, key, &freeSlot);
   if (!found) return false;
   assign(*gen_, gen_->slot(i), tombstone, nullptr, nullptr);
   ++tombstones_;
   GenHeader * h = gen_->header();
   h->count.store(h->count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
   if (announce) publish(key);
   return true;
}

Found TableWriter::find(void const * key, void * value) const {
   uint64_t freeSlot;
   auto [i, found] = probe(*gen_, key, &freeSlot);
   if (!found) return Found::none;
   uint8_t * s = gen_->slot(i);
   copyOut(value, gen_->copy(s, Mapping::valueWord(s)->load(std::memory_order_relaxed)), shape_.valueBytes);
   return Found::row;
}

void TableWriter::forEach(std::function<void(void const *, void const *)> const & fn) const {
   for (uint64_t i = 0; i < gen_->capacity; ++i) {
      uint8_t * s = gen_->slot(i);
      if ((Mapping::head(s)->load(std::memory_order_relaxed) & stateMask) == live) {
         fn(s + gen_->layout.keyOffset, gen_->copy(s, Mapping::valueWord(s)->load(std::memory_order_relaxed)));
      }
   }
}

uint32_t TableWriter::size() const { return gen_->header()->count.load(std::memory_order_relaxed); }
uint32_t TableWriter::capacity() const { return gen_->capacity; }
uint32_t TableWriter::generation() const { return gen_->generation; }

// ---- reader -----------------------------------------------------------------------------------

TableReader::TableReader(std::string path, TableShape shape) : path_(std::move(path)), shape_(std::move(shape)) {
   attach();
}

TableReader::~TableReader() { detach(); }

void TableReader::dropGeneration() {
   if (gen_) gen_->current = false;
   gen_.reset();
}

void TableReader::detach() {
   dropGeneration();
   ctl_.reset();
}

bool TableReader::valid() const { return gen_ != nullptr; }
uint32_t TableReader::generation() const { return gen_ ? gen_->generation : 0; }

bool TableReader::attach() {
   // A control object that names no generation belongs to a table that was
   // removed (or is being made): look for the one at the name now.
   if (ctl_ && ctl_->generation().load(std::memory_order_acquire) == 0) detach();
   if (!ctl_) {
      std::string name;
      try {
         name = objectName(path_, "ctl");
      } catch (Error const & e) {
         error_ = e.what();
         return false;
      }
      ShmFile f = openForReading(name);
      if (!f) {
         error_ = "table " + path_ + ": " + f.why;
         return false;
      }
      if (f.size < sizeof(CtlHeader)) {
         error_ = "table " + path_ + ": control object too small";
         ::close(f.fd);
         return false;
      }
      void * c = ::mmap(nullptr, sizeof(CtlHeader), PROT_READ, MAP_SHARED, f.fd, 0);
      if (c == MAP_FAILED) {
         error_ = "table " + path_ + ": cannot map its control object";
         ::close(f.fd);
         return false;
      }
      CtlFields copy = controlCopy(c);
      std::string err = checkControl(copy, shape_, path_);
      if (!err.empty()) {
         error_ = copy.magic == ctlMagic ? err : "table " + path_ + " holds something else, not " + shapeText(shape_);
         ::munmap(c, sizeof(CtlHeader));
         ::close(f.fd);
         return false;
      }
      ctl_ = std::make_shared<Control>();
      ctl_->fd = f.fd;
      ctl_->base = c;
   }
   // A writer that grows several times in a row may remove the generation
   // just read from the control; read it again, a bounded number of times.
   for (int tries = 0; tries < 64; ++tries) {
      uint32_t gen = ctl_->generation().load(std::memory_order_acquire);
      if (gen == 0) {
         error_ = "table " + path_ + " has no generation yet";
         dropGeneration();
         return false;
      }
      if (gen_ && gen_->generation == gen) return true;
      std::string why;
      auto m = mapFile(openForReading(objectName(path_, genPart(gen))), false, &why);
      if (!m) {
         error_ = "table " + path_ + ": " + why;
         continue;  // switched meanwhile: read the control again
      }
      std::string err = validate(*m, shape_);
      if (!err.empty() || m->generation != gen) {
         error_ = "table " + path_ + ": " + (err.empty() ? std::string("generation mismatch") : err);
         return gen_ != nullptr;
      }
      m->control = ctl_;
      dropGeneration();
      gen_ = std::shared_ptr<Mapping>(std::move(m));
      error_.clear();
      return true;
   }
   return gen_ != nullptr;
}

bool TableReader::refresh() {
   // A control object deleted by hand (not through removeTable) still
   // names its generation: compare it with the object at the name.
   if (ctl_) {
      if (!stillNamed(ctl_->fd, objectName(path_, "ctl"))) detach();
   }
   return attach();
}

Found TableReader::find(void const * key, void * value, FindHint * hint) {
   if (!gen_ && !attach()) return Found::none;
   for (int round = 0; round < lookupRounds; ++round) {
      // No reference is taken on the mapping: nothing below can switch
      // the generation before the look-up is over (attach() comes after).
      Mapping const & m = *gen_;
      Found result = Found::none;
      bool again = false;
      // Where the key was found last time, if the slot still holds it.
      uint8_t * s = hint && hint->keep == gen_ ? const_cast<uint8_t *>(hint->slot) : nullptr;
      uint64_t h = s ? Mapping::head(s)->load(std::memory_order_acquire) : 0;
      if (s && h == hint->head && sameKey(s + m.layout.keyOffset, key, m.keyBytes)) {
         Copy c = copyRow(m, s, h, value, nullptr);
         result = c == Copy::whole ? Found::row : Found::unavailable;
         again = c == Copy::reassigned;
      } else {
         uint64_t start = hashKey(key, m.keyBytes);
         for (uint64_t n = 0; n < m.capacity; ++n) {
            uint64_t i = (start + n) & (m.capacity - 1);
            s = m.slot(i);
            h = Mapping::head(s)->load(std::memory_order_acquire);
            // A slot being (re)assigned holds no row that exists throughout
            // this look-up, and ends no chain: pass it.
            if (h & assigning) continue;
            uint64_t st = h & stateMask;
            if (st == empty) break;
            if (st != live || !sameKey(s + m.layout.keyOffset, key, m.keyBytes)) continue;
            Copy c = copyRow(m, s, h, value, nullptr);
            if (c == Copy::reassigned) {
               again = true;
            } else if (c == Copy::contended) {
               result = Found::unavailable;
            } else {
               result = Found::row;
               if (hint) {
                  *hint = FindHint{gen_, &ctl_->generation(), m.generation, uint32_t(m.layout.valueOffset),
                                   uint32_t(m.layout.valueStride), h, s};
               }
            }
            break;
         }
      }
      // A look-up that raced a switch to a new generation is done again there.
      if (ctl_->generation().load(std::memory_order_acquire) == m.generation) {
         if (!again) return result;
      } else if (!attach()) {
         return Found::none;  // the table is gone
      }
   }
   return Found::unavailable;
}

std::vector<std::string> TableReader::forEach(std::function<void(void const *, void const *)> const & fn) {
   std::vector<std::string> unreadable;
   if (!attach() && !gen_) return unreadable;
   std::shared_ptr<Mapping> keep = gen_;
   Mapping const & m = *keep;
   std::vector<uint64_t> key(align(m.keyBytes, 8) / 8), value(align(m.valueBytes, 8) / 8);
   for (uint64_t i = 0; i < m.capacity; ++i) {
      uint8_t * s = m.slot(i);
      uint64_t h = Mapping::head(s)->load(std::memory_order_acquire);
      // Rows being added or removed now are not present throughout.
      if ((h & assigning) || (h & stateMask) != live) continue;
      Copy c = copyRow(m, s, h, value.data(), key.data());
      if (c == Copy::whole) fn(key.data(), value.data());
      if (c == Copy::contended) unreadable.emplace_back(reinterpret_cast<char const *>(key.data()), m.keyBytes);
   }
   return unreadable;
}

// ---- shadow -----------------------------------------------------------------------------------

TableShadow::TableShadow(std::string path, TableShape shape) : TableReader(std::move(path), std::move(shape)) {}

Found TableShadow::find(void const * key, void * value, FindHint * hint) {
   Found f = TableReader::find(key, value, hint);
   if (f == Found::row) {
      held_.emplace(static_cast<char const *>(key), shape_.keyBytes);
   } else if (f == Found::none) {
      held_.erase(std::string(static_cast<char const *>(key), shape_.keyBytes));
   }
   return f;
}

void TableShadow::resync(std::function<void(void const *)> const & changed) {
   ++resyncs_;
   std::shared_ptr<Mapping> keep = gen_;
   uint64_t head = keep->header()->ringHead.load(std::memory_order_acquire);
   // Every key present (or present and unreadable), and every key the
   // consumer may still hold: the ones gone from the table are among them.
   std::unordered_set<std::string> report(held_);
   auto unreadable = forEach([&](void const * k, void const *) {
      report.emplace(static_cast<char const *>(k), shape_.keyBytes);
   });
   report.insert(unreadable.begin(), unreadable.end());
   held_.insert(report.begin(), report.end());
   next_ = head;
   seenMapping_ = keep->serial;
   for (auto const & k : report) changed(k.data());
}

size_t TableShadow::poll(std::function<void(void const *)> const & changed) {
   if (!attach()) {
      // The table is gone: so is every row the consumer holds.
      std::unordered_set<std::string> gone;
      gone.swap(held_);
      for (auto const & k : gone) changed(k.data());
      return gone.size();
   }
   if (seenMapping_ != gen_->serial) {
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
   std::string key(m.layout.ringEntryBytes - 8, '\0');
   for (uint64_t s = next_; s < head; ++s) {
      uint8_t * e = m.ringEntry(s);
      auto const * seq = word(e);
      uint64_t a = seq->load(std::memory_order_acquire);
      copyOut(key.data(), e + 8, key.size());
      std::atomic_thread_fence(std::memory_order_acquire);
      if (a != s + 1 || seq->load(std::memory_order_relaxed) != a) {
         // Overwritten while we were behind: start from the whole table.
         next_ = s;
         resync(changed);
         return n + 1;
      }
      next_ = s + 1;
      std::string k = key.substr(0, shape_.keyBytes);
      held_.insert(k);
      changed(k.data());
      ++n;
   }
   return n;
}

} // namespace Smash
