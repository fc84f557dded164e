#include <TolvaCore/ModelServiceHealth.h>

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <locale>

namespace Varkel {
namespace Tolva {
namespace Rest {
namespace Model {

namespace {

constexpr const wchar_t* kOkText = L"OK";
constexpr const wchar_t* kWarningText = L"Warning";
constexpr const wchar_t* kErrorText = L"Error";

// Equal lengths and equal characters after upper-casing each with the default locale.
bool equalsIgnoringCase(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) {
        return false;
    }
    const std::locale defaultLocale;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::toupper(a[i], defaultLocale) != std::toupper(b[i], defaultLocale)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::wstring healthStateToString(HealthState state) {
    switch (state) {
        case HealthState::OK:
            return kOkText;
        case HealthState::Warning:
            return kWarningText;
        case HealthState::Error:
            return kErrorText;
    }
    ZU_THROW(Varkel::Zu::InvalidArgumentException, L"Unknown HealthState enum constant");
}

HealthState healthStateFromString(const std::wstring& text) {
    if (equalsIgnoringCase(text, kOkText)) {
        return HealthState::OK;
    }
    if (equalsIgnoringCase(text, kWarningText)) {
        return HealthState::Warning;
    }
    if (equalsIgnoringCase(text, kErrorText)) {
        return HealthState::Error;
    }
    ZU_THROW(Varkel::Zu::InvalidArgumentException, L"Unknown HealthState string");
}

const std::wstring ModelServiceHealth::HEALTH_TEXT_SERVICE_IS_HEALTHY = L"Service is healthy";

ModelServiceHealth::ModelServiceHealth(Varkel::Zu::PrivateConstructorType)
    : health(HealthState::OK), healthText(HEALTH_TEXT_SERVICE_IS_HEALTHY) {}

ModelServiceHealth::ModelServiceHealth(Varkel::Zu::PrivateConstructorType, HealthState state,
                                       const std::wstring& text)
    : health(state), healthText(text) {}

ModelServiceHealth::~ModelServiceHealth() = default;

HealthState ModelServiceHealth::getHealth() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return health;
}

std::wstring ModelServiceHealth::getHealthText() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return healthText;
}

void ModelServiceHealth::setHealth(HealthState state, const std::wstring& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    health = state;
    healthText = text;
}

void ModelServiceHealth::setToHealthy() {
    std::lock_guard<std::mutex> lock(mutex_);
    health = HealthState::OK;
    healthText = HEALTH_TEXT_SERVICE_IS_HEALTHY;
}

std::shared_ptr<ModelBase> ModelServiceHealth::createNewOfSameType() const {
    return Varkel::Zu::MakeShared::create<ModelServiceHealth>();
}

void ModelServiceHealth::toJsonImp(web::json::value& out) const {
    std::lock_guard<std::mutex> lock(mutex_);
    out["health"] = web::json::value::string(Varkel::Zu::narrow(healthStateToString(health)));
    out["healthText"] = web::json::value::string(Varkel::Zu::narrow(healthText));
}

void ModelServiceHealth::fromJsonImp(const web::json::value& in) {
    std::lock_guard<std::mutex> lock(mutex_);
    health = healthStateFromString(Varkel::Zu::widen(in.at("health").as_string()));
    healthText = Varkel::Zu::widen(in.at("healthText").as_string());
}

}  // namespace Model
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
