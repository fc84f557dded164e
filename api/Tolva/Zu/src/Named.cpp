#include <ZuCore/Named.h>

namespace Varkel {
namespace Zu {

Named::Named() = default;

Named::Named(const std::wstring& name) : name_(name) {}

Named::Named(const Named& other) : name_(other.getName()) {}

Named& Named::operator=(const Named& other) {
    if (this != &other) {
        std::wstring name = other.getName();
        std::lock_guard<std::mutex> lock(mutex_);
        name_ = std::move(name);
    }
    return *this;
}

Named::~Named() = default;

std::wstring Named::getName() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return name_;
}

void Named::setName(const std::wstring& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    name_ = name;
}

}  // namespace Zu
}  // namespace Varkel
