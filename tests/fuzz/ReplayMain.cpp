// Runs a fuzz target once on every file named on the command line or found in
// a directory named there (sorted, so a failure reproduces in the same order),
// the way libFuzzer would run it on a single input. Ordinary builds use this to
// replay the checked-in corpus and every kept reproducer as a test.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

// A path that does not exist contributes nothing: a target has crashes/ only
// once something was found.
void Collect(const std::string& path, std::vector<std::string>& files) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    files.push_back(path);
    return;
  }
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) {
    return;
  }
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(path + "/" + name);
    }
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    Collect(name, files);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    Collect(argv[i], files);
  }
  for (const std::string& file : files) {
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    std::fprintf(stderr, "running %s (%zu bytes)\n", file.c_str(), data.size());
    // A copy of exactly the input's size, so ASan sees a read past its end.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[data.size() + (data.empty() ? 1 : 0)]);
    std::copy(data.begin(), data.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), data.size());
  }
  std::printf("ran %zu inputs\n", files.size());
  // No input at all means a wrong path, not a passing replay.
  return files.empty() ? 1 : 0;
}
