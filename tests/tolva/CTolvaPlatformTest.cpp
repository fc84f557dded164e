// The facade singleton: construction, settings, API object creation, client generations,
// copies and teardown.
#include "FacadeTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <TolvaCore/QxPlatformApi.h>

#include <TestSupport.h>
#include <ZuCore/StringConversion.h>
#include <qxpemu/Emulator.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>

#include <cpprest/http_client.h>

using FacadeTest::FacadeFixture;
using FacadeTest::FacadeProbe;
using FacadeTest::longEnoughKey;
using FacadeTest::tooShortKey;
using web::http::client::http_client;

namespace {

class CTolvaPlatformTest : public FacadeFixture {};

std::string baseUriOf(http_client* client) {
    return client->base_uri().to_string();
}

TEST_F(CTolvaPlatformTest, InitializeDiscardsPlatformUrlUntilSetPlatformUrl) {
    CTolvaPlatformIF* facade =
        InitializeQXPlatform("https://platform.example.com", "", longEnoughKey(), "", "", "", "");
    ASSERT_NE(facade, nullptr);
    EXPECT_EQ(facade, CTolvaPlatform::getInstance());
    EXPECT_EQ(facade->getPlatformUrl(), L"");
    EXPECT_EQ(facade->getStringPlatformUrl(), "");
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_EQ(facade->getPlatformClient(false), nullptr);
    EXPECT_EQ(facade->getPlatformClient(true), nullptr);
}

TEST_F(CTolvaPlatformTest, GetInstanceIsNullBeforeCreateInstance) {
    EXPECT_EQ(CTolvaPlatform::getInstance(), nullptr);
    CTolvaPlatform* made = CTolvaPlatform::CreateInstance("", "", "", "", "", "", "");
    EXPECT_NE(made, nullptr);
    EXPECT_EQ(CTolvaPlatform::getInstance(), made);
    EXPECT_EQ(CTolvaPlatform::m_pTolvaPlatform, made);
}

TEST_F(CTolvaPlatformTest, SecondInitializeReturnsFirstObjectUnchanged) {
    CTolvaPlatformIF* first = InitializeQXPlatform("", "http://127.0.0.1:8500", "", "fabric-1",
                                                   "/shared/one", "guid-1", "name-1");
    CTolvaPlatformIF* second =
        InitializeQXPlatform("https://other.example.com", "http://127.0.0.1:8600", longEnoughKey(),
                             "fabric-2", "/shared/two", "guid-2", "name-2");
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->getDirectUrl(), L"http://127.0.0.1:8500");
    EXPECT_EQ(first->getParentGUID(), "guid-1");
    EXPECT_EQ(first->getParentName(), "name-1");
    EXPECT_EQ(first->getPlatformUrl(), L"");
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
}

TEST_F(CTolvaPlatformTest, ParentIdentityComesFromEnvironmentWhenArgumentsAreEmpty) {
    ::setenv("QXCLUSTER_WORKLOADID", "0f8fad5b-d9cb-469f-a165-70867728950e", 1);
    ::setenv("QXCLUSTER_WORKLOADNAME", "parent-workload", 1);
    CTolvaPlatformIF* facade = InitializeQXPlatform("", "", "", "", "", "", "");
    EXPECT_EQ(facade->getParentGUID(), "0f8fad5b-d9cb-469f-a165-70867728950e");
    EXPECT_EQ(facade->getParentName(), "parent-workload");
}

TEST_F(CTolvaPlatformTest, ParentIdentityIsEmptyWithoutArgumentsOrEnvironment) {
    CTolvaPlatformIF* facade = InitializeQXPlatform("", "", "", "", "", "", "");
    EXPECT_EQ(facade->getParentGUID(), "");
    EXPECT_EQ(facade->getParentName(), "");
}

TEST_F(CTolvaPlatformTest, ParentIdentityArgumentsWinOverEnvironment) {
    ::setenv("QXCLUSTER_WORKLOADID", "from-environment-id", 1);
    ::setenv("QXCLUSTER_WORKLOADNAME", "from-environment-name", 1);
    CTolvaPlatformIF* facade =
        InitializeQXPlatform("", "", "", "", "", "argument-id", "argument-name");
    EXPECT_EQ(facade->getParentGUID(), "argument-id");
    EXPECT_EQ(facade->getParentName(), "argument-name");
}

