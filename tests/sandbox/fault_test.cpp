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
using testing::Signing;

struct FaultCase {
    std::string name;
    std::string setting;  // route=kind[:arg]
    std::string method;
    std::string target;
    std::function<void(const Reply&, const Sandbox&)> check;
    std::chrono::milliseconds readTimeout = 10s;
    friend void PrintTo(const FaultCase& value, std::ostream* out) { *out << value.setting; }
};

class FaultBehaviour : public ::testing::TestWithParam<FaultCase> {
protected:
    void SetUp() override {
        SandboxOptions options;
        options.logRequests = false;
        auto setting = parseFaultSetting(GetParam().setting);
        ASSERT_TRUE(setting.hasValue()) << setting.error();
        options.faults.push_back(setting.value());
        sandbox = std::make_unique<Sandbox>(options);
        ASSERT_TRUE(sandbox->start().hasValue());
    }
    std::unique_ptr<Sandbox> sandbox;
};

TEST_P(FaultBehaviour, DoesWhatItSays) {
    SandboxClient client(*sandbox);
    client.readTimeout = GetParam().readTimeout;
    std::string body = GetParam().method == "GET" ? "" : R"({"app_info": {}})";
    Reply reply = client.send(GetParam().method, GetParam().target, body);
    GetParam().check(reply, *sandbox);
}

void expectNoAnswer(const Reply& reply) {
    EXPECT_FALSE(reply.answered);
    EXPECT_NE(reply.error, httplib::Error::Success);
}

std::vector<SandboxRequest> waitForRequests(const Sandbox& sandbox, std::size_t count) {
    for (int i = 0; i < 300 && sandbox.requests().size() < count; ++i) std::this_thread::sleep_for(10ms);
    return sandbox.requests();
}

INSTANTIATE_TEST_SUITE_P(
    Sandbox, FaultBehaviour,
    ::testing::Values(
        FaultCase{"Delay", "checkin=delay:300", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_GE(reply.elapsed, 300ms);
                      EXPECT_TRUE(decodeJson<Configuration>(reply.body).hasValue());
                  }},
        FaultCase{"StatusWithoutBody", "services=status:503", "GET", "/api/services/",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 503);
                      EXPECT_EQ(reply.body, "");
                  }},
        FaultCase{"StatusWithBody", R"(feedback=status:429:{"errors":["Slow down"]})", "POST", "/api/feedback",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 429);
                      EXPECT_EQ(reply.body, R"({"errors":["Slow down"]})");
                      EXPECT_EQ(reply.header("Content-Type"), "application/json");
                  }},
        FaultCase{"Malformed", "checkin=malformed", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_FALSE(reply.body.empty());
                      EXPECT_FALSE(Json::accept(reply.body));
                  }},
        FaultCase{"Empty", "checkin=empty", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_EQ(reply.body, "");
                  }},
        FaultCase{"Truncated", "checkin=truncated", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox& sandbox) {
                      expectNoAnswer(reply);
                      EXPECT_EQ(reply.error, httplib::Error::Read);
                      EXPECT_EQ(waitForRequests(sandbox, 1).at(0).fault, "truncated");
                  }},
        FaultCase{"Drop", "*=drop", "GET", "/api/services/sync",
                  [](const Reply& reply, const Sandbox& sandbox) {
                      expectNoAnswer(reply);
                      auto requests = waitForRequests(sandbox, 1);
                      EXPECT_EQ(requests.at(0).status, 0);
                      EXPECT_EQ(requests.at(0).fault, "drop");
                  }},
        FaultCase{"StallUntilTheClientGivesUp", "checkin=stall", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox& sandbox) {
                      expectNoAnswer(reply);
                      EXPECT_EQ(reply.error, httplib::Error::Read);
                      EXPECT_GE(reply.elapsed, 400ms);
                      // Recorded once the stall ends: long before its two-minute limit.
                      auto requests = waitForRequests(sandbox, 1);
                      ASSERT_EQ(requests.size(), 1u);
                      EXPECT_EQ(requests[0].status, 0);
                      EXPECT_EQ(requests[0].fault, "stall:120000");
                  },
                  500ms},
        FaultCase{"StallWithALimit", "upload=stall:200", "PUT", "/uploads/unknown",
                  [](const Reply& reply, const Sandbox&) {
                      expectNoAnswer(reply);
                      EXPECT_GE(reply.elapsed, 200ms);
                      EXPECT_LT(reply.elapsed, 5s);
                  }},
        FaultCase{"WrongCacheControl", "services=cache-control:max-age=-5", "GET", "/api/system_services/",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_EQ(reply.header("Cache-Control"), "max-age=-5");
                  }},
        FaultCase{"Oversized", "services=oversized:3", "GET", "/api/services/",
                  [](const Reply& reply, const Sandbox&) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_GE(reply.body.size(), 3u * 1024 * 1024);
                      EXPECT_TRUE(decodeJson<ServicesResponse>(reply.body).hasValue());
                  }},
        FaultCase{"FaultOnAnotherRouteLeavesThisOneAlone", "feedback=drop", "PUT", "/api/checkin/sandbox-token",
                  [](const Reply& reply, const Sandbox& sandbox) {
                      EXPECT_EQ(reply.status, 200);
                      EXPECT_EQ(sandbox.requests().at(0).fault, "");
                  }}),
    [](const auto& info) { return info.param.name; });

