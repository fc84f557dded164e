#include <ZuCore/MemoryBuffer.h>

#include <utility>

namespace Varkel {
namespace Zu {

MemoryBuffer::MemoryBuffer() = default;

MemoryBuffer::MemoryBuffer(std::size_t size) : bytes_(size, 0) {}

MemoryBuffer::MemoryBuffer(const unsigned char* data, std::size_t size) {
    if (size > 0) {
        bytes_.assign(data, data + size);
    }
}

MemoryBuffer::MemoryBuffer(std::vector<unsigned char> bytes) noexcept : bytes_(std::move(bytes)) {}

MemoryBuffer MemoryBuffer::fromString(const std::string& bytes) {
    return MemoryBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

MemoryBuffer::MemoryBuffer(const MemoryBuffer&) = default;
MemoryBuffer::MemoryBuffer(MemoryBuffer&&) noexcept = default;
MemoryBuffer& MemoryBuffer::operator=(const MemoryBuffer&) = default;
MemoryBuffer& MemoryBuffer::operator=(MemoryBuffer&&) noexcept = default;
MemoryBuffer::~MemoryBuffer() = default;

void MemoryBuffer::resize(std::size_t size) {
    bytes_.resize(size, 0);
}

void MemoryBuffer::append(const unsigned char* data, std::size_t size) {
    if (size > 0) {
        bytes_.insert(bytes_.end(), data, data + size);
    }
}

std::string MemoryBuffer::toString() const {
    return std::string(reinterpret_cast<const char*>(bytes_.data()), bytes_.size());
}

}  // namespace Zu
}  // namespace Varkel
