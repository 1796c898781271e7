// Helpers shared by the synchronisation objects (internal).
#pragma once

#include <DorvikCore/DKException.h>
#include <DorvikCore/DKString.h>

#include "threads/DKSyncImpl.h"

#include <string>

// Throws the system's failure.
[[noreturn]] inline void DKThrowSystemError(int error) { throw DKWindowsLastErrorException(error); }

inline void DKUnlockOrThrow(DKMutexImpl* mutex) {
  if (const int error = mutex->Unlock())
    DKThrowSystemError(error);
}
