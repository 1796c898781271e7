// Compiled by the test build to show that a dropped DKErrorID is refused: with DK_DROP the
// result of a fallible call is ignored and compiling must fail; without it the same code keeps
// the result and compiles, so the failure is the dropped result and nothing else.
#include <DorvikCore/DKString.h>

bool Decode(DKString& s) {
#if defined(DK_DROP)
  s.SetFromUTF8("x");
  return true;
#else
  return s.SetFromUTF8("x").Good();
#endif
}