TEST_F(CTolvaPlatformTest, ParentIdentityKeepsBytesUnconverted) {
    ::setenv("QXCLUSTER_WORKLOADNAME", "caf\xE9", 1);  // Latin-1, not valid UTF-8
    CTolvaPlatformIF* facade = InitializeQXPlatform("", "", "", "", "", "gr\xC3\xBC\xC3\x9F", "");
    EXPECT_EQ(facade->getParentGUID(), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(facade->getParentName(), "caf\xE9");
}

TEST_F(CTolvaPlatformTest, FabricIdAndSharedDirectoryFromInitializeAreNotKept) {
    CTolvaPlatformIF* facade = InitializeQXPlatform("", "", "", "fabric-id", "/srv/shared", "", "");
    EXPECT_EQ(facade->getFabricId(), L"");
    EXPECT_EQ(facade->getStringFabricId(), "");
    EXPECT_EQ(facade->getSharedDirectory(), "");

    facade->setTolvaFabricId("fabric-id");
    facade->setSharedDirectory("/srv/shared");
    EXPECT_EQ(facade->getFabricId(), L"fabric-id");
    EXPECT_EQ(facade->getSharedDirectory(), "/srv/shared");
}

TEST_F(CTolvaPlatformTest, SettersStoreWithoutValidationOrConversion) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setTolvaFabricId("not an identifier");
    EXPECT_EQ(facade->getFabricId(), L"not an identifier");
    facade->setTolvaFabricId("gr\xC3\xBC\xC3\x9F");  // UTF-8 is decoded
    EXPECT_EQ(facade->getFabricId(), L"gr\u00FC\u00DF");
    facade->setSharedDirectory("/tmp/\xFF\xFE");  // kept as raw bytes
    EXPECT_EQ(facade->getSharedDirectory(), "/tmp/\xFF\xFE");
    facade->setSharedDirectory("");
    EXPECT_EQ(facade->getSharedDirectory(), "");
}

TEST_F(CTolvaPlatformTest, WithoutApiObjectTheApiBackedOperationsAreEmpty) {
    CTolvaPlatformIF* facade = initialize(longEnoughKey());
    TolvaTest::StdoutCapture capture;
    EXPECT_EQ(facade->getPlatformUrl(), L"");
    EXPECT_EQ(facade->getStringPlatformUrl(), "");
    EXPECT_EQ(facade->getTolvaApiKey(), L"");
    EXPECT_EQ(facade->getStringTolvaApiKey(), "");
    EXPECT_EQ(facade->getCurrentToken(), L"");
    EXPECT_NO_THROW(facade->postNotification(L"topic", L"content", 5));
    EXPECT_EQ(capture.text(), "");
}

TEST_F(CTolvaPlatformTest, PlatformUrlWithHundredCharacterKeyMakesClientsButNoApi) {
    CTolvaPlatformIF* facade = initialize(tooShortKey());
    facade->setPlatformUrl("https://127.0.0.1:9");

    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_EQ(facade->getPlatformUrl(), L"");
    http_client* shortClient = facade->getPlatformClient(false);
    http_client* longClient = facade->getPlatformClient(true);
    ASSERT_NE(shortClient, nullptr);
    ASSERT_NE(longClient, nullptr);
    EXPECT_NE(shortClient, longClient);
    EXPECT_EQ(baseUriOf(shortClient), "https://127.0.0.1:9/");
    EXPECT_EQ(baseUriOf(longClient), "https://127.0.0.1:9/");
    EXPECT_EQ(shortClient->client_config().timeout<std::chrono::milliseconds>().count(), 250);
    EXPECT_EQ(longClient->client_config().timeout<std::chrono::milliseconds>().count(), 2500);
}

TEST_F(CTolvaPlatformTest, KeySetAfterUrlDoesNotMakeApiObject) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("https://127.0.0.1:9");
    facade->setTolvaApiKey(longEnoughKey());
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_EQ(facade->getTolvaApiKey(), L"");
}

