// ModelServiceInfo: the order and messages of validate, the JSON form written and read, the
// checked port conversion, and copies that share the id and the live health object.
#include "ModelTestSupport.h"

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>

#include <functional>

#include <boost/numeric/conversion/cast.hpp>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::widen;
using web::json::value;

// The message of validate()'s exception, or "" when it passes.
std::wstring validationMessage(const ModelServiceInfo& info) {
    try {
        info.validate();
    } catch (const Varkel::Zu::IllegalStateException& e) {
        return Varkel::Zu::getExceptionMessage(e);
    }
    return L"";
}

// A complete record as JSON, with one member changed or removed by `edit`.
value recordJson(const std::function<void(web::json::object&)>& edit = {}) {
    value json = completeServiceInfo()->toJson();
    if (edit) {
        edit(json.as_object());
    }
    return json;
}

TEST(ModelServiceInfoTest, ADefaultRecordIsEmpty) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    EXPECT_FALSE(info->serviceId);
    EXPECT_FALSE(info->serviceHealth);
    EXPECT_TRUE(info->serviceType.empty());
    EXPECT_TRUE(info->serviceTags.empty());
    EXPECT_EQ(info->servicePort, 0);
}

TEST(ModelServiceInfoTest, ToJsonOfADefaultRecordThrowsMissingServiceId) {
    const LogRecords records;
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    try {
        info->toJson();
        FAIL() << "an empty record was serialised";
    } catch (const Varkel::Zu::IllegalStateException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Missing property serviceId");
    }
    EXPECT_TRUE(hasThrowLine(records, L"Missing property serviceId",
                             L"api/Tolva/Tolva/TolvaCore/ModelServiceInfo"));
}

TEST(ModelServiceInfoTest, ValidateChecksInItsFixedOrder) {
    auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    EXPECT_EQ(validationMessage(*info), L"Missing property serviceId");
    info->serviceId = std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
    EXPECT_EQ(validationMessage(*info), L"Missing property serviceType");
    info->serviceType = L"t";
    EXPECT_EQ(validationMessage(*info), L"Missing property serviceInstance");
    info->serviceInstance = L"i";
    EXPECT_EQ(validationMessage(*info), L"Missing property serviceAddress");
    info->serviceAddress = L"a";
    // The port comes before the reverse-proxy rule, although both are missing.
    EXPECT_EQ(validationMessage(*info), L"Missing property servicePort");
    info->servicePort = 1;
    EXPECT_EQ(validationMessage(*info), L"Missing property reverseProxyPathRule");
    info->reverseProxyPathRule = L"/r/";
    EXPECT_EQ(validationMessage(*info), L"Missing property serviceHealth");
    info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
    EXPECT_EQ(validationMessage(*info), L"");
}

TEST(ModelServiceInfoTest, PortZeroIsReportedEvenWhenTheProxyRuleIsAlsoEmpty) {
    const auto info = completeServiceInfo();
    info->servicePort = 0;
    info->reverseProxyPathRule.clear();
    try {
        info->toJson();
        FAIL() << "port 0 was serialised";
    } catch (const Varkel::Zu::IllegalStateException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e), L"Missing property servicePort");
    }
}

TEST(ModelServiceInfoTest, ToJsonWritesEveryMemberButTheSecret) {
    const auto info = completeServiceInfo();
    info->serviceSecret = L"never-serialised";
    info->serviceHealth->setHealth(HealthState::Warning, L"warm");
    const value json = info->toJson();
    const value expected = value::parse(
        R"({"serviceId":")" + info->serviceId->toString() +
        R"(","serviceType":"render","serviceInstance":"render-01","serviceAddress":"10.1.2.3",)"
        R"("reverseProxyPathRule":"/render/","servicePort":8443,)"
        R"("serviceHealth":{"health":"Warning","healthText":"warm"}})");
    EXPECT_EQ(json, expected);
    EXPECT_TRUE(json.at("servicePort").is_integer());
    EXPECT_EQ(json.serialize().find("never-serialised"), std::string::npos);
}

TEST(ModelServiceInfoTest, RecordWithoutTagsHasNoTagsMember) {
    EXPECT_FALSE(completeServiceInfo()->toJson().has_field("serviceTags"));
}

TEST(ModelServiceInfoTest, TagsAreWrittenInVectorOrder) {
    const auto info = completeServiceInfo();
    info->serviceTags = {L"a", L"b"};
    EXPECT_EQ(info->toJson().at("serviceTags"), value::parse(R"(["a","b"])"));
}

TEST(ModelServiceInfoTest, FromJsonReadsEveryMember) {
    const auto source = completeServiceInfo();
    source->serviceTags = {L"x", L"y"};
    source->serviceHealth->setHealth(HealthState::Error, L"down");
    const auto read = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    read->fromJson(source->toJson());
    ASSERT_TRUE(read->serviceId);
    EXPECT_EQ(*read->serviceId, *source->serviceId);
    EXPECT_EQ(read->serviceType, L"render");
    EXPECT_EQ(read->serviceInstance, L"render-01");
    EXPECT_EQ(read->serviceAddress, L"10.1.2.3");
    EXPECT_EQ(read->reverseProxyPathRule, L"/render/");
    EXPECT_EQ(read->servicePort, 8443);
    EXPECT_EQ(read->serviceTags, (std::vector<std::wstring>{L"x", L"y"}));
    ASSERT_TRUE(read->serviceHealth);
    EXPECT_NE(read->serviceHealth, source->serviceHealth);
    EXPECT_EQ(read->serviceHealth->getHealth(), HealthState::Error);
    EXPECT_TRUE(*read == *source);
}

