/// @class Varkel::Tolva::Rest::Model::ModelServiceHealth
/// ModelServiceHealth: the live health report of a registered service, nested in its
/// ModelServiceInfo. Its owner changes it at any time, from any thread, through setHealth and
/// setToHealthy; every read and write (serialising and parsing included) holds the object's
/// own lock, so a reader never sees a new state with an old text.
#pragma once

#include <TolvaCore/ModelBase.h>
#include <TolvaCore/TolvaExport.h>

#include <ZuCore/MakeShared.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

/// The health of a service.
enum class HealthState : std::int32_t {
    OK = 0,
    Warning = 1,
    Error = 2,
};

/// "OK", "Warning" or "Error". Throws Varkel::Zu::InvalidArgumentException "Unknown
/// HealthState enum constant" for any other value.
TOLVA_EXPORT std::wstring healthStateToString(HealthState state);

/// The state whose text equals `text` ignoring letter case ("ok", "WARNING", ...). Throws
/// Varkel::Zu::InvalidArgumentException "Unknown HealthState string" for any other text
/// (surrounding blanks are not ignored).
TOLVA_EXPORT HealthState healthStateFromString(const std::wstring& text);

class TOLVA_EXPORT ModelServiceHealth : public ModelBase {
  public:
    /// The text of a healthy service: "Service is healthy".
    static const std::wstring HEALTH_TEXT_SERVICE_IS_HEALTHY;

    /// Healthy: HealthState::OK with HEALTH_TEXT_SERVICE_IS_HEALTHY. Made through
    /// Varkel::Zu::MakeShared::create<ModelServiceHealth>().
    explicit ModelServiceHealth(Varkel::Zu::PrivateConstructorType);

    /// The given state and text.
    ModelServiceHealth(Varkel::Zu::PrivateConstructorType, HealthState state,
                       const std::wstring& text);

    ~ModelServiceHealth() override;

    /// Not copyable: a health object is shared, by pointer, between a record and its copies.
    ModelServiceHealth(const ModelServiceHealth&) = delete;
    ModelServiceHealth& operator=(const ModelServiceHealth&) = delete;

    /// The current state. Any thread.
    HealthState getHealth() const;

    /// The current explanation. Any thread.
    std::wstring getHealthText() const;

    /// Sets state and text together, under one lock acquisition. Any thread.
    void setHealth(HealthState state, const std::wstring& text);

    /// Back to HealthState::OK with HEALTH_TEXT_SERVICE_IS_HEALTHY. Any thread.
    void setToHealthy();

  protected:
    std::shared_ptr<ModelBase> createNewOfSameType() const override;
    /// {"health": "OK" | "Warning" | "Error", "healthText": text}, under the lock.
    void toJsonImp(web::json::value& out) const override;
    /// Reads "health" (stored at once) and then "healthText", under the lock; both required
    /// strings. An unknown state text throws InvalidArgumentException.
    void fromJsonImp(const web::json::value& in) override;

  private:
    mutable std::mutex mutex_;
    HealthState health;
    std::wstring healthText;
};

}  // namespace Model
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
