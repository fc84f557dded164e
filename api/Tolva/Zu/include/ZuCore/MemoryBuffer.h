/// @class Varkel::Zu::MemoryBuffer
/// MemoryBuffer: an owned, resizable block of bytes (the result of Base64 decoding).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <ZuCore/ZuExport.h>

namespace Varkel {
namespace Zu {

/// A byte buffer. Copyable and movable. Not synchronised: concurrent reads are safe, a write
/// is not.
class ZU_EXPORT MemoryBuffer {
  public:
    /// Empty buffer.
    MemoryBuffer();
    /// `size` zero bytes.
    explicit MemoryBuffer(std::size_t size);
    /// A copy of `size` bytes at `data` (data may be null when size is 0).
    MemoryBuffer(const unsigned char* data, std::size_t size);
    /// Takes over the bytes.
    explicit MemoryBuffer(std::vector<unsigned char> bytes) noexcept;
    /// The bytes of a string.
    static MemoryBuffer fromString(const std::string& bytes);

    /// Copies the bytes.
    MemoryBuffer(const MemoryBuffer&);
    /// Takes the bytes; the other buffer is left empty.
    MemoryBuffer(MemoryBuffer&&) noexcept;
    /// Copies the bytes.
    MemoryBuffer& operator=(const MemoryBuffer&);
    /// Takes the bytes; the other buffer is left empty.
    MemoryBuffer& operator=(MemoryBuffer&&) noexcept;
    virtual ~MemoryBuffer();

    /// Number of bytes.
    std::size_t getSize() const noexcept { return bytes_.size(); }
    /// Whether the buffer holds no byte.
    bool isEmpty() const noexcept { return bytes_.empty(); }

    ///@{
    /// The bytes (getSize() of them); null for an empty buffer. Valid until the buffer is
    /// changed or destroyed.
    const unsigned char* getData() const noexcept {
        return bytes_.empty() ? nullptr : bytes_.data();
    }
    unsigned char* getData() noexcept { return bytes_.empty() ? nullptr : bytes_.data(); }
    ///@}

    /// Changes the size; new bytes are zero.
    void resize(std::size_t size);
    /// Appends `size` bytes.
    void append(const unsigned char* data, std::size_t size);

    /// The bytes as a std::string (binary safe).
    std::string toString() const;
    /// The bytes as a vector.
    const std::vector<unsigned char>& toVector() const noexcept { return bytes_; }

    /// Equal when both hold the same bytes.
    bool operator==(const MemoryBuffer& other) const noexcept { return bytes_ == other.bytes_; }
    /// Equal when both hold the same bytes.
    bool operator!=(const MemoryBuffer& other) const noexcept { return bytes_ != other.bytes_; }

  private:
    std::vector<unsigned char> bytes_;
};

}  // namespace Zu
}  // namespace Varkel
