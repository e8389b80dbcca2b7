// Runs the fuzz target that is named first over the files that are named then, and those in the
// directories, in place of libFuzzer. A target that is none, or no file at all, is a failure. Options of
// libFuzzer's are passed over.
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
  for (int i = 2; i < count; ++i) {
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
  using Velantrix::Fuzz::Target;
  const Target* const target = argc < 2 ? nullptr : Target::find(argv[1]);
  const std::vector<fs::path> files = filesOf(argc, argv);
  if (target == nullptr || files.empty()) {
    std::fprintf(stderr, "usage: %s TARGET FILE-OR-DIRECTORY..., for fuzz/TARGET.cc\n", argv[0]);
    return 1;
  }
  for (const fs::path& file : files) {
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
    target->run(input.data(), input.size());
  }
  return 0;
}
