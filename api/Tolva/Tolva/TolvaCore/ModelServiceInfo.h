/// @class Varkel::Tolva::Rest::Model::ModelServiceInfo
/// ModelServiceInfo: the registration record of a service offered on the platform. Its JSON
/// form (toJson) is the body QxPlatformApi::registerService sends; registration fills in
/// serviceSecret, which the heartbeat and the unregistration then use. The record holds its
/// health as a shared, live ModelServiceHealth that its owner may change at any time.
///
///   auto info = MakeShared::create<ModelServiceInfo>();
///   info->serviceId = std::make_shared<ZuUUID>(ZuUUID::generateRandom());
///   info->serviceType = L"render";  ... servicePort, reverseProxyPathRule ...
///   info->serviceHealth = MakeShared::create<ModelServiceHealth>();
///   api->registerService(info);
#pragma once

#include <TolvaCore/ModelBase.h>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/TolvaExport.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/ZuUUID.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

/// Copies share the serviceId and serviceHealth objects with their source (a copy reports the
/// same live health); everything else is copied. The record itself has no lock: do not change
/// it while another thread serialises it (registerService serialises it on the caller's
/// thread). Its health object has its own lock and may be changed at any time.
class TOLVA_EXPORT ModelServiceInfo : public ModelBase {
  public:
    /// An empty record: null serviceId and serviceHealth, empty texts and tags, port 0. Made
    /// through Varkel::Zu::MakeShared::create<ModelServiceInfo>().
    explicit ModelServiceInfo(Varkel::Zu::PrivateConstructorType);
    ~ModelServiceInfo() override;
    /// A copy shares the id object and the health object with the original (see clone).
    ModelServiceInfo(const ModelServiceInfo& other);
    /// Takes every field; the id and health objects become shared with `other`.
    ModelServiceInfo& operator=(const ModelServiceInfo& other);
    /// Takes every field of `other`.
    ModelServiceInfo(ModelServiceInfo&& other) noexcept;
    /// Takes every field of `other`.
    ModelServiceInfo& operator=(ModelServiceInfo&& other) noexcept;

    /// Throws Varkel::Zu::IllegalStateException "Missing property X" for the first of these
    /// that fails, in this order: serviceId (null), serviceType, serviceInstance,
    /// serviceAddress (empty), servicePort (0), reverseProxyPathRule (empty), serviceHealth
    /// (null). Tags may be empty; serviceSecret is not checked.
    void validate() const;

    /// "serviceId": the UUID's lower-case text form.
    std::shared_ptr<Varkel::Zu::ZuUUID> serviceId;
    /// "serviceType"
    std::wstring serviceType;
    /// "serviceInstance"
    std::wstring serviceInstance;
    /// "serviceAddress"
    std::wstring serviceAddress;
    /// "reverseProxyPathRule"
    std::wstring reverseProxyPathRule;
    /// "servicePort"
    std::uint16_t servicePort = 0;
    /// The secret the platform issued at registration; empty before. Never serialised.
    /// Treat it like a password: the heartbeat and the unregistration put it into their paths.
    std::wstring serviceSecret;
    /// "serviceTags", left out of the JSON when empty.
    std::vector<std::wstring> serviceTags;
    /// "serviceHealth": the nested health object.
    std::shared_ptr<ModelServiceHealth> serviceHealth;

  protected:
    std::shared_ptr<ModelBase> createNewOfSameType() const override;
    /// Validates first (see validate), then writes the fields.
    void toJsonImp(web::json::value& out) const override;
    /// Reads, in order, assigning each field as soon as it is read: "serviceId" (a UUID text;
    /// a malformed one throws InvalidArgumentException), "serviceType", "serviceInstance",
    /// "serviceAddress", "reverseProxyPathRule", "servicePort" (checked cast to 16 bits:
    /// boost::numeric::negative_overflow / positive_overflow), "serviceTags" (optional) and
    /// "serviceHealth" (a new health object replaces the old one before it is read). Does not
    /// validate.
    void fromJsonImp(const web::json::value& in) override;
};

}  // namespace Model
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
