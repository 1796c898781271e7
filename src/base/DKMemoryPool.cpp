// The memory pool: malloc with a size header, and live counters that cost no atomic
// read-modify-write on the allocating path.
//
// Each thread counts in a shard of its own (plain loads and stores of relaxed atomics, which
// only that thread writes); a reader sums the shards of the live threads and the totals that
// ended threads left behind. A block freed on another thread than the one that allocated it
// simply makes one shard's count go below zero: only the sum means anything.
//
// The shard also keeps the thread's freed small blocks (up to 256 bytes, at most 64 KiB in
// all) in lists by size, and hands them out again before asking malloc. A program that builds
// and drops many small strings at once (a parsed command line, a loaded file) then costs the
// allocator nothing per string: the C library's own per-thread cache holds 7 blocks a size,
// and what it cannot hold goes through its shared bins. The kept blocks go back to malloc when
// the thread ends. Sanitizer builds keep none, so that their checks see every block.
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepBlocks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool kKeepBlocks = false;
#else
constexpr bool kKeepBlocks = true;
#endif
#else
constexpr bool kKeepBlocks = true;
#endif

// Small blocks come in steps that end where the C library's own blocks end. On 64-bit systems
// malloc hands out 16-byte multiples that carry an 8-byte header, that is 24, 40, 56, ... usable
// bytes, so a block rounded up to its step costs no more than one of the exact size.
constexpr std::size_t kGrain = 16;                        // from one step to the next
constexpr std::size_t kSlack = 8;                         // a step's distance below a multiple of kGrain
constexpr std::size_t kSmall = 256 - kSlack;              // the largest block kept for reuse (a step)
constexpr std::size_t kLists = (kSmall + kSlack) / kGrain - 1; // one list per step
constexpr std::size_t kKeptBytes = 64 * 1024;             // per thread

constexpr std::size_t StepOf(std::size_t n) noexcept {
  return n <= kGrain + kSlack ? kGrain + kSlack : ((n + kSlack + kGrain - 1) & ~(kGrain - 1)) - kSlack;
}
constexpr std::size_t ListOf(std::size_t step) noexcept { return (step + kSlack) / kGrain - 2; }
static_assert(StepOf(1) == 24 && StepOf(24) == 24 && StepOf(25) == 40 && StepOf(kSmall) == kSmall);
static_assert(ListOf(StepOf(1)) == 0 && ListOf(kSmall) == kLists - 1);

// The size asked of malloc for a block of `bytes`: small ones are rounded up to their step, so
// that a kept block serves any request of its step. Without kept blocks the size stays exact,
// so that a sanitizer sees an overrun at the first byte past the request.
constexpr std::size_t AllocationSize(std::size_t bytes) noexcept {
  const std::size_t n = bytes != 0 ? bytes : 1;
  return kKeepBlocks && n <= kSmall ? StepOf(n) : n;
}

// A thread's freed small blocks, linked through their first bytes.
struct KeptBlocks {
  struct Link {
    Link* next;
  };
  Link* lists[kLists] = {};
  std::size_t bytes = 0;

  void* Take(std::size_t size) noexcept {
    Link*& list = lists[ListOf(size)];
    Link* block = list;
    if (block) {
      list = block->next;
      bytes -= size;
    }
    return block;
  }
  bool Keep(void* block, std::size_t size) noexcept {
    if (bytes + size > kKeptBytes)
      return false;
    Link*& list = lists[ListOf(size)];
    list = new (block) Link{list};
    bytes += size;
    return true;
  }
  ~KeptBlocks() {
    for (Link* list : lists)
      while (list) {
        Link* next = list->next;
        std::free(list);
        list = next;
      }
  }
};

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
  KeptBlocks kept;
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

// The thread's own shard (found with one thread-local load), made on first use; null while the
// thread ends or when no shard can be made.
inline Shard* ThreadShard() noexcept { return dkbase::ThreadOwned<Shard>::Get(); }

// The counts a thread writes: its shard's, or the retired ones without a shard.
inline Counts& CountsOf(Shard* shard) noexcept { return shard ? shard->counts : TheRegistry().retired; }
inline Counts& ThreadCounts() noexcept { return CountsOf(ThreadShard()); }

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

// A block of `bytes` from the thread's kept blocks or the allocator, counted as `counted` bytes
// (what the caller asked for).
void* Take(std::size_t bytes, std::size_t counted) {
  const std::size_t size = AllocationSize(bytes);
  Shard* shard = ThreadShard();
  void* block = kKeepBlocks && shard && size <= kSmall ? shard->kept.Take(size) : nullptr;
  if (!block && !(block = std::malloc(size)))
    throw std::bad_alloc();
  Counts& counts = CountsOf(shard);
  Add(counts, &Counts::liveBlocks, 1);
  Add(counts, &Counts::liveBytes, static_cast<std::int64_t>(counted));
  Add(counts, &Counts::totalBlocks, 1);
  return block;
}

// Gives back a block taken with `bytes`; it is kept for reuse while the thread has room.
void GiveBack(void* block, std::size_t bytes, std::size_t counted) noexcept {
  const std::size_t size = AllocationSize(bytes);
  Shard* shard = ThreadShard();
  Counts& counts = CountsOf(shard);
  Add(counts, &Counts::liveBlocks, -1);
  Add(counts, &Counts::liveBytes, -static_cast<std::int64_t>(counted));
  if (!(kKeepBlocks && shard && size <= kSmall && shard->kept.Keep(block, size)))
    std::free(block);
}

} // namespace

void* DMMemoryPool::NewSized(std::size_t size) { return Take(size, size); }

void DMMemoryPool::DeleteSized(void* block, std::size_t size) noexcept {
  if (block)
    GiveBack(block, size, size);
}

void* DMMemoryPool::ResizeSized(void* block, std::size_t oldSize, std::size_t size) {
  if (!block)
    return NewSized(size);
  // A small block keeps the size of its step, as it may be kept for reuse when it is freed.
  void* moved = std::realloc(block, AllocationSize(size));
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
  const std::size_t size = *static_cast<std::size_t*>(raw);
  GiveBack(raw, size + kHeader, size);
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
