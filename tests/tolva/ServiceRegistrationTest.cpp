// Service registration and unregistration against the emulator: the exact requests, 201 as
// the only success, what the caller, the service table and the logs see for each failure.
#include "ModelTestSupport.h"

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogicErrorException.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

constexpr const char* kServicePath = "/discovery/api/v1/service";

class ServiceRegistrationTest : public RestTest {
  protected:
    void SetUp() override {
        RestTest::SetUp();
        api_ = makeApi();
        emulator_.clearRequests();
    }

    // Registers and returns the caller's exception text; fails the test when nothing is
    // thrown or when the HTTP library's own exception reaches the caller.
    std::string registerExpectingFailure(const std::shared_ptr<ModelServiceInfo>& info) {
        try {
            api_->registerService(info);
        } catch (const web::http::http_exception&) {
            ADD_FAILURE() << "the HTTP library's exception leaked out";
            return {};
        } catch (const std::exception& e) {
            return e.what();
        }
        ADD_FAILURE() << "registerService succeeded";
        return {};
    }

    // The message of unregisterService's exception, "" when it returned normally.
    std::wstring unregisterMessage(const std::wstring& serviceId) {
        try {
            api_->unregisterService(serviceId);
        } catch (const Varkel::Zu::InvalidArgumentException& e) {
            return Varkel::Zu::getExceptionMessage(e);
        }
        return L"";
    }

    // A canned 201 reply carrying this id and secret.
    static qxpemu::FaultRule registrationReply(int status, const std::string& serviceId,
                                               const std::string& secret) {
        return statusRule(
            "POST", kServicePath, status,
            R"({"serviceId":")" + serviceId + R"(","serviceSecret":")" + secret + R"("})",
            "application/json");
    }

    std::shared_ptr<TestApi> api_;
};

TEST_F(ServiceRegistrationTest, SendsTheRecordWithItsHeadersAndFillsTheSecret) {
    const auto info = completeServiceInfo();
    info->serviceTags = {L"gpu"};
    const std::string expectedBody = info->toJson().serialize();
    api_->registerService(info);

    const auto posts = requestsTo("POST", kServicePath);
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].body, expectedBody);
    EXPECT_EQ(posts[0].header("Content-Type"), "application/json");
    EXPECT_EQ(posts[0].header("User-Agent"), "Tolva");
    EXPECT_EQ(posts[0].header("Authorization"),
              "Bearer " + narrow(api_->getCurrentTokenCopy().accessToken));
    EXPECT_EQ(posts[0].header("Accept"), "");
    EXPECT_FALSE(info->serviceSecret.empty());
    // Registration does not renew the token first: no token request came before it.
    EXPECT_EQ(tokenRequestsBetween({}, posts[0].received), 0u);
}

TEST_F(ServiceRegistrationTest, TheServiceIsKeptUnderTheReturnedIdWithTheReturnedSecret) {
    const auto info = completeServiceInfo();
    const std::string returnedId = "a0000000-0000-4000-8000-00000000000a";
    emulator_.addFault(registrationReply(201, returnedId, "the-secret"));
    api_->registerService(info);
    EXPECT_EQ(info->serviceSecret, L"the-secret");
    // The record's own id is not changed by the reply.
    EXPECT_NE(info->serviceId->toString(), returnedId);

    EXPECT_EQ(unregisterMessage(widen(returnedId)), L"");
    const auto deletes =
        requestsTo("DELETE", std::string(kServicePath) + "/" + returnedId + "/the-secret");
    EXPECT_EQ(deletes.size(), 1u);
}

TEST_F(ServiceRegistrationTest, A201ReplyIsReadAsJsonWhateverItsContentType) {
    const auto info = completeServiceInfo();
    const std::string returnedId = "b0000000-0000-4000-8000-00000000000b";
    emulator_.addFault(statusRule(
        "POST", kServicePath, 201,
        R"({"serviceId":")" + returnedId + R"(","serviceSecret":"plain-secret"})", "text/plain"));
    api_->registerService(info);
    EXPECT_EQ(info->serviceSecret, L"plain-secret");
    EXPECT_EQ(unregisterMessage(widen(returnedId)), L"");
    EXPECT_EQ(
        requestsTo("DELETE", std::string(kServicePath) + "/" + returnedId + "/plain-secret").size(),
        1u);
}

TEST_F(ServiceRegistrationTest, A200ReplyWithAValidBodyIsAFailure) {
    const DebugLogTail log;
    const auto info = completeServiceInfo();
    const std::string id = info->serviceId->toString();
    const std::string body = R"({"serviceId":")" + id + R"(","serviceSecret":"s"})";
    emulator_.addFault(statusRule("POST", kServicePath, 200, body, "application/json"));

    EXPECT_EQ(registerExpectingFailure(info), body);
    EXPECT_TRUE(info->serviceSecret.empty());
    EXPECT_TRUE(log.hasLine("ERROR: QXP service registration failed: 200 OK")) << log.text();
    EXPECT_EQ(unregisterMessage(widen(id)), L"Service not found");
}

