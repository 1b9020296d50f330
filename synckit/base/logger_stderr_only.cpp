#include "synckit/base/logger.h"

namespace synckit::detail {

void writeStderrLogLine(const Logger& logger, LogLevel level, const std::string& message);

// Built when libsystemd is not available: every line goes to standard error.
void writeLogLine(const Logger& logger, LogLevel level, const std::string& message) {
  writeStderrLogLine(logger, level, message);
}

}  // namespace synckit::detail
