// DKCommandLine: a process's command line split into words and classified once, at
// construction, into switches ("/trace:2", "-noConsole") and other words (file names, paths),
// then looked up by switch name. DKCommandLineArgument is one classified word.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKUsageInfo.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// A value: the word's type, its name and its value.
class DK_EXPORT DKCommandLineArgument {
public:
  // What a word of the command line is.
  enum ArgumentType : std::int32_t {
    Flag = 0,        // A switch without a value: /noConsole.
    Valued = 1,      // A switch with a value: /trace:2.
    NonStandard = 2, // A word that is not a switch: a file name, a path.
    Absent = 3       // No such argument (a failed look-up), or an empty argument.
  };

  // An Absent argument, or one of the given parts.
  DKCommandLineArgument() = default;
  DKCommandLineArgument(const DKString& argument, const DKString& value, ArgumentType type)
      : m_type(type), m_argument(argument), m_value(value) {}

  // The word's type.
  ArgumentType GetArgType() const noexcept { return m_type; }
  // The switch name without its prefix character; the whole word for NonStandard.
  const DKString& GetArgument() const noexcept { return m_argument; }
  // The text after the value delimiter; empty for every type but Valued.
  const DKString& GetValueAsString() const noexcept { return m_value; }
  // The value read as a number, as DKString::AsInt and DKString::AsDouble read it.
  int GetValueAsInt() const { return m_value.AsInt(); }
  double GetValueAsDouble() const { return m_value.AsDouble(); }
  // The first code unit of the value; 0 when the value is empty.
  DKChar GetValueAsChar() const noexcept { return m_value[0]; }

  // Order and equality of the names alone, case-sensitively.
  friend bool operator==(const DKCommandLineArgument& a, const DKCommandLineArgument& b) noexcept {
    return a.m_argument == b.m_argument;
  }
  friend bool operator<(const DKCommandLineArgument& a, const DKCommandLineArgument& b) {
    return a.m_argument < b.m_argument;
  }

private:
  ArgumentType m_type = Absent;
  DKString m_argument;
  DKString m_value;
};

// A command line: the program name, the words as given and as classified. A value: copies
// and moves keep the words (an owned vector goes with the object). Look-ups may run on several
// threads at once; changing the object (assignment, SetCaseSensitivity) may not.
class DK_EXPORT DKCommandLine {
public:
  // The argument types, also under this class's name (DKCommandLine::Valued).
  using ArgumentType = DKCommandLineArgument::ArgumentType;
  using enum DKCommandLineArgument::ArgumentType;

  // The delimiters of an application's command line: switches open with "/" or "-", and ":"
  // separates a switch from its value.
  static constexpr const DKChar* standardArgDelimiters = DK_T("/-");
  static constexpr const DKChar* standardValueDelimiters = DK_T(":");

  // No arguments and an empty program name.
  DKCommandLine();
  // Uses the caller's vector as it is (it must outlive this object and its copies): argv[0] is
  // the program name, argv[1..argc-1] the arguments. A null argv counts as an empty vector and
  // a null element as an empty word.
  DKCommandLine(std::size_t argc, const DKChar* const* argv, const DKString& argDelimiters = standardArgDelimiters,
                const DKString& valueDelimiters = standardValueDelimiters, bool caseSensitive = false);
  // The vector of main(): UTF-8 words, decoded into a vector that this object owns. An invalid
  // UTF-8 sequence becomes U+FFFD, so that every argument reaches the program.
  DKCommandLine(std::size_t argc, const char* const* argv, const DKString& argDelimiters = standardArgDelimiters,
                const DKString& valueDelimiters = standardValueDelimiters, bool caseSensitive = false);
  // Splits one command-line string (see SplitCommandLine) into a vector that this object owns.
  // When the first word opens with an argument delimiter it is the program name only if it is
  // an absolute path (it starts with "/" or "\", holds another "/" or "\" and no value
  // delimiter); otherwise the program name is empty and the word is the first argument.
  explicit DKCommandLine(const DKString& commandLine, const DKString& argDelimiters = standardArgDelimiters,
                         const DKString& valueDelimiters = standardValueDelimiters, bool caseSensitive = false);

  // Copies and moves take the whole state; a vector the object owns is copied or moved with it,
  // a caller's vector is shared. A moved-from command line is empty.
  DKCommandLine(const DKCommandLine& other);
  DKCommandLine(DKCommandLine&& other) noexcept;
  DKCommandLine& operator=(const DKCommandLine& other);
  DKCommandLine& operator=(DKCommandLine&& other) noexcept;
  virtual ~DKCommandLine();

  // Splits a command-line string into words. Blanks and tabs separate words except inside
  // double quotes; inside quotes, two double quotes stand for one. Then every lone double quote
  // is removed and every pair of adjacent ones becomes one. The text ends at its first NUL; a
  // quote left open runs to the end of the text. Program-name handling is not part of this.
  static std::vector<DKString> SplitCommandLine(const DKString& commandLine);

  // Look-ups by switch name (without the prefix character), exactly when the command line is
  // case-sensitive, otherwise ignoring case. The first argument with that name counts; a word
  // that is not a switch is found by its whole text.
  // The name may be a DKString, DKChar text or UTF-8 text.
  bool ArgPresent(DKTextArg name) const;
  // The value of the argument, or defaultValue when there is none. A switch without a value
  // gives the empty value (0 as a number), not the default. The number forms write to ok
  // (when given) whether the value read as a number of their type: false for "/count:abc", for a
  // switch without a value, and for a value out of range; true for the default of an absent
  // switch.
  DKString GetArg(DKTextArg name, const DKString& defaultValue) const;
  int GetArg(DKTextArg name, int defaultValue, bool* ok = nullptr) const;
  double GetArg(DKTextArg name, double defaultValue, bool* ok = nullptr) const;

