#include "server/service_model.h"

#include <cctype>
#include <utility>

#include "server/crypto.h"
#include "server/service_error.h"

namespace devserver {

std::optional<std::string> normalizeUuid(const std::string& text) {
  if (text.size() != 36) return std::nullopt;
  std::string out = text;
  for (std::size_t i = 0; i < out.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    unsigned char c = static_cast<unsigned char>(out[i]);
    if (dash ? c != '-' : !std::isxdigit(c)) return std::nullopt;
    out[i] = static_cast<char>(std::tolower(c));
  }
  return out;
}

nlohmann::json brainJson(const Brain& brain) {
  return {{"id", brain.id},
          {"teamId", brain.teamId},
          {"name", brain.name},
          {"slug", brain.slug},
          {"headCursor", brain.tree.headCursor()}};
}

ServiceModel::ServiceModel(std::map<std::string, std::string> members,
                           std::int64_t tokenLifetimeSeconds)
    : auth(tokenLifetimeSeconds), teamId(randomUuid()), members_(std::move(members)) {}

std::string ServiceModel::authenticate(const std::string& accessToken, std::int64_t now) const {
  if (accessToken.empty()) {
    throw ServiceError::unauthorized("A bearer token is required.");
  }
  auto member = auth.authenticate(accessToken, now);
  if (!member) {
    throw ServiceError::unauthorized("The access token is unknown or has expired.");
  }
  return *member;
}

const Device& ServiceModel::registerDevice(const std::string& member, const std::string& name,
                                           const std::string& platform, std::int64_t now) {
  Device device{randomUuid(), member, name, platform, now, now, false};
  return devices.emplace(device.id, device).first->second;
}

std::vector<const Device*> ServiceModel::devicesOf(const std::string& member) const {
  std::vector<const Device*> out;
  for (const auto& [id, device] : devices) {
    if (device.member == member && !device.revoked) out.push_back(&device);
  }
  return out;
}

Device& ServiceModel::requireDevice(const std::string& member, const std::string& deviceId) {
  auto it = devices.find(normalizeUuid(deviceId).value_or(deviceId));
  if (it == devices.end() || it->second.member != member) {
    throw ServiceError::forbidden("Unknown device.");
  }
  if (it->second.revoked) {
    throw ServiceError::forbidden("This device has been revoked.");
  }
  return it->second;
}

std::vector<const Brain*> ServiceModel::brainsOf(const std::string& member) const {
  std::vector<const Brain*> out;
  for (const auto& [id, brain] : brains) {
    if (brain.grants.count(member) > 0) out.push_back(&brain);
  }
  return out;
}

Brain& ServiceModel::requireBrain(const std::string& member, const std::string& brainId) {
  return const_cast<Brain&>(std::as_const(*this).requireBrain(member, brainId));
}

const Brain& ServiceModel::requireBrain(const std::string& member,
                                        const std::string& brainId) const {
  auto id = normalizeUuid(brainId);
  auto it = id ? brains.find(*id) : brains.end();
  // An existing brain that is not granted looks exactly like a missing one.
  if (it == brains.end() || it->second.grants.count(member) == 0) {
    throw ServiceError::notFound("Brain not found.");
  }
  return it->second;
}

Brain& ServiceModel::brain(const std::string& brainId) {
  return const_cast<Brain&>(std::as_const(*this).brain(brainId));
}

const Brain& ServiceModel::brain(const std::string& brainId) const {
  auto id = normalizeUuid(brainId);
  auto it = id ? brains.find(*id) : brains.end();
  if (it == brains.end()) throw ServiceError::notFound("Brain not found.");
  return it->second;
}

Brain& ServiceModel::createBrain(const std::string& name, const std::string& slug,
                                 const std::set<std::string>& grants,
                                 const std::optional<std::string>& id) {
  if (name.empty() || slug.empty()) {
    throw ServiceError::badRequest("A brain needs a name and a slug.");
  }
  for (const auto& member : grants) requireMember(member);
  std::string brainId = randomUuid();
  if (id) {
    auto normalized = normalizeUuid(*id);
    if (!normalized) throw ServiceError::badRequest("A brain id must be a UUID.");
    if (brains.count(*normalized) > 0) {
      throw ServiceError::conflict("A brain with this id already exists.");
    }
    brainId = *normalized;
  }
  Brain brain{brainId, teamId, name, slug, grants, BrainTree()};
  return brains.emplace(brainId, std::move(brain)).first->second;
}

bool ServiceModel::checkPassword(const std::string& member, const std::string& password) const {
  auto it = members_.find(member);
  return it != members_.end() && it->second == password;
}

void ServiceModel::requireMember(const std::string& member) const {
  if (members_.count(member) == 0) {
    throw ServiceError::notFound("Unknown member \u201c" + member + "\u201d.");
  }
}

}  // namespace devserver
