// Replacement global allocation functions that count every call. The
// executable's definitions take precedence over the C++ library's for the
// whole process, so allocations made inside libIntf.so are counted too.
#include "Bench.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// The benchmarks are single-threaded: a relaxed load and store (no locked
// instruction) keeps counting cheap while staying free of data races.
std::atomic<uint64_t> allocationCount{0};

void counted() {
   allocationCount.store(allocationCount.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
}

void * allocate(std::size_t n) {
   counted();
   if (n == 0) n = 1;
   for (;;) {
      if (void * p = std::malloc(n)) return p;
      std::new_handler h = std::get_new_handler();
      if (!h) throw std::bad_alloc();
      h();
   }
}

void * allocateAligned(std::size_t n, std::align_val_t al) {
   counted();
   std::size_t a = static_cast<std::size_t>(al);
   if (a < sizeof(void *)) a = sizeof(void *);
   n = (n + a - 1) / a * a;  // aligned_alloc wants a multiple of the alignment
   if (n == 0) n = a;
   for (;;) {
      if (void * p = std::aligned_alloc(a, n)) return p;
      std::new_handler h = std::get_new_handler();
      if (!h) throw std::bad_alloc();
      h();
   }
}

} // namespace

uint64_t IntfBench::allocations() { return allocationCount.load(std::memory_order_relaxed); }

void * operator new(std::size_t n) { return allocate(n); }
void * operator new[](std::size_t n) { return allocate(n); }
void * operator new(std::size_t n, std::nothrow_t const &) noexcept {
   try {
      return allocate(n);
   } catch (...) {
      return nullptr;
   }
}
void * operator new[](std::size_t n, std::nothrow_t const &) noexcept {
   try {
      return allocate(n);
   } catch (...) {
      return nullptr;
   }
}
void * operator new(std::size_t n, std::align_val_t al) { return allocateAligned(n, al); }
void * operator new[](std::size_t n, std::align_val_t al) { return allocateAligned(n, al); }
void * operator new(std::size_t n, std::align_val_t al, std::nothrow_t const &) noexcept {
   try {
      return allocateAligned(n, al);
   } catch (...) {
      return nullptr;
   }
}
void * operator new[](std::size_t n, std::align_val_t al, std::nothrow_t const &) noexcept {
   try {
      return allocateAligned(n, al);
   } catch (...) {
      return nullptr;
   }
}

void operator delete(void * p) noexcept { std::free(p); }
void operator delete[](void * p) noexcept { std::free(p); }
void operator delete(void * p, std::size_t) noexcept { std::free(p); }
void operator delete[](void * p, std::size_t) noexcept { std::free(p); }
void operator delete(void * p, std::nothrow_t const &) noexcept { std::free(p); }
void operator delete[](void * p, std::nothrow_t const &) noexcept { std::free(p); }
void operator delete(void * p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void * p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void * p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void * p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void * p, std::align_val_t, std::nothrow_t const &) noexcept { std::free(p); }
void operator delete[](void * p, std::align_val_t, std::nothrow_t const &) noexcept {
   std::free(p);
}
