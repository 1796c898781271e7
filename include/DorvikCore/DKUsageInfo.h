// DKUsageInfo: the command-line options a program (or a plug-in) accepts, with their
// descriptions, and the layout of the usage screen printed from them.
#pragma once

#include <DorvikCore/DKString.h>

#include <cstddef>
#include <vector>

// A list of option descriptions in the order they were added. A value: copy it freely. Not for
// changing from two threads at once.
class DK_EXPORT DKUsageInfo {
public:
  // Option names up to nameWidth code units share a line with their description; longer names
  // get a line of their own. Descriptions are broken at blanks into chunks of at most
  // descriptionWidth code units.
  static constexpr std::size_t nameWidth = 20;
  static constexpr std::size_t descriptionWidth = 54;

  // No options, and the general information given (none by default).
  DKUsageInfo() = default;
  explicit DKUsageInfo(const DKString& generalInfo) : m_generalInfo(generalInfo) {}

  // What the value of an option must read as, for DKCommandLine::Check.
  enum class ValueKind {
    Text,    // Any text.
    Integer, // A whole number, as DKString::AsInt reads it.
    Number,  // A number, as DKString::AsDouble reads it.
  };

  // Adds an option description. The name is written without its leading "/" and includes its
  // value syntax: "config:{filename}" takes a value, "consoleToFile[:filename]" may take one,
  // "noConsole" takes none. The flag is kept with the entry and handed back by
  // GetCmdLineArgDesc; the layout does not use it. The narrow form takes UTF-8 text (an invalid
  // sequence becomes U+FFFD; a null pointer is the empty text). The ValueKind forms also say
  // what the value must read as (Text by default).
  void AddCmdLineArgDesc(const DKString& name, const DKString& description, bool flag = false);
  void AddCmdLineArgDesc(const char* name, const char* description, bool flag = false);
  void AddCmdLineArgDesc(const DKString& name, const DKString& description, ValueKind kind);
  void AddCmdLineArgDesc(const char* name, const char* description, ValueKind kind);

  // An option as its name's syntax describes it.
  struct Option {
    // Whether the option takes a value.
    enum Value {
      NoValue,       // A name alone: "noConsole".
      RequiredValue, // A name followed by ":", "{" or a blank: "config:{filename}".
      OptionalValue, // A name followed by "[": "consoleToFile[:filename]".
    };
    DKString name;  // The switch name alone: "config" of "config:{filename}".
    Value value;    // Whether it takes a value.
    ValueKind kind; // What the value must read as.
  };
  // The options of the entries, in order of addition, as DKCommandLine::Check reads them.
  std::vector<Option> GetOptions() const;

  // The number of entries added.
  std::size_t GetCmdLineArgDescCount() const noexcept { return m_entries.size(); }
  // The entry at index, in order of addition. False, with the outputs untouched, when index is
  // out of range.
  bool GetCmdLineArgDesc(std::size_t index, DKString& name, DKString& description, bool& flag) const;

  // Free text printed above the option lines: set, and read.
  void SetGeneralInfo(const DKString& info) { m_generalInfo = info; }
  const DKString& GetGeneralInfo() const noexcept { return m_generalInfo; }

  // The option lines of the usage screen, without line ends, entry after entry:
  //   "   /" name padded to 20, a blank, the first chunk padded to 54;
  //   a name longer than 20 as "   /" name alone, every chunk on a continuation line;
  //   a continuation line is 25 blanks and the chunk padded to 54.
  // A description breaks at the last blank that keeps a chunk within 54 code units (the blank
  // itself is dropped); a run of more than 54 code units without a blank is cut at 54.
  std::vector<DKString> FormatOptionLines() const;
  // The general information on a line of its own (when not empty), then the option lines; every
  // line ends with "\n".
  DKString FormatUsage() const;

private:
  struct Entry {
    DKString name;
    DKString description;
    bool flag;
    ValueKind kind;
  };

  DKString m_generalInfo;
  std::vector<Entry> m_entries;
};
