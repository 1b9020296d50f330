#include "synckit/base/logger.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace synckit {
namespace {

std::string formatMessage(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length <= 0) return {};
  std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
  std::vsnprintf(buffer.data(), buffer.size(), format, args);
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::info(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  std::string message = formatMessage(format, args);
  va_end(args);
  detail::writeLogLine(*this, detail::LogLevel::info, message);
}

void Logger::error(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  std::string message = formatMessage(format, args);
  va_end(args);
  detail::writeLogLine(*this, detail::LogLevel::error, message);
}

}  // namespace synckit
