#include <DorvikCore/DKMemoryPool.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Each block carries its requested size in a header in front of it, so Delete can keep the
// byte counter right. The header keeps the caller's part aligned like malloc's.
constexpr std::size_t kHeader = alignof(std::max_align_t);

std::atomic<std::size_t> g_liveBlocks{0};
std::atomic<std::size_t> g_liveBytes{0};
std::atomic<std::size_t> g_totalBlocks{0};

} // namespace

void* DMMemoryPool::New(std::size_t size) {
  if (size > static_cast<std::size_t>(-1) - kHeader)
    throw std::bad_alloc();
  void* raw = std::malloc(size + kHeader);
  if (!raw)
    throw std::bad_alloc();
  *static_cast<std::size_t*>(raw) = size;
  g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  g_liveBytes.fetch_add(size, std::memory_order_relaxed);
  g_totalBlocks.fetch_add(1, std::memory_order_relaxed);
  return static_cast<char*>(raw) + kHeader;
}

void DMMemoryPool::Delete(void* block) noexcept {
  if (!block)
    return;
  void* raw = static_cast<char*>(block) - kHeader;
  g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  g_liveBytes.fetch_sub(*static_cast<std::size_t*>(raw), std::memory_order_relaxed);
  std::free(raw);
}

void* DMMemoryPool::Resize(void* block, std::size_t size) {
  if (!block)
    return New(size);
  if (size > static_cast<std::size_t>(-1) - kHeader)
    throw std::bad_alloc();
  void* raw = static_cast<char*>(block) - kHeader;
  const std::size_t old = *static_cast<std::size_t*>(raw);
  void* moved = std::realloc(raw, size + kHeader);
  if (!moved)
    throw std::bad_alloc();
  *static_cast<std::size_t*>(moved) = size;
  if (size >= old)
    g_liveBytes.fetch_add(size - old, std::memory_order_relaxed);
  else
    g_liveBytes.fetch_sub(old - size, std::memory_order_relaxed);
  return static_cast<char*>(moved) + kHeader;
}

std::size_t DMMemoryPool::GetLiveBlocks() noexcept { return g_liveBlocks.load(std::memory_order_relaxed); }
std::size_t DMMemoryPool::GetLiveBytes() noexcept { return g_liveBytes.load(std::memory_order_relaxed); }
std::size_t DMMemoryPool::GetTotalBlocks() noexcept { return g_totalBlocks.load(std::memory_order_relaxed); }
