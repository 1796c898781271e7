// What a save of a configuration file writes, worked out line by line from the rules the README
// lists (what a save keeps and what it normalises), without the library's reader: the config
// fuzz target compares the library's saves with it, over its corpus under CTest too.
//
// Input: the text of a file that loads (UTF-8, without its byte-order mark). Output: the text a
// save writes (without the mark).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace dkconfigref {

inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
inline bool IsWhite(char c) { return IsBlank(c) || c == '\n' || c == '\v' || c == '\f'; }

struct Line {
  std::string body; // without its line end: the line feed and the carriage returns before it
  bool ended;       // whether a line feed ended it
};

inline std::vector<Line> SplitLines(std::string_view text) {
  std::vector<Line> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t lf = text.find('\n', start);
    const std::size_t end = lf == std::string_view::npos ? text.size() : lf;
    std::string body(text.substr(start, end - start));
    while (!body.empty() && body.back() == '\r')
      body.pop_back();
    lines.push_back({body, lf != std::string_view::npos});
    start = end + 1;
  }
  return lines;
}

inline std::size_t FirstNonBlank(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size() && IsBlank(s[i]))
    ++i;
  return i;
}

// Lines [first, last] as one text, joined by line feeds, from column `from` of the first.
inline std::string Join(const std::vector<Line>& lines, std::size_t first, std::size_t last, std::size_t from) {
  std::string text = lines[first].body.substr(from);
  for (std::size_t i = first + 1; i <= last; ++i)
    text += "\n" + lines[i].body;
  return text;
}

enum class Kind { Empty, Comment, Header, Key };

struct Item {
  Kind kind;
  std::size_t first, last; // lines
};

inline std::string NormalForm(std::string_view text, bool hashComments) {
  const std::size_t firstLf = text.find('\n');
  const bool crlf = firstLf != std::string_view::npos && firstLf > 0 && text[firstLf - 1] == '\r';
  const std::vector<Line> lines = SplitLines(text);

  // The items, each over one or more lines.
  std::vector<Item> items;
  for (std::size_t i = 0; i < lines.size();) {
    const std::string& body = lines[i].body;
    const std::size_t at = FirstNonBlank(body);
    if (at == body.size()) {
      if (lines[i].ended)
        items.push_back({Kind::Empty, i, i});
      ++i;
      continue;
    }
    const char c = body[at];
    if (c == ';' || (c == '#' && hashComments)) {
      items.push_back({Kind::Comment, i, i});
      ++i;
      continue;
    }
    // A header runs to its "]", a key to its "=", over as many lines as it takes (a file that
    // loads has them further on).
    const char stop = c == '[' ? ']' : '=';
    std::size_t j = i;
    while (lines[j].body.find(stop, j == i ? at + (c == '[') : 0) == std::string::npos)
      ++j;
    items.push_back({c == '[' ? Kind::Header : Kind::Key, i, j});
    i = j + 1;
  }

  std::string out;
  // Everything up to the last key line in front of the first header stays as it is.
  std::size_t firstItem = 0;
  for (std::size_t k = 0; k < items.size() && items[k].kind != Kind::Header; ++k)
    if (items[k].kind == Kind::Key)
      firstItem = k + 1;
  if (firstItem)
    for (std::size_t i = 0; i <= items[firstItem - 1].last; ++i)
      out += lines[i].body + "\n";

  for (std::size_t k = firstItem; k < items.size(); ++k) {
    const Item& item = items[k];
    const std::string& body = lines[item.first].body;
    const std::size_t at = FirstNonBlank(body);
    switch (item.kind) {
    case Kind::Empty: out += "\n"; break;
    case Kind::Comment: {
      const std::string rest = body.substr(at + 1);
      out += (body[at] == ';' && rest.empty() ? "" : body[at] + rest) + "\n";
      break;
    }
    case Kind::Header: {
      const std::string joined = Join(lines, item.first, item.last, at + 1);
      const std::string name = joined.substr(0, joined.find(']'));
      // A last "[]" with comments right in front of it and nothing after it is the file's
      // closing comment block: it reads back the same without the header.
      const bool closing = name.empty() && k + 1 == items.size() && k > firstItem &&
                           (items[k - 1].kind == Kind::Comment || items[k - 1].kind == Kind::Empty);
      if (!closing)
        out += "[" + name + "]\n";
      break;
    }
    case Kind::Key: {
      const std::string joined = Join(lines, item.first, item.last, at);
      const std::size_t eq = joined.find('=');
      std::string key = joined.substr(0, eq);
      while (!key.empty() && IsWhite(key.back()))
        key.pop_back();
      std::string value;
      for (const char c : joined.substr(eq + 1))
        if (c != '\r' && (!value.empty() || !IsWhite(c)))
          value += c;
      while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.pop_back();
      out += key + "=" + value + "\n";
      break;
    }
    }
  }
  if (crlf) {
    std::string withCr;
    for (const char c : out)
      withCr += c == '\n' ? std::string("\r\n") : std::string(1, c);
    out = withCr;
  }
  return out;
}

} // namespace dkconfigref
