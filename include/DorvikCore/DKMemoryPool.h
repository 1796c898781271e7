// The library's memory pool: every string block and error parameter comes from here, and the
// live counters let tests and applications check that nothing leaks.
#pragma once

#include <DorvikCore/DKTypes.h>

// The pool's functions, all static and callable from any thread. Counting costs the
// allocating thread no shared write; the counters are sums over all threads.
class DK_EXPORT DMMemoryPool {
public:
  // Returns a block of at least `size` bytes, aligned for any fundamental type. Throws
  // std::bad_alloc when the system has no memory left.
  static void* New(std::size_t size);
  // Frees a block returned by New; a null pointer is ignored.
  static void Delete(void* block) noexcept;
  // Gives a block returned by New a new size, keeping its first min(old, new) bytes; the block
  // may move (large blocks usually grow where they are). Throws std::bad_alloc, leaving the
  // block as it was, when the system has no memory left.
  static void* Resize(void* block, std::size_t size);

  // The same without a header in front of the block, for owners that keep its size themselves
  // (a string's block holds its capacity): the caller passes the size it asked for back to
  // DeleteSized and ResizeSized. A block from one family goes back to the same family. These
  // blocks are the allocator's own, so a short string costs the allocator's smallest block.
  static void* NewSized(std::size_t size);
  static void DeleteSized(void* block, std::size_t size) noexcept;
  static void* ResizeSized(void* block, std::size_t oldSize, std::size_t size);

  // Blocks handed out by New or NewSized and not yet given back.
  static std::size_t GetLiveBlocks() noexcept;
  // Bytes requested by those blocks.
  static std::size_t GetLiveBytes() noexcept;
  // Blocks handed out since the process started.
  static std::size_t GetTotalBlocks() noexcept;
};
