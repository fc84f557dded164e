/// @class Varkel::Zu::MakeShared
/// MakeShared: factory for classes that may only be owned through std::shared_ptr.
///
/// Such a class has public constructors whose first parameter is PrivateConstructorType.
/// Only MakeShared can make that tag, so only MakeShared::create can construct the class:
///
///   class Mailbox {
///   public:
///       Mailbox(Varkel::Zu::PrivateConstructorType, unsigned int ttl);
///   };
///   auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>(30u);
#pragma once

#include <memory>
#include <utility>

namespace Varkel {
namespace Zu {

class MakeShared {
  public:
    /// The tag that guards the constructors. Copyable, but only MakeShared can create one.
    class PrivateConstructorType {
      private:
        friend class MakeShared;
        /// User-provided (not "= default"), so that PrivateConstructorType{} is not an
        /// aggregate initialisation open to everyone.
        PrivateConstructorType() noexcept {}
    };

    /// Constructs T(PrivateConstructorType, args...) in one allocation with its control block
    /// and returns the owning pointer. Throws what T's constructor throws, or std::bad_alloc.
    template <class T, class... Args>
    static std::shared_ptr<T> create(Args&&... args) {
        return std::make_shared<T>(PrivateConstructorType(), std::forward<Args>(args)...);
    }
};

/// Short name for the tag, for constructor declarations.
using PrivateConstructorType = MakeShared::PrivateConstructorType;

}  // namespace Zu
}  // namespace Varkel
