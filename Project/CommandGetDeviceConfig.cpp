#include "Project/CommandGetDeviceConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "Base/CommandBase.h"
#include "Platform/Base64Util.h"
#include "Platform/Logger.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Project/CommandGetDeviceConfig");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

constexpr size_t kMaxBytes = 64 * 1024;
constexpr int kMaxIndex = 99;

const CommandForm& Form() {
  static const CommandForm form(
      "Reads one of the television's configuration files",
      {{"FILE", InputType::Text, true, "The file's name, as the television names it (no path)"},
       {"INDEX", InputType::Integer, false,
        "Which copy of the file, when there are several "
        "(default 0)",
        nullptr, 0, kMaxIndex}},
      {{"DEVICE_CONFIG", "JSON",
        "FILE, INDEX, BACKUP_RESULT, PATH, SIZE, TRUNCATED (more than 64 KiB), CONTENT (text) or "
        "CONTENT_BASE64 (anything else), REMOVE_RESULT"}});
  return form;
}

// A name, not a path: where it lives is the platform's business, and a
// name with a slash or a leading dot could point the platform elsewhere.
bool PlainName(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool PrintableText(const std::string& bytes) {
  for (unsigned char c : bytes) {
    if (c >= 0x80 || (c < 0x20 && c != '\n' && c != '\r' && c != '\t')) {
      return false;
    }
  }
  return true;
}

// At most kMaxBytes + 1 bytes of a regular file (one more tells that there
// was more). No link is followed and nothing but a regular file is read, so a
// FIFO or a device cannot stall the task.
bool ReadBounded(const std::string& path, std::string& bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    return false;
  }
  struct stat info {};
  bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  char buffer[4096];
  while (ok && bytes.size() <= kMaxBytes) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0) {
      ok = false;
    } else if (got == 0) {
      break;
    } else {
      bytes.append(buffer, static_cast<size_t>(got));
    }
  }
  close(fd);
  return ok;
}

std::string Base64(const std::string& bytes) {
  unsigned length = 0;
  unsigned char* encoded = nullptr;
  Core::Base64Util::Encode(bytes, length, encoded);
  std::string text =
      encoded != nullptr ? std::string(reinterpret_cast<char*>(encoded), length) : std::string();
  free(encoded);
  return text;
}

}  // namespace

CommandGetDeviceConfig::CommandGetDeviceConfig(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "DEVICE_CONFIG") {}

int CommandGetDeviceConfig::run(const LumJson::Value& inputs, LumJson::Value& data) {
  const std::string file = inputs["FILE"].asString();
  const int index = inputs.isMember("INDEX") ? inputs["INDEX"].asInt() : 0;
  if (!PlainName(file)) {
    LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s Invalid Parameter FILE: not a plain file name", descriptor().name().c_str());
    return kInvalidParameter;
  }
  data["FILE"] = file;
  data["INDEX"] = index;
  data["BACKUP_RESULT"] = NkBackupReadFile(file);
  const std::string path = NkGetReadFilePath(file, index);
  data["PATH"] = path;
  std::string bytes;
  const bool read = !path.empty() && ReadBounded(path, bytes);
  // The copy goes whatever happened: it must not stay readable.
  data["REMOVE_RESULT"] = NkRemoveReadFile(file);
  if (!read) {
    LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Cannot read the configuration file %s (path \"%s\")", file.c_str(), path.c_str());
    return kCommandFailed;
  }
  const bool truncated = bytes.size() > kMaxBytes;
  bytes.resize(std::min(bytes.size(), kMaxBytes));
  data["SIZE"] = static_cast<LumJson::UInt>(bytes.size());
  data["TRUNCATED"] = truncated;
  if (PrintableText(bytes)) {
    data["CONTENT"] = bytes;
  } else {
    data["CONTENT_BASE64"] = Base64(bytes);
  }
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
