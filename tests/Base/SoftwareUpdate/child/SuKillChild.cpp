// The agent in a process of its own, as a television runs it, for the kill
// test: started, asked for the update with permission to download, and left
// to run until it is killed or the update is downloaded.
//   su_kill_child IDENTITY CONFIG DEVICE STAGING SHA256 RESULT
// On Downloaded it checks the staging file against SHA256 and writes "OK" or
// "BAD" to RESULT (exit 0); on Failed it writes "FAILED" (exit 3).
#include <lum.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string Read(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  std::string hex;
  char digits[3];
  for (unsigned char c : digest) {
    std::snprintf(digits, sizeof digits, "%02x", c);
    hex += digits;
  }
  return hex;
}

int Finish(const std::string& path, const char* result, int code) {
  const std::string scratch = path + ".tmp";
  std::ofstream(scratch) << result;
  std::rename(scratch.c_str(), path.c_str());
  _exit(code);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: su_kill_child IDENTITY CONFIG DEVICE STAGING SHA256 RESULT\n");
    return 2;
  }
  if (LumInit(Read(argv[1]).c_str(), Read(argv[2]).c_str(), Read(argv[3]).c_str()) != 0) {
    return 4;
  }
  LumSetSoftwareUpdateSource(1, "");
  for (;;) {
    LumStatus status{};
    LumGetStatus(LumStatusMethodOnChange, &status);
    const unsigned state = status.updateState;
    const unsigned permission = status.updatePermission;
    // After a finished round the agent restarts with the previous update
    // still Downloaded until it has fetched the new offer: only the update
    // this child was started for counts.
    const bool ours = status.updateHash != nullptr && argv[5] == std::string(status.updateHash);
    LumFreeStatus(&status);
    if (state == LumSoftwareUpdateAvailable && permission != 1) {
      LumSetSoftwareUpdatePermission(1);
    } else if (state == LumSoftwareUpdateDownloaded && ours) {
      const bool verified = Sha256Hex(Read(argv[4])) == argv[5];
      Finish(argv[6], verified ? "OK" : "BAD", 0);
    } else if (state == LumSoftwareUpdateFailed) {
      Finish(argv[6], "FAILED", 3);
    }
  }
}
