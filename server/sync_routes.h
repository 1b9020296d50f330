#pragma once
// The sync API below {base}/api/sync: devices, brains, the change feed, file
// read, write, move and delete, and blob upload. Every request needs a bearer
// token; every error answers with {"error":{"code","message"}}.

namespace httplib {
class Server;
}

namespace devserver {

struct ServiceContext;

void addSyncRoutes(httplib::Server& server, ServiceContext& context);

}  // namespace devserver
