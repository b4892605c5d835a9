// Response parsing, the retry loop and error hygiene of the API layer, over a scripted
// transport (no sockets).
#include <gtest/gtest.h>

#include <deque>
#include <functional>

#include "api_client.h"
#include "json_util.h"
#include "percent_encode.h"
#include "retry_policy.h"

using namespace hxbridge;

namespace {

// Answers from a queue; records each request. An entry with status 0 throws TransportError.
class ScriptedTransport : public HttpTransport {
public:
    std::deque<HttpResponse> answers;
    std::vector<HttpRequest> requests;
    HttpResponse Send(const HttpRequest& r) override {
        requests.push_back(r);
        if (answers.empty()) throw TransportError("script exhausted");
        HttpResponse a = answers.front();
        answers.pop_front();
        if (a.status == 0) throw TransportError(a.body);
        return a;
    }
};

HttpResponse Http(long status, std::string body) { return {status, {}, std::move(body)}; }

Params ParseForm(const std::string& body) {
    Params p;
    size_t start = 0;
    while (start <= body.size()) {
        size_t end = body.find('&', start);
        if (end == std::string::npos) end = body.size();
        const std::string pair = body.substr(start, end - start);
        const size_t eq = pair.find('=');
        if (eq != std::string::npos) p[PercentDecode(pair.substr(0, eq))] = PercentDecode(pair.substr(eq + 1));
        start = end + 1;
    }
    return p;
}

struct Fixture {
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::vector<std::chrono::milliseconds> sleeps;
    std::vector<std::string> traces;
    std::unique_ptr<ApiClient> client;

