/// @class Varkel::Zu::ZuUUID
/// ZuUUID: a UUID value with its text form.
#pragma once

#include <string>

#include <boost/uuid/uuid.hpp>

#include <ZuCore/MakeShared.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A 128-bit UUID. Copyable; immutable after construction, so any thread may read it.
class ZU_EXPORT ZuUUID {
  public:
    /// The nil UUID (all zero).
    ZuUUID() noexcept;
    /// Parses the 36-character form 8-4-4-4-12 of hex digits (either case), e.g.
    /// "0f8fad5b-d9cb-469f-a165-70867728950e". Throws InvalidArgumentException (through
    /// ZU_THROW) for any other text, the empty text included.
    explicit ZuUUID(const std::wstring& text);
    /// Same, for creation through MakeShared::create<ZuUUID>(text).
    ZuUUID(PrivateConstructorType, const std::wstring& text);
    /// From a Boost UUID.
    explicit ZuUUID(const boost::uuids::uuid& value) noexcept;

    /// Copies the value.
    ZuUUID(const ZuUUID&) = default;
    /// Copies the value.
    ZuUUID& operator=(const ZuUUID&) = default;
    virtual ~ZuUUID();

    /// A new random (version 4) UUID.
    static ZuUUID generateRandom();

    /// True when `text` has the form the constructor accepts.
    static bool isValid(const std::wstring& text) noexcept;

    /// The lower-case 36-character form.
    std::wstring toWString() const;
    /// The lower-case 36-character form, as narrow text.
    std::string toString() const;

    /// The value.
    const boost::uuids::uuid& getUUID() const noexcept { return value_; }
    /// Whether the value is the nil UUID (all zeros).
    bool isNil() const noexcept { return value_.is_nil(); }

    /// UUIDs compare by value.
    bool operator==(const ZuUUID& other) const noexcept { return value_ == other.value_; }
    /// UUIDs compare by value.
    bool operator!=(const ZuUUID& other) const noexcept { return value_ != other.value_; }
    /// UUIDs order by value, so they can key ordered containers.
    bool operator<(const ZuUUID& other) const noexcept { return value_ < other.value_; }

  private:
    boost::uuids::uuid value_;
};

}  // namespace Zu
}  // namespace Varkel
