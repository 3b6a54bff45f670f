// Replays a fuzz target's corpus as an ordinary test: every file of the folders (or the files)
// named on the command line is handed to the target once, so a crash found and fixed stays fixed.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int ReplayFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                             std::istreambuf_iterator<char>());
  // A copy of exactly the input's size, so the sanitizers see any read past its end.
  std::vector<uint8_t> exact(bytes);
  LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  int files = 0;
  int failures = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat info;
    if (stat(argv[i], &info) != 0) {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
      return 1;
    }
    if (!S_ISDIR(info.st_mode)) {
      failures += ReplayFile(argv[i]);
      ++files;
      continue;
    }
    DIR *dir = opendir(argv[i]);
    while (dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
      if (entry->d_name[0] == '.') {
        continue;
      }
      failures += ReplayFile(std::string(argv[i]) + "/" + entry->d_name);
      ++files;
    }
    if (dir != nullptr) {
      closedir(dir);
    }
  }
  std::printf("replayed %d inputs\n", files);
  return failures == 0 ? 0 : 1;
}
