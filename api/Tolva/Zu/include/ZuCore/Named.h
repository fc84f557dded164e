/// @class Varkel::Zu::Named
/// Named: base of objects that carry a wide name (threads, messages, notifiers).
#pragma once

#include <mutex>
#include <string>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// Holds a name. getName and setName may be called from any thread at the same time.
class ZU_EXPORT Named {
  public:
    /// Empty name.
    Named();
    /// Named `name`.
    explicit Named(const std::wstring& name);
    /// Takes the other's name.
    Named(const Named& other);
    /// Takes the other's name.
    Named& operator=(const Named& other);
    virtual ~Named();

    /// A copy of the current name.
    virtual std::wstring getName() const;
    /// Replaces the name.
    virtual void setName(const std::wstring& name);

  private:
    mutable std::mutex mutex_;
    std::wstring name_;
};

}  // namespace Zu
}  // namespace Varkel
