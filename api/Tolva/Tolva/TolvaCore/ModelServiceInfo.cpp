#include <TolvaCore/ModelServiceInfo.h>

#include <ZuCore/IllegalStateException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <boost/numeric/conversion/cast.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::json::value;

namespace {

// The port member as 16 bits: negative values and values above 65535 throw Boost's own
// overflow exceptions. Floating-point numbers are truncated like any JSON integer read.
std::uint16_t readPort(const value& v) {
    const web::json::number& number = v.as_number();
    if (!number.is_integral()) {
        return boost::numeric_cast<std::uint16_t>(
            boost::numeric_cast<std::int64_t>(number.to_double()));
    }
    if (number.is_int64()) {
        return boost::numeric_cast<std::uint16_t>(number.to_int64());
    }
    return boost::numeric_cast<std::uint16_t>(number.to_uint64());
}

std::wstring readString(const value& in, const char* key) {
    return widen(in.at(key).as_string());
}

}  // namespace

ModelServiceInfo::ModelServiceInfo(Varkel::Zu::PrivateConstructorType) {}
ModelServiceInfo::~ModelServiceInfo() = default;
ModelServiceInfo::ModelServiceInfo(const ModelServiceInfo& other) = default;
ModelServiceInfo& ModelServiceInfo::operator=(const ModelServiceInfo& other) = default;
ModelServiceInfo::ModelServiceInfo(ModelServiceInfo&& other) noexcept = default;
ModelServiceInfo& ModelServiceInfo::operator=(ModelServiceInfo&& other) noexcept = default;

void ModelServiceInfo::validate() const {
    using Varkel::Zu::IllegalStateException;
    // The port is checked before the reverse-proxy rule: the first failing check names the
    // message, and callers see this order.
    if (!serviceId) {
        ZU_THROW(IllegalStateException, L"Missing property serviceId");
    }
    if (serviceType.empty()) {
        ZU_THROW(IllegalStateException, L"Missing property serviceType");
    }
    if (serviceInstance.empty()) {
        ZU_THROW(IllegalStateException, L"Missing property serviceInstance");
    }
    if (serviceAddress.empty()) {
        ZU_THROW(IllegalStateException, L"Missing property serviceAddress");
    }
    if (servicePort == 0) {
        ZU_THROW(IllegalStateException, L"Missing property servicePort");
    }
    if (reverseProxyPathRule.empty()) {
        ZU_THROW(IllegalStateException, L"Missing property reverseProxyPathRule");
    }
    if (!serviceHealth) {
        ZU_THROW(IllegalStateException, L"Missing property serviceHealth");
    }
}

std::shared_ptr<ModelBase> ModelServiceInfo::createNewOfSameType() const {
    return Varkel::Zu::MakeShared::create<ModelServiceInfo>();
}

void ModelServiceInfo::toJsonImp(value& out) const {
    validate();
    out["serviceId"] = value::string(serviceId->toString());
    out["serviceType"] = value::string(narrow(serviceType));
    out["serviceInstance"] = value::string(narrow(serviceInstance));
    out["serviceAddress"] = value::string(narrow(serviceAddress));
    out["reverseProxyPathRule"] = value::string(narrow(reverseProxyPathRule));
    out["servicePort"] = value::number(static_cast<std::int32_t>(servicePort));
    if (!serviceTags.empty()) {
        value tags = value::array(serviceTags.size());
        for (std::size_t i = 0; i < serviceTags.size(); ++i) {
            tags[i] = value::string(narrow(serviceTags[i]));
        }
        out["serviceTags"] = tags;
    }
    out["serviceHealth"] = serviceHealth->toJson();
}

void ModelServiceInfo::fromJsonImp(const value& in) {
    serviceId = Varkel::Zu::MakeShared::create<Varkel::Zu::ZuUUID>(readString(in, "serviceId"));
    serviceType = readString(in, "serviceType");
    serviceInstance = readString(in, "serviceInstance");
    serviceAddress = readString(in, "serviceAddress");
    reverseProxyPathRule = readString(in, "reverseProxyPathRule");
    servicePort = readPort(in.at("servicePort"));
    serviceTags.clear();
    if (in.has_field("serviceTags")) {
        for (const value& tag : in.at("serviceTags").as_array()) {
            serviceTags.push_back(widen(tag.as_string()));
        }
    }
    // A fresh healthy object replaces the old one before the key is looked up, so a record
    // without "serviceHealth" is left healthy rather than sharing its previous health.
    serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
    serviceHealth->fromJson(in.at("serviceHealth"));
}

}  // namespace Model
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
