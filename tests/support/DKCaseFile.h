// Tables of test cases kept in data files: one case a line, its fields separated by " | ";
// blank lines and lines starting with '#' are skipped. A field is trimmed, unless it is written
// in double quotes, which keep its blanks and read the escapes \t, \n, \r, \\ and \xHH (a byte).
// A line with the wrong number of fields, a bad escape and a file without a case all throw, so
// that the driver test fails loudly instead of passing on nothing.
#pragma once

#include <cctype>
#include <cstdint>
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
    std::size_t end = 0;
    const long long value = std::stoll(fields.at(i), &end);
    if (end != fields[i].size())
      throw std::runtime_error(where + ": not a number: " + fields[i]);
    return value;
  }
  // A "yes" or "no" field, or a throw naming the line.
  bool YesNo(std::size_t i) const {
    if (fields.at(i) != "yes" && fields[i] != "no")
      throw std::runtime_error(where + ": neither yes nor no: " + fields[i]);
    return fields[i] == "yes";
  }
};

inline std::string CaseField(std::string text, const std::string& where) {
  text.erase(0, text.find_first_not_of(" \t"));
  text.erase(text.find_last_not_of(" \t") + 1);
  if (text.size() < 2 || text.front() != '"' || text.back() != '"')
    return text;
  std::string value;
  for (std::size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] != '\\') {
      value += text[i];
      continue;
    }
    const char kind = i + 2 < text.size() ? text[i + 1] : '\0';
    if (kind == 't' || kind == 'n' || kind == 'r' || kind == '\\')
      value += kind == 't' ? '\t' : kind == 'n' ? '\n' : kind == 'r' ? '\r' : '\\', ++i;
    else if (kind == 'x' && i + 4 < text.size() && std::isxdigit(text[i + 2] & 0xFF) &&
             std::isxdigit(text[i + 3] & 0xFF))
      value += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)), i += 3;
    else
      throw std::runtime_error(where + ": a bad escape");
  }
  return value;
}

// The cases of the file, each with exactly `fields` fields (0: any number, for files whose
// first field names the shape of the rest).
inline std::vector<CaseLine> ReadCases(const std::filesystem::path& file, std::size_t fields) {
  std::ifstream in(file, std::ios::binary);
  if (!in)
    throw std::runtime_error("cannot read the case file " + file.string());
  std::vector<CaseLine> cases;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#')
      continue;
    CaseLine c{file.filename().string() + ":" + std::to_string(number), {}};
    for (std::size_t from = 0, bar = 0; bar != std::string::npos; from = bar + 3) {
      bar = line.find(" | ", from);
      c.fields.push_back(CaseField(line.substr(from, bar == std::string::npos ? bar : bar - from), c.where));
    }
    if (fields && c.fields.size() != fields)
      throw std::runtime_error(c.where + ": " + std::to_string(c.fields.size()) + " fields, not " +
                               std::to_string(fields));
    cases.push_back(std::move(c));
  }
  if (cases.empty())
    throw std::runtime_error("the case file " + file.string() + " holds no case");
  return cases;
}

} // namespace dktest
