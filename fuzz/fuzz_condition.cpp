// Fuzz target for the condition reader (DKCondition::FromString, readable and "@@" native text).
//
// Input: the condition text, UTF-8 (other bytes are read as Latin-1).
// Properties checked besides "no crash, no hang, no exception":
//   - a condition that reads writes a native text that reads back to the same native text;
//   - both copies evaluate like it for several sets of field values (each comparison's truth
//     comes from a hash of its field, operator and value, and a seed);
//   - a condition read from readable text also reads back from its readable text, which
//     evaluates alike (native text can hold values that readable text cannot, such as a text
//     with double quotes).
//   - a condition that does not read still prints and evaluates.
#include <DorvikCore/DKCondition.h>
#include <DorvikCore/DKConsole.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <streambuf>

namespace {

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

struct SeedParams : DKConditionParams {
  std::size_t seed = 0;
};

// Every comparison is true or false by a hash of what it compares, so that two conditions that
// hold the same comparisons evaluate alike.
class HashCondition : public DKCondition {
public:
  DKSmartPtr<DKCondition> NewChild() const override { return DKSmartPtr<DKCondition>(new HashCondition()); }
  bool OnEvaluate(const DKConditionParams& params) const override {
    const std::size_t seed = static_cast<const SeedParams&>(params).seed;
    const std::hash<DKString> hash;
    return ((hash(GetFieldName()) ^ (hash(GetValueText()) * 31) ^ static_cast<std::size_t>(GetOperatorCode()) ^ seed) >> 3) & 1;
  }
};

// The console lines of the reader ("OR Parsing not implemented!") go nowhere.
class NullBuffer : public std::streambuf {
protected:
  int overflow(int c) override { return c; }
};

DKString Decode(const std::uint8_t* data, std::size_t size) {
  DKString text;
  if (text.SetFromUTF8(reinterpret_cast<const char*>(data), size).Good())
    return text;
  for (std::size_t i = 0; i < size; ++i)
    text += static_cast<DKChar>(data[i]);
  return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static NullBuffer buffer;
  static std::ostream nowhere(&buffer);
  DKLockedCOUT::SetConsoleStream(&nowhere);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 8192)
    return 0;
  const DKString text = Decode(data, size);

  HashCondition condition;
  const bool read = condition.FromString(text);
  const DKString native = condition.ToString(true);
  const DKString readable = condition.ToString();
  if (!read) {
    SeedParams params;
    (void)condition.Evaluate(params);
    return 0;
  }

  HashCondition fromNative;
  Require(fromNative.FromString(native), "the native text reads back");
  Require(fromNative.ToString(true) == native, "the native text is written again unchanged");

  const bool checkReadable = !DKCondition::IsNativeFormat(text);
  HashCondition fromReadable;
  Require(!checkReadable || fromReadable.FromString(readable), "the readable text reads back");
  for (std::size_t seed = 0; seed < 8; ++seed) {
    SeedParams params;
    params.seed = seed * 0x9E3779B9u;
    const bool expected = condition.Evaluate(params);
    Require(fromNative.Evaluate(params) == expected, "the native copy evaluates alike");
    Require(!checkReadable || fromReadable.Evaluate(params) == expected, "the readable copy evaluates alike");
  }
  return 0;
}
