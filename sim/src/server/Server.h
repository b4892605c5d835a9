// The HTTP transport: one loopback listener serving the RPC API at "/", the metadata
// service under /latest/ and the control endpoint under /_sim/. Owns the listener
// thread; the World outlives it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "server/World.h"

namespace httplib {
class Server;
}

namespace hxsim::server {

class Server {
 public:
  explicit Server(World& world);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds host:port (port 0 picks a free one) and starts serving. Returns an error
  // text (empty on success); *boundPort receives the port.
  std::string Start(const std::string& host, uint16_t port, uint16_t* boundPort);
  // Stops accepting, finishes in-flight requests and joins the listener. Idempotent.
  void Stop();

 private:
  World& world_;
  std::unique_ptr<httplib::Server> http_;
  std::thread thread_;
};

}  // namespace hxsim::server
