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

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

int Number(const char* text) {
  return static_cast<int>(std::strtol(text, nullptr, 0));
}

DKString Text(const char* utf8) {
  DKString text;
  text.SetFromUTF8(utf8);
  return text;
}

void Print(const char* name, bool value) {
  DKLockedCOUT() << name << '=' << (value ? 1 : 0) << std::endl;
}

std::uint32_t Silent(void*) {
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string command = argv[i];
    const auto argument = [&](int n) -> const char* {
      if (i + n >= argc) {
        std::cerr << "missing argument for " << command << '\n';
        std::exit(2);
      }
      return argv[i + n];
    };
    if (command == "enabled") {
      Print("enabled", DKTrace::IsTracingEnabled());
    } else if (command == "filter") {
      Print("filter", DKTrace::TraceThisSubject(static_cast<TracelLevels>(Number(argument(1))),
                                                static_cast<TracelSubjects>(Number(argument(2)))));
      i += 2;
    } else if (command == "msg") {
      DKTrace::Msg(static_cast<TracelLevels>(Number(argument(1))), static_cast<TracelSubjects>(Number(argument(2))),
                   "child", "%s\n", argument(3));
      i += 3;
    } else if (command == "hex") {
      std::vector<unsigned char> bytes(static_cast<std::size_t>(Number(argument(2))));
      for (std::size_t b = 0; b < bytes.size(); ++b)
        bytes[b] = static_cast<unsigned char>(b);
      DKTrace::MsgHex(static_cast<TracelLevels>(Number(argument(1))), TS_SO, "child", bytes.data(),
                      static_cast<std::int32_t>(bytes.size()));
      i += 2;
    } else if (command == "level") {
      Print("level", DKTrace::SetTraceLevel(Number(argument(1))));
      i += 1;
    } else if (command == "delim") {
      Print("delim", DKTrace::SetTraceDelim(Number(argument(1))));
      i += 1;
    } else if (command == "folder" || command == "subjects") {
      const bool null = std::strcmp(argument(1), "-") == 0;
      const DKString text = Text(argument(1));
      const DKChar* value = null ? nullptr : text.c_str();
      Print(command.c_str(),
            command == "folder" ? DKTrace::SetTraceFolderName(value) : DKTrace::SetTraceSubjects(value));
      i += 1;
    } else if (command == "quiet") {
      DKSetTraceLevelProvider(&Silent);
    } else {
      std::cerr << "unknown command " << command << '\n';
      return 2;
    }
  }
  return 0;
}
