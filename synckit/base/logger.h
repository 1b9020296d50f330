#pragma once

#include <string>

namespace synckit {

// A log channel for one component: `subsystem` is the application identifier,
// `category` names the component ("sync", "domain", ...). Lines go to the
// journal when the process runs under systemd, otherwise to standard error.
// Never pass tokens, authorization codes or PKCE verifiers to a log line.
// Safe to use from any thread.
class Logger {
 public:
  Logger(std::string subsystem, std::string category);

  void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

  const std::string& subsystem() const noexcept { return subsystem_; }
  const std::string& category() const noexcept { return category_; }

 private:
  std::string subsystem_;
  std::string category_;
};

namespace detail {
enum class LogLevel { info, error };
// Implemented once per sink (logger_journal.cpp or logger_stderr.cpp).
void writeLogLine(const Logger& logger, LogLevel level, const std::string& message);
}  // namespace detail

}  // namespace synckit