    explicit Fixture(Credentials creds = {"AKID", "the-secret-value", ""}, int maxAttempts = 4) {
        ApiClientOptions o;
        o.retry.maxAttempts = maxAttempts;
        o.sleep = [this](std::chrono::milliseconds d) { sleeps.push_back(d); };
        o.random = [] { return 0.5; };
        o.trace = [this](const std::string& l) { traces.push_back(l); };
        client = std::make_unique<ApiClient>(transport, RequestSigner(), creds,
                                             EndpointResolver{"http://127.0.0.1:9", false}, o);
    }
};

// A list answer without its list is not "nothing found": the caller would read a live
// object as gone.
TEST(RequiredList, AMissingListIsMalformedAndAnEmptyOneIsEmpty) {
    EXPECT_TRUE(jv::RequiredList(nlohmann::json::parse(R"({"Disks":{"Disk":[]}})"), "Disks", "Disk", "DescribeDisks").empty());
    EXPECT_TRUE(jv::RequiredList(nlohmann::json::parse(R"({"Disks":{}})"), "Disks", "Disk", "DescribeDisks").empty());
    EXPECT_EQ(jv::RequiredList(nlohmann::json::parse(R"({"Disks":{"Disk":[{"DiskId":"d-1"}]}})"), "Disks", "Disk", "X").size(), 1u);
    for (const char* body : {R"({"RequestId":"R-9"})", R"({"Disks":"none"})", R"({"Disks":{"Disk":{}}})"}) {
        try {
            jv::RequiredList(nlohmann::json::parse(body), "Disks", "Disk", "DescribeDisks");
            FAIL() << body;
        } catch (const ApiError& e) {
            EXPECT_EQ(e.kind(), ApiError::Kind::Malformed) << body;
            EXPECT_NE(e.message().find("DescribeDisks"), std::string::npos) << e.message();
        }
    }
}

// The documented success and error samples.
TEST(ParseResponse, ReadsDocumentedSuccessAndErrorBodies) {
    const auto ok = ParseResponse(Http(
        200, R"({"RequestId":"473469C7-AA6F-4DC5-B3DB-A3DC0DE3C83E","Disks":{"Disk":[{"DiskId":"d-1","Size":40}]}})"));
    ASSERT_EQ(jv::WrappedList(ok, "Disks", "Disk").size(), 1u);
    EXPECT_EQ(jv::Int(jv::WrappedList(ok, "Disks", "Disk")[0], "Size"), 40);

    try {
        ParseResponse(Http(404, R"({"RequestId":"R-1","HostId":"ecs.cn-hangzhou.aliyuncs.com",
            "Code":"InvalidDiskId.NotFound","Message":"The specified disk does not exist.",
            "Recommend":"https://api.aliyun.com/troubleshoot?q=InvalidDiskId.NotFound"})"));
        FAIL() << "no exception";
    } catch (const ApiError& e) {
        EXPECT_EQ(e.kind(), ApiError::Kind::Service);
        EXPECT_EQ(e.httpStatus(), 404);
        EXPECT_TRUE(e.IsNotFound());
        EXPECT_EQ(e.Describe(), "InvalidDiskId.NotFound: The specified disk does not exist. (RequestId R-1)");
    }
}

TEST(ParseResponse, CodeInA200BodyIsAnErrorAndHtmlFromAGatewayIsNotJson) {
    EXPECT_THROW(ParseResponse(Http(200, R"({"Code":"Throttling","Message":"x","RequestId":"r"})")), ApiError);
    EXPECT_NO_THROW(ParseResponse(Http(200, R"({"Code":"200","RequestId":"r"})")));
    try {
        ParseResponse(Http(502, "<html>bad gateway</html>"));
        FAIL();
    } catch (const ApiError& e) {
        EXPECT_EQ(e.code(), "HTTP502");
        EXPECT_TRUE(RetryPolicy::IsRetryable(e));  // a 5xx stays retryable whatever the body
    }
    try {
        ParseResponse(Http(200, "not json"));
        FAIL();
    } catch (const ApiError& e) {
        EXPECT_EQ(e.kind(), ApiError::Kind::Malformed);
        EXPECT_FALSE(RetryPolicy::IsRetryable(e));
    }
}

TEST(RetryPolicy, ClassifiesCodes) {
    struct Case {
        ApiError::Kind kind;
        const char* code;
        long status;
        bool retry;
    } cases[] = {
        {ApiError::Kind::Service, "Throttling", 400, true},
        {ApiError::Kind::Service, "Throttling.User", 400, true},
        {ApiError::Kind::Service, "Throttling.Api", 400, true},
        {ApiError::Kind::Service, "Rejected.Throttling", 400, true},
        {ApiError::Kind::Service, "ServiceUnavailable", 503, true},
        {ApiError::Kind::Service, "InternalError", 500, true},
        {ApiError::Kind::Service, "SomethingNew", 502, true},
        {ApiError::Kind::Service, "SignatureNonceUsed", 400, true},
        {ApiError::Kind::Network, "NetworkError", 0, true},
        {ApiError::Kind::Service, "InvalidDiskId.NotFound", 404, false},
        {ApiError::Kind::Service, "SignatureDoesNotMatch", 400, false},
        {ApiError::Kind::Service, "InstanceDiskLimitExceeded", 403, false},
        {ApiError::Kind::Service, "IncorrectDiskStatus", 403, false},
        {ApiError::Kind::Timeout, "WaitTimeout", 0, false},
        {ApiError::Kind::Client, "NotConnected", 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RetryPolicy::IsRetryable(ApiError(c.kind, c.code, "m", "r", c.status)), c.retry) << c.code;
    }
}

TEST(RetryPolicy, BackoffGrowsIsCappedAndJittered) {
    RetryPolicy p;
    p.baseDelay = std::chrono::milliseconds(100);
    p.maxDelay = std::chrono::milliseconds(1000);
    EXPECT_EQ(p.Delay(1, 0.0).count(), 50);
    EXPECT_EQ(p.Delay(1, 0.999).count(), 99);
    EXPECT_EQ(p.Delay(3, 1.0).count(), 400);
    EXPECT_EQ(p.Delay(10, 1.0).count(), 1000);  // capped
    EXPECT_EQ(p.Delay(40, 0.0).count(), 500);   // no overflow far out
}

TEST(ApiClient, SendsASignedPostFormThatVerifies) {
    Fixture f;
    f.transport->answers.push_back(Http(200, R"({"RequestId":"R","DiskId":"d-1"})"));
    auto body = f.client->Call("CreateDisk", "cn-beijing", {{"ZoneId", "cn-beijing-a"}, {"DiskName", "a b*"}});
    EXPECT_EQ(jv::Str(body, "DiskId"), "d-1");
    ASSERT_EQ(f.transport->requests.size(), 1u);
    const HttpRequest& req = f.transport->requests[0];
    EXPECT_EQ(req.method, "POST");
    EXPECT_EQ(req.url, "http://127.0.0.1:9/");
    Params sent = ParseForm(req.body);
    EXPECT_EQ(sent["RegionId"], "cn-beijing");
    EXPECT_EQ(sent["DiskName"], "a b*");
    EXPECT_EQ(sent["Action"], "CreateDisk");
    EXPECT_EQ(sent["Signature"], HmacSha1Base64("the-secret-value", StringToSign("POST", sent)));
    EXPECT_EQ(req.body.find("the-secret-value"), std::string::npos);
}

TEST(ApiClient, RetriesThrottlingWithFreshNoncesThenSucceeds) {
    Fixture f;
    f.transport->answers = {Http(400, R"({"Code":"Throttling.User","Message":"flow control","RequestId":"a"})"),
                            Http(503, R"({"Code":"ServiceUnavailable","Message":"x","RequestId":"b"})"),
                            Http(200, R"({"RequestId":"c"})")};
    f.client->Call("DescribeRegions", "cn-hangzhou", {});
    ASSERT_EQ(f.transport->requests.size(), 3u);
    EXPECT_NE(ParseForm(f.transport->requests[0].body)["SignatureNonce"],
              ParseForm(f.transport->requests[1].body)["SignatureNonce"]);
    ASSERT_EQ(f.sleeps.size(), 2u);
    EXPECT_LT(f.sleeps[0], f.sleeps[1]);  // exponential
    ASSERT_EQ(f.traces.size(), 3u);
    EXPECT_NE(f.traces[2].find("requestId=c"), std::string::npos);
    EXPECT_NE(f.traces[2].find("attempt=3"), std::string::npos);
}

TEST(ApiClient, GivesUpAfterTheBoundAndDoesNotRetryClientFaults) {
    Fixture f({"AKID", "the-secret-value", ""}, 3);
    for (int i = 0; i < 5; ++i) f.transport->answers.push_back(Http(500, R"({"Code":"InternalError","Message":"m"})"));
    EXPECT_THROW(f.client->Call("DescribeRegions", "r", {}), ApiError);
    EXPECT_EQ(f.transport->requests.size(), 3u);

    Fixture g;
    g.transport->answers.push_back(Http(403, R"({"Code":"InstanceDiskLimitExceeded","Message":"m","RequestId":"x"})"));
    try {
        g.client->Call("AttachDisk", "r", {});
        FAIL();
    } catch (const ApiError& e) {
        EXPECT_EQ(e.code(), "InstanceDiskLimitExceeded");
        EXPECT_FALSE(e.mayHaveSucceeded());
    }
    EXPECT_EQ(g.transport->requests.size(), 1u);
}

TEST(ApiClient, AfterALostAnswerTheFinalErrorSaysTheCallMayHaveSucceeded) {
    Fixture f;
    f.transport->answers = {Http(0, "Connection reset by peer"),
                            Http(404, R"({"Code":"InvalidDiskId.NotFound","Message":"gone","RequestId":"z"})")};
    try {
        f.client->Call("DeleteDisk", "r", {{"DiskId", "d-1"}});
        FAIL();
    } catch (const ApiError& e) {
        EXPECT_TRUE(e.IsNotFound());
        EXPECT_TRUE(e.mayHaveSucceeded());
    }
}

TEST(ApiClient, SecretsNeverReachErrorTexts) {
    const std::string token = "STS.CAIS/abc+def==tok";
    Fixture f({"AKID", "the-secret-value", token});
    // A SignatureDoesNotMatch message quotes the string to sign (token encoded twice).
    const std::string quoted = "server string to sign: POST&%2F&SecurityToken%3D" + PercentEncode(PercentEncode(token)) +
                               " raw " + token + " secret the-secret-value";
    f.transport->answers.push_back(
        Http(400, nlohmann::json{{"Code", "SignatureDoesNotMatch"}, {"Message", quoted}, {"RequestId", "q"}}.dump()));
    try {
        f.client->Call("DescribeRegions", "r", {});
        FAIL();
    } catch (const ApiError& e) {
        const std::string text = e.Describe();
        EXPECT_EQ(text.find("the-secret-value"), std::string::npos) << text;
        EXPECT_EQ(text.find(token), std::string::npos) << text;
        EXPECT_EQ(text.find(PercentEncode(PercentEncode(token))), std::string::npos) << text;
        EXPECT_NE(text.find("<redacted>"), std::string::npos);
    }
    for (const auto& line : f.traces) EXPECT_EQ(line.find("AKID"), std::string::npos) << line;
}

TEST(EndpointResolver, RegionalVpcAndOverride) {
    EXPECT_EQ(EndpointResolver{}.BaseUrl("cn-shanghai"), "https://ecs.cn-shanghai.aliyuncs.com");
    EXPECT_EQ((EndpointResolver{"", true}.BaseUrl("cn-shanghai")), "https://ecs-vpc.cn-shanghai.aliyuncs.com");
    EXPECT_EQ((EndpointResolver{"http://127.0.0.1:8080/", false}.BaseUrl("x")), "http://127.0.0.1:8080");
    EXPECT_EQ((EndpointResolver{"ecs.example.internal", false}.BaseUrl("x")), "https://ecs.example.internal");
    EXPECT_THROW(EndpointResolver{}.BaseUrl(""), ApiError);
}

}  // namespace
