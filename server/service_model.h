#pragma once
// Everything the service knows: members, devices, brains with their trees, and
// the authorisation server. Not thread-safe: SharedState holds the one lock.

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "server/auth_server.h"
#include "server/brain_tree.h"

namespace devserver {

struct Device {
  std::string id;
  std::string member;
  std::string name;
  std::string platform;
  std::int64_t createdAt = 0;
  std::optional<std::int64_t> lastSeenAt;
  bool revoked = false;
  bool operator==(const Device&) const = default;
};

struct Brain {
  std::string id;  // lower-case UUID text
  std::string teamId;
  std::string name;
  std::string slug;
  std::set<std::string> grants;  // member names
  BrainTree tree;
};

class ServiceModel {
 public:
  ServiceModel(std::map<std::string, std::string> members, std::int64_t tokenLifetimeSeconds);

  // The member a bearer token belongs to; 401 when the token is unknown or expired.
  std::string authenticate(const std::string& accessToken, std::int64_t now) const;

  const Device& registerDevice(const std::string& member, const std::string& name,
                               const std::string& platform, std::int64_t now);
  std::vector<const Device*> devicesOf(const std::string& member) const;
  // 403 FORBIDDEN unless the device is the member's own and not revoked.
  Device& requireDevice(const std::string& member, const std::string& deviceId);

  std::vector<const Brain*> brainsOf(const std::string& member) const;
  // 404 NOT_FOUND unless the brain exists and is granted to the member. Accepts
  // the id in either case.
  Brain& requireBrain(const std::string& member, const std::string& brainId);
  const Brain& requireBrain(const std::string& member, const std::string& brainId) const;
  // Any brain, for the control interface; 404 NOT_FOUND when unknown.
  Brain& brain(const std::string& brainId);
  const Brain& brain(const std::string& brainId) const;

  Brain& createBrain(const std::string& name, const std::string& slug,
                     const std::set<std::string>& grants, const std::optional<std::string>& id);

  bool checkPassword(const std::string& member, const std::string& password) const;
  const std::map<std::string, std::string>& members() const { return members_; }
  void requireMember(const std::string& member) const;

  AuthServer auth;
  std::string teamId;
  std::map<std::string, Device> devices;
  std::map<std::string, Brain> brains;

 private:
  std::map<std::string, std::string> members_;  // name -> password
};

// A brain as the brain list shows it: {"id","teamId","name","slug","headCursor"}.
nlohmann::json brainJson(const Brain& brain);

// Lower-cases a UUID text; nothing when the text is not a UUID.
std::optional<std::string> normalizeUuid(const std::string& text);

}  // namespace devserver
