// The memory pool: malloc with a size header, and live counters that cost no atomic
// read-modify-write on the allocating path.
//
// Each thread counts in a shard of its own (plain loads and stores of relaxed atomics, which
// only that thread writes); a reader sums the shards of the live threads and the totals that
// ended threads left behind. A block freed on another thread than the one that allocated it
// simply makes one shard's count go below zero: only the sum means anything.
#include <DorvikCore/DKMemoryPool.h>

#include "base/DKThreadExit.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

namespace {

// Each block carries its requested size in a header in front of it, so Delete can keep the
// byte counter right. The header keeps the caller's part aligned like malloc's.
constexpr std::size_t kHeader = alignof(std::max_align_t);

struct Counts {
  std::atomic<std::int64_t> liveBlocks{0};
  std::atomic<std::int64_t> liveBytes{0};
  std::atomic<std::int64_t> totalBlocks{0};
};

struct Shard;

// The registry of live shards and the counts of ended threads (also used by a thread that
// allocates while it ends, after its shard is gone).
struct Registry {
  std::mutex lock;
  Shard* first = nullptr;
  Counts retired;
};

Registry& TheRegistry() {
  static Registry* const registry = new Registry; // never destroyed: threads end after main
  return *registry;
}

// A thread's counts, linked into the registry while the thread lives. When the thread ends,
// its counts go to the retired ones and it is unlinked.
struct Shard {
  Counts counts;
  Shard* next = nullptr;
  Shard* previous = nullptr;
  Shard() {
    Registry& r = TheRegistry();
    std::lock_guard guard(r.lock);
    next = r.first;
    if (r.first)
      r.first->previous = this;
    r.first = this;
  }
  ~Shard() {
    Registry& r = TheRegistry();
    std::lock_guard guard(r.lock);
    r.retired.liveBlocks.fetch_add(counts.liveBlocks.load(std::memory_order_relaxed), std::memory_order_relaxed);
    r.retired.liveBytes.fetch_add(counts.liveBytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
    r.retired.totalBlocks.fetch_add(counts.totalBlocks.load(std::memory_order_relaxed), std::memory_order_relaxed);
    (previous ? previous->next : r.first) = next;
    if (next)
      next->previous = previous;
  }
  Shard(const Shard&) = delete;
  Shard& operator=(const Shard&) = delete;
};

[[gnu::noinline]] Counts& NewThreadCounts() noexcept {
  Shard* shard = dkbase::ThreadOwned<Shard>::Get();
  return shard ? shard->counts : TheRegistry().retired;
}

// The thread's own shard; while the thread ends (or when no shard can be made), the retired
// counts. The shard is found with one thread-local load.
inline Counts& ThreadCounts() noexcept {
  if (Shard* shard = dkbase::ThreadOwned<Shard>::Current()) [[likely]]
    return shard->counts;
  return NewThreadCounts();
}

// Adds to a counter. The thread's own shard is written by this thread alone, so a plain load
// and store are enough; the retired counts are shared and need the atomic addition.
void Add(Counts& counts, std::atomic<std::int64_t> Counts::*counter, std::int64_t delta) noexcept {
  std::atomic<std::int64_t>& c = counts.*counter;
  if (&counts == &TheRegistry().retired)
    c.fetch_add(delta, std::memory_order_relaxed);
  else
    c.store(c.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
}

std::size_t Sum(std::atomic<std::int64_t> Counts::*counter) noexcept {
  Registry& r = TheRegistry();
  std::lock_guard guard(r.lock);
  std::int64_t total = (r.retired.*counter).load(std::memory_order_relaxed);
  for (const Shard* s = r.first; s; s = s->next)
    total += (s->counts.*counter).load(std::memory_order_relaxed);
  return static_cast<std::size_t>(total);
}

// A block of `bytes` from the allocator, counted as `counted` bytes (what the caller asked for).
void* Take(std::size_t bytes, std::size_t counted) {
  void* block = std::malloc(bytes != 0 ? bytes : 1);
  if (!block)
    throw std::bad_alloc();
  Counts& counts = ThreadCounts();
  Add(counts, &Counts::liveBlocks, 1);
  Add(counts, &Counts::liveBytes, static_cast<std::int64_t>(counted));
  Add(counts, &Counts::totalBlocks, 1);
  return block;
}

void GiveBack(void* block, std::size_t counted) noexcept {
  Counts& counts = ThreadCounts();
  Add(counts, &Counts::liveBlocks, -1);
  Add(counts, &Counts::liveBytes, -static_cast<std::int64_t>(counted));
  std::free(block);
}

} // namespace

void* DMMemoryPool::NewSized(std::size_t size) { return Take(size, size); }

void DMMemoryPool::DeleteSized(void* block, std::size_t size) noexcept {
  if (block)
    GiveBack(block, size);
}

void* DMMemoryPool::ResizeSized(void* block, std::size_t oldSize, std::size_t size) {
  if (!block)
    return NewSized(size);
  void* moved = std::realloc(block, size != 0 ? size : 1);
  if (!moved)
    throw std::bad_alloc();
  Add(ThreadCounts(), &Counts::liveBytes, static_cast<std::int64_t>(size) - static_cast<std::int64_t>(oldSize));
  return moved;
}

// The header-carrying family: the requested size sits in the first kHeader bytes, which keep
// the block aligned for any fundamental type; the counters count what the caller asked for.
void* DMMemoryPool::New(std::size_t size) {
  if (size > static_cast<std::size_t>(-1) - kHeader)
    throw std::bad_alloc();
  void* raw = Take(size + kHeader, size);
  *static_cast<std::size_t*>(raw) = size;
  return static_cast<char*>(raw) + kHeader;
}

void DMMemoryPool::Delete(void* block) noexcept {
  if (!block)
    return;
  void* raw = static_cast<char*>(block) - kHeader;
  GiveBack(raw, *static_cast<std::size_t*>(raw));
}

void* DMMemoryPool::Resize(void* block, std::size_t size) {
  if (!block)
    return New(size);
  if (size > static_cast<std::size_t>(-1) - kHeader)
    throw std::bad_alloc();
  void* raw = static_cast<char*>(block) - kHeader;
  const std::size_t old = *static_cast<std::size_t*>(raw);
  void* moved = ResizeSized(raw, old + kHeader, size + kHeader);
  *static_cast<std::size_t*>(moved) = size;
  return static_cast<char*>(moved) + kHeader;
}

std::size_t DMMemoryPool::GetLiveBlocks() noexcept { return Sum(&Counts::liveBlocks); }
std::size_t DMMemoryPool::GetLiveBytes() noexcept { return Sum(&Counts::liveBytes); }
std::size_t DMMemoryPool::GetTotalBlocks() noexcept { return Sum(&Counts::totalBlocks); }
