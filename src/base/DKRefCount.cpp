// Out-of-line destructors of the counted-object roots, so that their type information and
// virtual tables live in the library.
#include <DorvikCore/DKObject.h>
#include <DorvikCore/DKRefCount.h>

DKRefCount::~DKRefCount() = default;
DKObjectI::~DKObjectI() = default;
