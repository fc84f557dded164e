// Discovery: registration, heartbeats, unregistration and health derived from heartbeats.
#include "EmulatorFixture.h"

namespace EmulatorTest {
namespace {

constexpr char kServicePath[] = "/discovery/api/v1/service";

class DiscoveryTest : public EmulatorFixture {
  protected:
    // Registers `record`; returns the secret ("" on failure).
    std::string registerRecord(const nlohmann::json& record) {
        const auto response =
            call("POST", kServicePath, record.dump(), true, {{"Content-Type", "application/json"}});
        EXPECT_EQ(201, response.status) << response.body;
        if (response.status != 201) {
            return "";
        }
        const auto answer = nlohmann::json::parse(response.body);
        EXPECT_EQ(record["serviceId"], answer["serviceId"]);
        return answer["serviceSecret"];
    }
    nlohmann::json listed() {
        const auto response = call("GET", kServicePath);
        EXPECT_EQ(200, response.status);
        return nlohmann::json::parse(response.body);
    }
    HttpResponse heartbeat(const std::string& id, const std::string& secret) {
        return call("PUT", std::string(kServicePath) + "/" + id + "/" + secret + "/health", "null",
                    true, {{"Content-Type", "application/json"}});
    }
};

TEST_F(DiscoveryTest, RegisteredServiceIsListedAsPassing) {
    const std::string secret = registerRecord(serviceRecord());
    EXPECT_FALSE(secret.empty());
    const auto services = listed();
    ASSERT_EQ(1u, services.size());
    EXPECT_EQ(kServiceId, services[0]["serviceId"]);
    EXPECT_EQ("renderer", services[0]["serviceType"]);
    EXPECT_EQ(8443, services[0]["servicePort"]);
    EXPECT_EQ("OK", services[0]["serviceHealth"]["health"]);
    EXPECT_EQ("passing", services[0]["status"]);
    EXPECT_FALSE(services[0].contains("serviceSecret"));
}

TEST_F(DiscoveryTest, IncompleteRecordsAre400) {
    for (const char* name : {"serviceId", "serviceType", "serviceInstance", "serviceAddress",
                             "reverseProxyPathRule", "servicePort", "serviceHealth"}) {
        auto record = serviceRecord();
        record.erase(name);
        const auto response = call("POST", kServicePath, record.dump());
        EXPECT_EQ(400, response.status) << name;
        EXPECT_NE(std::string::npos, response.body.find(name)) << response.body;
    }
    auto record = serviceRecord();
    record["servicePort"] = 70000;
    EXPECT_EQ(400, call("POST", kServicePath, record.dump()).status);
    record = serviceRecord();
    record["serviceTags"] = {1, 2};
    EXPECT_EQ(400, call("POST", kServicePath, record.dump()).status);
    record = serviceRecord();
    record["serviceHealth"]["health"] = "Fine";
    EXPECT_EQ(400, call("POST", kServicePath, record.dump()).status);
    record = serviceRecord("not-a-uuid");
    EXPECT_EQ(400, call("POST", kServicePath, record.dump()).status);
    EXPECT_EQ(400, call("POST", kServicePath, "{broken").status);
    EXPECT_TRUE(listed().empty());
}

TEST_F(DiscoveryTest, HeartbeatAnswers) {
    const std::string secret = registerRecord(serviceRecord());
    EXPECT_EQ(204, heartbeat(kServiceId, secret).status);
    EXPECT_EQ(403, heartbeat(kServiceId, "wrong").status);
    EXPECT_EQ(404, heartbeat(kMailboxA, secret).status);
    EXPECT_EQ(1, listed()[0]["heartbeats"]);
}

TEST_F(DiscoveryTest, UnregisterAnswers) {
    const std::string secret = registerRecord(serviceRecord());
    const std::string path = std::string(kServicePath) + "/" + kServiceId + "/";
    EXPECT_EQ(403, call("DELETE", path + "wrong").status);
    EXPECT_EQ(204, call("DELETE", path + secret).status);
    EXPECT_EQ(404, call("DELETE", path + secret).status);
    EXPECT_TRUE(listed().empty());
}

TEST_F(DiscoveryTest, ReRegistrationReplacesRecordAndSecret) {
    const std::string first = registerRecord(serviceRecord());
    auto record = serviceRecord();
    record["serviceInstance"] = "renderer-2";
    const std::string second = registerRecord(record);
    EXPECT_NE(first, second);
    const auto services = listed();
    ASSERT_EQ(1u, services.size());
    EXPECT_EQ("renderer-2", services[0]["serviceInstance"]);
    EXPECT_EQ(403, heartbeat(kServiceId, first).status);
    EXPECT_EQ(204, heartbeat(kServiceId, second).status);
}

TEST_F(DiscoveryTest, MissedHeartbeatsTurnCriticalAndABeatRestoresPassing) {
    auto options = defaultOptions();
    options.heartbeatIntervalMs = 100;  // critical after 3 missed beats: 300 ms
    restart(options);
    const std::string secret = registerRecord(serviceRecord());
    ASSERT_TRUE(eventually([&] { return listed()[0]["status"] == "critical"; }));
    // Critical means more than 300 ms without a beat; the age is reported in whole
    // milliseconds (truncated), so a just-critical service shows 300.
    EXPECT_GE(listed()[0]["lastHeartbeatAgeMs"].get<long long>(), 300);
    EXPECT_EQ(204, heartbeat(kServiceId, secret).status);
    const auto services = listed();
    EXPECT_EQ("passing", services[0]["status"]);
}

TEST_F(DiscoveryTest, ServiceListWantsGetOrPost) {
    EXPECT_EQ(405, call("PUT", kServicePath, "{}").status);
    EXPECT_EQ(405, call("GET", std::string(kServicePath) + "/" + kServiceId + "/s/health").status);
}

}  // namespace
}  // namespace EmulatorTest
