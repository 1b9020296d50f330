#include <cstdio>

#include "synckit/base/logger.h"
#include "synckit/base/timestamp.h"

namespace synckit::detail {

void writeStderrLogLine(const Logger& logger, LogLevel level, const std::string& message) {
  // One fprintf call per line keeps lines from different threads whole.
  std::fprintf(stderr, "%s %s[%s] %s: %s\n", Timestamp::now().toString().c_str(),
               logger.subsystem().c_str(), logger.category().c_str(),
               level == LogLevel::error ? "error" : "info", message.c_str());
}

}  // namespace synckit::detail
