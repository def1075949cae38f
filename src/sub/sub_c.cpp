// sub_c.cpp - sub.h and retain.h: what hosts call. Null pointers end here; everything else is sub.hpp's.
#include "retain.h"
#include "sub_internal.h"

using namespace tarn::sub;

namespace {

int code_of(Added added) noexcept
{
    if (is_subscribed(added))
        return 0;
    return added == Added::Full ? -4 : -1;
}

int code_of(Stored stored) noexcept
{
    switch (stored) {
    case Stored::Full:
        return -4;
    case Stored::NoTopic:
        return -1;
    default:
        return 0;
    }
}

} // namespace

int mqtt_filter_is_valid(const char *filter)
{
    return is_valid_filter(filter ? filter : "");
}

int topic_match_wildcard(const char *filter, const char *topic)
{
    return filter && topic && matches(filter, topic);
}

int sub_init(void)
{
    return init() ? 0 : -2;
}

void sub_deinit(void)
{
    deinit();
}

int sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session)
{
    if (client_id && topic_filter)
        return code_of(add(client_id, topic_filter, qos, clean_session));
    (void)log_add_begins(client_id, topic_filter, qos, clean_session);
    return -1;
}

int sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                    uint32_t sub_identifier)
{
    if (sub_identifier == 0)
        return sub_add(client_id, topic_filter, qos, clean_session);
    if (!client_id || !topic_filter)
        return -1;
    return code_of(add_with_id(client_id, topic_filter, qos, clean_session, sub_identifier));
}

int sub_remove(const char *client_id, const char *topic_filter)
{
    if (has_text(client_id))
        return topic_filter ? remove(client_id, topic_filter) : remove_all_of(client_id);
    (void)log_remove_begins(client_id, topic_filter);
    return -1;
}

int sub_match(const char *topic, sub_entry_t *matched, int32_t max_matched)
{
    return copy_matches(topic, matched, max_matched);
}

int sub_get_client_sub_count(const char *client_id)
{
    return log_count_begins(client_id) ? count_of(client_id) : -1;
}

int sub_find_by_identifier(uint32_t sub_identifier, sub_entry_t *out)
{
    return sub_identifier != 0 && out && find_by_identifier(sub_identifier, *out) ? 0 : -1;
}

int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos)
{
    return retain_msg_set_with_expiry(topic, payload, payload_len, qos, 0);
}

int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                               uint32_t expiry_interval)
{
    if (topic && (payload || payload_len == 0))
        return code_of(retain({topic, {payload, payload_len}, qos, expiry_interval}));
    (void)log_retain_begins(topic, payload_len, qos);
    return -1;
}

int retain_msg_get(const char *topic, retain_msg_t *out)
{
    if (!log_get_begins(topic, out))
        return -1;
    return copy_retained(topic, *out) ? 0 : -5;
}

int retain_msg_delete(const char *topic)
{
    if (topic)
        return delete_retained(topic) ? 0 : -5;
    (void)log_delete_begins(topic);
    return -1;
}

void retain_clean_expired(void)
{
    discard_expired_retained();
}

int retain_fill_topic_list(char *buf, int32_t size)
{
    return buf && size > 0 ? list_retained_topics(buf, size) : -1;
}
