// properties.h - what both stock C clients read and write of MQTT 5.0 properties.
#ifndef TARN_CLIENTS_PROPERTIES_H
#define TARN_CLIENTS_PROPERTIES_H

#include "lines.h"

#include <MQTTProperties.h>
#include <MQTTSubscribeOpts.h>

static inline void add_number(MQTTProperties *to, enum MQTTPropertyCodes which, const Order *order, const char *name)
{
    if (!text_field(order, name))
        return;
    MQTTProperty        property = {.identifier = which};
    const unsigned long number   = strtoul(text_field(order, name), NULL, 10);
    if (which == MQTTPROPERTY_CODE_RECEIVE_MAXIMUM)
        property.value.integer2 = (unsigned short)number;
    else
        property.value.integer4 = (unsigned)number; // where a variable byte integer is, too
    MQTTProperties_add(to, &property);
}

static inline void add_text(MQTTProperties *to, enum MQTTPropertyCodes which, const Order *order, const char *name)
{
    char *text = text_field(order, name);
    if (!text)
        return;
    MQTTProperty property = {.identifier = which};
    property.value.data   = (MQTTLenString){(int)strlen(text), text};
    MQTTProperties_add(to, &property);
}

// Given as name:value.
static inline void add_user_property(MQTTProperties *to, const Order *order)
{
    char *name  = text_field(order, "user");
    char *colon = name ? strchr(name, ':') : NULL;
    if (!colon)
        return;
    MQTTProperty property = {.identifier = MQTTPROPERTY_CODE_USER_PROPERTY};
    property.value.data   = (MQTTLenString){(int)(colon - name), name};
    property.value.value  = (MQTTLenString){(int)strlen(colon + 1), colon + 1};
    MQTTProperties_add(to, &property);
}

static inline MQTTProperties connect_properties(const Order *order)
{
    MQTTProperties properties = MQTTProperties_initializer;
    add_number(&properties, MQTTPROPERTY_CODE_SESSION_EXPIRY_INTERVAL, order, "expiry");
    add_number(&properties, MQTTPROPERTY_CODE_RECEIVE_MAXIMUM, order, "receive_maximum");
    add_number(&properties, MQTTPROPERTY_CODE_MAXIMUM_PACKET_SIZE, order, "maximum_packet_size");
    return properties;
}

static inline MQTTProperties subscribe_properties(const Order *order)
{
    MQTTProperties properties = MQTTProperties_initializer;
    add_number(&properties, MQTTPROPERTY_CODE_SUBSCRIPTION_IDENTIFIER, order, "identifier");
    return properties;
}

static inline MQTTSubscribe_options subscribe_options(const Order *order)
{
    MQTTSubscribe_options options = MQTTSubscribe_options_initializer;
    options.noLocal               = (unsigned char)number_field(order, "no_local");
    options.retainAsPublished     = (unsigned char)number_field(order, "retain_as_published");
    options.retainHandling        = (unsigned char)number_field(order, "retain_handling");
    return options;
}

static inline MQTTProperties publish_properties(const Order *order)
{
    MQTTProperties properties = MQTTProperties_initializer;
    add_number(&properties, MQTTPROPERTY_CODE_MESSAGE_EXPIRY_INTERVAL, order, "expiry");
    add_text(&properties, MQTTPROPERTY_CODE_RESPONSE_TOPIC, order, "response");
    add_text(&properties, MQTTPROPERTY_CODE_CORRELATION_DATA, order, "correlation");
    add_text(&properties, MQTTPROPERTY_CODE_CONTENT_TYPE, order, "type");
    add_user_property(&properties, order);
    return properties;
}

static inline void print_text(char *to, size_t room, const char *name, MQTTLenString text)
{
    const size_t used = strlen(to);
    snprintf(to + used, room - used, " %s=%.*s", name, text.len, text.data);
}

// " response=r/1 user=name:value", as far as there are any.
static inline void print_properties(char *to, size_t room, const MQTTProperties *properties)
{
    to[0] = 0;
    for (int i = 0; i < properties->count; ++i) {
        const MQTTProperty *one  = &properties->array[i];
        const size_t        used = strlen(to);
        if (one->identifier == MQTTPROPERTY_CODE_RESPONSE_TOPIC)
            print_text(to, room, "response", one->value.data);
        else if (one->identifier == MQTTPROPERTY_CODE_CORRELATION_DATA)
            print_text(to, room, "correlation", one->value.data);
        else if (one->identifier == MQTTPROPERTY_CODE_CONTENT_TYPE)
            print_text(to, room, "type", one->value.data);
        else if (one->identifier == MQTTPROPERTY_CODE_SUBSCRIPTION_IDENTIFIER)
            snprintf(to + used, room - used, " identifier=%u", one->value.integer4);
        else if (one->identifier == MQTTPROPERTY_CODE_USER_PROPERTY)
            snprintf(to + used, room - used, " user=%.*s:%.*s", one->value.data.len, one->value.data.data,
                     one->value.value.len, one->value.value.data);
    }
}

#endif
