// Code a user writes with one header: templates and inline functions that compiling the
// header alone does not instantiate, and results of calls declared there.
#include <DorvikCore/DKConfigFile.h>

bool DecodeWithConfigFileAlone(DKString& s) { return s.SetFromUTF8("x").Good(); }
