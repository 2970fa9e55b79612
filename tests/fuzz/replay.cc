// replay.cc - main of the targets where no fuzzer is linked. Runs each input in the given folders, followed by fixed
// mutations of it unless it is a former finding.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/fuzz/fuzz.hh"

size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t) {
  if (size != 0) data[static_cast<size_t>(rand()) % size] = static_cast<uint8_t>(rand());
  return size;
}

int main(int argc, char** argv) {
  constexpr unsigned kChanges = 100;
  std::vector<std::filesystem::path> files;
  std::error_code absent;
  for (int i = 1; i < argc; ++i) {
    std::copy(std::filesystem::directory_iterator(argv[i], absent), {}, std::back_inserter(files));
  }
  std::sort(files.begin(), files.end());
  for (const auto& path : files) {
    fprintf(stderr, "%s\n", path.c_str());
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    const bool fixed = path.filename().string().starts_with("found-");
    for (unsigned change = 0; change <= (fixed ? 0 : kChanges); ++change) {
      std::vector<uint8_t> input = bytes;
      for (unsigned more = change; more != 0; more /= 4) {
        input.resize(LLVMFuzzerCustomMutator(input.data(), input.size(), input.size(), static_cast<unsigned>(rand())));
      }
      LLVMFuzzerTestOneInput(fuzz::Copy(input).data(), input.size());
    }
  }
  return files.empty() ? 2 : 0;
}
