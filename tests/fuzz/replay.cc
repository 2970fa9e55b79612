// replay.cc - main of the targets where no fuzzer is linked: runs the inputs in the files and folders of its arguments.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/fuzz/fuzz.hh"

namespace {

std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(path)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& path : FilesOf(argv[i])) {
      std::ifstream file(path, std::ios::binary);
      if (!file) return fprintf(stderr, "%s cannot be read\n", path.c_str()), 2;
      fprintf(stderr, "%s\n", path.c_str());
      const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
  }
  printf("%zu inputs\n", count);
  return count == 0 ? 2 : 0;
}
