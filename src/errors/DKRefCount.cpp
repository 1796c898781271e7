#include <DorvikCore/DKRefCount.h>

// Out of line so the class's type information and virtual table live in the library.
DKRefCount::~DKRefCount() = default;
