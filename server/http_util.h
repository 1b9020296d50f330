#pragma once
// Small helpers shared by the route handlers: JSON answers, the two error
// envelopes, body and parameter reading. Keeps the HTTP library's header out of
// every other header.

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace devserver {

class ServiceError;
class OAuthFailure;

void sendJson(httplib::Response& res, int status, const nlohmann::json& body);
// {"error":{"code","message"}}
void sendServiceError(httplib::Response& res, const ServiceError& error);
// {"error","error_description"}, never cached.
void sendOAuthFailure(httplib::Response& res, const OAuthFailure& failure);

// Runs a handler; ServiceError, OAuthFailure and JSON type errors become their
// answers, anything else a 500 with the sync envelope.
void guarded(httplib::Response& res, const std::function<void()>& handler);

// The request body as a JSON object; 400 when it is not one.
nlohmann::json jsonBody(const httplib::Request& req);
// A member of a JSON object: 400 when missing or of the wrong type.
std::string requiredString(const nlohmann::json& object, const char* key);
std::optional<std::string> optionalString(const nlohmann::json& object, const char* key);

// A query parameter, or nothing when absent.
std::optional<std::string> queryParam(const httplib::Request& req, const char* name);
// The token of "Authorization: Bearer <token>", empty when there is none.
std::string bearerToken(const httplib::Request& req);

// Regex-safe form of a literal path (for route patterns below a base path).
std::string escapeForPattern(const std::string& literal);

// True for requests that come from this machine.
bool isLoopback(const httplib::Request& req);

}  // namespace devserver
