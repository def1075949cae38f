// delivery_cache.cpp - encoding deliveries, once a form where nobody can tell.
#include "delivery_cache.h"

#include "../log/log.h"

#include <bit>
#include <cstdlib>

namespace tarn::handler {

DeliveryCache::~DeliveryCache()
{
    for (uint32_t rest = made_; rest; rest &= rest - 1)
        std::free(forms_[std::countr_zero(rest)].bytes);
}

void DeliveryCache::keep(uint32_t form, owned<uint8_t> bytes, size_t length, int id_at) noexcept
{
    if (has(form))
        std::free(forms_[form].bytes);
    made_ |= 1u << form;
    forms_[form] = {bytes.release(), length, id_at};
}

DeliveryCache::Encoded DeliveryCache::encode(uint32_t version, uint32_t qos, uint16_t id) noexcept
{
    message_.qos    = qos;
    message_.msg_id = id;

    const bool     can_keep = (version == 4 || version == 5) && qos <= 2;
    const uint32_t at       = can_keep ? (version - 4) * 3 + qos : kOther;
    const Form    &form     = forms_[at];
    if (can_keep && has(at) && (qos == 0 || (id != 0 && form.id_at > 0)) && !log_passes(AGENT_LOG_DEBUG)) {
        if (qos != 0) {
            form.bytes[form.id_at]     = static_cast<uint8_t>(id >> 8);
            form.bytes[form.id_at + 1] = static_cast<uint8_t>(id);
        }
        return {codec::Result::Ok, {form.bytes, form.length}};
    }

    owned<uint8_t> bytes = allocate<uint8_t>(codec::kPublishHeadMax);
    if (!bytes)
        return {.result = codec::Result::Ok, .had_memory = false};
    const codec::PublishHead encoded =
        codec::encode_publish_head(version, message_, {bytes.get(), codec::kPublishHeadMax}, PACKET_DELIVERY_SIZE);
    if (failed(encoded.result))
        return {encoded.result};
    keep(at, std::move(bytes), encoded.head.size(), qos != 0 ? codec::publish_id_offset(encoded.head) : 0);
    return {codec::Result::Ok, {form.bytes, form.length}};
}

// The packet of a retransmission: neither expiry nor alias, so its properties are the one byte of their length.
bool DeliveryCache::scan_can_encode(codec::Result result, uint32_t version) const noexcept
{
    const size_t body =
        2 + message_.topic.size() + (message_.qos != 0 ? 2u : 0u) + (version == 5 ? 1u : 0u) + message_.payload.size();
    return result == codec::Result::NoRoom && body <= CODEC_BODY_MAX;
}

} // namespace tarn::handler
