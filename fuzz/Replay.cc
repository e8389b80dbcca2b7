// Runs a fuzz target over the files that are named, and those in the directories that are named, in
// place of libFuzzer. No file at all is a failure. Options of libFuzzer's are passed over.
#include "Fuzz.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesOf(int count, char** arguments) {
  std::vector<fs::path> files;
  for (int i = 1; i < count; ++i) {
    const fs::path path = arguments[i];
    if (path.native().starts_with('-')) continue;
    if (!fs::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t run = 0;
  for (const fs::path& file : filesOf(argc, argv)) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> content((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    if (!in.is_open() || in.bad()) {
      std::fprintf(stderr, "%s cannot be read\n", file.c_str());
      return 1;
    }
    std::fprintf(stderr, "%s\n", file.c_str());  // the last one named is the one that failed
    // Of exactly the input's size, so that a read beyond it is seen.
    const std::vector<std::uint8_t> input(content.begin(), content.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++run;
  }
  if (run == 0) std::fprintf(stderr, "usage: %s FILE-OR-DIRECTORY...\n", argv[0]);
  return run == 0 ? 1 : 0;
}
