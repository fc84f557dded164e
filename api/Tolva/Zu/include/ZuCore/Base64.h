/// @class Varkel::Zu::Base64
/// Base64: encoding and decoding of the standard and the URL-safe Base64 alphabets.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <ZuCore/MemoryBuffer.h>
#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

class ZU_EXPORT Base64 {
  public:
    /// Decodes Base64 text. Both alphabets are accepted ("+/" and the URL-safe "-_"), with or
    /// without the "=" padding (so JWT segments decode as they are); ASCII white space is
    /// skipped. Throws InvalidArgumentException (through ZU_THROW) for malformed text: a
    /// character outside both alphabets, "=" anywhere but at the end, more than two "=", a
    /// length that no encoding produces, or padding that does not complete the last group.
    /// Any thread.
    static std::shared_ptr<MemoryBuffer> decode(const std::string& text);

    /// Decodes the URL-safe alphabet of JWT segments ("-_"), with or without "=" padding.
    /// Stricter than decode: "+", "/" and white space are malformed here, since a verifier
    /// must not accept a segment in another form than the one that was signed. Throws
    /// InvalidArgumentException (through ZU_THROW) for malformed text. Any thread.
    static std::shared_ptr<MemoryBuffer> decode_url(const std::string& text);

    ///@{
    /// Standard alphabet with "=" padding.
    static std::string encode(const unsigned char* data, std::size_t size);
    static std::string encode(const std::string& bytes);
    static std::string encode(const MemoryBuffer& buffer);
    ///@}

    ///@{
    /// URL-safe alphabet ("-_"), without padding (the JWT form).
    static std::string encode_url(const unsigned char* data, std::size_t size);
    static std::string encode_url(const std::string& bytes);
    static std::string encode_url(const MemoryBuffer& buffer);
    ///@}
};

}  // namespace Zu
}  // namespace Varkel
