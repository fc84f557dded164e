// ModelBase: JSON round trips, error translation, cloning (through JSON and the fast path),
// equality by JSON value, the UUID and Rational helpers and the stream operator.
#include "ModelTestSupport.h"

#include <TolvaCore/ModelBase.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/Rational.h>
#include <ZuCore/StringConversion.h>

#include <sstream>
#include <vector>

namespace TolvaRestTest {
namespace {

// The stream operator lives in Varkel::Tolva, which argument lookup does not reach.
using Varkel::Tolva::operator<<;
using Varkel::Tolva::Rest::Model::EnableCloneFast;
using Varkel::Tolva::Rest::Model::ModelBase;
using Varkel::Zu::Rational;
using web::json::value;

// A model with one required member "name" and one member "note" that is never serialised.
class NamedModel : public ModelBase {
  public:
    explicit NamedModel(Varkel::Zu::PrivateConstructorType) {}
    std::string name;
    std::string note;

  protected:
    std::shared_ptr<ModelBase> createNewOfSameType() const override {
        return Varkel::Zu::MakeShared::create<NamedModel>();
    }
    void toJsonImp(value& out) const override { out["name"] = value::string(name); }
    void fromJsonImp(const value& in) override { name = in.at("name").as_string(); }
};

// The same, but able to copy itself directly (the note travels with such a copy).
class FastModel : public NamedModel, public EnableCloneFast {
  public:
    explicit FastModel(Varkel::Zu::PrivateConstructorType tag) : NamedModel(tag) {}
    std::shared_ptr<ModelBase> cloneFast() const override {
        auto copy = Varkel::Zu::MakeShared::create<FastModel>();
        copy->name = name;
        copy->note = note;
        return copy;
    }

  protected:
    std::shared_ptr<ModelBase> createNewOfSameType() const override {
        return Varkel::Zu::MakeShared::create<FastModel>();
    }
};

// A model that writes two members in the order given at construction.
class OrderedModel : public ModelBase {
  public:
    OrderedModel(Varkel::Zu::PrivateConstructorType, bool aFirst) : aFirst_(aFirst) {}

  protected:
    std::shared_ptr<ModelBase> createNewOfSameType() const override {
        return Varkel::Zu::MakeShared::create<OrderedModel>(aFirst_);
    }
    void toJsonImp(value& out) const override {
        if (aFirst_) {
            out["a"] = value::number(1);
            out["b"] = value::number(2);
        } else {
            out["b"] = value::number(2);
            out["a"] = value::number(1);
        }
    }
    void fromJsonImp(const value&) override {}

