#include "synckit/base/error.h"

#include <cstring>
#include <string.h>

namespace synckit {
namespace {

std::string describeErrno(int code) {
  const char* text = strerrordesc_np(code);
  return text ? text : "Unknown error";
}

std::string lastComponent(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string transportText(TransportError::Kind kind, const std::string& detail) {
  std::string text;
  switch (kind) {
    case TransportError::Kind::cannotConnect: text = "Could not connect to the server."; break;
    case TransportError::Kind::timedOut: text = "The request timed out."; break;
    case TransportError::Kind::connectionLost: text = "The network connection was lost."; break;
    case TransportError::Kind::secureConnectionFailed:
      text = "A secure connection to the server could not be made.";
      break;
    case TransportError::Kind::other: text = "The network request failed."; break;
  }
  if (!detail.empty()) text += " (" + detail + ")";
  return text;
}

}  // namespace

FileNotFoundError::FileNotFoundError(std::string path)
    : Error("The file \u201c" + lastComponent(path) +
            "\u201d couldn\u2019t be opened because there is no such file."),
      path_(std::move(path)) {}

TransportError::TransportError(Kind kind, std::string detail)
    : Error(transportText(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

PosixError::PosixError(int code)
    : Error("POSIX error " + std::to_string(code) + ": " + describeErrno(code)), code_(code) {}

}  // namespace synckit
