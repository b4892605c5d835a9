#include "server/Server.h"

#include <httplib.h>

#include "server/Control.h"
#include "server/Metadata.h"
#include "server/RpcPipeline.h"

namespace hxsim::server {

namespace {

sig::HeaderMap LowercaseHeaders(const httplib::Headers& headers) {
  sig::HeaderMap out;
  for (const auto& [k, v] : headers) out.emplace(enc::ToLower(k), v);
  return out;
}

void Send(httplib::Response& res, const api::HttpReply& reply) {
  res.status = reply.status;
  res.set_content(reply.body, reply.contentType.c_str());
}

}  // namespace

Server::Server(World& world) : world_(world) {}

Server::~Server() { Stop(); }

std::string Server::Start(const std::string& host, uint16_t port, uint16_t* boundPort) {
  if (http_) return "already started";
  http_ = std::make_unique<httplib::Server>();
  auto& http = *http_;
  http.new_task_queue = [] { return new httplib::ThreadPool(16); };
  http.set_keep_alive_timeout(2);
  // Without TCP_NODELAY a reply written in two segments waits for the client's delayed ACK
  // (about 40 ms on Linux) before its second part leaves: every call would pay for it.
  http.set_tcp_nodelay(true);
  http.set_payload_max_length(8 * 1024 * 1024);
  // SO_REUSEADDR only: with SO_REUSEPORT a second emulator could share a port that is
  // already in use and steal half of the first one's requests.
  http.set_socket_options([](int sock) {
    int yes = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });

  auto rpc = [this](const httplib::Request& req, httplib::Response& res) {
    RawRequest raw;
    raw.method = req.method;
    raw.path = req.path;
    size_t q = req.target.find('?');
    raw.query = q == std::string::npos ? "" : req.target.substr(q + 1);
    raw.headers = LowercaseHeaders(req.headers);
    raw.body = req.body;
    RpcOutcome outcome = HandleRpc(world_, raw);
    if (outcome.latency.count() > 0) std::this_thread::sleep_for(outcome.latency);
    if (outcome.drop) {
      // The action has been performed; the client gets headers but the body never
      // arrives and the connection closes, which every client sees as a network error.
      res.status = 200;
      res.set_content_provider(outcome.reply.body.size() + 1, outcome.reply.contentType.c_str(),
                               [](size_t, size_t, httplib::DataSink&) { return false; });
      return;
    }
    Send(res, outcome.reply);
  };
  http.Get("/", rpc);
  http.Post("/", rpc);

  auto metadata = [this](const httplib::Request& req, httplib::Response& res) {
    Send(res, HandleMetadata(world_, req.method, req.path, LowercaseHeaders(req.headers)));
  };
  http.Get(R"(/latest/.*)", metadata);
  http.Put(R"(/latest/.*)", metadata);

  auto control = [this](const httplib::Request& req, httplib::Response& res) {
    Send(res, HandleControl(world_, req.method, req.path, req.body));
  };
  http.Get(R"(/_sim/.*)", control);
  http.Post(R"(/_sim/.*)", control);
  http.Delete(R"(/_sim/.*)", control);

  int bound = port == 0 ? http.bind_to_any_port(host) : (http.bind_to_port(host, port) ? port : -1);
  if (bound <= 0) {
    http_.reset();
    return "cannot listen on " + host + ":" + std::to_string(port);
  }
  *boundPort = static_cast<uint16_t>(bound);
  thread_ = std::thread([&http] { http.listen_after_bind(); });
  // stop() is a no-op until the accept loop runs, so do not hand out a server that a
  // quick Stop() could not stop.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!http.is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!http.is_running()) {
    Stop();
    return "the listener did not start";
  }
  return "";
}

void Server::Stop() {
  if (!http_) return;
  http_->stop();
  if (thread_.joinable()) thread_.join();
  http_.reset();
}

}  // namespace hxsim::server
