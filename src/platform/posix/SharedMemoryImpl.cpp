// POSIX shared memory for the named synchronisation objects (SharedMemoryImpl.h).
#include "SharedMemoryImpl.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <new>
#include <thread>

namespace {

constexpr std::uint32_t kMagic = 0x444B5348; // "DKSH"
constexpr std::uint32_t kVersion = 1;
constexpr int kMaxUsers = 64;
// How long an opener waits for a creator to finish building the segment before it takes the
// segment for the remains of a creator that died.
constexpr auto kCreationGrace = std::chrono::seconds(2);

struct User {
  pid_t pid;
  std::uint32_t count;
};

struct Header {
  std::atomic<std::uint32_t> ready; // set once the creator has built the header and the object
  std::uint32_t magic;
  std::uint32_t version;
  std::uint32_t objectSize;
  std::uint32_t removed; // the last user closed it and removed the name
  pthread_mutex_t lock;  // robust and process-shared: guards everything below and the users
  User users[kMaxUsers];
};

constexpr std::size_t kObjectOffset = (sizeof(Header) + 63) & ~std::size_t(63);

Header* HeaderOf(void* base) { return static_cast<Header*>(base); }
void* ObjectOf(void* base) { return static_cast<char*>(base) + kObjectOffset; }

int LockHeader(Header* header) {
  const int rc = pthread_mutex_lock(&header->lock);
  if (rc == EOWNERDEAD) // a process died inside the header's few lines: the table is still usable
    return pthread_mutex_consistent(&header->lock);
  return rc;
}

void UnlockHeader(Header* header) { pthread_mutex_unlock(&header->lock); }

bool ProcessAlive(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

// Drops the counts of processes that no longer exist; true when a living user remains.
bool PruneUsers(Header* header) {
  bool anyone = false;
  for (User& user : header->users) {
    if (user.count == 0)
      continue;
    if (ProcessAlive(user.pid))
      anyone = true;
    else
      user = User{0, 0};
  }
  return anyone;
}

bool AddUser(Header* header, pid_t pid) {
  User* free = nullptr;
  for (User& user : header->users) {
    if (user.count != 0 && user.pid == pid) {
      ++user.count;
      return true;
    }
    if (user.count == 0 && !free)
      free = &user;
  }
  if (!free)
    return false;
  *free = User{pid, 1};
  return true;
}

// Drops one count of pid; true when no process has the segment open any more.
bool RemoveUser(Header* header, pid_t pid) {
  bool anyone = false;
  for (User& user : header->users) {
    if (user.count != 0 && user.pid == pid && --user.count == 0)
      user = User{0, 0};
    if (user.count != 0)
      anyone = true;
  }
  return !anyone;
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

std::uint64_t Fnv1a(const std::string& text) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
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
    std::snprintf(hash, sizeof hash, "~%016llx", static_cast<unsigned long long>(Fnv1a(bare)));
    escaped = escaped.substr(0, kLongest - result.size() - 17) + hash;
  }
  return result + escaped;
}

DKSharedSegment* DKSharedSegment::Open(const char* kind, const std::string& name, std::size_t objectSize,
                                       Initialise initialise, void* context, int& error) noexcept {
  try {
    const std::string shmName = SegmentName(kind, name);
    const std::size_t size = kObjectOffset + objectSize;
    const pid_t self = getpid();
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
      const int mapError = errno;
      close(fd);
      if (base == MAP_FAILED) {
        if (creator)
          shm_unlink(shmName.c_str());
        error = mapError;
        return nullptr;
      }
      Header* header = HeaderOf(base);

      if (creator) {
        header->magic = kMagic;
        header->version = kVersion;
        header->objectSize = static_cast<std::uint32_t>(objectSize);
        int rc = InitHeaderLock(header);
        if (rc == 0)
          rc = LockHeader(header);
        if (rc == 0) {
          rc = initialise(ObjectOf(base), context);
          AddUser(header, self);
          header->ready.store(1, std::memory_order_release);
          UnlockHeader(header);
        }
        if (rc != 0) {
          munmap(base, size);
          shm_unlink(shmName.c_str());
          error = rc;
          return nullptr;
        }
        return new DKSharedSegment(shmName, base, size);
      }

      if (!WaitBriefly([&] { return header->ready.load(std::memory_order_acquire) != 0; })) {
        munmap(base, size);
        shm_unlink(shmName.c_str());
        continue;
      }
      if (header->magic != kMagic || header->version != kVersion || header->objectSize != objectSize) {
        munmap(base, size);
        error = EINVAL;
        return nullptr;
      }
      int rc = LockHeader(header);
      if (rc != 0) {
        munmap(base, size);
        error = rc;
        return nullptr;
      }
      if (header->removed) {
        UnlockHeader(header);
        munmap(base, size);
        continue;
      }
      if (!PruneUsers(header))
        rc = initialise(ObjectOf(base), context);
      if (rc == 0 && !AddUser(header, self))
        rc = EMFILE;
      UnlockHeader(header);
      if (rc != 0) {
        munmap(base, size);
        error = rc;
        return nullptr;
      }
      return new DKSharedSegment(shmName, base, size);
    }
    error = EAGAIN;
    return nullptr;
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
    return nullptr;
  }
}

void* DKSharedSegment::Object() const noexcept { return ObjectOf(m_base); }

void DKSharedSegment::Close() noexcept {
  Header* header = HeaderOf(m_base);
  if (LockHeader(header) == 0) {
    PruneUsers(header);
    if (RemoveUser(header, getpid())) {
      // Removed under the lock: an opener that finds the segment afterwards sees it marked and
      // starts over with a new one.
      header->removed = 1;
      shm_unlink(m_shmName.c_str());
    }
    UnlockHeader(header);
  }
  munmap(m_base, m_size);
  delete this;
}
