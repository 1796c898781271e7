// The test plug-ins: every module of the test tree links all of them and its entry point
// makes one, by kind.
#pragma once

class DKPlugIn;

// The plug-in of that kind; throws for "entrythrows", null for "nullentry" and unknown kinds.
DKPlugIn* DKTestMakePlugIn(const char* kind);

#define DK_TEST_PLUGIN_ENTRY(kind)                                                                                     \
  extern "C" __attribute__((visibility("default"))) DKPlugIn* GetPlugInObject() { return DKTestMakePlugIn(kind); }
