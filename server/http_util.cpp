#include "server/http_util.h"

#include <httplib.h>

#include "server/service_error.h"

namespace devserver {

using nlohmann::json;

void sendJson(httplib::Response& res, int status, const json& body) {
  res.status = status;
  // Invalid UTF-8 can only come from a query (a path echoed in a message); it is
  // replaced rather than allowed to throw while an answer is being written.
  res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void sendServiceError(httplib::Response& res, const ServiceError& error) {
  sendJson(res, error.status(), {{"error", {{"code", error.code()}, {"message", error.what()}}}});
  if (error.status() == 401) res.set_header("WWW-Authenticate", "Bearer");
}

void sendOAuthFailure(httplib::Response& res, const OAuthFailure& failure) {
  sendJson(res, failure.status(),
           {{"error", failure.error()}, {"error_description", failure.what()}});
  res.set_header("Cache-Control", "no-store");
}

void guarded(httplib::Response& res, const std::function<void()>& handler) {
  try {
    handler();
  } catch (const ServiceError& error) {
    sendServiceError(res, error);
  } catch (const OAuthFailure& failure) {
    sendOAuthFailure(res, failure);
  } catch (const json::exception& error) {
    sendServiceError(res,
                     ServiceError::badRequest(std::string("Malformed request: ") + error.what()));
  } catch (const std::exception& error) {
    sendServiceError(res, ServiceError(500, "INTERNAL", error.what()));
  }
}

json jsonBody(const httplib::Request& req) {
  json body = json::parse(req.body, nullptr, false);
  if (body.is_discarded() || !body.is_object()) {
    throw ServiceError::badRequest("The request body is not a JSON object.");
  }
  return body;
}

std::string requiredString(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) {
    throw ServiceError::badRequest(std::string("The member \"") + key +
                                   "\" is missing or not a string.");
  }
  return it->get<std::string>();
}

std::optional<std::string> optionalString(const json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return std::nullopt;
  if (!it->is_string()) {
    throw ServiceError::badRequest(std::string("The member \"") + key + "\" is not a string.");
  }
  return it->get<std::string>();
}

std::optional<std::string> queryParam(const httplib::Request& req, const char* name) {
  if (!req.has_param(name)) return std::nullopt;
  return req.get_param_value(name);
}

std::string bearerToken(const httplib::Request& req) {
  std::string header = req.get_header_value("Authorization");
  static constexpr std::string_view scheme = "Bearer ";
  if (header.size() <= scheme.size()) return {};
  for (std::size_t i = 0; i < scheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(header[i])) !=
        std::tolower(static_cast<unsigned char>(scheme[i]))) {
      return {};
    }
  }
  return header.substr(scheme.size());
}

std::string escapeForPattern(const std::string& literal) {
  std::string out;
  for (char c : literal) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

bool isLoopback(const httplib::Request& req) {
  const std::string& addr = req.remote_addr;
  return addr == "::1" || addr.rfind("127.", 0) == 0 || addr.rfind("::ffff:127.", 0) == 0;
}

}  // namespace devserver
