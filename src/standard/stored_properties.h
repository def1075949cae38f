// stored_properties.h - the properties of a message, encoded as they are stored and forwarded.
#ifndef TARN_STANDARD_STORED_PROPERTIES_H
#define TARN_STANDARD_STORED_PROPERTIES_H

#include "../base/memory.h"
#include "../codec/standard/standard_codec.hpp"

namespace tarn::standard {

// Short ones take no memory.
class StoredProperties {
public:
    explicit StoredProperties(const codec::standard::Properties &properties) noexcept
        : size_(codec::standard::size_of_properties(properties, PUBLISH))
    {
        if (size_ > sizeof short_)
            long_ = allocate<uint8_t>(size_);
        uint8_t *const to = size_ > sizeof short_ ? long_.get() : short_;
        if (to && size_ > 0)
            (void)codec::standard::encode_properties(properties, PUBLISH, {to, size_});
        bytes_ = to;
    }
    StoredProperties(const StoredProperties &)            = delete;
    StoredProperties &operator=(const StoredProperties &) = delete;

    explicit                 operator bool() const noexcept { return bytes_ != nullptr; } // false: there was no memory
    std::span<const uint8_t> bytes() const noexcept { return {bytes_, size_}; }

private:
    uint8_t        short_[256];
    owned<uint8_t> long_;
    const uint8_t *bytes_ = nullptr;
    size_t         size_  = 0;
};

} // namespace tarn::standard

#endif