TEST_F(CTolvaPlatformTest, UrlWithoutAcceptedSchemeMakesNoApiObject) {
    CTolvaPlatformIF* facade = initialize(longEnoughKey());
    for (const char* url : {"HTTP://127.0.0.1:9", "Https://127.0.0.1:9", " http://127.0.0.1:9",
                            "httpx://127.0.0.1:9"}) {
        TolvaTest::StdoutCapture capture;
        facade->setPlatformUrl(url);
        capture.text();
        EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr) << url;
    }
}

// The HTTP library accepts only http and https URLs, so an ftp URL ends in the printed
// failure instead of a pair of clients; no exception reaches the host.
TEST_F(CTolvaPlatformTest, FtpPlatformUrlPrintsClientFailureAndMakesNoApiObject) {
    CTolvaPlatformIF* facade = initialize(longEnoughKey());
    TolvaTest::StdoutCapture capture;
    EXPECT_NO_THROW(facade->setPlatformUrl("ftp://files.example.com/"));
    EXPECT_EQ(capture.text(),
              "Failed to create KOVA platform client: URI scheme must be 'http' or 'https'\n");
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_EQ(facade->getPlatformClient(false), nullptr);
    EXPECT_EQ(facade->getPlatformClient(true), nullptr);
}

TEST_F(CTolvaPlatformTest, UnparsablePlatformUrlPrintsClientFailure) {
    CTolvaPlatformIF* facade = initialize("");
    TolvaTest::StdoutCapture capture;
    EXPECT_NO_THROW(facade->setPlatformUrl("not a url"));
    EXPECT_THAT(capture.text(), ::testing::StartsWith("Failed to create KOVA platform client: "));
    EXPECT_EQ(facade->getPlatformClient(false), nullptr);
}

TEST_F(CTolvaPlatformTest, PlatformClientsLiveOneGenerationAfterBeingReplaced) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("http://127.0.0.1:1001");
    http_client* firstShort = facade->getPlatformClient(false);
    http_client* firstLong = facade->getPlatformClient(true);
    ASSERT_NE(firstShort, nullptr);
    ASSERT_NE(firstLong, nullptr);
    EXPECT_NE(firstShort, firstLong);

    std::weak_ptr<http_client> firstShortWatch;
    std::weak_ptr<http_client> firstLongWatch;
    {
        FacadeProbe probe(*CTolvaPlatform::getInstance());
        firstShortWatch = probe.m_platformClient;
        firstLongWatch = probe.m_platformClientLong;
    }

    facade->setPlatformUrl("http://127.0.0.1:1002");
    http_client* secondShort = facade->getPlatformClient(false);
    EXPECT_NE(secondShort, firstShort);
    EXPECT_EQ(baseUriOf(secondShort), "http://127.0.0.1:1002/");
    // The host may still use the first pair.
    EXPECT_EQ(baseUriOf(firstShort), "http://127.0.0.1:1001/");
    EXPECT_EQ(baseUriOf(firstLong), "http://127.0.0.1:1001/");
    {
        FacadeProbe probe(*CTolvaPlatform::getInstance());
        EXPECT_EQ(probe.m_prevPlatformClient.get(), firstShort);
        EXPECT_EQ(probe.m_prevPlatformClientLong.get(), firstLong);
    }

    facade->setPlatformUrl("http://127.0.0.1:1003");
    EXPECT_TRUE(firstShortWatch.expired());
    EXPECT_TRUE(firstLongWatch.expired());
    EXPECT_EQ(baseUriOf(secondShort), "http://127.0.0.1:1002/");
    EXPECT_EQ(baseUriOf(facade->getPlatformClient(true)), "http://127.0.0.1:1003/");
}

