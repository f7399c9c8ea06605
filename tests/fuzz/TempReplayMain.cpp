// Temporary stand-in until the shared fuzz build lands.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

static int RunFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  return 1;
}

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st {};
    if (stat(argv[i], &st) != 0) continue;
    if (!S_ISDIR(st.st_mode)) {
      count += RunFile(argv[i]);
      continue;
    }
    if (DIR* dir = opendir(argv[i])) {
      while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') count += RunFile(std::string(argv[i]) + "/" + entry->d_name);
      }
      closedir(dir);
    }
  }
  std::printf("ran %d inputs\n", count);
  return 0;
}
