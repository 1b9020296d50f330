#pragma once
// The authorisation server's endpoints: metadata, dynamic registration of public
// clients, the authorisation endpoint with its sign-in form, and the token
// endpoint for the authorization_code (PKCE S256) and refresh_token grants.

namespace httplib {
class Server;
}

namespace devserver {

struct ServiceContext;

void addOAuthRoutes(httplib::Server& server, ServiceContext& context);

}  // namespace devserver
