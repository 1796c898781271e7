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

  // Holds the quit signals back from the calling thread, so that they wait as pending until
  // TakeQuitSignal accepts one; returns a token for ReleaseQuitSignals. A thread that polls for
  // quit requests this way depends on no asynchronous delivery at all.
  static void* HoldQuitSignals();
  // Accepts a pending quit signal without waiting: its number when one was pending (it is
  // consumed; several pending at once are taken as one), else 0. Only meaningful on a thread
  // that holds the quit signals back.
  static int TakeQuitSignal();
  // Puts back the calling thread's previous signal mask; a quit signal still pending is then
  // delivered to the installed handler. Frees the token.
  static void ReleaseQuitSignals(void* token);
};
