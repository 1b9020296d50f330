#pragma once
// What every route handler reaches: the state, the armed faults and where the
// service lives. Filled in before the server starts listening, read-only after.

#include <string>

namespace devserver {

class SharedState;
class FaultInjector;

struct ServiceContext {
  SharedState& state;
  FaultInjector& faults;
  std::string basePath;  // "" or "/prefix"
  std::string origin;    // "http://127.0.0.1:PORT", known once the port is bound

  std::string issuer() const { return origin + basePath; }
};

}  // namespace devserver
