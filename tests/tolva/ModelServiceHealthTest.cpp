// ModelServiceHealth and the HealthState texts: conversions, the JSON form, the setters and
// the single lock that keeps state and text together under concurrent use.
#include "ModelTestSupport.h"

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>

#include <atomic>
#include <thread>
#include <vector>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::Model::healthStateFromString;
using Varkel::Tolva::Rest::Model::healthStateToString;
using web::json::value;

std::shared_ptr<ModelServiceHealth> makeHealth() {
    return Varkel::Zu::MakeShared::create<ModelServiceHealth>();
}

TEST(ModelServiceHealthTest, StatesHaveTheirTexts) {
    EXPECT_EQ(healthStateToString(HealthState::OK), L"OK");
    EXPECT_EQ(healthStateToString(HealthState::Warning), L"Warning");
    EXPECT_EQ(healthStateToString(HealthState::Error), L"Error");
    EXPECT_EQ(static_cast<int>(HealthState::OK), 0);
    EXPECT_EQ(static_cast<int>(HealthState::Warning), 1);
    EXPECT_EQ(static_cast<int>(HealthState::Error), 2);
}

TEST(ModelServiceHealthTest, AnUnknownStateValueThrows) {
    const LogRecords records;
    try {
        healthStateToString(static_cast<HealthState>(3));
        FAIL() << "no exception for state 3";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Unknown HealthState enum constant");
    }
    EXPECT_TRUE(hasThrowLine(records, L"Unknown HealthState enum constant",
                             L"api/Tolva/Tolva/TolvaCore/ModelServiceHealth"));
}

TEST(ModelServiceHealthTest, TextsAreReadInAnyLetterCase) {
    EXPECT_EQ(healthStateFromString(L"ok"), HealthState::OK);
    EXPECT_EQ(healthStateFromString(L"WARNING"), HealthState::Warning);
    EXPECT_EQ(healthStateFromString(L"error"), HealthState::Error);
    EXPECT_EQ(healthStateFromString(L"eRRoR"), HealthState::Error);
}

TEST(ModelServiceHealthTest, ATextWithABlankOrAnEmptyTextThrows) {
    const LogRecords records;
    for (const std::wstring text : {L"OK ", L"", L"Healthy"}) {
        try {
            healthStateFromString(text);
            FAIL() << "accepted \"" << Varkel::Zu::narrow(text) << "\"";
        } catch (const Varkel::Zu::InvalidArgumentException& e) {
            EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Unknown HealthState string");
        }
    }
    EXPECT_TRUE(hasThrowLine(records, L"Unknown HealthState string",
                             L"api/Tolva/Tolva/TolvaCore/ModelServiceHealth"));
}

TEST(ModelServiceHealthTest, ADefaultHealthIsOkAndSerialisesSo) {
    const auto health = makeHealth();
    EXPECT_EQ(health->getHealth(), HealthState::OK);
    EXPECT_EQ(health->getHealthText(), L"Service is healthy");
    EXPECT_EQ(ModelServiceHealth::HEALTH_TEXT_SERVICE_IS_HEALTHY, L"Service is healthy");
    EXPECT_EQ(health->toJson(),
              value::parse(R"({"health":"OK","healthText":"Service is healthy"})"));
}

TEST(ModelServiceHealthTest, SetHealthIsSerialisedAndSetToHealthyRestoresTheDefault) {
    const auto health = makeHealth();
    health->setHealth(HealthState::Warning, L"Disk 91% full");
    EXPECT_EQ(health->getHealth(), HealthState::Warning);
    EXPECT_EQ(health->toJson(),
              value::parse(R"({"health":"Warning","healthText":"Disk 91% full"})"));

    health->setToHealthy();
    EXPECT_EQ(health->toJson(), makeHealth()->toJson());
}

TEST(ModelServiceHealthTest, TheStateAndTextConstructorKeepsBoth) {
    const auto health =
        Varkel::Zu::MakeShared::create<ModelServiceHealth>(HealthState::Error, L"down");
    EXPECT_EQ(health->getHealth(), HealthState::Error);
    EXPECT_EQ(health->getHealthText(), L"down");
}

TEST(ModelServiceHealthTest, FromJsonReadsBothMembers) {
    const auto health = makeHealth();
    health->fromJson(value::parse(R"({"health":"error","healthText":"broken"})"));
    EXPECT_EQ(health->getHealth(), HealthState::Error);
    EXPECT_EQ(health->getHealthText(), L"broken");
}

TEST(ModelServiceHealthTest, FromJsonStoresTheStateBeforeLookingUpTheText) {
    const auto health = makeHealth();
    EXPECT_THROW(health->fromJson(value::parse(R"({"health":"Warning"})")),
                 Varkel::Zu::InvalidArgumentException);
    EXPECT_EQ(health->getHealth(), HealthState::Warning);
    EXPECT_EQ(health->getHealthText(), L"Service is healthy");
}

TEST(ModelServiceHealthTest, AnUnknownStateTextInJsonIsNotTranslated) {
    const auto health = makeHealth();
    try {
        health->fromJson(value::parse(R"({"health":"Fine","healthText":"x"})"));
        FAIL() << "accepted an unknown state";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Unknown HealthState string");
    }
}

TEST(ModelServiceHealthTest, JsonCloneIsANewObjectWithTheSameState) {
    const auto health =
        Varkel::Zu::MakeShared::create<ModelServiceHealth>(HealthState::Warning, L"slow");
    const auto copy = std::dynamic_pointer_cast<ModelServiceHealth>(health->clone(false));
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), health.get());
    EXPECT_EQ(copy->getHealth(), HealthState::Warning);
    EXPECT_EQ(copy->getHealthText(), L"slow");
}

// Writers switch between pairs whose state and text belong together; readers serialising at
// the same time must never see a state with the other pair's text.
TEST(ModelServiceHealthTest, ConcurrentReadersNeverSeeAStateWithAnotherText) {
    const auto health = makeHealth();
    std::atomic<bool> stop{false};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < 20000; ++i) {
                if ((i + w) % 3 == 0) {
                    health->setToHealthy();
                } else if ((i + w) % 3 == 1) {
                    health->setHealth(HealthState::Warning, L"Warning text");
                } else {
                    health->setHealth(HealthState::Error, L"Error text");
                }
            }
        });
    }
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&] {
            while (!stop) {
                const value json = health->toJson();
                const std::string state = json.at("health").as_string();
                const std::string text = json.at("healthText").as_string();
                const bool consistent =
                    (state == "OK" && text == "Service is healthy") || text == state + " text";
                if (!consistent) {
                    ++mismatches;
                }
            }
        });
    }
    threads[0].join();
    threads[1].join();
    stop = true;
    threads[2].join();
    threads[3].join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace TolvaRestTest