TEST(SandboxFaultTest, DripSendsTheWholeBodyOneByteAtATime) {
    Sandbox sandbox(SandboxOptions{.logRequests = false});
    ASSERT_TRUE(sandbox.start().hasValue());
    const std::string expected = SandboxClient(sandbox).checkin().body;
    sandbox.setFault(Route::checkin, Fault::parse("drip:3").value());
    Reply reply = SandboxClient(sandbox).checkin();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, expected);
    EXPECT_GE(reply.elapsed, std::chrono::milliseconds(3 * (expected.size() - 1)));
}

TEST(SandboxFaultTest, AdminRoutesSetCountedFaultsAndClearThem) {
    Sandbox sandbox(SandboxOptions{.logRequests = false});
    ASSERT_TRUE(sandbox.start().hasValue());
    SandboxClient client(sandbox);
    // A counted fault applies to that many requests only.
    Reply set = client.send("POST", "/_sandbox/faults", R"({"faults": ["services=status:500*2"]})",
                            Signing{.sign = false});
    EXPECT_EQ(set.body, R"({"faults":{"services":"status:500*2"}})");
    EXPECT_EQ(client.send("GET", "/api/services/").status, 500);
    EXPECT_EQ(client.send("GET", "/api/system_services/").status, 500);
    EXPECT_EQ(client.send("GET", "/api/services/").status, 200);
    EXPECT_TRUE(sandbox.faults().empty());

    EXPECT_EQ(client.send("POST", "/_sandbox/faults", R"({"route": "*", "fault": "status:418"})",
                          Signing{.sign = false})
                  .status,
              200);
    EXPECT_EQ(client.checkin().status, 418);
    EXPECT_EQ(client.send("DELETE", "/_sandbox/faults", "", Signing{.sign = false}).status, 200);
    EXPECT_EQ(client.checkin().status, 200);

    Reply refused = client.send("POST", "/_sandbox/faults", R"({"faults": ["checkin=slow"]})", Signing{.sign = false});
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.body, R"({"errors":["unknown fault kind: slow"]})");
}

struct BadSetting {
    std::string text;
    std::string error;
    friend void PrintTo(const BadSetting& value, std::ostream* out) { *out << value.text; }
};

class FaultSettingRefusal : public ::testing::TestWithParam<BadSetting> {};

TEST_P(FaultSettingRefusal, SaysWhatIsWrong) {
    auto parsed = parseFaultSetting(GetParam().text);
    ASSERT_TRUE(parsed.hasError());
    EXPECT_EQ(parsed.error(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Sandbox, FaultSettingRefusal,
    ::testing::Values(BadSetting{"checkin", "fault checkin: expected route=kind[:argument], as in checkin=delay:500"},
                      BadSetting{"login=drop", "unknown fault route: login"},
                      BadSetting{"checkin=delay", "fault delay: needs milliseconds, as in delay:500"},
                      BadSetting{"checkin=delay:soon", "fault delay:soon: milliseconds must be a whole number"},
                      BadSetting{"checkin=status:42", "fault status:42: the status code must be from 100 to 599"},
                      BadSetting{"checkin=drop:5", "fault drop:5: takes no argument"},
                      BadSetting{"checkin=drip:0", "fault drip:0: the drip interval must be at least 1 ms"},
                      BadSetting{"checkin=oversized:0", "fault oversized:0: the size must be from 1 to 1024 MB"},
                      BadSetting{"checkin=drop*0", "fault drop*0: the count after '*' must be a positive number"},
                      BadSetting{"checkin=redirect", "fault redirect: needs the address to send the client to, "
                                                     "as in redirect:http://example.com/"}));

TEST(SandboxFaultTest, DescriptionsReadBackAsTheSameFault) {
    for (const char* text : {"delay:250", "stall:1000", "drip:5", "status:503", "status:429:{\"a\":\"*\"}", "malformed",
                             "truncated", "empty", "drop*3", "cache-control:no-store", "oversized:2",
                             "redirect:http://127.0.0.1:9/a?b=c*2"}) {
        auto fault = Fault::parse(text);
        ASSERT_TRUE(fault.hasValue()) << text;
        EXPECT_EQ(fault.value().description(), text);
    }
}

}  // namespace
}  // namespace palomir::sandbox
