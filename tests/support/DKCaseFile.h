// Tables of test cases kept in data files: one case a line, its fields separated by " | ";
// blank lines and lines starting with '#' are skipped. A field is trimmed, unless it is written
// in double quotes, which keep its blanks and read the escapes \t \r \n \\ \" \| and \xHH.
// A malformed file, a line with the wrong number of fields and a file without a case all
// throw, so that the driver test fails loudly instead of passing on nothing.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace dktest {

struct CaseLine {
  std::string where; // "file:line", for failure messages
  std::vector<std::string> fields;

  const std::string& operator[](std::size_t i) const { return fields.at(i); }
  // A whole decimal number, or a throw naming the line.
  std::int64_t Int(std::size_t i) const {
    const std::string& text = fields.at(i);
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0')
      throw std::runtime_error(where + ": not a number: " + text);
    return value;
  }
};

namespace casefile_detail {

inline std::string Field(const std::string& raw, const std::string& where) {
  const std::size_t first = raw.find_first_not_of(" \t");
  if (first == std::string::npos)
    return std::string();
  const std::string text = raw.substr(first, raw.find_last_not_of(" \t") - first + 1);
  if (text.size() < 2 || text.front() != '"' || text.back() != '"')
    return text;
  std::string value;
  for (std::size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] != '\\') {
      value += text[i];
      continue;
    }
    if (++i + 1 >= text.size())
      throw std::runtime_error(where + ": an escape ends the field");
    switch (text[i]) {
    case 't': value += '\t'; break;
    case 'r': value += '\r'; break;
    case 'n': value += '\n'; break;
    case '\\': case '"': case '|': value += text[i]; break;
    case 'x':
      if (i + 3 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
        throw std::runtime_error(where + ": \\x needs two hexadecimal digits");
      value += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
      break;
    default: throw std::runtime_error(where + ": unknown escape \\" + text[i]);
    }
  }
  return value;
}

} // namespace casefile_detail

// The cases of the file, each with exactly `fields` fields.
inline std::vector<CaseLine> ReadCases(const std::filesystem::path& file, std::size_t fields) {
  std::ifstream in(file, std::ios::binary);
  if (!in)
    throw std::runtime_error("cannot read the case file " + file.string());
  std::vector<CaseLine> cases;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos || line[line.find_first_not_of(" \t")] == '#')
      continue;
    CaseLine c{file.filename().string() + ":" + std::to_string(number), {}};
    // Split at " | " outside quotes; "\|" inside quotes is a bar of the text.
    std::string raw;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\\' && quoted && i + 1 < line.size()) {
        raw += line.substr(i++, 2);
        continue;
      }
      if (line[i] == '"')
        quoted = !quoted;
      if (!quoted && line.compare(i, 3, " | ") == 0) {
        c.fields.push_back(casefile_detail::Field(raw, c.where));
        raw.clear();
        i += 2;
        continue;
      }
      raw += line[i];
    }
    if (quoted)
      throw std::runtime_error(c.where + ": unclosed quote");
    c.fields.push_back(casefile_detail::Field(raw, c.where));
    if (c.fields.size() != fields)
      throw std::runtime_error(c.where + ": " + std::to_string(c.fields.size()) + " fields, expected " +
                               std::to_string(fields));
    cases.push_back(std::move(c));
  }
  if (cases.empty())
    throw std::runtime_error("the case file " + file.string() + " holds no case");
  return cases;
}

} // namespace dktest
