// CurlTransport against loopback servers: request shape, connection reuse, fast failures,
// TLS verification and proxy settings.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>

#include "http_transport.h"
#include "loopback_server.h"

using namespace hxbridge;
using namespace std::chrono;

namespace {

TEST(CurlTransport, DeliversMethodHeadersAndBodyAndReturnsErrorStatuses) {
    LoopbackServer server;
    std::string seenBody, seenType, seenMethod;
    server->Post("/", [&](const httplib::Request& req, httplib::Response& res) {
        seenBody = req.body;
        seenType = req.get_header_value("Content-Type");
        res.status = 403;
        res.set_header("X-Acs-Request-Id", "abc");
        res.set_content(R"({"Code":"Forbidden"})", "application/json");
    });
    server.Start();
    CurlTransport t;
    HttpRequest req{"POST", server.Url() + "/", {{"Content-Type", "application/x-www-form-urlencoded"}}, "A=1&B=2"};
    HttpResponse resp = t.Send(req);
    EXPECT_EQ(resp.status, 403);
    EXPECT_EQ(resp.body, R"({"Code":"Forbidden"})");
    EXPECT_EQ(resp.headers["x-acs-request-id"], "abc");
    EXPECT_EQ(seenBody, "A=1&B=2");
    EXPECT_EQ(seenType, "application/x-www-form-urlencoded");
}

TEST(CurlTransport, ReusesTheConnectionAcrossRequests) {
    LoopbackServer server;
    std::mutex m;
    std::set<int> clientPorts;
    server->Get("/", [&](const httplib::Request& req, httplib::Response& res) {
        std::lock_guard<std::mutex> lock(m);
        clientPorts.insert(req.remote_port);
        res.set_content("ok", "text/plain");
    });
    server.Start();
    CurlTransport t;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(t.Send({"GET", server.Url() + "/", {}, ""}).status, 200);
    EXPECT_EQ(clientPorts.size(), 1u);
}

TEST(CurlTransport, RefusedConnectionFailsFastWithATransportError) {
    const int port = ClosedPort();
    CurlTransport t;
    const auto start = steady_clock::now();
    EXPECT_THROW(t.Send({"GET", "http://127.0.0.1:" + std::to_string(port) + "/", {}, ""}), TransportError);
    EXPECT_LT(steady_clock::now() - start, seconds(2));
}

TEST(CurlTransport, TotalTimeoutBoundsASlowServer) {
    LoopbackServer server;
    server->Get("/", [](const httplib::Request&, httplib::Response& res) {
        std::this_thread::sleep_for(milliseconds(800));
        res.set_content("late", "text/plain");
    });
    server.Start();
    TransportOptions o;
    o.totalTimeout = milliseconds(200);
    CurlTransport t(o);
    const auto start = steady_clock::now();
    EXPECT_THROW(t.Send({"GET", server.Url() + "/", {}, ""}), TransportError);
    EXPECT_LT(steady_clock::now() - start, milliseconds(700));
}

// A peer that accepts and then says nothing is given up on after the stall timeout, not
// the whole total timeout; a body over the cap is refused as a permanent failure.
TEST(CurlTransport, StalledPeersAndOversizedBodiesFailFastAndSayWhy) {
    LoopbackServer server;
    server->Get("/stall", [](const httplib::Request&, httplib::Response& res) {
        std::this_thread::sleep_for(milliseconds(2500));
        res.set_content("late", "text/plain");
    });
    server->Get("/big", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(std::string(3u << 20, 'x'), "application/json");
    });
    server.Start();
    TransportOptions o;
    o.stallTimeout = seconds(1);
    o.maxBodyBytes = 1u << 20;
    CurlTransport t(o);
    const auto start = steady_clock::now();
    try {
        t.Send({"GET", server.Url() + "/stall", {}, ""});
        FAIL() << "a stalled peer answered";
    } catch (const TransportError& e) {
        EXPECT_TRUE(e.timedOut()) << e.what();
        EXPECT_FALSE(e.permanent());
    }
    EXPECT_LT(steady_clock::now() - start, milliseconds(2400));
    try {
        t.Send({"GET", server.Url() + "/big", {}, ""});
        FAIL() << "an oversized body was accepted";
    } catch (const TransportError& e) {
        EXPECT_TRUE(e.permanent());
        EXPECT_NE(std::string(e.what()).find("exceeds 1 MiB"), std::string::npos) << e.what();
    }
}

class TlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() / ("hxbridge-tls-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
        const std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
                                "-addext subjectAltName=IP:127.0.0.1 -keyout '" + (dir_ / "key.pem").string() +
                                "' -out '" + (dir_ / "cert.pem").string() + "' >/dev/null 2>&1";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << "openssl could not make a test certificate";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::filesystem::path dir_;
};

TEST_F(TlsTest, VerifiesThePeerAgainstTheTrustedStore) {
    auto ssl = std::make_unique<httplib::SSLServer>((dir_ / "cert.pem").c_str(), (dir_ / "key.pem").c_str());
    ssl->Get("/", [](const httplib::Request&, httplib::Response& res) { res.set_content("secure", "text/plain"); });
    LoopbackServer server(std::move(ssl));
    server.Start();

    CurlTransport untrusting;  // system store: the self-signed certificate is not in it
    EXPECT_THROW(untrusting.Send({"GET", server.Url("https") + "/", {}, ""}), TransportError);

    TransportOptions o;
    o.caFile = (dir_ / "cert.pem").string();
    CurlTransport trusting(o);
    HttpResponse resp = trusting.Send({"GET", server.Url("https") + "/", {}, ""});
    EXPECT_EQ(resp.status, 200);
    EXPECT_EQ(resp.body, "secure");
}

// Sets an environment variable for one scope.
struct ScopedEnv {
    std::string name;
    std::optional<std::string> old;
    ScopedEnv(const char* n, const std::string& v) : name(n) {
        if (const char* o = std::getenv(n)) old = o;
        setenv(n, v.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old) setenv(name.c_str(), old->c_str(), 1);
        else unsetenv(name.c_str());
    }
};

TEST(CurlTransport, HonoursTheProxyEnvironmentUnlessBypassed) {
    LoopbackServer proxy;
    std::atomic<int> proxied{0};
    proxy->Get(".*", [&](const httplib::Request&, httplib::Response& res) {
        ++proxied;
        res.set_content("via proxy", "text/plain");
    });
    proxy.Start();
    LoopbackServer origin;
    origin->Get("/", [](const httplib::Request&, httplib::Response& res) { res.set_content("direct", "text/plain"); });
    origin.Start();

    ScopedEnv p("http_proxy", proxy.Url());
    ScopedEnv np("no_proxy", "");
    ScopedEnv npu("NO_PROXY", "");
    {
        CurlTransport t;
        EXPECT_EQ(t.Send({"GET", origin.Url() + "/", {}, ""}).body, "via proxy");
        EXPECT_EQ(proxied.load(), 1);
    }
    {
        ScopedEnv skip("NO_PROXY", "127.0.0.1");
        CurlTransport t;
        EXPECT_EQ(t.Send({"GET", origin.Url() + "/", {}, ""}).body, "direct");
    }
    {
        TransportOptions o;
        o.bypassProxy = true;
        CurlTransport t(o);
        EXPECT_EQ(t.Send({"GET", origin.Url() + "/", {}, ""}).body, "direct");
    }
    EXPECT_EQ(proxied.load(), 1);
}

}  // namespace
