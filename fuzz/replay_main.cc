// Replays fuzz inputs without libFuzzer: runs LLVMFuzzerTestOneInput once over every
// regular file of the directories (or files) named on the command line, in name order.
// Exits non-zero when a path cannot be read or holds no input at all; a fault in the
// target ends the process as it would under the fuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

namespace {

bool IsRegular(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The inputs under path: path itself when it is a file, else its regular files.
bool CollectInputs(const std::string &path, std::vector<std::string> &out) {
  if (IsRegular(path)) {
    out.push_back(path);
    return true;
  }
  DIR *dir = opendir(path.c_str());
  if (!dir) return false;
  std::vector<std::string> found;
  while (dirent *entry = readdir(dir)) {
    std::string child = path + "/" + entry->d_name;
    if (entry->d_name[0] != '.' && IsRegular(child)) found.push_back(child);
  }
  closedir(dir);
  std::sort(found.begin(), found.end());
  out.insert(out.end(), found.begin(), found.end());
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);

  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!CollectInputs(argv[i], inputs)) {
      std::fprintf(stderr, "replay: cannot read %s\n", argv[i]);
      return 2;
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs given\n");
    return 2;
  }

  for (const std::string &path : inputs) {
    std::ifstream file(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                               std::istreambuf_iterator<char>());
    if (!file.good() && !file.eof()) {
      std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 2;
    }
    // A copy of exactly the input's size, so that a read past its end is caught.
    std::vector<uint8_t> exact(bytes);
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
  }
  std::printf("replay: %zu inputs passed\n", inputs.size());
  return 0;
}
