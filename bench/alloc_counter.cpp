// Replaces the global operator new and delete of the benchmark binary. Each
// block carries a 16-byte header in front of it with its size, whether it was
// counted and how far the header is from the start of the underlying block.
#include "alloc_counter.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

struct Header {
  std::size_t size;
  std::uint32_t counted;
  std::uint32_t offset;  // from the start of the malloc'ed block to the user
};
static_assert(sizeof(Header) == 16, "the header keeps 16-byte alignment");

std::atomic<long long> liveBytes{0};
std::atomic<long long> peakBytes{0};
long long scopeBase = 0;
thread_local bool tracking = false;

void notePeak(long long now) {
  long long seen = peakBytes.load(std::memory_order_relaxed);
  while (now > seen && !peakBytes.compare_exchange_weak(
                           seen, now, std::memory_order_relaxed)) {
  }
}

void* allocate(std::size_t size, std::size_t align) {
  const std::size_t offset = align > sizeof(Header) ? align : sizeof(Header);
  const std::size_t total = offset + (size == 0 ? 1 : size);
  void* base = nullptr;
  if (align > alignof(std::max_align_t)) {
    base = std::aligned_alloc(align, (total + align - 1) / align * align);
  } else {
    base = std::malloc(total);
  }
  if (base == nullptr) return nullptr;
  char* user = static_cast<char*>(base) + offset;
  Header* header = reinterpret_cast<Header*>(user) - 1;
  header->size = size;
  header->counted = tracking ? 1 : 0;
  header->offset = static_cast<std::uint32_t>(offset);
  if (tracking) {
    const long long now = liveBytes.fetch_add(static_cast<long long>(size),
                                              std::memory_order_relaxed) +
                          static_cast<long long>(size);
    notePeak(now);
  }
  return user;
}

void* allocateOrThrow(std::size_t size, std::size_t align) {
  void* p = allocate(size, align);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

void release(void* p) noexcept {
  if (p == nullptr) return;
  Header* header = static_cast<Header*>(p) - 1;
  if (header->counted != 0)
    liveBytes.fetch_sub(static_cast<long long>(header->size),
                        std::memory_order_relaxed);
  std::free(static_cast<char*>(p) - header->offset);
}

const std::size_t kPlain = alignof(std::max_align_t);

}  // namespace

namespace benchalloc {

Scope::Scope() {
  scopeBase = liveBytes.load();
  peakBytes.store(scopeBase);
  tracking = true;
}

Scope::~Scope() { tracking = false; }

std::size_t Scope::peak() const {
  const long long p = peakBytes.load() - scopeBase;
  return p > 0 ? static_cast<std::size_t>(p) : 0;
}

std::size_t Scope::current() const {
  const long long c = liveBytes.load() - scopeBase;
  return c > 0 ? static_cast<std::size_t>(c) : 0;
}

}  // namespace benchalloc

void* operator new(std::size_t size) { return allocateOrThrow(size, kPlain); }
void* operator new[](std::size_t size) { return allocateOrThrow(size, kPlain); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, kPlain);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, kPlain);
}
void* operator new(std::size_t size, std::align_val_t al) {
  return allocateOrThrow(size, static_cast<std::size_t>(al));
}
void* operator new[](std::size_t size, std::align_val_t al) {
  return allocateOrThrow(size, static_cast<std::size_t>(al));
}
void* operator new(std::size_t size, std::align_val_t al,
                   const std::nothrow_t&) noexcept {
  return allocate(size, static_cast<std::size_t>(al));
}
void* operator new[](std::size_t size, std::align_val_t al,
                     const std::nothrow_t&) noexcept {
  return allocate(size, static_cast<std::size_t>(al));
}

void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete(void* p, std::align_val_t) noexcept { release(p); }
void operator delete[](void* p, std::align_val_t) noexcept { release(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  release(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  release(p);
}
void operator delete(void* p, std::align_val_t,
                     const std::nothrow_t&) noexcept {
  release(p);
}
void operator delete[](void* p, std::align_val_t,
                       const std::nothrow_t&) noexcept {
  release(p);
}
