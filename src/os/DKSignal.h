// The signals that ask a process to quit (internal), implemented once per platform in
// src/platform/<os>/SignalImpl.cpp: interrupt (Ctrl+C) and termination here.
#pragma once

class DKSignal {
public:
  // Runs on the signal: it may only do what is safe in a signal handler (set an atomic flag).
  typedef void (*QuitHandler)(int signalNumber);

  // Routes the quit signals to handler, keeping the dispositions they had, and returns a token
  // for Restore; null when the system refused.
  static void* InstallQuitHandler(QuitHandler handler);
  // Puts back the dispositions kept by InstallQuitHandler and frees the token.
  static void Restore(void* token);
};
