/// @class Varkel::Zu::NonNewable
/// NonNewable: base of helper objects that must not be allocated with a plain new.
#pragma once

#include <cstddef>

namespace Varkel {
namespace Zu {

/// Deletes the class-specific operator new (single and array), so `new Derived` does not
/// compile: such objects live on the stack, as members, or inside std::make_shared (which
/// constructs in place and does not use the class's operator new).
class NonNewable {
  public:
    static void* operator new(std::size_t) = delete;
    static void* operator new[](std::size_t) = delete;

  protected:
    NonNewable() = default;
    ~NonNewable() = default;
};

}  // namespace Zu
}  // namespace Varkel