TEST_F(ServiceRegistrationTest, AStatusFailureGivesTheCallerTheBodyText) {
    const DebugLogTail log;
    emulator_.addFault(statusRule("POST", kServicePath, 503, "registry is resting"));
    EXPECT_EQ(registerExpectingFailure(completeServiceInfo()), "registry is resting");
    EXPECT_TRUE(log.hasLine("ERROR: QXP service registration failed: 503 Service Unavailable"));
}

TEST_F(ServiceRegistrationTest, ARecordThePlatformRefusesIsNotKept) {
    // The platform checks the record too and answers 400 for one it refuses.
    const auto info = completeServiceInfo();
    emulator_.addFault(statusRule("POST", kServicePath, 400, "servicePort is invalid"));
    EXPECT_EQ(registerExpectingFailure(info), "servicePort is invalid");
    EXPECT_EQ(unregisterMessage(widen(info->serviceId->toString())), L"Service not found");
}

TEST_F(ServiceRegistrationTest, ATransportFailureReachesTheCallerAsStdException) {
    const auto info = completeServiceInfo();
    emulator_.addFault(dropRule("POST", kServicePath));
    EXPECT_FALSE(registerExpectingFailure(info).empty());
    EXPECT_TRUE(info->serviceSecret.empty());
}

TEST_F(ServiceRegistrationTest, AnIncompleteRecordThrowsBeforeAnyRequest) {
    const auto info = completeServiceInfo();
    info->serviceAddress.clear();
    try {
        api_->registerService(info);
        FAIL() << "an incomplete record was registered";
    } catch (const Varkel::Zu::IllegalStateException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Missing property serviceAddress");
    }
    EXPECT_TRUE(emulator_.requests().empty());
}

TEST_F(ServiceRegistrationTest, ANullRecordIsAnAssertionAndSendsNothing) {
    const LogRecords records;
    EXPECT_THROW(api_->registerService(nullptr), Varkel::Zu::LogicErrorException);
    EXPECT_TRUE(emulator_.requests().empty());
    bool logged = false;
    for (const auto& record : records.records()) {
        logged = logged ||
                 record.message.find(L"Assertion failed: inout_serviceInfo") != std::wstring::npos;
    }
    EXPECT_TRUE(logged);
}

TEST_F(ServiceRegistrationTest, RegistrationUsesTheTokenAsItStands) {
    api_->clearToken();
    emulator_.clearRequests();
    EXPECT_FALSE(registerExpectingFailure(completeServiceInfo()).empty());
    const auto posts = requestsTo("POST", kServicePath);
    ASSERT_EQ(posts.size(), 1u);
    // "Bearer " followed by the empty token; the server side trims the trailing blank.
    EXPECT_EQ(posts[0].header("Authorization"), "Bearer");
    EXPECT_EQ(tokenRequestsBetween({}, posts[0].received), 0u);
}

TEST_F(ServiceRegistrationTest, RegistrationIsLoggedAtDebugLevel) {
    Varkel::Zu::Logger::configureLevels("TolvaCore.QxPlatformApi=debug");
    const LogRecords records;
    const auto info = completeServiceInfo();
    api_->registerService(info);
    const std::wstring id = info->serviceId->toWString();
    api_->unregisterService(id);
    Varkel::Zu::Logger::reloadConfiguration();

    const auto messages = records.messages("TolvaCore.QxPlatformApi");
    const auto has = [&](const std::wstring& text) {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    };
    EXPECT_TRUE(has(L"Registering service " + id + L" to QXP..."));
    EXPECT_TRUE(has(L"QXP service registration successful."));
    EXPECT_TRUE(has(L"QXP service unregistered: " + id));
}

TEST_F(ServiceRegistrationTest, ASecondRegistrationUnderTheSameIdReplacesTheEntry) {
    const std::string id = "b0000000-0000-4000-8000-00000000000b";
    emulator_.addFault(registrationReply(201, id, "first-secret"));
    emulator_.addFault(registrationReply(201, id, "second-secret"));
    const auto first = completeServiceInfo();
    const auto second = completeServiceInfo();
    api_->registerService(first);
    api_->registerService(second);
    EXPECT_EQ(first->serviceSecret, L"first-secret");
    EXPECT_EQ(second->serviceSecret, L"second-secret");

    EXPECT_EQ(unregisterMessage(widen(id)), L"");
    const auto deletes =
        requestsTo("DELETE", std::string(kServicePath) + "/" + id + "/second-secret");
    EXPECT_EQ(deletes.size(), 1u);
    EXPECT_EQ(unregisterMessage(widen(id)), L"Service not found");
}

