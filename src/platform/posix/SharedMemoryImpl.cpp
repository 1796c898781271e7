// POSIX shared memory for the named synchronisation objects (SharedMemoryImpl.h).
#include "SharedMemoryImpl.h"

#include "threads/DKSyncImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <new>
#include <thread>

namespace {

constexpr std::uint32_t kMagic = 0x444B5348; // "DKSH"
constexpr std::uint32_t kVersion = 2;
// How long an opener waits for a creator to finish building the segment before it takes the
// segment for the remains of a creator that died.
constexpr auto kCreationGrace = std::chrono::seconds(2);

struct Header {
  std::atomic<std::uint32_t> ready; // set once the creator has built the header and the object
  std::uint32_t magic;
  std::uint32_t version;
  std::uint32_t objectSize;
  std::uint32_t removed; // the last user closed it and removed the name
  pthread_mutex_t lock;  // robust and process-shared: guards removed, the object's rebuilding
                         // and every change of a process's lock on the segment
};

constexpr std::size_t kObjectOffset = (sizeof(Header) + 63) & ~std::size_t(63);

Header* HeaderOf(void* base) { return static_cast<Header*>(base); }
void* ObjectOf(void* base) { return static_cast<char*>(base) + kObjectOffset; }

int LockHeader(Header* header) {
  const int rc = pthread_mutex_lock(&header->lock);
  if (rc == EOWNERDEAD) // a process died inside the header's few lines: the header is still usable
    return pthread_mutex_consistent(&header->lock);
  return rc;
}

void UnlockHeader(Header* header) { pthread_mutex_unlock(&header->lock); }

// The lock on the segment's first byte that marks a process as a user: shared while it has the
// segment open, exclusive for the one that finds itself alone. It belongs to the open file
// description, so the system drops it when the process ends. 0 or the system's error (EAGAIN
// when another process holds a lock that conflicts).
int SetUserLock(int fd, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 1;
  if (fcntl(fd, F_OFD_SETLK, &lock) == 0)
    return 0;
  return errno == EACCES ? EAGAIN : errno;
}

int InitHeaderLock(Header* header) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int rc = pthread_mutex_init(&header->lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return rc;
}

template <class Condition>
bool WaitBriefly(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kCreationGrace;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The segments this process has open, by shared-memory name, so that its opens of one name
// share a descriptor and a mapping. Nothing else is locked while the table's lock is held. Two
// threads opening a name at once may each open a segment: the second one stays out of the table
// and is a user of its own, which the locks on the segment count as any other.
struct OpenSegments {
  std::mutex lock;
  std::map<std::string, DKSharedSegment*> byName;
};

OpenSegments& TheOpenSegments() {
  static OpenSegments* segments = new OpenSegments; // never destroyed: objects may close late
  return *segments;
}

} // namespace

std::string DKSharedSegment::SegmentName(const char* kind, const std::string& name) {
  // "Local\" names the session's namespace, which is where every name lives here.
  std::string bare = name.rfind("Local\\", 0) == 0 ? name.substr(6) : name;
  std::string escaped;
  for (const unsigned char c : bare) {
    if (c == '/' || c == '%' || c < 0x20) {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", c);
      escaped += code;
    } else {
      escaped += static_cast<char>(c);
    }
  }
  std::string result = std::string("/DorvikCore.") + kind + ".";
  // A file name has at most 255 bytes: a long name keeps its beginning and a hash of the whole.
  constexpr std::size_t kLongest = 200;
  if (result.size() + escaped.size() > kLongest) {
    char hash[24];
    std::snprintf(hash, sizeof hash, "~%016llx", static_cast<unsigned long long>(DKSyncNameHash(bare)));
    escaped = escaped.substr(0, kLongest - result.size() - 17) + hash;
  }
  return result + escaped;
}

DKSharedSegment* DKSharedSegment::Open(const char* kind, const std::string& name, std::size_t objectSize,
                                       Initialise initialise, void* context, int& error) noexcept {
  try {
    const std::string shmName = SegmentName(kind, name);
    OpenSegments& open = TheOpenSegments();
    const int self = static_cast<int>(getpid());
    {
      std::lock_guard<std::mutex> guard(open.lock);
      const auto it = open.byName.find(shmName);
      // An entry a forked child inherited stays with the objects that hold it.
      if (it != open.byName.end() && it->second->m_pid == self) {
        if (it->second->m_size != kObjectOffset + objectSize) {
          error = EINVAL;
          return nullptr;
        }
        ++it->second->m_opens;
        return it->second;
      }
    }
    DKSharedSegment* segment = OpenNew(shmName, objectSize, initialise, context, error);
    if (segment) {
      std::lock_guard<std::mutex> guard(open.lock);
      try {
        DKSharedSegment*& entry = open.byName[shmName];
        if (!entry || entry->m_pid != self)
          entry = segment;
      } catch (const std::bad_alloc&) { // left out of the table, it is a user of its own
      }
    }
    return segment;
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
    return nullptr;
  }
}

DKSharedSegment* DKSharedSegment::OpenNew(const std::string& shmName, std::size_t objectSize, Initialise initialise,
                                          void* context, int& error) {
  const std::size_t size = kObjectOffset + objectSize;
  // A segment being removed, or the remains of a creator that died, make the loop start over.
  for (int attempt = 0; attempt < 64; ++attempt) {
    int fd = shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const bool creator = fd >= 0;
    if (!creator) {
      if (errno != EEXIST) {
        error = errno;
        return nullptr;
      }
      fd = shm_open(shmName.c_str(), O_RDWR | O_CLOEXEC, 0);
      if (fd < 0) {
        if (errno == ENOENT)
          continue;
        error = errno;
        return nullptr;
      }
      struct stat status {};
      const bool sized = WaitBriefly([&] { return fstat(fd, &status) == 0 && status.st_size != 0; });
      if (!sized || static_cast<std::size_t>(status.st_size) != size) {
        close(fd);
        if (sized) { // another kind of object, or another version of the library
          error = EINVAL;
          return nullptr;
        }
        shm_unlink(shmName.c_str());
        continue;
      }
    } else if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
      error = errno;
      close(fd);
      shm_unlink(shmName.c_str());
      return nullptr;
    }

    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
      error = errno;
      close(fd);
      if (creator)
        shm_unlink(shmName.c_str());
      return nullptr;
    }
    Header* header = HeaderOf(base);
    const auto giveUp = [&](int rc) -> DKSharedSegment* {
      munmap(base, size);
      close(fd);
      error = rc;
      return nullptr;
    };
    // The process's record of the open segment; without memory for it, nothing stays open.
    const auto keep = [&]() -> DKSharedSegment* {
      try {
        return new DKSharedSegment(shmName, fd, base, size, static_cast<int>(getpid()));
      } catch (const std::bad_alloc&) {
        if (creator)
          shm_unlink(shmName.c_str());
        return giveUp(ENOMEM);
      }
    };

