// Helpers shared by the synchronisation objects (internal).
#pragma once

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKString.h>

#include "threads/DKSyncImpl.h"

#include <string>

// Throws the system's failure.
[[noreturn]] inline void DKThrowSystemError(int error) { throw DKWindowsLastErrorException(error); }

// Locks a kernel-style mutex without limit; an abandoned mutex is taken over. Throws on failure.
inline void DKLockOrThrow(DKMutexImpl* mutex) {
  int error = 0;
  if (mutex->Lock(-1, error) == DKWaitStatus::Failed)
    DKThrowSystemError(error);
}

inline void DKUnlockOrThrow(DKMutexImpl* mutex) {
  if (const int error = mutex->Unlock())
    DKThrowSystemError(error);
}

// Holds a kernel-style mutex for a scope.
class DKMutexImplGuard {
public:
  explicit DKMutexImplGuard(DKMutexImpl* mutex) : m_mutex(mutex) { DKLockOrThrow(m_mutex); }
  ~DKMutexImplGuard() { m_mutex->Unlock(); }
  DKMutexImplGuard(const DKMutexImplGuard&) = delete;
  DKMutexImplGuard& operator=(const DKMutexImplGuard&) = delete;

private:
  DKMutexImpl* m_mutex;
};
