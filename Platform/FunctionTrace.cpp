#include "Platform/FunctionTrace.h"

#include "Platform/Logger.h"

namespace Lum {
namespace Core {

FunctionTrace::FunctionTrace(const char* function, const char* file, int line, int service)
    : function_(function),
      file_(file),
      line_(line),
      service_(service),
      category_(FilterProperties::CATEGORY_FLOW),
      severity_(FilterProperties::SEVERITY_DEBUG) {
  Logger& logger = Logger::Instance();
  if (logger.test(service_, category_, severity_)) {
    logger.log(file_, line_, function_, service_, category_, severity_, "Function Enter");
  }
}

FunctionTrace::~FunctionTrace() {
  Logger& logger = Logger::Instance();
  if (logger.test(service_, category_, severity_)) {
    logger.log(file_, line_, function_, service_, category_, severity_, "Function Return");
  }
}

}  // namespace Core
}  // namespace Lum
