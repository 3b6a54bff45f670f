// Replays a fuzz target's corpus as an ordinary test: every file of the folders (or the files)
// named on the command line is handed to the target once, so a crash found and fixed stays fixed.
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
    std::error_code error;
    if (!fs::exists(argv[i], error)) {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
      return 1;
    }
    if (!fs::is_directory(argv[i])) {
      inputs.push_back(argv[i]);
      continue;
    }
    for (const fs::directory_entry &entry : fs::directory_iterator(argv[i])) {
      if (entry.path().filename().string()[0] != '.') {
        inputs.push_back(entry.path());
      }
    }
  }
  for (const fs::path &input : inputs) {
    std::ifstream file(input, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot read %s\n", input.c_str());
      return 1;
    }
    const std::vector<uint8_t> read((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
    // A copy holds exactly the input's bytes, so the sanitizers see any read past its end.
    const std::vector<uint8_t> exact(read);
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
