// dkhost: a generic plug-in host. It loads the ".osx" plug-ins of the directories given with
// /osxpath (those named by their osx.lst, else every *.osx), or of the working directory,
// initialises and runs them, and unloads them once they are done or Ctrl+C asks it to quit.
//
//   dkhost /osxpath:<directory or list file> [/config:<file>] [/trace:0|1|2] [/consoleToFile[:<file>]]
#include <DorvikCore/DKApplication.h>

int main(int argc, char** argv) {
  DKApplicationWithPlugIns app(argc, argv);
  return app.LoadAndRun();
}
