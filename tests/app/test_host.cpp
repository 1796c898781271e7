// The host the plug-in tests run in a child process: a generic host.
#include <DorvikCore/DKApplication.h>

int main(int argc, char** argv) { return DKApplicationWithPlugIns(argc, argv).LoadAndRun(); }