  // What is wrong with the command line for the options a program accepts: each switch that
  // no usage entry names, a switch that needs a value and has none, a value given to a switch
  // that takes none, and a value that does not read as the entry's ValueKind. Names compare as
  // the look-ups compare. Words that are not switches are not checked.
  struct Problem {
    // What is wrong.
    enum Kind {
      UnknownSwitch,   // No usage entry names the switch.
      MissingValue,    // The switch needs a value and has none.
      UnexpectedValue, // The switch takes no value and has one.
      BadValue,        // The value does not read as the entry's ValueKind.
    };
    Kind kind;        // What is wrong.
    DKString word;    // the argument as it was given, "--port=8080"
    DKString message; // for the operator: "Unknown option --port=8080"
  };
  // The problems in command-line order; empty when the command line is right. The second form
  // checks against the entries of several usages at once (a host's and its plug-ins').
  std::vector<Problem> Check(const DKUsageInfo& usage) const;
  std::vector<Problem> Check(const std::vector<const DKUsageInfo*>& usages) const;

  // The index-th (from 0) word that is not a switch, or the empty string.
  DKString GetFileName(std::size_t index) const;
  // Appends to invalid the name of every switch that equals none of validNames (compared as
  // the look-ups compare), in command-line order; returns invalid.size().
  std::size_t GetInvalidArguments(const std::vector<DKString>& validNames, std::vector<DKString>& invalid) const;
  // The words that are not switches (empty arguments included), in order.
  std::vector<DKString> GetNonStandardArguments() const;

  // The arguments (argv[1..]) as given, and as classified.
  std::vector<DKString> GetRawArgumentListVector() const { return m_rawArguments; }
  const std::vector<DKCommandLineArgument>& GetParsedArgumentVector() const noexcept { return m_parsedArguments; }
  // The vector the arguments were read from: the caller's, or the one this object built
  // (then argv[argc] is a null pointer).
  std::size_t GetArgCount() const noexcept { return m_argc; }
  const DKChar* const* GetArgValues() const noexcept { return m_argv; }
  // The program name (argv[0]); empty when there is none.
  const DKString& GetAppName() const noexcept { return m_appName; }
  // The delimiters given at construction.
  const DKString& GetArgDelimiters() const noexcept { return m_argDelimiters; }
  const DKString& GetValueDelimiters() const noexcept { return m_valueDelimiters; }
  // Whether look-ups compare names case-sensitively.
  bool IsCaseSensitive() const noexcept { return m_caseSensitive; }
  // Affects later look-ups only.
  void SetCaseSensitivity(bool caseSensitive) noexcept { m_caseSensitive = caseSensitive; }

protected:
  // Each Init replaces the whole state and parses.
  void Init(std::size_t argc, const DKChar* const* argv, const DKString& argDelimiters,
            const DKString& valueDelimiters, bool caseSensitive);
  void Init(std::size_t argc, const char* const* argv, const DKString& argDelimiters,
            const DKString& valueDelimiters, bool caseSensitive);
  void Init(const DKString& commandLine, const DKString& argDelimiters, const DKString& valueDelimiters,
            bool caseSensitive);
  // Fills the program name, the raw list and the parsed list from the vector.
  void ParseCommandLine();
  // Classifies one word with this command line's delimiters.
  DKCommandLineArgument ParseArgument(const DKString& word) const;
  // Removes every lone double quote and turns every pair of adjacent ones into one.
  static void RemoveQuotes(DKString& word);
  // Replaces the program name.
  void SetAppName(const DKString& name) { m_appName = name; }
  // A copy of the first argument with that name, or an Absent one.
  DKCommandLineArgument GetCommandLineArgument(const DKString& name) const;

private:
  // An open-addressing table from case-folded name hashes to argument positions.
  struct NameIndex;
  const DKCommandLineArgument* FindArgument(DKStringView name) const;
  const DKCommandLineArgument* FindArgument(const DKTextArg& name) const;
  const NameIndex& GetNameIndex() const;
  void DropNameIndex() noexcept;
  bool NamesEqual(DKStringView a, DKStringView b) const noexcept;
  void SetDelimiters(const DKString& argDelimiters, const DKString& valueDelimiters, bool caseSensitive);
  // Takes the words as the owned vector and parses them.
  void UseOwnedWords(std::vector<DKString>&& words);
  // Points m_argv at the owned words again (after a copy or a move).
  void RebuildOwnedVector();

  std::size_t m_argc = 0;
  const DKChar* const* m_argv = nullptr;
  bool m_ownsVector = false;
  DKString m_appName;
  DKString m_argDelimiters;
  DKString m_valueDelimiters;
  bool m_caseSensitive = false;
  std::vector<DKString> m_rawArguments;
  std::vector<DKCommandLineArgument> m_parsedArguments;
  // The owned vector: the words, and pointers to their text followed by a null pointer.
  std::vector<DKString> m_ownedWords;
  std::vector<const DKChar*> m_ownedVector;
  // Built by the first look-up (threads that race to build it agree on one), dropped whenever
  // the arguments change; never copied.
  mutable std::atomic<const NameIndex*> m_nameIndex{nullptr};
};
