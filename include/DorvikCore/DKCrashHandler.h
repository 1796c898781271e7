// Catching of crashes: a fatal signal (segmentation fault, bus error, arithmetic error, illegal
// instruction, abort) writes a crash report before the process ends. The report holds the
// signal and its cause, the process, the thread, the time, the stack and the dump of the
// library's threads; it goes to the standard error and is appended to the report file.
//
// After the report the process ends exactly as it would have: a handler that was installed
// before runs, otherwise the signal's default action (a core dump where the system makes them).
//
// On Windows the crash is a structured exception that no one handled: the report names the
// exception's code (EXCEPTION_ACCESS_VIOLATION, EXCEPTION_STACK_OVERFLOW, ...), the filter that
// was installed before runs after it, and the process then ends with the exception's code as its
// exit code (3 after abort). Each thread keeps a stack guarantee, so that a stack overflow is
// reported too.
//
// A crash is never turned into a C++ exception (DKSignalException), on a DKThread or elsewhere
// and on every system: code after a fault cannot be trusted, and GCC's code keeps no unwind state
// at a faulting instruction.
#pragma once

#include <DorvikCore/DKExport.h>
#include <DorvikCore/DKString.h>

// Installs the catching for the process (once) and an alternate signal stack (on Windows a stack
// guarantee) for the calling thread, so that a stack overflow is reported too. DKThread calls it
// on each of its threads and the plug-in host on its main thread; call it on threads made
// otherwise. Cheap when done.
DK_EXPORT void DKInitCatchSignal();

// Sets the file a crash report is appended to besides the standard error; empty for none. An
// application sets it to its error log. False (and no file) when the path is too long.
DK_EXPORT bool DKSetCrashReportFile(const DKString& path);
// The file set by DKSetCrashReportFile; empty when there is none.
DK_EXPORT DKString DKGetCrashReportFile();
