// packet_id_index.h - the packet identifiers that a session's deliveries use, and which delivery each of them is for.
#ifndef TARN_STANDARD_PACKET_ID_INDEX_H
#define TARN_STANDARD_PACKET_ID_INDEX_H

#include "delivery.h"

namespace tarn::standard {

// A hash table that doubles with use. It begins in the object, and a table that cannot grow for want of memory goes on
// with longer chains; so nothing here fails. Identifiers that follow each other fall into different buckets.
class PacketIdIndex {
public:
    PacketIdIndex()                                 = default;
    PacketIdIndex(const PacketIdIndex &)            = delete;
    PacketIdIndex &operator=(const PacketIdIndex &) = delete;

    [[nodiscard]] Delivery *find(uint16_t packet_id) const noexcept; // or null
    void                    insert(Delivery &delivery) noexcept;     // its identifier is not in use
    void                    remove(Delivery &delivery) noexcept;     // which is in it
    [[nodiscard]] size_t    count() const noexcept { return count_; }

    // 1 to 65535 in turn, without those in use [MQTT-2.2.1-4]. At least one must be free.
    [[nodiscard]] uint16_t next_unused() const noexcept;

private:
    static constexpr size_t kInside = 8; // buckets in the object

    Delivery       **buckets() noexcept { return grown_ ? grown_.get() : inside_; }
    Delivery *const *buckets() const noexcept { return grown_ ? grown_.get() : inside_; }
    Delivery       *&bucket_of(uint16_t packet_id) noexcept { return buckets()[packet_id & (bucket_count_ - 1)]; }
    void             grow() noexcept;

    Delivery         *inside_[kInside] = {};
    owned<Delivery *> grown_;                  // instead of `inside_`
    size_t            bucket_count_ = kInside; // a power of two
    size_t            count_        = 0;
    uint16_t          last_         = 0; // inserted
};

} // namespace tarn::standard

#endif