    if (creator) {
      header->magic = kMagic;
      header->version = kVersion;
      header->objectSize = static_cast<std::uint32_t>(objectSize);
      int rc = InitHeaderLock(header);
      if (rc == 0)
        rc = LockHeader(header);
      if (rc == 0) {
        rc = SetUserLock(fd, F_RDLCK);
        if (rc == 0)
          rc = initialise(ObjectOf(base), context);
        header->ready.store(1, std::memory_order_release);
        UnlockHeader(header);
      }
      if (rc != 0) {
        shm_unlink(shmName.c_str());
        return giveUp(rc);
      }
      return keep();
    }

    if (!WaitBriefly([&] { return header->ready.load(std::memory_order_acquire) != 0; })) {
      giveUp(0);
      shm_unlink(shmName.c_str());
      continue;
    }
    if (header->magic != kMagic || header->version != kVersion || header->objectSize != objectSize)
      return giveUp(EINVAL);
    int rc = LockHeader(header);
    if (rc != 0)
      return giveUp(rc);
    if (header->removed) {
      UnlockHeader(header);
      giveUp(0);
      continue;
    }
    // Alone: every process that had the object open has ended, and it starts afresh.
    rc = SetUserLock(fd, F_WRLCK);
    if (rc == 0)
      rc = initialise(ObjectOf(base), context);
    else if (rc == EAGAIN)
      rc = 0;
    if (rc == 0)
      rc = SetUserLock(fd, F_RDLCK); // no one holds it exclusively outside the header's lock
    UnlockHeader(header);
    if (rc != 0)
      return giveUp(rc);
    return keep();
  }
  error = EAGAIN;
  return nullptr;
}

void* DKSharedSegment::Object() const noexcept { return ObjectOf(m_base); }

void DKSharedSegment::Close() noexcept {
  OpenSegments& open = TheOpenSegments();
  {
    std::lock_guard<std::mutex> guard(open.lock);
    if (--m_opens != 0)
      return;
    const auto it = open.byName.find(m_shmName);
    if (it != open.byName.end() && it->second == this)
      open.byName.erase(it);
  }
  // A forked child only lets go of what it inherited: the object is its parent's.
  if (m_pid == static_cast<int>(getpid())) {
    Header* header = HeaderOf(m_base);
    if (LockHeader(header) == 0) {
      // Removed under the header's lock: an opener that finds the segment afterwards sees it
      // marked and starts over with a new one. Another user, in this process or another, keeps
      // the lock from turning exclusive.
      if (!header->removed && SetUserLock(m_fd, F_WRLCK) == 0) {
        header->removed = 1;
        shm_unlink(m_shmName.c_str());
      }
      UnlockHeader(header);
    }
  }
  munmap(m_base, m_size);
  close(m_fd); // drops this process's lock
  delete this;
}
