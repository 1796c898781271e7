// Replays corpus files through a fuzz target without libFuzzer, so that the normal build's test
// run checks every seed: linked with one target's source, it runs LLVMFuzzerInitialize (when the
// target has one) and then LLVMFuzzerTestOneInput once per regular file of the folders named on
// its command line (read as wide paths on Windows), in name order. A broken property aborts, as
// under libFuzzer; each file's name goes to standard error before it runs. Exit code 1 when a
// folder is missing or holds no file, or a file cannot be read.
#include "support/DKTestPlatform.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

// A path as UTF-8 text, whatever the system's own form of it.
std::string Printable(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (const fs::path& folder : dktest::ProgramArguments(argc, argv)) {
    std::error_code error;
    const std::size_t before = files.size();
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
      if (it->is_regular_file(error))
        files.push_back(it->path());
    if (error || files.size() == before) {
      std::fprintf(stderr, "no corpus files in %s\n", Printable(folder).c_str());
      return 1;
    }
  }
  std::sort(files.begin(), files.end());
  if (LLVMFuzzerInitialize)
    LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& file : files) {
    std::fprintf(stderr, "%s\n", Printable(file).c_str());
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", Printable(file).c_str());
      return 1;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    // A buffer of the input's exact size, as libFuzzer gives, so that a read past the end is seen
    // by AddressSanitizer.
    const std::unique_ptr<std::uint8_t[]> data(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), data.get());
    LLVMFuzzerTestOneInput(data.get(), bytes.size());
  }
  std::fprintf(stderr, "%zu corpus files replayed\n", files.size());
  return 0;
}
