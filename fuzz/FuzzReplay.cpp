// Replays corpus files through a fuzz target without libFuzzer, so that the normal build's test
// run checks every seed: linked with one target's source, it runs LLVMFuzzerInitialize (when the
// target has one) and then LLVMFuzzerTestOneInput once per regular file of the folders named on
// its command line, in name order. A broken property aborts, as under libFuzzer; each file's name
// goes to standard error before it runs. Exit code 1 when a folder is missing or holds no file.
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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    const std::size_t before = files.size();
    for (const fs::directory_entry& entry : fs::directory_iterator(argv[i], error))
      if (entry.is_regular_file())
        files.push_back(entry.path());
    if (error || files.size() == before) {
      std::fprintf(stderr, "no corpus files in %s\n", argv[i]);
      return 1;
    }
  }
  std::sort(files.begin(), files.end());
  if (LLVMFuzzerInitialize)
    LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& file : files) {
    std::fprintf(stderr, "%s\n", file.c_str());
    std::ifstream in(file, std::ios::binary);
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