// Unlike the direct URL, the platform URL is taken again even when it is unchanged, and
// each call makes a new pair.
TEST_F(CTolvaPlatformTest, SamePlatformUrlAgainStillMakesNewClientPair) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("http://127.0.0.1:6001");
    http_client* firstShort = facade->getPlatformClient(false);
    http_client* firstLong = facade->getPlatformClient(true);
    ASSERT_NE(firstShort, nullptr);
    ASSERT_NE(firstLong, nullptr);

    facade->setPlatformUrl("http://127.0.0.1:6001");
    EXPECT_NE(facade->getPlatformClient(false), firstShort);
    EXPECT_NE(facade->getPlatformClient(true), firstLong);
    EXPECT_EQ(baseUriOf(facade->getPlatformClient(false)), "http://127.0.0.1:6001/");
    FacadeProbe probe(*CTolvaPlatform::getInstance());
    EXPECT_EQ(probe.m_prevPlatformClient.get(), firstShort);
    EXPECT_EQ(probe.m_prevPlatformClientLong.get(), firstLong);
}

// When a new pair cannot be made, the last working pair stays current (and is also the
// previous generation); it must survive exactly as long as either slot holds it.
TEST_F(CTolvaPlatformTest, FailedClientCreationKeepsLastWorkingPairCurrent) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("http://127.0.0.1:2001");
    http_client* workingShort = facade->getPlatformClient(false);
    http_client* workingLong = facade->getPlatformClient(true);
    std::weak_ptr<http_client> workingWatch;
    {
        FacadeProbe probe(*CTolvaPlatform::getInstance());
        workingWatch = probe.m_platformClient;
    }

    {
        TolvaTest::StdoutCapture capture;
        facade->setPlatformUrl("ftp://127.0.0.1:2002");
        EXPECT_THAT(capture.text(),
                    ::testing::StartsWith("Failed to create KOVA platform client: "));
    }
    EXPECT_EQ(facade->getPlatformClient(false), workingShort);
    EXPECT_EQ(facade->getPlatformClient(true), workingLong);
    EXPECT_EQ(baseUriOf(workingShort), "http://127.0.0.1:2001/");

    facade->setPlatformUrl("http://127.0.0.1:2003");
    EXPECT_NE(facade->getPlatformClient(false), workingShort);
    EXPECT_EQ(baseUriOf(workingShort), "http://127.0.0.1:2001/");  // previous generation now

    facade->setPlatformUrl("http://127.0.0.1:2004");
    EXPECT_TRUE(workingWatch.expired());
}

TEST_F(CTolvaPlatformTest, SameDirectUrlTwiceMakesDirectClientOnce) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setDirectUrl("http://127.0.0.1:8500");
    std::shared_ptr<http_client> firstClient =
        FacadeProbe(*CTolvaPlatform::getInstance()).m_directClient;
    ASSERT_NE(firstClient, nullptr);
    EXPECT_EQ(baseUriOf(firstClient.get()), "http://127.0.0.1:8500/");
    EXPECT_EQ(firstClient->client_config().timeout<std::chrono::milliseconds>().count(), 250);

    facade->setDirectUrl("http://127.0.0.1:8500");
    {
        FacadeProbe probe(*CTolvaPlatform::getInstance());
        EXPECT_EQ(probe.m_directClient, firstClient);
        EXPECT_EQ(probe.m_prevDirectClient, nullptr);
    }

    facade->setDirectUrl("http://127.0.0.1:8501");
    {
        FacadeProbe probe(*CTolvaPlatform::getInstance());
        ASSERT_NE(probe.m_directClient, nullptr);
        EXPECT_NE(probe.m_directClient, firstClient);
        EXPECT_EQ(probe.m_prevDirectClient, firstClient);
    }
    EXPECT_EQ(facade->getDirectUrl(), L"http://127.0.0.1:8501");
}

TEST_F(CTolvaPlatformTest, DirectUrlFromInitializeMakesDirectClient) {
    InitializeQXPlatform("", "http://127.0.0.1:8500", "", "", "", "", "");
    FacadeProbe probe(*CTolvaPlatform::getInstance());
    ASSERT_NE(probe.m_directClient, nullptr);
    EXPECT_EQ(baseUriOf(probe.m_directClient.get()), "http://127.0.0.1:8500/");
}