TEST(ModelServiceInfoTest, APortAbove65535ThrowsPositiveOverflow) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    EXPECT_THROW(info->fromJson(recordJson(
                     [](web::json::object& o) { o["servicePort"] = value::number(70000); })),
                 boost::numeric::positive_overflow);
}

TEST(ModelServiceInfoTest, ANegativePortThrowsNegativeOverflow) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    EXPECT_THROW(info->fromJson(recordJson(
                     [](web::json::object& o) { o["servicePort"] = value::number(-1); })),
                 boost::numeric::negative_overflow);
}

TEST(ModelServiceInfoTest, PortZeroIsReadButNotValid) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    info->fromJson(recordJson([](web::json::object& o) { o["servicePort"] = value::number(0); }));
    EXPECT_EQ(info->servicePort, 0);
    EXPECT_EQ(validationMessage(*info), L"Missing property servicePort");
}

TEST(ModelServiceInfoTest, FromJsonWithoutTagsClearsTagsReadBefore) {
    const auto info = completeServiceInfo();
    info->serviceTags = {L"old"};
    info->fromJson(recordJson());
    EXPECT_TRUE(info->serviceTags.empty());
}

TEST(ModelServiceInfoTest, FieldsReadBeforeAFailureKeepTheirNewValues) {
    const auto info = completeServiceInfo();
    const value json = recordJson([](web::json::object& o) {
        o["serviceType"] = value::string("new-type");
        o.erase("serviceAddress");
    });
    EXPECT_THROW(info->fromJson(json), Varkel::Zu::InvalidArgumentException);
    EXPECT_EQ(info->serviceType, L"new-type");
    EXPECT_EQ(info->serviceAddress, L"10.1.2.3");
}

TEST(ModelServiceInfoTest, AMissingHealthLeavesAFreshHealthyObject) {
    const auto info = completeServiceInfo();
    const auto oldHealth = info->serviceHealth;
    oldHealth->setHealth(HealthState::Error, L"old");
    try {
        info->fromJson(recordJson([](web::json::object& o) { o.erase("serviceHealth"); }));
        FAIL() << "accepted a record without health";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        const std::wstring message = Varkel::Zu::getExceptionMessage(e);
        EXPECT_EQ(message.rfind(L"Exception: Key not found\nWhile parsing json: ", 0), 0u);
    }
    ASSERT_TRUE(info->serviceHealth);
    EXPECT_NE(info->serviceHealth, oldHealth);
    EXPECT_EQ(info->serviceHealth->getHealth(), HealthState::OK);
}

TEST(ModelServiceInfoTest, AMalformedIdReachesTheCallerUntranslated) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    try {
        info->fromJson(
            recordJson([](web::json::object& o) { o["serviceId"] = value::string("nope"); }));
        FAIL() << "accepted a malformed id";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        EXPECT_EQ(Varkel::Zu::getExceptionMessage(e).find(L"While parsing json"),
                  std::wstring::npos);
    }
}

TEST(ModelServiceInfoTest, KeysAreMatchedCaseSensitively) {
    const auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    const value json = recordJson([](web::json::object& o) {
        o["ServiceType"] = o.at("serviceType");
        o.erase("serviceType");
    });
    EXPECT_THROW(info->fromJson(json), Varkel::Zu::InvalidArgumentException);
}

TEST(ModelServiceInfoTest, CopiesShareTheIdAndTheLiveHealth) {
    const auto source = completeServiceInfo();
    source->serviceSecret = L"secret";
    source->serviceTags = {L"t"};
    const ModelServiceInfo copy(*source);
    EXPECT_EQ(copy.serviceId, source->serviceId);
    EXPECT_EQ(copy.serviceHealth, source->serviceHealth);
    EXPECT_EQ(copy.serviceSecret, L"secret");
    EXPECT_EQ(copy.serviceTags, source->serviceTags);
    source->serviceHealth->setHealth(HealthState::Error, L"seen by the copy");
    EXPECT_EQ(copy.serviceHealth->getHealthText(), L"seen by the copy");

    auto assigned = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    *assigned = *source;
    EXPECT_EQ(assigned->serviceHealth, source->serviceHealth);
    EXPECT_EQ(assigned->servicePort, 8443);
}

TEST(ModelServiceInfoTest, JsonCloneHasItsOwnHealthAndNoSecret) {
    const auto source = completeServiceInfo();
    source->serviceSecret = L"secret";
    const auto clone = std::dynamic_pointer_cast<ModelServiceInfo>(source->clone(true));
    ASSERT_TRUE(clone);
    EXPECT_TRUE(*clone == *source);
    EXPECT_NE(clone->serviceHealth, source->serviceHealth);
    EXPECT_TRUE(clone->serviceSecret.empty());
}

}  // namespace
}  // namespace TolvaRestTest
