// The metadata client against a loopback stand-in of the service.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "loopback_server.h"
#include "metadata_client.h"

using namespace hxbridge;

namespace {

// Hardened mode: every read needs the token from PUT /latest/api/token.
void ServeHardened(httplib::Server& s, std::atomic<int>& tokenFetches) {
    s.Put("/latest/api/token", [&](const httplib::Request& req, httplib::Response& res) {
        if (req.get_header_value("X-aliyun-ecs-metadata-token-ttl-seconds").empty()) {
            res.status = 400;
            return;
        }
        ++tokenFetches;
        res.set_content("tok-1\n", "text/plain");
    });
    s.Get("/latest/meta-data/instance-id", [](const httplib::Request& req, httplib::Response& res) {
        if (req.get_header_value("X-aliyun-ecs-metadata-token") != "tok-1") {
            res.status = 401;
            return;
        }
        res.set_content("i-proxy\n", "text/plain");
    });
}

TEST(MetadataClient, UsesASessionTokenAndCachesIt) {
    LoopbackServer server;
    std::atomic<int> fetches{0};
    ServeHardened(*server, fetches);
    server.Start();
    MetadataClient client(std::make_shared<CurlTransport>(MetadataTransportOptions()), server.Url());
    EXPECT_EQ(client.Get("instance-id").value_or("<none>"), "i-proxy");
    EXPECT_EQ(client.Get("instance-id").value_or("<none>"), "i-proxy");
    EXPECT_EQ(fetches.load(), 1);
    EXPECT_FALSE(client.Get("no-such-item").has_value());  // 404
}

TEST(MetadataClient, FallsBackToPlainRequestsWhenNoTokenIsIssued) {
    LoopbackServer server;
    server->Put("/latest/api/token", [](const httplib::Request&, httplib::Response& res) { res.status = 403; });
    server->Get("/latest/meta-data/region-id", [](const httplib::Request& req, httplib::Response& res) {
        if (!req.get_header_value("X-aliyun-ecs-metadata-token").empty()) res.status = 400;
        else res.set_content("cn-shanghai", "text/plain");
    });
    server.Start();
    MetadataClient client(std::make_shared<CurlTransport>(MetadataTransportOptions()), server.Url() + "/");
    EXPECT_EQ(client.Get("region-id").value_or("<none>"), "cn-shanghai");
}

TEST(MetadataClient, UnreachableServiceAnswersNothingQuickly) {
    MetadataClient client(std::make_shared<CurlTransport>(MetadataTransportOptions()),
                          "http://127.0.0.1:" + std::to_string(ClosedPort()));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(client.Get("instance-id").has_value());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
