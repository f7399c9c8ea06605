#include "Base/SoftwareUpdateConfig.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/SoftwareUpdateConfig");

namespace Lum {
namespace Su {

using FP = Core::FilterProperties;

namespace {
constexpr int kSu = FP::SERVICE_SU;
constexpr size_t kWorkingDirectoryBuffer = 1024;
}  // namespace

SoftwareUpdateConfig::SoftwareUpdateConfig(const std::string& configText) {
  LUM_TRACE(kSu);
  setCustomValues();
  LumJson::Value root;
  if (Core::JsonUtil::ParseObject(configText, root)) {
    const LumJson::Value& section = root["softwareUpdate"];
    // A section of another kind is as good as none.
    if (section.isObject()) {
      stagingLocation_ = Core::JsonUtil::ReadText(section, "stagingLocation", stagingLocation_);
      maxBlockSizeBytes_ =
          Core::JsonUtil::ReadUnsigned(section, "maxBlockSizeBytes", maxBlockSizeBytes_);
    }
  }
  normalizeStagingLocation();
}

void SoftwareUpdateConfig::setCustomValues() {}

// An absolute path is the product's own choice and taken as it stands. A
// relative one depends on where the host happens to run, so it is made
// absolute now and its directory checked, since a wrong one would only show
// at the first download.
void SoftwareUpdateConfig::normalizeStagingLocation() {
  if (!stagingLocation_.empty() && stagingLocation_[0] == '/') {
    return;
  }
  char cwd[kWorkingDirectoryBuffer];
  const std::string workingDirectory = getcwd(cwd, sizeof cwd) != nullptr ? cwd : "";
  stagingLocation_ =
      stagingLocation_.empty() ? workingDirectory : workingDirectory + "/" + stagingLocation_;
  const size_t slash = stagingLocation_.rfind('/');
  const std::string directory =
      slash == std::string::npos ? std::string() : stagingLocation_.substr(0, slash);
  struct stat info {};
  if (stat(directory.empty() ? "/" : directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "STAGING LOCATION DIRECTORY %s IS NOT USABLE!", directory.c_str());
  }
}

}  // namespace Su
}  // namespace Lum
