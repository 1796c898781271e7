// The host the plug-in tests run in a child process: a generic host, which also prints the
// usage screen when asked.
#include <DorvikCore/DKApplication.h>

int main(int argc, char** argv) {
  DKApplicationWithPlugIns app(argc, argv);
  if (app.DisplayUsageIfNecessary())
    return 0;
  return app.LoadAndRun();
}
