#include "server/oauth_routes.h"

#include <httplib.h>

#include "server/form_codec.h"
#include "server/http_util.h"
#include "server/login_page.h"
#include "server/service_context.h"
#include "server/service_error.h"
#include "server/shared_state.h"

namespace devserver {

using nlohmann::json;

namespace {

constexpr const char* kAuthorizePath = "/oauth/authorize";
constexpr const char* kTokenPath = "/oauth/token";
constexpr const char* kRegisterPath = "/oauth/register";

std::optional<std::string> field(const std::map<std::string, std::string>& fields,
                                 const char* name) {
  auto it = fields.find(name);
  if (it == fields.end()) return std::nullopt;
  return it->second;
}

AuthorizationRequest readAuthorizationRequest(const std::map<std::string, std::string>& fields) {
  AuthorizationRequest request;
  request.responseType = field(fields, "response_type").value_or("");
  request.clientId = field(fields, "client_id").value_or("");
  request.redirectUri = field(fields, "redirect_uri").value_or("");
  request.state = field(fields, "state");
  request.codeChallenge = field(fields, "code_challenge").value_or("");
  request.codeChallengeMethod = field(fields, "code_challenge_method").value_or("");
  request.resource = field(fields, "resource");
  request.scope = field(fields, "scope");
  return request;
}

// The request's own parameters, carried through the sign-in form.
std::map<std::string, std::string> hiddenFields(const std::map<std::string, std::string>& fields) {
  std::map<std::string, std::string> out;
  for (const char* name : {"response_type", "client_id", "redirect_uri", "state", "code_challenge",
                           "code_challenge_method", "resource", "scope"}) {
    if (auto value = field(fields, name)) out[name] = *value;
  }
  return out;
}

void redirect(httplib::Response& res, const std::string& location) {
  res.status = 302;
  res.set_header("Location", location);
  res.set_header("Cache-Control", "no-store");
}

void redirectWithError(httplib::Response& res, const AuthorizationRequest& request,
                       const OAuthFailure& failure) {
  std::string location = appendQuery(
      request.redirectUri, {{"error", failure.error()}, {"error_description", failure.what()}});
  if (request.state) location = appendQuery(location, {{"state", *request.state}});
  redirect(res, location);
}

void showHtml(httplib::Response& res, int status, const std::string& html) {
  res.status = status;
  res.set_content(html, "text/html; charset=utf-8");
  res.set_header("Cache-Control", "no-store");
}

// Shared by GET (show the form) and POST (the form's answer). Failures that
// concern the client or the redirect URI are shown, never redirected.
void handleAuthorize(ServiceContext& ctx, const std::map<std::string, std::string>& fields,
                     bool submitted, httplib::Response& res) {
  AuthorizationRequest request = readAuthorizationRequest(fields);
  std::string clientName;
  try {
    clientName = ctx.state.read([&](const ServiceModel& model) {
      model.auth.checkClientAndRedirect(request);
      return model.auth.clients.at(request.clientId).clientName;
    });
  } catch (const OAuthFailure& failure) {
    showHtml(res, 400, renderErrorPage("Cannot sign in", failure.what()));
    return;
  }
  try {
    ctx.state.read([&](const ServiceModel& model) { return model.auth.checkRequest(request); });
  } catch (const OAuthFailure& failure) {
    redirectWithError(res, request, failure);
    return;
  }
  std::string action = ctx.basePath + kAuthorizePath;
  if (!submitted) {
    showHtml(res, 200, renderLoginPage(action, hiddenFields(fields), clientName, "", ""));
    return;
  }
  if (field(fields, "decision").value_or("") == "deny") {
    redirectWithError(res, request,
                      OAuthFailure(403, "access_denied", "The user declined the request."));
    return;
  }
  std::string member = field(fields, "member").value_or("");
  std::string password = field(fields, "password").value_or("");
  auto code = ctx.state.write([&](ServiceModel& model) -> std::optional<std::string> {
    if (!model.checkPassword(member, password)) return std::nullopt;
    return model.auth.issueCode(request, member, ctx.state.now());
  });
  if (!code) {
    showHtml(res, 401,
             renderLoginPage(action, hiddenFields(fields), clientName, member,
                             "Wrong member name or password."));
    return;
  }
  std::string location = appendQuery(request.redirectUri, {{"code", *code}});
  if (request.state) location = appendQuery(location, {{"state", *request.state}});
  redirect(res, location);
}

}  // namespace

void addOAuthRoutes(httplib::Server& server, ServiceContext& ctx) {
  const std::string base = escapeForPattern(ctx.basePath);

  server.Get(base + "/\\.well-known/oauth-authorization-server",
             [&ctx](const httplib::Request&, httplib::Response& res) {
               std::string issuer = ctx.issuer();
               sendJson(res, 200,
                        {{"issuer", issuer},
                         {"authorization_endpoint", issuer + kAuthorizePath},
                         {"token_endpoint", issuer + kTokenPath},
                         {"registration_endpoint", issuer + kRegisterPath},
                         {"response_types_supported", {"code"}},
                         {"grant_types_supported", {"authorization_code", "refresh_token"}},
                         {"code_challenge_methods_supported", {"S256"}},
                         {"token_endpoint_auth_methods_supported", {"none"}},
                         {"scopes_supported", {AuthServer::kScope}}});
             });

  server.Post(base + kRegisterPath, [&ctx](const httplib::Request& req, httplib::Response& res) {
    try {
      json body = json::parse(req.body, nullptr, false);
      if (body.is_discarded() || !body.is_object()) {
        throw OAuthFailure(400, "invalid_client_metadata", "The body is not a JSON object.");
      }
      std::vector<std::string> uris;
      if (auto it = body.find("redirect_uris"); it != body.end()) {
        if (!it->is_array()) {
          throw OAuthFailure(400, "invalid_redirect_uri", "redirect_uris must be an array.");
        }
        for (const auto& uri : *it) {
          if (!uri.is_string()) {
            throw OAuthFailure(400, "invalid_redirect_uri", "redirect_uris must hold strings.");
          }
          uris.push_back(uri.get<std::string>());
        }
      }
      std::string name = body.value("client_name", std::string("Unnamed client"));
      std::string method = body.value("token_endpoint_auth_method", std::string("none"));
      auto record = ctx.state.write([&](ServiceModel& model) {
        return model.auth.registerClient(name, uris, method, ctx.state.now());
      });
      sendJson(res, 201,
               {{"client_id", record.clientId},
                {"client_name", record.clientName},
                {"redirect_uris", record.redirectUris},
                {"token_endpoint_auth_method", "none"},
                {"grant_types", {"authorization_code", "refresh_token"}},
                {"response_types", {"code"}},
                {"client_id_issued_at", record.issuedAt}});
    } catch (const OAuthFailure& failure) {
      sendOAuthFailure(res, failure);
    } catch (const json::exception&) {
      sendOAuthFailure(res, OAuthFailure(400, "invalid_client_metadata",
                                         "The client metadata has a member of the wrong type."));
    }
  });

  server.Get(base + kAuthorizePath, [&ctx](const httplib::Request& req, httplib::Response& res) {
    std::map<std::string, std::string> fields;
    for (const auto& [name, value] : req.params) fields.emplace(name, value);
    handleAuthorize(ctx, fields, false, res);
  });

  server.Post(base + kAuthorizePath, [&ctx](const httplib::Request& req, httplib::Response& res) {
    handleAuthorize(ctx, decodeForm(req.body), true, res);
  });

  server.Post(base + kTokenPath, [&ctx](const httplib::Request& req, httplib::Response& res) {
    try {
      auto fields = decodeForm(req.body);
      std::string grant = field(fields, "grant_type").value_or("");
      std::string clientId = field(fields, "client_id").value_or("");
      IssuedTokens tokens;
      if (grant == "authorization_code") {
        tokens = ctx.state.write([&](ServiceModel& model) {
          return model.auth.exchangeCode(clientId, field(fields, "code").value_or(""),
                                         field(fields, "redirect_uri").value_or(""),
                                         field(fields, "code_verifier").value_or(""),
                                         ctx.state.now());
        });
      } else if (grant == "refresh_token") {
        tokens = ctx.state.write([&](ServiceModel& model) {
          return model.auth.refresh(clientId, field(fields, "refresh_token").value_or(""),
                                    ctx.state.now());
        });
      } else if (grant.empty()) {
        throw OAuthFailure(400, "invalid_request", "grant_type is missing.");
      } else {
        throw OAuthFailure(400, "unsupported_grant_type", "Unsupported grant type: " + grant);
      }
      sendJson(res, 200,
               {{"access_token", tokens.accessToken},
                {"token_type", "Bearer"},
                {"expires_in", tokens.expiresIn},
                {"refresh_token", tokens.refreshToken},
                {"scope", tokens.scope}});
      res.set_header("Cache-Control", "no-store");
    } catch (const OAuthFailure& failure) {
      sendOAuthFailure(res, failure);
    }
  });
}

}  // namespace devserver