// "https:/" passes the direct client's scheme check; the HTTP library then refuses the URL
// for lack of a host, which shows that the attempt was made.
TEST_F(CTolvaPlatformTest, DirectUrlWithSingleSlashHttpsGetsClientAttempt) {
    CTolvaPlatformIF* facade = initialize("");
    TolvaTest::StdoutCapture capture;
    EXPECT_NO_THROW(facade->setDirectUrl("https:/127.0.0.1:8500"));
    EXPECT_EQ(capture.text(),
              "Failed to create KOVA local discovery client: URI must contain a hostname..\n");
    EXPECT_EQ(facade->getDirectUrl(), L"https:/127.0.0.1:8500");
    EXPECT_EQ(FacadeProbe(*CTolvaPlatform::getInstance()).m_directClient, nullptr);
}

TEST_F(CTolvaPlatformTest, DirectUrlWithCapitalSchemeMakesNoClient) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setDirectUrl("http://127.0.0.1:8500");
    std::shared_ptr<http_client> earlier =
        FacadeProbe(*CTolvaPlatform::getInstance()).m_directClient;
    ASSERT_NE(earlier, nullptr);

    TolvaTest::StdoutCapture capture;
    facade->setDirectUrl("HTTP://127.0.0.1:8500");
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(facade->getDirectUrl(), L"HTTP://127.0.0.1:8500");
    FacadeProbe probe(*CTolvaPlatform::getInstance());
    EXPECT_EQ(probe.m_directClient, nullptr);
    EXPECT_EQ(probe.m_prevDirectClient, earlier);
}

TEST_F(CTolvaPlatformTest, TolvaPlatformInitClearsUrlsAndInterfaceBodyOnlyReturnsTrue) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setDirectUrl("http://127.0.0.1:8500");

    EXPECT_TRUE(facade->CTolvaPlatformIF::TolvaPlatformInit());
    EXPECT_EQ(facade->getDirectUrl(), L"http://127.0.0.1:8500");

    EXPECT_TRUE(facade->TolvaPlatformInit());
    EXPECT_EQ(facade->getDirectUrl(), L"");
    // The client made for the old URL is kept.
    EXPECT_NE(FacadeProbe(*CTolvaPlatform::getInstance()).m_directClient, nullptr);
}

TEST_F(CTolvaPlatformTest, CopySharesClientsAndOutlivesNothing) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("http://127.0.0.1:3001");
    facade->setDirectUrl("http://127.0.0.1:3002");
    facade->setTolvaFabricId("fabric");
    http_client* shortClient = facade->getPlatformClient(false);
    {
        CTolvaPlatform copy(*CTolvaPlatform::getInstance());
        EXPECT_EQ(copy.getPlatformClient(false), shortClient);
        EXPECT_EQ(copy.getPlatformClient(true), facade->getPlatformClient(true));
        EXPECT_EQ(copy.getDirectUrl(), L"http://127.0.0.1:3002");
        EXPECT_EQ(copy.getFabricId(), L"fabric");
        EXPECT_EQ(copy.getQxAPI(), CTolvaPlatform::getInstance()->getQxAPI());
        EXPECT_EQ(CTolvaPlatform::getInstance(), facade);
    }
    // Destroying the copy released neither the shared clients nor the singleton.
    EXPECT_EQ(CTolvaPlatform::getInstance(), facade);
    EXPECT_EQ(facade->getPlatformClient(false), shortClient);
    EXPECT_EQ(baseUriOf(shortClient), "http://127.0.0.1:3001/");
}

TEST_F(CTolvaPlatformTest, CopyAssignmentSharesClients) {
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl("http://127.0.0.1:4001");
    CTolvaPlatform copy(*CTolvaPlatform::getInstance());
    facade->setPlatformUrl("http://127.0.0.1:4002");
    EXPECT_NE(copy.getPlatformClient(false), facade->getPlatformClient(false));

    copy = *CTolvaPlatform::getInstance();
    EXPECT_EQ(copy.getPlatformClient(false), facade->getPlatformClient(false));
    CTolvaPlatform& sameCopy = copy;
    copy = sameCopy;
    EXPECT_EQ(baseUriOf(copy.getPlatformClient(true)), "http://127.0.0.1:4002/");

    // The copy keeps its own generation alive after the original moves on.
    http_client* held = copy.getPlatformClient(false);
    facade->setPlatformUrl("http://127.0.0.1:4003");
    facade->setPlatformUrl("http://127.0.0.1:4004");
    EXPECT_EQ(baseUriOf(held), "http://127.0.0.1:4002/");
}

