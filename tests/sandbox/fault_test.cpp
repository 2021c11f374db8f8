#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "palomir/model.hpp"
#include "sandbox_client.hpp"

namespace palomir::sandbox {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::Reply;
using testing::SandboxClient;

const std::string kCheckin = "/api/checkin/sandbox-token";

struct FaultCase {
    std::string name;
    std::string setting;  // route=kind[:arg]
    std::string target;
    int status;  // 0: no answer at all
    std::string recordedFault;
    std::chrono::milliseconds atLeast{0};
    std::function<void(const Reply&)> check = [](const Reply&) {};
    std::chrono::milliseconds readTimeout = 10s;
    friend void PrintTo(const FaultCase& value, std::ostream* out) { *out << value.setting; }
};

class FaultBehaviour : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FaultBehaviour, DoesWhatItSays) {
    const FaultCase& c = GetParam();
    auto setting = parseFaultSetting(c.setting);
    ASSERT_TRUE(setting.hasValue()) << setting.error();
    Sandbox sandbox(SandboxOptions{.faults = {setting.value()}, .logRequests = false});
    ASSERT_TRUE(sandbox.start().hasValue());
    SandboxClient client(sandbox);
    client.readTimeout = c.readTimeout;
    const bool get = c.target.starts_with("/api/") && c.target != kCheckin && c.target != "/api/feedback";
    const std::string method = get ? "GET" : c.target == "/api/feedback" ? "POST" : "PUT";
    Reply reply = client.send(method, c.target, method == "GET" ? "" : R"({"app_info": {}})");

    EXPECT_EQ(reply.status, c.status);
    EXPECT_GE(reply.elapsed, c.atLeast);
    // A stalled request is recorded once the client gives up, long before
    // a stall without a limit would end after two minutes.
    for (int i = 0; i < 300 && sandbox.requests().empty(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(sandbox.requests().size(), 1u);
    EXPECT_EQ(sandbox.requests()[0].fault, c.recordedFault);
    // A truncated answer is recorded as the 200 it began as.
    EXPECT_EQ(sandbox.requests()[0].status, c.recordedFault == "truncated" ? 200 : c.status);
    c.check(reply);
}

void readFailed(const Reply& reply) { EXPECT_EQ(reply.error, httplib::Error::Read); }

INSTANTIATE_TEST_SUITE_P(
    Sandbox, FaultBehaviour,
    ::testing::Values(
        FaultCase{"Delay", "checkin=delay:300", kCheckin, 200, "delay:300", 300ms,
                  [](const Reply& reply) { EXPECT_TRUE(decodeJson<Configuration>(reply.body).hasValue()); }},
        FaultCase{"StatusWithoutBody", "services=status:503", "/api/services/", 503, "status:503", 0ms,
                  [](const Reply& reply) { EXPECT_EQ(reply.body, ""); }},
        FaultCase{"StatusWithBody", R"(feedback=status:429:{"errors":["Slow*down"]})", "/api/feedback", 429,
                  R"(status:429:{"errors":["Slow*down"]})", 0ms,
                  [](const Reply& reply) {
                      EXPECT_EQ(reply.body, R"({"errors":["Slow*down"]})");
                      EXPECT_EQ(reply.header("Content-Type"), "application/json");
                  }},
        FaultCase{"Malformed", "checkin=malformed", kCheckin, 200, "malformed", 0ms,
                  [](const Reply& reply) {
                      EXPECT_FALSE(reply.body.empty());
                      EXPECT_FALSE(Json::accept(reply.body));
                  }},
        FaultCase{"Empty", "checkin=empty", kCheckin, 200, "empty", 0ms,
                  [](const Reply& reply) { EXPECT_EQ(reply.body, ""); }},
        FaultCase{"Truncated", "checkin=truncated", kCheckin, 0, "truncated", 0ms, readFailed},
        FaultCase{"Drop", "*=drop", "/api/services/sync", 0, "drop"},
        FaultCase{"StallUntilTheClientGivesUp", "checkin=stall", kCheckin, 0, "stall:120000", 400ms, readFailed,
                  500ms},
        FaultCase{"StallWithALimit", "upload=stall:200", "/uploads/unknown", 0, "stall:200", 200ms,
                  [](const Reply& reply) { EXPECT_LT(reply.elapsed, 5s); }},
        FaultCase{"WrongCacheControl", "services=cache-control:max-age=-5", "/api/system_services/", 200,
                  "cache-control:max-age=-5", 0ms,
                  [](const Reply& reply) { EXPECT_EQ(reply.header("Cache-Control"), "max-age=-5"); }},
        FaultCase{"Oversized", "services=oversized:3", "/api/services/", 200, "oversized:3", 0ms,
                  [](const Reply& reply) {
                      EXPECT_GE(reply.body.size(), 3u * 1024 * 1024);
                      EXPECT_TRUE(decodeJson<ServicesResponse>(reply.body).hasValue());
                  }},
        FaultCase{"Drip", "checkin=drip:3", kCheckin, 200, "drip:3", 0ms,
                  [](const Reply& reply) {
                      EXPECT_TRUE(decodeJson<Configuration>(reply.body).hasValue());
                      EXPECT_GE(reply.elapsed, 3ms * (reply.body.size() - 1));
                  }},
        FaultCase{"FaultOnAnotherRouteLeavesThisOneAlone", "feedback=drop", kCheckin, 200, ""}),
    [](const auto& info) { return info.param.name; });

TEST(SandboxFaultTest, RefusedSettingsSayWhatIsWrong) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"checkin", "fault checkin: expected route=kind[:argument], as in checkin=delay:500"},
        {"login=drop", "unknown fault route: login"},
        {"checkin=delay", "fault delay: needs milliseconds, as in delay:500"},
        {"checkin=status:42", "fault status:42: the status code must be from 100 to 599"},
        {"checkin=drop*0", "fault drop*0: the count after '*' must be a positive number"},
        {"checkin=redirect", "fault redirect: needs the address to send the client to, as in redirect:http://example.com/"}};
    for (const auto& [text, error] : cases) {
        auto parsed = parseFaultSetting(text);
        ASSERT_TRUE(parsed.hasError()) << text;
        EXPECT_EQ(parsed.error(), error);
    }
}

}  // namespace
}  // namespace palomir::sandbox
