#include <systemd/sd-journal.h>
#include <syslog.h>

#include <cstdlib>

#include "synckit/base/logger.h"

namespace synckit::detail {

void writeStderrLogLine(const Logger& logger, LogLevel level, const std::string& message);

namespace {

// systemd sets JOURNAL_STREAM for services whose output goes to the journal.
bool runsUnderSystemd() {
  static const bool underSystemd = std::getenv("JOURNAL_STREAM") != nullptr;
  return underSystemd;
}

}  // namespace

void writeLogLine(const Logger& logger, LogLevel level, const std::string& message) {
  if (!runsUnderSystemd()) {
    writeStderrLogLine(logger, level, message);
    return;
  }
  sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%d",
                  level == LogLevel::error ? LOG_ERR : LOG_INFO, "SYSLOG_IDENTIFIER=%s",
                  logger.subsystem().c_str(), "HALVARK_CATEGORY=%s", logger.category().c_str(),
                  nullptr);
}

}  // namespace synckit::detail
