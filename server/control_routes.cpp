#include "server/control_routes.h"

#include <httplib.h>

#include "server/base64.h"
#include "server/fault_injector.h"
#include "server/http_util.h"
#include "server/service_context.h"
#include "server/service_error.h"
#include "server/shared_state.h"
#include "server/wire_time.h"

namespace devserver {

using nlohmann::json;

namespace {

// The brain list's form plus what only the control interface shows.
json controlBrainJson(const Brain& brain) {
  json out = brainJson(brain);
  out["grants"] = brain.grants;
  out["readOnly"] = brain.tree.readOnlyFolders();
  return out;
}

json faultJson(const Fault& fault) {
  json out = {{"id", fault.id},
              {"path", fault.pathContains},
              {"count", fault.remaining},
              {"delayMs", fault.delayMillis},
              {"drop", fault.drop}};
  if (fault.method) out["method"] = *fault.method;
  if (fault.status) {
    out["status"] = *fault.status;
    out["code"] = fault.code;
    out["message"] = fault.message;
  }
  return out;
}

// {"as": {"kind", "memberId", "harness", "deviceId"}}; by default a member
// other than anyone signed in, on no device.
Actor actorFrom(const json& body) {
  Actor actor{Author{"member", "control", std::nullopt}, "", true};
  auto it = body.find("as");
  if (it == body.end()) return actor;
  if (!it->is_object()) throw ServiceError::badRequest("\"as\" must be an object.");
  actor.author.kind = optionalString(*it, "kind").value_or("member");
  if (actor.author.kind != "member" && actor.author.kind != "agent") {
    throw ServiceError::badRequest("\"as.kind\" must be member or agent.");
  }
  actor.author.memberId = optionalString(*it, "memberId").value_or("control");
  actor.author.harness = optionalString(*it, "harness");
  actor.deviceId = optionalString(*it, "deviceId").value_or("");
  return actor;
}

Fault faultFrom(const json& body) {
  Fault fault;
  fault.pathContains = requiredString(body, "path");
  fault.method = optionalString(body, "method");
  fault.remaining = body.value("count", 1);
  if (fault.remaining < 1) throw ServiceError::badRequest("\"count\" must be at least 1.");
  if (body.contains("status")) {
    int status = body.at("status").get<int>();
    if (status < 100 || status > 599) throw ServiceError::badRequest("Bad \"status\".");
    fault.status = status;
  }
  fault.code = optionalString(body, "code").value_or(fault.code);
  fault.message = optionalString(body, "message").value_or(fault.message);
  fault.delayMillis = body.value("delayMs", std::int64_t{0});
  if (fault.delayMillis < 0 || fault.delayMillis > 120000) {
    throw ServiceError::badRequest("\"delayMs\" must be from 0 to 120000.");
  }
  fault.drop = body.value("drop", false);
  if (!fault.status && !fault.drop && fault.delayMillis == 0) {
    throw ServiceError::badRequest("A fault needs a status, a delay or drop.");
  }
  return fault;
}

}  // namespace

void addControlRoutes(httplib::Server& server, ServiceContext& ctx) {
  const std::string control = escapeForPattern(ctx.basePath) + kControlPrefix;
  const std::string brainPath = control + "/brains/([^/]+)";

  // Every control route answers only to this machine.
  auto route = [&ctx](auto body) {
    return [&ctx, body](const httplib::Request& req, httplib::Response& res) {
      guarded(res, [&] {
        if (!isLoopback(req)) {
          throw ServiceError::forbidden("The control interface answers only to loopback.");
        }
        body(req, res);
      });
    };
  };

  server.Get(control + "/state", route([&ctx](const httplib::Request&, httplib::Response& res) {
               json answer = ctx.state.read([](const ServiceModel& model) {
                 json members = json::array();
                 for (const auto& [name, password] : model.members()) members.push_back(name);
                 json brains = json::array();
                 for (const auto& [id, brain] : model.brains)
                   brains.push_back(controlBrainJson(brain));
                 json devices = json::array();
                 for (const auto& [id, device] : model.devices) {
                   devices.push_back({{"id", device.id},
                                      {"member", device.member},
                                      {"name", device.name},
                                      {"platform", device.platform},
                                      {"revoked", device.revoked}});
                 }
                 return json{{"members", members},
                             {"brains", brains},
                             {"devices", devices},
                             {"clients", model.auth.clients.size()}};
               });
               sendJson(res, 200, answer);
             }));

  server.Post(control + "/brains",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                json body = jsonBody(req);
                std::string name = requiredString(body, "name");
                std::string slug = requiredString(body, "slug");
                auto id = optionalString(body, "id");
                json answer = ctx.state.write([&](ServiceModel& model) {
                  std::set<std::string> grants;
                  if (body.contains("members")) {
                    grants = body.at("members").get<std::set<std::string>>();
                  } else {
                    for (const auto& [member, password] : model.members()) grants.insert(member);
                  }
                  return controlBrainJson(model.createBrain(name, slug, grants, id));
                });
                sendJson(res, 201, {{"brain", answer}});
              }));

  for (const char* action : {"grant", "revoke"}) {
    bool grant = std::string_view(action) == "grant";
    server.Post(brainPath + "/" + action,
                route([&ctx, grant](const httplib::Request& req, httplib::Response& res) {
                  json body = jsonBody(req);
                  std::string member = requiredString(body, "member");
                  json answer = ctx.state.write([&](ServiceModel& model) {
                    model.requireMember(member);
                    Brain& brain = model.brain(req.matches[1]);
                    if (grant) {
                      brain.grants.insert(member);
                    } else {
                      brain.grants.erase(member);
                    }
                    return controlBrainJson(brain);
                  });
                  sendJson(res, 200, {{"brain", answer}});
                }));
  }

  server.Post(brainPath + "/read-only",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                json body = jsonBody(req);
                std::string path = requiredString(body, "path");
                bool readOnly = body.value("readOnly", true);
                json answer = ctx.state.write([&](ServiceModel& model) {
                  Brain& brain = model.brain(req.matches[1]);
                  brain.tree.setReadOnly(path, readOnly);
                  return controlBrainJson(brain);
                });
                sendJson(res, 200, {{"brain", answer}});
              }));

  server.Post(
      brainPath + "/write", route([&ctx](const httplib::Request& req, httplib::Response& res) {
        json body = jsonBody(req);
        std::string path = requiredString(body, "path");
        auto title = optionalString(body, "title");
        Actor actor = actorFrom(body);
        std::optional<BlobReceipt> blob;
        if (auto encoded = optionalString(body, "base64")) {
          auto bytes = base64Decode(*encoded);
          if (!bytes) throw ServiceError::badRequest("\"base64\" is not valid base64.");
          blob = ctx.state.blobs().put(std::move(*bytes));
        }
        std::string text = blob ? std::string() : requiredString(body, "content");
        json answer = ctx.state.write([&](ServiceModel& model) {
          BrainTree& tree = model.brain(req.matches[1]).tree;
          WriteReceipt receipt =
              blob ? tree.putBlob(actor, path, title, blob->hash, blob->size, ctx.state.now())
                   : tree.putText(actor, path, title, text, ctx.state.now());
          return writeResultJson(receipt);
        });
        sendJson(res, 200, answer);
      }));

  server.Post(
      brainPath + "/mkdir", route([&ctx](const httplib::Request& req, httplib::Response& res) {
        json body = jsonBody(req);
        std::string path = requiredString(body, "path");
        json answer = ctx.state.write([&](ServiceModel& model) {
          return writeResultJson(
              model.brain(req.matches[1]).tree.makeFolder(actorFrom(body), path, ctx.state.now()));
        });
        sendJson(res, 200, answer);
      }));

  server.Post(
      brainPath + "/move", route([&ctx](const httplib::Request& req, httplib::Response& res) {
        json body = jsonBody(req);
        std::string from = requiredString(body, "fromPath");
        std::string to = requiredString(body, "toPath");
        json answer = ctx.state.write([&](ServiceModel& model) {
          return writeResultJson(
              model.brain(req.matches[1]).tree.move(actorFrom(body), from, to, ctx.state.now()));
        });
        sendJson(res, 200, answer);
      }));

  server.Post(
      brainPath + "/delete", route([&ctx](const httplib::Request& req, httplib::Response& res) {
        json body = jsonBody(req);
        std::string path = requiredString(body, "path");
        std::string cursor = ctx.state.write([&](ServiceModel& model) {
          return model.brain(req.matches[1]).tree.remove(actorFrom(body), path, ctx.state.now());
        });
        sendJson(res, 200, {{"deleted", true}, {"cursor", cursor}});
      }));

  server.Post(brainPath + "/invalidate-cursors",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                json answer = ctx.state.write([&](ServiceModel& model) {
                  Brain& brain = model.brain(req.matches[1]);
                  brain.tree.invalidateCursors();
                  return controlBrainJson(brain);
                });
                sendJson(res, 200, {{"brain", answer}});
              }));

  server.Get(brainPath + "/tree",
             route([&ctx](const httplib::Request& req, httplib::Response& res) {
               auto [brain, nodes] = ctx.state.read([&](const ServiceModel& model) {
                 const Brain& found = model.brain(req.matches[1]);
                 std::vector<Node> copy;
                 for (const auto& [path, node] : found.tree.nodes()) copy.push_back(node);
                 return std::pair{controlBrainJson(found), std::move(copy)};
               });
               json items = json::array();
               for (const Node& node : nodes) {
                 json item = {{"nodeId", node.nodeId},
                              {"path", node.path},
                              {"title", node.title},
                              {"isDirectory", node.isDirectory},
                              {"kind", node.kind},
                              {"version", node.version},
                              {"updatedAt", formatWireTime(node.updatedAt)}};
                 if (!node.isDirectory && node.kind == "text") item["content"] = node.text;
                 if (node.blobHash) {
                   item["blobHash"] = *node.blobHash;
                   item["blobSize"] = node.blobSize.value_or(0);
                   if (auto bytes = ctx.state.blobs().read(*node.blobHash)) {
                     item["base64"] = base64Encode(*bytes);
                   }
                 }
                 items.push_back(std::move(item));
               }
               sendJson(res, 200, {{"brain", brain}, {"nodes", items}});
             }));

  server.Post(control + "/devices/([^/]+)/revoke",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                ctx.state.write([&](ServiceModel& model) {
                  auto it = model.devices.find(normalizeUuid(req.matches[1]).value_or(""));
                  if (it == model.devices.end()) throw ServiceError::notFound("Unknown device.");
                  it->second.revoked = true;
                });
                sendJson(res, 200, {{"revoked", true}});
              }));

  server.Post(control + "/tokens/expire",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                json body = req.body.empty() ? json::object() : jsonBody(req);
                auto member = optionalString(body, "member");
                bool refresh = body.value("refresh", false);
                std::size_t count = ctx.state.write([&](ServiceModel& model) {
                  return model.auth.expireTokens(member, refresh, ctx.state.now());
                });
                sendJson(res, 200, {{"expired", count}});
              }));

  server.Post(control + "/clock",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                json body = jsonBody(req);
                std::int64_t seconds = body.at("advanceSeconds").get<std::int64_t>();
                if (seconds < 0) throw ServiceError::badRequest("The clock only moves forward.");
                ctx.state.advanceClock(seconds * 1000);
                sendJson(res, 200, {{"now", formatWireTime(ctx.state.now())}});
              }));

  server.Post(control + "/faults",
              route([&ctx](const httplib::Request& req, httplib::Response& res) {
                Fault fault = ctx.faults.arm(faultFrom(jsonBody(req)));
                sendJson(res, 201, {{"fault", faultJson(fault)}});
              }));

  server.Get(control + "/faults", route([&ctx](const httplib::Request&, httplib::Response& res) {
               json faults = json::array();
               for (const Fault& fault : ctx.faults.armed()) faults.push_back(faultJson(fault));
               sendJson(res, 200, {{"faults", faults}});
             }));

  server.Delete(control + "/faults", route([&ctx](const httplib::Request&, httplib::Response& res) {
                  ctx.faults.clear();
                  sendJson(res, 200, {{"faults", json::array()}});
                }));
}

}  // namespace devserver
