#include <TolvaCore/ModelBase.h>

#include "private/JsonNumbers.h"

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>
#include <ZuCore/ZuUUID.h>

#include <cstdint>
#include <sstream>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

ModelBase::ModelBase() = default;
ModelBase::~ModelBase() = default;
ModelBase::ModelBase(const ModelBase&) = default;
ModelBase& ModelBase::operator=(const ModelBase&) = default;

web::json::value ModelBase::toJson() const {
    web::json::value out;
    toJsonImp(out);
    return out;
}

void ModelBase::fromJson(const web::json::value& in) {
    try {
        fromJsonImp(in);
    } catch (const web::json::json_exception& e) {
        std::wstringstream message;
        message << L"Exception: " << Varkel::Zu::widen(e.what()) << std::endl
                << L"While parsing json: " << Varkel::Zu::widen(in.serialize());
        ZU_THROW(Varkel::Zu::InvalidArgumentException, message.str());
    }
}

std::shared_ptr<ModelBase> ModelBase::clone(bool forceJsonCopy) const {
    if (!forceJsonCopy) {
        if (const auto* fast = dynamic_cast<const EnableCloneFast*>(this)) {
            return fast->cloneFast();
        }
    }
    std::shared_ptr<ModelBase> copy = createNewOfSameType();
    web::json::value json;
    toJsonImp(json);
    copy->fromJson(json);
    return copy;
}

bool ModelBase::operator==(const ModelBase& other) const {
    return toJson() == other.toJson();
}

bool ModelBase::operator!=(const ModelBase& other) const {
    return !(*this == other);
}

bool ModelBase::isUUID(const std::wstring& text) {
    try {
        const Varkel::Zu::ZuUUID parsed(text);
        static_cast<void>(parsed);
        return true;
    } catch (const Varkel::Zu::InvalidArgumentException&) {
        return false;
    }
}

web::json::value ModelBase::rationalToJson(const Varkel::Zu::Rational& r) {
    web::json::value json;
    json["num"] = web::json::value::number(static_cast<int64_t>(r.getNumerator()));
    json["den"] = web::json::value::number(static_cast<int64_t>(r.getDenominator()));
    return json;
}

Varkel::Zu::Rational ModelBase::rationalFromJson(const web::json::value& v) {
    const web::json::object& object = v.as_object();
    std::int64_t denominator = 1;
    const auto den = object.find("den");
    if (den != object.end()) {
        denominator = truncatedInt64(den->second);
    }
    const std::int64_t numerator = truncatedInt64(object.at("num"));
    return Varkel::Zu::Rational(numerator, denominator);
}

}  // namespace Model
}  // namespace Rest

std::wostream& operator<<(
    std::wostream& os, const std::vector<std::shared_ptr<const Rest::Model::ModelBase>>& models) {
    web::json::value array = web::json::value::array(models.size());
    for (std::size_t i = 0; i < models.size(); ++i) {
        array[i] = models[i]->toJson();
    }
    os << Varkel::Zu::widen(array.serialize());
    return os;
}

}  // namespace Tolva
}  // namespace Varkel