TEST_F(ServiceRegistrationTest, UnregisterSendsTheDeleteWithTheSecret) {
    const auto info = completeServiceInfo();
    api_->registerService(info);
    const std::wstring id = info->serviceId->toWString();
    emulator_.clearRequests();

    EXPECT_EQ(unregisterMessage(id), L"");
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "DELETE");
    EXPECT_EQ(requests[0].target,
              std::string(kServicePath) + "/" + narrow(id) + "/" + narrow(info->serviceSecret));
    EXPECT_EQ(requests[0].header("User-Agent"), "Tolva");
    EXPECT_EQ(requests[0].header("Authorization"),
              "Bearer " + narrow(api_->getCurrentTokenCopy().accessToken));
    EXPECT_EQ(requests[0].header("Accept"), "");
    EXPECT_TRUE(requests[0].body.empty());
    // The platform forgot it too: its service list is empty again.
    EXPECT_EQ(web::json::value::parse(emulator_.state()).at("services").size(), 0u);
}

TEST_F(ServiceRegistrationTest, UnregisteringAnUnknownIdThrowsAndSendsNothing) {
    const LogRecords records;
    EXPECT_EQ(unregisterMessage(L"never-registered"), L"Service not found");
    EXPECT_TRUE(emulator_.requests().empty());
    EXPECT_TRUE(hasThrowLine(records, L"Service not found",
                             L"api/Tolva/Tolva/TolvaCore/QxPlatformApiServices"));
}

TEST_F(ServiceRegistrationTest, AFailedDeleteStillForgetsTheService) {
    const auto info = completeServiceInfo();
    api_->registerService(info);
    const std::wstring id = info->serviceId->toWString();
    emulator_.addFault(statusRule("DELETE", std::string(kServicePath) + "/.*", 500, "broken"));
    const DebugLogTail log;

    EXPECT_EQ(unregisterMessage(id), L"");
    EXPECT_TRUE(log.hasLine("ERROR: QXP unregister service failed: 500 Internal Server Error"))
        << log.text();
    EXPECT_TRUE(log.hasLine("ERROR: QXP unregister service failed: " + narrow(id) + ", broken"))
        << log.text();
    EXPECT_EQ(unregisterMessage(id), L"Service not found");
}

TEST_F(ServiceRegistrationTest, ADroppedDeleteIsOnlyLogged) {
    const auto info = completeServiceInfo();
    api_->registerService(info);
    const std::wstring id = info->serviceId->toWString();
    emulator_.addFault(dropRule("DELETE", std::string(kServicePath) + "/.*"));
    const DebugLogTail log;
    EXPECT_EQ(unregisterMessage(id), L"");
    EXPECT_EQ(
        log.countLinesStartingWith("ERROR: QXP unregister service failed: " + narrow(id) + ", "),
        1u);
    EXPECT_EQ(unregisterMessage(id), L"Service not found");
}

TEST_F(ServiceRegistrationTest, UnregisterAllSendsOneDeletePerServiceInIdOrder) {
    std::vector<std::string> ids;
    for (int i = 0; i < 3; ++i) {
        const auto info = completeServiceInfo();
        api_->registerService(info);
        ids.push_back(info->serviceId->toString());
    }
    std::sort(ids.begin(), ids.end());
    emulator_.clearRequests();

    api_->unregisterAllServices();
    const auto requests = emulator_.requests();
    ASSERT_EQ(requests.size(), 3u);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(requests[i].method, "DELETE");
        EXPECT_EQ(requests[i].target.rfind(std::string(kServicePath) + "/" + ids[i] + "/", 0), 0u);
    }
    for (const auto& id : ids) {
        EXPECT_EQ(unregisterMessage(widen(id)), L"Service not found");
    }
}

TEST_F(ServiceRegistrationTest, UnregisterAllWithFailingDeletesStillForgetsEveryService) {
    const auto a = completeServiceInfo();
    const auto b = completeServiceInfo();
    api_->registerService(a);
    api_->registerService(b);
    emulator_.addFault(statusRule("DELETE", std::string(kServicePath) + "/.*", 500, "no"));
    api_->unregisterAllServices();
    EXPECT_EQ(unregisterMessage(a->serviceId->toWString()), L"Service not found");
    EXPECT_EQ(unregisterMessage(b->serviceId->toWString()), L"Service not found");
}

TEST_F(ServiceRegistrationTest, TheSecretNeverReachesALog) {
    const LogRecords records;
    const DebugLogTail log;
    Varkel::Zu::Logger::configureLevels("TolvaCore=trace");
    const auto info = completeServiceInfo();
    api_->registerService(info);
    emulator_.addFault(statusRule("DELETE", std::string(kServicePath) + "/.*", 404, "gone"));
    api_->unregisterService(info->serviceId->toWString());
    Varkel::Zu::Logger::reloadConfiguration();

    ASSERT_FALSE(info->serviceSecret.empty());
    EXPECT_EQ(log.text().find(narrow(info->serviceSecret)), std::string::npos);
    for (const auto& record : records.records()) {
        EXPECT_EQ(record.message.find(info->serviceSecret), std::wstring::npos);
    }
}

}  // namespace
}  // namespace TolvaRestTest