  private:
    bool aFirst_;
};

std::shared_ptr<NamedModel> named(const std::string& name) {
    auto model = Varkel::Zu::MakeShared::create<NamedModel>();
    model->name = name;
    return model;
}

TEST(ModelBaseTest, RationalToJsonWritesNumAndDen) {
    const value json = ModelBase::rationalToJson(Rational(3, 4));
    EXPECT_EQ(json, value::parse(R"({"num":3,"den":4})"));
    EXPECT_EQ(json.size(), 2u);
    EXPECT_TRUE(json.at("num").is_integer());
}

TEST(ModelBaseTest, RationalToJsonKeepsSigned64BitValues) {
    const value json = ModelBase::rationalToJson(Rational(-9000000000LL, 7));
    EXPECT_EQ(json.at("num").as_number().to_int64(), -9000000000LL);
    EXPECT_EQ(json.at("den").as_number().to_int64(), 7);
}

TEST(ModelBaseTest, RationalFromJsonDefaultsTheDenominatorToOne) {
    const Rational r = ModelBase::rationalFromJson(value::parse(R"({"num":5})"));
    EXPECT_EQ(r.getNumerator(), 5);
    EXPECT_EQ(r.getDenominator(), 1);
}

TEST(ModelBaseTest, RationalFromJsonTruncatesFloatingPointNumbers) {
    const Rational r = ModelBase::rationalFromJson(value::parse(R"({"num":2.9,"den":2})"));
    EXPECT_EQ(r.getNumerator(), 2);
    EXPECT_EQ(r.getDenominator(), 2);
    const Rational negative = ModelBase::rationalFromJson(value::parse(R"({"num":-2.9})"));
    EXPECT_EQ(negative.getNumerator(), -2);
}

TEST(ModelBaseTest, RationalFromJsonWithoutNumThrowsTheJsonException) {
    EXPECT_THROW(ModelBase::rationalFromJson(value::parse(R"({"den":2})")),
                 web::json::json_exception);
}

TEST(ModelBaseTest, RationalFromJsonRefusesNonObjectsAndNonNumbers) {
    EXPECT_THROW(ModelBase::rationalFromJson(value::parse("[1,2]")), web::json::json_exception);
    EXPECT_THROW(ModelBase::rationalFromJson(value::parse(R"({"num":"3"})")),
                 web::json::json_exception);
    EXPECT_THROW(ModelBase::rationalFromJson(value::parse(R"({"num":1e300})")),
                 web::json::json_exception);
}

TEST(ModelBaseTest, IsUUIDAcceptsOnlyTheUUIDForm) {
    EXPECT_TRUE(ModelBase::isUUID(L"0f8fad5b-d9cb-469f-a165-70867728950e"));
    EXPECT_FALSE(ModelBase::isUUID(L""));
    EXPECT_FALSE(ModelBase::isUUID(L"not-a-uuid"));
}

TEST(ModelBaseTest, ModelsWhoseJsonDiffersOnlyInMemberOrderAreEqual) {
    const auto ab = Varkel::Zu::MakeShared::create<OrderedModel>(true);
    const auto ba = Varkel::Zu::MakeShared::create<OrderedModel>(false);
    EXPECT_TRUE(*ab == *ba);
    EXPECT_FALSE(*ab != *ba);
}

TEST(ModelBaseTest, EqualityFollowsTheJsonValue) {
    EXPECT_TRUE(*named("x") == *named("x"));
    EXPECT_TRUE(*named("x") != *named("y"));
    EXPECT_FALSE(*named("x") == *named("y"));
}

TEST(ModelBaseTest, FromJsonWithAMissingKeyThrowsTheTranslatedMessage) {
    const LogRecords records;
    const auto model = named("before");
    const value input = value::parse(R"({"other":1})");
    try {
        model->fromJson(input);
        FAIL() << "fromJson accepted a record without its key";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        const std::wstring message = Varkel::Zu::getExceptionMessage(e);
        EXPECT_EQ(message, L"Exception: Key not found\nWhile parsing json: " +
                               Varkel::Zu::widen(input.serialize()));
        EXPECT_TRUE(hasThrowLine(records, message, L"api/Tolva/Tolva/TolvaCore/ModelBase"));
    }
    EXPECT_EQ(model->name, "before");
}

TEST(ModelBaseTest, FromJsonTranslatesAWrongKindOfValue) {
    const auto model = named("before");
    try {
        model->fromJson(value::parse(R"({"name":12})"));
        FAIL() << "fromJson accepted a number for a string";
    } catch (const Varkel::Zu::InvalidArgumentException& e) {
        const std::wstring message = Varkel::Zu::getExceptionMessage(e);
        EXPECT_EQ(message.rfind(L"Exception: ", 0), 0u);
        EXPECT_NE(message.find(L"\nWhile parsing json: {\"name\":12}"), std::wstring::npos);
    }
}

TEST(ModelBaseTest, FromJsonReadsTheFields) {
    const auto model = named("");
    model->fromJson(value::parse(R"({"name":"read"})"));
    EXPECT_EQ(model->name, "read");
}

TEST(ModelBaseTest, ToJsonOfAModelWithoutFieldsIsNull) {
    const auto model = Varkel::Zu::MakeShared::create<OrderedModel>(true);
    EXPECT_TRUE(model->toJson().is_object());
    class EmptyModel : public ModelBase {
      protected:
        std::shared_ptr<ModelBase> createNewOfSameType() const override { return nullptr; }
        void toJsonImp(value&) const override {}
        void fromJsonImp(const value&) override {}
    };
    EXPECT_TRUE(EmptyModel().toJson().is_null());
}

TEST(ModelBaseTest, JsonCloneCopiesOnlyWhatIsSerialised) {
    const auto source = named("original");
    source->note = "not serialised";
    const auto copy = std::dynamic_pointer_cast<NamedModel>(source->clone(false));
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), source.get());
    EXPECT_EQ(copy->name, "original");
    EXPECT_TRUE(copy->note.empty());
}

TEST(ModelBaseTest, CloneUsesTheFastPathUnlessForcedThroughJson) {
    const auto source = Varkel::Zu::MakeShared::create<FastModel>();
    source->name = "fast";
    source->note = "travels only with a fast copy";

    const auto fast = std::dynamic_pointer_cast<FastModel>(source->clone(false));
    ASSERT_TRUE(fast);
    EXPECT_EQ(fast->note, "travels only with a fast copy");

    const auto forced = std::dynamic_pointer_cast<FastModel>(source->clone(true));
    ASSERT_TRUE(forced);
    EXPECT_EQ(forced->name, "fast");
    EXPECT_TRUE(forced->note.empty());
}

TEST(ModelBaseTest, StreamingNoModelsWritesAnEmptyArray) {
    std::wostringstream out;
    out << std::vector<std::shared_ptr<const ModelBase>>{};
    EXPECT_EQ(out.str(), L"[]");
}

TEST(ModelBaseTest, StreamingTwoModelsWritesTheirJsonInOrder) {
    const auto first = completeServiceInfo();
    const auto second = named("second");
    std::wostringstream out;
    out << std::vector<std::shared_ptr<const ModelBase>>{first, second};
    EXPECT_EQ(out.str(), L"[" + Varkel::Zu::widen(first->toJson().serialize()) + L"," +
                             Varkel::Zu::widen(second->toJson().serialize()) + L"]");
}

}  // namespace
}  // namespace TolvaRestTest
