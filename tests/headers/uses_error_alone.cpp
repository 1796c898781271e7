// Code a user writes with DKError.h alone: a null message source is passed and released.
#include <DorvikCore/DKError.h>

DKErrorWithArgs ErrorWithoutSource() { return DKErrorWithArgs(nullptr, 1); }
