// Parameter kinds whose value classes live above the errors layer (the date-time parameter)
// hand the error code these operations when their first value is added, so the errors layer
// owns, copies and prints such values without knowing their classes.
#pragma once

#include <DorvikCore/DKError.h>

struct DKErrorParamOps {
  void* (*copy)(const void* value);
  void (*destroy)(void* value) noexcept;
  DKString (*text)(const void* value, const DKExecContext& context);
};

// Installs the operations of the date-time parameter kind; called before any such value exists.
void DKInstallDateTimeParamOps(const DKErrorParamOps* ops) noexcept;
