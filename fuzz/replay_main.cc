// Runs fuzz inputs without libFuzzer: LLVMFuzzerTestOneInput once on every file named on
// the command line and every regular file of a directory named there, in name order.
// Exits 2 when a path yields no input or a file cannot be read; a fault in the target
// ends the process as it would under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    size_t before = inputs.size();
    if (fs::is_regular_file(argv[i], ec)) inputs.push_back(argv[i]);
    for (fs::directory_iterator it(argv[i], ec), end; !ec && it != end; it.increment(ec))
      if (it->is_regular_file() && it->path().filename().c_str()[0] != '.') inputs.push_back(it->path());
    std::sort(inputs.begin() + before, inputs.end());
    if (inputs.size() == before) return std::fprintf(stderr, "replay: no inputs in %s\n", argv[i]), 2;
  }
  if (inputs.empty()) return std::fprintf(stderr, "replay: no inputs given\n"), 2;
  for (const fs::path &path : inputs) {
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
    if (!file.is_open() || file.bad()) return std::fprintf(stderr, "replay: cannot read %s\n", path.c_str()), 2;
    std::vector<uint8_t> exact(bytes);  // no spare capacity: a read past the end is caught
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
  }
  std::printf("replay: %zu inputs passed\n", inputs.size());
  return 0;
}
