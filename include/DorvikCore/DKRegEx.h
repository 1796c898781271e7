// DKRegEx: regular expressions over UTF-16 text, compiled once and matched against whole texts
// in time linear in the text (a Thompson automaton: no backtracking, no recursion per character).
#pragma once

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstddef>
#include <memory>

namespace dkre {
class Program;
}

// Syntax (characters are Unicode code points; a surrogate pair is one character):
//   x            the character itself, unless it is one of  \ . [ ( ) * + ? | ^ $  (a "]" or "}"
//                on its own is literal too)
//   .            any character but a line terminator (\n, \r, U+2028, U+2029)
//   [abc] [a-z]  a class of characters and ranges; [^...] its complement; [] matches nothing
//                and [^] any character. Inside a class \d \w \s \D \W \S and escapes work, \b is
//                the backspace, and "-" is literal first or last.
//   [[:alpha:]]  a POSIX class inside a class: alnum alpha blank cntrl digit graph lower print
//                punct space upper word xdigit, ASCII only as in the C locale ([^[:digit:]] is
//                its complement). An unknown name, a POSIX class as an end of a range, one
//                written outside a class ([:alpha:]), and the collating forms [.x.] and [=x=]
//                are refused; a "[:" that does not make up the form "[:...:]" stays literal.
//   \d \w \s     digit [0-9], word character [A-Za-z0-9_], white space (ASCII and Unicode
//                spaces); \D \W \S their complements
//   \t \n \r \f \v \0 \xHH \uHHHH \u{H...} \cX   control and numbered characters; a backslash
//                before any other punctuation character makes it literal. A high surrogate
//                followed by a low one, either written as an escape (\uD83D\uDE00), is the one
//                character they spell; a surrogate that does not pair stands for itself.
//   x* x+ x?     zero or more, one or more, zero or one; x{m} x{m,} x{m,n} counted (a "{" that
//                does not start a count is literal). A trailing "?" (lazy) is accepted and
//                changes nothing, as only whole matches are asked for.
//   a|b  (x)  (?:x)   alternation and grouping
//   ^ $          the start and the end of the text
// Not supported, and refused with an error: back-references, look-around, \b and \B as word
// boundaries, other "(?" groups.
//
// A match is always of the whole text, as std::regex_match does. Copies share the compiled
// program; matching is const and safe from several threads at once.
class DK_EXPORT DKRegEx {
public:
  // Largest count in {m}, {m,} and {m,n}.
  static constexpr unsigned maxRepeatCount = 1000;
  // Largest compiled program, in instructions, once counted repetitions are written out (each
  // character, class or anchor is one instruction, each alternative, "*", "+" or "?" one more).
  static constexpr std::size_t maxProgramSize = 20000;
  // Memory a compiled pattern may use for its cache of automaton states, shared by its copies and
  // the threads that match with it. Once it is full, a text that needs more goes on in a cache
  // of the calling thread's own, as large, which is emptied and rebuilt whenever it fills; a
  // thread keeps that cache for the last pattern that needed it. A text that keeps meeting new
  // states there (a large program whose states never settle) goes on in a bit-parallel
  // simulation of the automaton instead, whose tables the program builds once.
  static constexpr std::size_t defaultCacheBytes = 1u << 20;

  // An expression with nothing compiled: Match is false for every text.
  DKRegEx() noexcept;
  // Compiles the pattern; IsCompiled() and GetError() tell whether it could be.
  explicit DKRegEx(const DKString& pattern);

  // A copy shares the compiled program and takes the pattern and the result; a moved-from
  // expression holds nothing compiled.
  DKRegEx(const DKRegEx& other) noexcept;
  DKRegEx(DKRegEx&& other) noexcept;
  DKRegEx& operator=(const DKRegEx& other) noexcept;
  DKRegEx& operator=(DKRegEx&& other) noexcept;
  ~DKRegEx();

  // Compiles the pattern, replacing what was compiled before. On failure the object holds no
  // program (Match is false for every text) and the result, also kept for GetError(), is a
  // DK_MSG_INVALID_REGEX error whose parameters are the pattern (its first 60 code units and
  // "..." when longer), the position of the problem in code units and the problem. cacheBytes
  // bounds the state cache; 0 runs every match on the automaton directly.
  DKErrorID Compile(const DKString& pattern, std::size_t cacheBytes = defaultCacheBytes);
  // Drops the program, the pattern and the last result: as newly built.
  void Clear() noexcept;

  // True when a program is compiled (the last Compile succeeded).
  bool IsCompiled() const noexcept { return m_program != nullptr; }
  // The pattern given to the last Compile (even when it failed).
  const DKString& GetPattern() const noexcept { return m_pattern; }
  // The result of the last Compile: success, or the error.
  const DKErrorID& GetError() const noexcept { return m_error; }
  // Number of instructions of the compiled program; 0 when nothing is compiled.
  std::size_t GetProgramSize() const noexcept;

  // True when the whole text (a string, or length code units at text) matches the pattern; false
  // when nothing is compiled.
  bool Match(const DKString& text) const;
  bool Match(const DKChar* text, std::size_t length) const;

private:
  std::shared_ptr<const dkre::Program> m_program;
  DKString m_pattern;
  DKErrorID m_error;
};
