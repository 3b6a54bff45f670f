// Replays a fuzz target's corpus as an ordinary test: every file of the folders named on the
// command line is handed to the target once, so a crash found and fixed stays fixed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    // A missing folder throws, which fails the run.
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "cannot read %s\n", entry.path().c_str());
        return 1;
      }
      const std::vector<uint8_t> read((std::istreambuf_iterator<char>(file)),
                                      std::istreambuf_iterator<char>());
      // A copy holds exactly the input's bytes, so the sanitizers see any read past its end.
      const std::vector<uint8_t> exact(read);
      LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  return replayed > 0 ? 0 : 1; // an empty corpus is a wrong folder
}
