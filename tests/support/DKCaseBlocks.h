// Test cases kept in text files (the cases/ folder of a suite, DK_TEST_CASES): blocks of
// "key: value" lines separated by blank lines, '#' lines being comments. A value is the rest of
// its line after ": "; it writes a code point as <U+XXXX>, a byte as <xXX>, and <LF>, <CR>,
// <TAB>, <NUL> and <SP> (a blank at either end) by name. Reading throws on a line that is not
// "key: value" of a key the caller names, on a malformed <U+...> and on a file without a case,
// so that a broken file fails its test loudly. Tables whose cases fit on one line use the
// line-per-case files of DKCaseFile.h instead.
#pragma once

#include <DorvikCore/DKString.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace dkcases {

struct Case {
  std::string where; // "file:line" of the block's first line, for SCOPED_TRACE
  std::multimap<std::string, std::string> fields; // in file order under each key

  bool Has(const std::string& key) const { return fields.count(key) != 0; }
  std::vector<std::string> All(const std::string& key) const {
    std::vector<std::string> values;
    for (auto [it, end] = fields.equal_range(key); it != end; ++it)
      values.push_back(it->second);
    return values;
  }
  // The one value of a key the case must have, or the value of a key it may have.
  std::string Get(const std::string& key) const {
    if (fields.count(key) != 1)
      throw std::runtime_error(where + ": needs exactly one \"" + key + "\"");
    return fields.find(key)->second;
  }
  std::string Get(const std::string& key, const std::string& otherwise) const { return Has(key) ? Get(key) : otherwise; }
};

inline std::vector<Case> Read(const std::string& name, std::initializer_list<std::string> keys) {
  const std::string path = std::string(DK_TEST_CASES) + "/" + name;
  std::ifstream in(path, std::ios::binary);
  std::vector<Case> cases;
  bool open = false;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (line.empty() || line[0] == '#') {
      open = open && !line.empty();
      continue;
    }
    const std::size_t colon = line.find(':');
    const std::string key = line.substr(0, colon);
    if (colon == std::string::npos || std::find(keys.begin(), keys.end(), key) == keys.end() ||
        (colon + 1 < line.size() && line[colon + 1] != ' '))
      throw std::runtime_error(path + ":" + std::to_string(number) + ": not a \"key: value\" line of a known key");
    if (!open)
      cases.push_back({name + ":" + std::to_string(number), {}});
    open = true;
    cases.back().fields.emplace(key, line.substr(std::min(line.size(), colon + 2)));
  }
  if (cases.empty())
    throw std::runtime_error(path + " is missing or holds no case");
  return cases;
}

// The value's bytes, code points in UTF-8.
inline std::string Bytes(const std::string& value) {
  static const std::map<std::string, char> named = {{"LF", '\n'}, {"CR", '\r'}, {"TAB", '\t'}, {"NUL", '\0'}, {"SP", ' '}};
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const std::size_t end = value[i] == '<' ? value.find('>', i) : std::string::npos;
    const std::string name = end == std::string::npos ? "" : value.substr(i + 1, end - i - 1);
    char* stop = nullptr;
    const unsigned long code = std::strtoul(name.c_str() + (name[0] == 'x' ? 1 : name[0] == 'U' ? 2 : 0), &stop, 16);
    if (named.count(name)) {
      out += named.at(name);
    } else if (name.size() == 3 && name[0] == 'x' && !*stop) {
      out += static_cast<char>(code);
    } else if (name.starts_with("U+")) {
      if (name.size() < 6 || *stop || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        throw std::runtime_error("malformed <" + name + "> in \"" + value + "\"");
      const int n = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
      out += static_cast<char>(n == 1 ? code : (0xF00u >> n & 0xF0) | code >> 6 * (n - 1));
      for (int k = n - 2; k >= 0; --k)
        out += static_cast<char>(0x80 | (code >> 6 * k & 0x3F));
    } else {
      out += value[i];
      continue;
    }
    i = end;
  }
  return out;
}

inline DKString Units(const std::string& value) { return DKString::FromUTF8(Bytes(value)); }

// A configuration look-up written "[section] key = value", or "[section] key" for none.
struct Lookup {
  DKString section, key;
  std::optional<DKString> value;
};

inline Lookup ReadLookup(const std::string& text) {
  const std::size_t close = text.find("] "), equals = text.find(" =", close);
  if (text.empty() || text[0] != '[' || close == std::string::npos)
    throw std::runtime_error("not a look-up: \"" + text + "\"");
  Lookup lookup{Units(text.substr(1, close - 1)), Units(text.substr(close + 2, equals - close - 2)), std::nullopt};
  if (equals != std::string::npos)
    lookup.value = Units(text.substr(std::min(text.size(), equals + 3)));
  return lookup;
}

} // namespace dkcases
