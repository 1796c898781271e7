// A small program for the trace tests: the environment is read once per process, so each case
// runs this program afresh with its own environment. It performs its arguments as commands, in
// order, and prints each result to the console, where the trace's own complaints also go:
//
//   enabled                    enabled=<0|1>          IsTracingEnabled
//   filter <level> <subject>   filter=<0|1>           TraceThisSubject
//   msg <level> <subject> <t>  (nothing)              Msg(level, subject, "child", "%s\n", t)
//   hex <level> <count>        (nothing)              MsgHex of count bytes 0, 1, 2, ... (mod 256)
//   level <n>                  level=<0|1>            SetTraceLevel
//   delim <n>                  delim=<0|1>            SetTraceDelim
//   folder <path|->            folder=<0|1>           SetTraceFolderName ("-": null)
//   subjects <text|->          subjects=<0|1>         SetTraceSubjects ("-": null)
//   quiet                      (nothing)              console verbosity 0 from now on
//
// Numbers may be decimal or hexadecimal ("0x10").
#include <DorvikCore/DKConsole.h>
#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTrace.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

int Number(const char* text) {
  return static_cast<int>(std::strtol(text, nullptr, 0));
}

void Print(const std::string& name, bool value) {
  DKLockedCOUT() << name << '=' << (value ? 1 : 0) << std::endl;
}

std::uint32_t Silent(void*) {
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string command = argv[i];
    // The n-th argument of the command; the arguments are skipped once taken.
    int taken = 0;
    const auto argument = [&](int n) -> const char* {
      if (i + n >= argc) {
        std::cerr << "missing argument for " << command << '\n';
        std::exit(2);
      }
      taken = std::max(taken, n);
      return argv[i + n];
    };
    const auto level = [&] { return static_cast<TracelLevels>(Number(argument(1))); };
    if (command == "enabled") {
      Print(command, DKTrace::IsTracingEnabled());
    } else if (command == "filter") {
      Print(command, DKTrace::TraceThisSubject(level(), static_cast<TracelSubjects>(Number(argument(2)))));
    } else if (command == "msg") {
      DKTrace::Msg(level(), static_cast<TracelSubjects>(Number(argument(2))), "child", "%s\n", argument(3));
    } else if (command == "hex") {
      std::vector<unsigned char> bytes(static_cast<std::size_t>(Number(argument(2))));
      for (std::size_t b = 0; b < bytes.size(); ++b)
        bytes[b] = static_cast<unsigned char>(b);
      DKTrace::MsgHex(level(), TS_SO, "child", bytes.data(), static_cast<std::int32_t>(bytes.size()));
    } else if (command == "level" || command == "delim") {
      const int value = Number(argument(1));
      Print(command, command == "level" ? DKTrace::SetTraceLevel(value) : DKTrace::SetTraceDelim(value));
    } else if (command == "folder" || command == "subjects") {
      const DKString text = DKString::FromUTF8(argument(1));
      const DKChar* value = std::strcmp(argument(1), "-") == 0 ? nullptr : text.c_str();
      Print(command, command == "folder" ? DKTrace::SetTraceFolderName(value) : DKTrace::SetTraceSubjects(value));
    } else if (command == "quiet") {
      DKSetTraceLevelProvider(&Silent);
    } else {
      std::cerr << "unknown command " << command << '\n';
      return 2;
    }
    i += taken;
  }
  return 0;
}
