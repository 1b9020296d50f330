#include "server/sync_routes.h"

#include <httplib.h>

#include "server/http_util.h"
#include "server/service_context.h"
#include "server/service_error.h"
#include "server/shared_state.h"
#include "server/wire_time.h"

namespace devserver {

using nlohmann::json;

namespace {

json deviceJson(const Device& device) {
  json out = {{"id", device.id},
              {"name", device.name},
              {"platform", device.platform},
              {"createdAt", formatWireTime(device.createdAt)}};
  if (device.lastSeenAt) out["lastSeenAt"] = formatWireTime(*device.lastSeenAt);
  return out;
}

bool isBlobHash(const std::string& text) {
  if (text.size() != 64) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

// The author and device of a write by the signed-in member.
Actor memberActor(const std::string& member, const Device& device) {
  return Actor{Author{"member", member, std::nullopt}, device.id, false};
}

// Authenticates, then checks the device and the brain, in that order, inside
// one locked change. `device` is marked as seen (saved with the next change).
struct Caller {
  std::string member;
  Device* device = nullptr;
  Brain* brain = nullptr;
};

Caller identify(ServiceContext& ctx, ServiceModel& model, const httplib::Request& req,
                const std::optional<std::string>& deviceId, const std::string& brainId) {
  std::int64_t now = ctx.state.now();
  Caller caller;
  caller.member = model.authenticate(bearerToken(req), now);
  if (deviceId) {
    caller.device = &model.requireDevice(caller.member, *deviceId);
    caller.device->lastSeenAt = now;
  }
  if (!brainId.empty()) caller.brain = &model.requireBrain(caller.member, brainId);
  return caller;
}

// The member behind the request's bearer token; 401 otherwise. Checked before
// the body is read, so that a signed-out client learns that first.
std::string authenticated(ServiceContext& ctx, const httplib::Request& req) {
  return ctx.state.read([&](const ServiceModel& model) {
    return model.authenticate(bearerToken(req), ctx.state.now());
  });
}

std::string requiredQuery(const httplib::Request& req, const char* name) {
  auto value = queryParam(req, name);
  if (!value || value->empty()) {
    throw ServiceError::badRequest(std::string("The query item \"") + name + "\" is missing.");
  }
  return *value;
}

}  // namespace

void addSyncRoutes(httplib::Server& server, ServiceContext& ctx) {
  const std::string api = escapeForPattern(ctx.basePath) + "/api/sync";
  const std::string brainPath = api + "/brains/([^/]+)";

  server.Post(api + "/devices", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      std::string member = authenticated(ctx, req);
      json body = jsonBody(req);
      std::string name = requiredString(body, "name");
      std::string platform = requiredString(body, "platform");
      if (name.empty()) throw ServiceError::badRequest("A device needs a name.");
      json device = ctx.state.write([&](ServiceModel& model) {
        return deviceJson(model.registerDevice(member, name, platform, ctx.state.now()));
      });
      sendJson(res, 201, {{"device", device}});
    });
  });

  server.Get(api + "/devices", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      json devices = ctx.state.read([&](const ServiceModel& model) {
        std::string member = model.authenticate(bearerToken(req), ctx.state.now());
        json out = json::array();
        for (const Device* device : model.devicesOf(member)) out.push_back(deviceJson(*device));
        return out;
      });
      sendJson(res, 200, {{"devices", devices}});
    });
  });

  server.Get(api + "/brains", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      json brains = ctx.state.read([&](const ServiceModel& model) {
        std::string member = model.authenticate(bearerToken(req), ctx.state.now());
        json out = json::array();
        for (const Brain* brain : model.brainsOf(member)) out.push_back(brainJson(*brain));
        return out;
      });
      sendJson(res, 200, {{"brains", brains}});
    });
  });

  server.Get(brainPath + "/changes", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      std::string deviceId = requiredQuery(req, "deviceId");
      auto cursor = queryParam(req, "cursor");
      json answer = ctx.state.touch([&](ServiceModel& model) {
        Caller caller = identify(ctx, model, req, deviceId, req.matches[1]);
        return caller.brain->tree.changes(cursor, caller.device->id);
      });
      sendJson(res, 200, answer);
    });
  });

  server.Get(brainPath + "/file", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      std::string path = requiredQuery(req, "path");
      auto node = ctx.state.read([&](const ServiceModel& model) {
        std::string member = model.authenticate(bearerToken(req), ctx.state.now());
        const Brain& brain = model.requireBrain(member, req.matches[1]);
        const Node* found = brain.tree.find(path);
        if (!found || found->isDirectory) {
          throw ServiceError::notFound("No file at \u201c" + path + "\u201d.");
        }
        return *found;
      });
      if (node.kind == "text") {
        sendJson(
            res, 200,
            {{"path", node.path}, {"at", formatWireTime(node.updatedAt)}, {"content", node.text}});
        return;
      }
      auto bytes = ctx.state.blobs().read(node.blobHash.value_or(""));
      if (!bytes) throw ServiceError(500, "INTERNAL", "The blob of this file is missing.");
      res.status = 200;
      res.set_content(*bytes, "application/octet-stream");
    });
  });

  server.Put(brainPath + "/file", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      authenticated(ctx, req);
      json body = jsonBody(req);
      std::string deviceId = requiredString(body, "deviceId");
      std::string path = requiredString(body, "path");
      auto title = optionalString(body, "title");
      bool isBlob = body.contains("blobHash");
      std::string text;
      std::string blobHash;
      std::int64_t blobSize = 0;
      if (isBlob) {
        blobHash = requiredString(body, "blobHash");
        auto size = body.find("blobSize");
        if (size == body.end() || !size->is_number_integer() || size->get<std::int64_t>() < 0) {
          throw ServiceError::badRequest("The member \"blobSize\" is missing or not a size.");
        }
        blobSize = size->get<std::int64_t>();
        if (!isBlobHash(blobHash)) {
          throw ServiceError::badRequest("blobHash must be 64 lower-case hexadecimal digits.");
        }
      } else {
        text = requiredString(body, "body");
      }
      json answer = ctx.state.write([&](ServiceModel& model) {
        Caller caller = identify(ctx, model, req, deviceId, req.matches[1]);
        Actor actor = memberActor(caller.member, *caller.device);
        if (!isBlob) {
          return writeResultJson(
              caller.brain->tree.putText(actor, path, title, text, ctx.state.now()));
        }
        if (ctx.state.blobs().size(blobHash) != blobSize) {
          throw ServiceError(400, "UNKNOWN_BLOB", "No blob with this hash and size was uploaded.");
        }
        return writeResultJson(
            caller.brain->tree.putBlob(actor, path, title, blobHash, blobSize, ctx.state.now()));
      });
      sendJson(res, 200, answer);
    });
  });

  server.Delete(brainPath + "/file", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      authenticated(ctx, req);
      json body = jsonBody(req);
      std::string deviceId = requiredString(body, "deviceId");
      std::string path = requiredString(body, "path");
      std::string cursor = ctx.state.write([&](ServiceModel& model) {
        Caller caller = identify(ctx, model, req, deviceId, req.matches[1]);
        return caller.brain->tree.remove(memberActor(caller.member, *caller.device), path,
                                         ctx.state.now());
      });
      sendJson(res, 200, {{"deleted", true}, {"cursor", cursor}});
    });
  });

  server.Post(brainPath + "/move", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      authenticated(ctx, req);
      json body = jsonBody(req);
      std::string deviceId = requiredString(body, "deviceId");
      std::string fromPath = requiredString(body, "fromPath");
      std::string toPath = requiredString(body, "toPath");
      json answer = ctx.state.write([&](ServiceModel& model) {
        Caller caller = identify(ctx, model, req, deviceId, req.matches[1]);
        return writeResultJson(caller.brain->tree.move(memberActor(caller.member, *caller.device),
                                                       fromPath, toPath, ctx.state.now()));
      });
      sendJson(res, 200, answer);
    });
  });

  server.Post(brainPath + "/blobs", [&ctx](const httplib::Request& req, httplib::Response& res) {
    guarded(res, [&] {
      std::string deviceId = requiredQuery(req, "deviceId");
      ctx.state.touch([&](ServiceModel& model) {
        identify(ctx, model, req, deviceId, req.matches[1]);
        return 0;
      });
      if (static_cast<std::int64_t>(req.body.size()) > BlobStore::kMaxBlobSize) {
        throw ServiceError(413, "PAYLOAD_TOO_LARGE", "Blobs are limited to 100 MB.");
      }
      // Hashing a big blob takes a while: it happens outside the state lock.
      BlobReceipt receipt = ctx.state.blobs().put(req.body);
      sendJson(res, 200, {{"hash", receipt.hash}, {"size", receipt.size}});
    });
  });
}

}  // namespace devserver