TEST_F(CTolvaPlatformTest, DeletingSingletonClearsInstanceForANewOne) {
    CTolvaPlatformIF* first = InitializeQXPlatform("", "", "", "", "", "first", "");
    first->setPlatformUrl("http://127.0.0.1:5001");
    delete first;
    EXPECT_EQ(CTolvaPlatform::getInstance(), nullptr);

    CTolvaPlatformIF* second = InitializeQXPlatform("", "", "", "", "", "second", "");
    EXPECT_EQ(CTolvaPlatform::getInstance(), second);
    EXPECT_EQ(second->getParentGUID(), "second");
    EXPECT_EQ(second->getPlatformClient(false), nullptr);
}

// The one facade test that makes a real API object: a long enough key and an http URL make
// it, after which the caller is held for seven seconds.
TEST_F(CTolvaPlatformTest, PlatformUrlWithLongEnoughKeyMakesApiObjectAfterPause) {
    qxpemu::Emulator emulator;
    emulator.start();
    const std::string key = emulator.apiKey();
    ASSERT_GT(key.size(), 100u);

    CTolvaPlatformIF* facade = initialize(key);
    const auto started = std::chrono::steady_clock::now();
    facade->setPlatformUrl(emulator.baseUrl());
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    EXPECT_GE(elapsed.count(), 7000);

    auto api = CTolvaPlatform::getInstance()->getQxAPI();
    ASSERT_NE(api, nullptr);
    EXPECT_EQ(facade->getPlatformUrl(), Varkel::Zu::widen(emulator.baseUrl()));
    EXPECT_EQ(facade->getStringPlatformUrl(), emulator.baseUrl());
    EXPECT_EQ(facade->getTolvaApiKey(), Varkel::Zu::widen(key));
    EXPECT_EQ(facade->getStringTolvaApiKey(), key);
    ASSERT_NE(facade->getPlatformClient(false), nullptr);

    const std::wstring token = api->getCurrentToken().accessToken;
    EXPECT_FALSE(token.empty());
    EXPECT_EQ(facade->getCurrentToken(), L"Bearer " + token);

    facade->postNotification(L"facade.topic", L"hello from the facade", 0);
    const auto requests = emulator.requests();
    const bool posted = std::any_of(requests.begin(), requests.end(), [](const auto& request) {
        return request.method == "POST" &&
               request.target == "/notifications/api/v1/notifications" &&
               request.body.find("hello from the facade") != std::string::npos;
    });
    EXPECT_TRUE(posted);

    // Later URLs make new clients but neither a new API object nor a new API URL.
    facade->setPlatformUrl("http://127.0.0.1:1");
    EXPECT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), api);
    EXPECT_EQ(facade->getStringPlatformUrl(), emulator.baseUrl());
    EXPECT_EQ(baseUriOf(facade->getPlatformClient(false)), "http://127.0.0.1:1/");

    // A new key goes on to the API object.
    facade->setTolvaApiKey("replacement-key");
    EXPECT_EQ(api->getPlatformApiKey(), L"replacement-key");
    EXPECT_EQ(facade->getStringTolvaApiKey(), "replacement-key");
}

// A key set after the URL is only taken up by the next setPlatformUrl.
TEST_F(CTolvaPlatformTest, KeySetAfterUrlTakesEffectWithNextPlatformUrl) {
    qxpemu::Emulator emulator;
    emulator.start();
    CTolvaPlatformIF* facade = initialize("");
    facade->setPlatformUrl(emulator.baseUrl());
    facade->setTolvaApiKey(emulator.apiKey());
    ASSERT_EQ(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_TRUE(emulator.requests().empty());

    facade->setPlatformUrl(emulator.baseUrl());
    ASSERT_NE(CTolvaPlatform::getInstance()->getQxAPI(), nullptr);
    EXPECT_EQ(facade->getStringTolvaApiKey(), emulator.apiKey());
    EXPECT_EQ(facade->getStringPlatformUrl(), emulator.baseUrl());
    EXPECT_FALSE(emulator.requests().empty());  // it asked for its token
}

}  // namespace
