// The stock C client that waits (MQTTClient), as a test's client.
#include "properties.h"

#include <MQTTClient.h>

static MQTTClient client;
static int        level = 4;

enum { kLimit_ms = 10000 };

static int arrived(void *context, char *topic, int topic_length, MQTTClient_message *message)
{
    (void)context;
    (void)topic_length;
    char properties[1024];
    print_properties(properties, sizeof properties, &message->properties);
    char *payload = as_hex(message->payload, message->payloadlen);
    say("message topic=%s qos=%d retain=%d dup=%d payload=%s%s\n", topic, message->qos, message->retained, message->dup,
        payload, properties);
    free(payload);
    MQTTClient_freeMessage(&message);
    MQTTClient_free(topic);
    return 1;
}

static void lost(void *context, char *cause)
{
    (void)context;
    (void)cause;
    say("closed\n");
}

static void disconnected(void *context, MQTTProperties *properties, enum MQTTReasonCodes reason)
{
    (void)context;
    (void)properties;
    say("closed reason=%d\n", reason);
}

static void answer(int result)
{
    if (result == MQTTCLIENT_SUCCESS)
        say("ok\n");
    else
        say("error %d %s\n", result, MQTTClient_strerror(result) ? MQTTClient_strerror(result) : "");
}

static int make_client(const Order *order)
{
    if (client)
        MQTTClient_destroy(&client);
    char                     address[64];
    MQTTClient_createOptions options = MQTTClient_createOptions_initializer;
    options.MQTTVersion              = level;
    snprintf(address, sizeof address, "tcp://127.0.0.1:%d", number_field(order, "port"));
    int result = MQTTClient_createWithOptions(&client, address, text_field(order, "id"), MQTTCLIENT_PERSISTENCE_NONE,
                                              NULL, &options);
    if (result == MQTTCLIENT_SUCCESS)
        result = MQTTClient_setCallbacks(client, NULL, lost, arrived, NULL);
    if (result == MQTTCLIENT_SUCCESS && level == 5)
        result = MQTTClient_setDisconnected(client, NULL, disconnected);
    return result;
}

static void connect_to_broker(const Order *order)
{
    level            = number_field(order, "level");
    const int result = make_client(order);
    if (result != MQTTCLIENT_SUCCESS) {
        answer(result);
        return;
    }
    MQTTClient_connectOptions three   = MQTTClient_connectOptions_initializer;
    MQTTClient_connectOptions five    = MQTTClient_connectOptions_initializer5;
    MQTTClient_connectOptions options = level == 5 ? five : three;
    options.MQTTVersion               = level;
    options.keepAliveInterval         = number_field(order, "keepalive");
    options.connectTimeout            = 3;
    options.reliable                  = 0;
    if (level == 5)
        options.cleanstart = number_field(order, "clean");
    else
        options.cleansession = number_field(order, "clean");
    options.username = text_field(order, "username");
    options.password = text_field(order, "password");

    MQTTClient_willOptions will         = MQTTClient_willOptions_initializer;
    Bytes                  will_payload = bytes_field(order, "will_payload");
    if (text_field(order, "will_topic")) {
        will.topicName    = text_field(order, "will_topic");
        will.payload.data = will_payload.bytes;
        will.payload.len  = will_payload.length;
        will.qos          = number_field(order, "will_qos");
        will.retained     = number_field(order, "will_retain");
        options.will      = &will;
    }
    if (level == 5) {
        MQTTProperties properties = connect_properties(order), of_will = MQTTProperties_initializer;
        add_number(&of_will, MQTTPROPERTY_CODE_WILL_DELAY_INTERVAL, order, "will_delay");
        MQTTResponse response = MQTTClient_connect5(client, &options, &properties, options.will ? &of_will : NULL);
        if (response.reasonCode == MQTTREASONCODE_SUCCESS)
            say("ok\n"); // the library does not tell whether a session is present
        else
            say("error %d %s\n", response.reasonCode, MQTTReasonCode_toString(response.reasonCode));
        MQTTResponse_free(response);
    } else {
        const int code = MQTTClient_connect(client, &options);
        if (code == MQTTCLIENT_SUCCESS)
            say("ok present=%d\n", options.returned.sessionPresent);
        else
            answer(code);
    }
    free(will_payload.bytes);
}

static void print_codes(const int *codes, int count)
{
    char text[256] = "";
    for (int i = 0; i < count; ++i)
        snprintf(text + strlen(text), sizeof text - strlen(text), "%s%d", i ? "," : "", codes[i]);
    say("ok codes=%s\n", text);
}

static void subscribe(const Order *order)
{
    char     *filters[kMostFilters];
    int       codes[kMostFilters];
    const int count = list_field(order, "filters", filters);
    for (int i = 0; i < count; ++i)
        codes[i] = number_field(order, "qos");
    if (level == 4) {
        const int result = MQTTClient_subscribeMany(client, count, filters, codes); // which also gives the codes
        if (result == MQTTCLIENT_SUCCESS)
            print_codes(codes, count);
        else
            answer(result);
        return;
    }
    MQTTSubscribe_options each[kMostFilters];
    for (int i = 0; i < count; ++i)
        each[i] = subscribe_options(order);
    MQTTProperties properties = subscribe_properties(order);
    MQTTResponse   response   = MQTTClient_subscribeMany5(client, count, filters, codes, each, &properties);
    if (response.reasonCodeCount > 1)
        for (int i = 0; i < count && i < response.reasonCodeCount; ++i)
            codes[i] = response.reasonCodes[i];
    else
        codes[0] = response.reasonCode;
    if (codes[0] < 0)
        answer(codes[0]);
    else
        print_codes(codes, response.reasonCodeCount > 1 ? response.reasonCodeCount : 1);
    MQTTResponse_free(response);
}

static void unsubscribe(const Order *order)
{
    char     *filters[kMostFilters];
    const int count = list_field(order, "filters", filters);
    if (level == 4) {
        answer(MQTTClient_unsubscribeMany(client, count, filters));
        return;
    }
    MQTTResponse response = MQTTClient_unsubscribeMany5(client, count, filters, NULL);
    answer(response.reasonCode > 0 && response.reasonCode < 0x80 ? 0 : response.reasonCode);
    MQTTResponse_free(response);
}

static int send_message(MQTTClient_message *message, const char *topic, MQTTClient_deliveryToken *token)
{
    if (level == 4)
        return MQTTClient_publishMessage(client, topic, message, token);
    MQTTResponse response = MQTTClient_publishMessage5(client, topic, message, token);
    const int    code     = response.reasonCode;
    MQTTResponse_free(response);
    return code;
}

static void publish(const Order *order)
{
    MQTTClient_message message = MQTTClient_message_initializer;
    Bytes              payload = bytes_field(order, "payload");
    message.payload            = payload.bytes;
    message.payloadlen         = payload.length;
    message.qos                = number_field(order, "qos");
    message.retained           = number_field(order, "retain");
    if (level == 5)
        message.properties = publish_properties(order);
    MQTTClient_deliveryToken token  = 0;
    int                      result = send_message(&message, text_field(order, "topic"), &token);
    if (result == MQTTCLIENT_SUCCESS && message.qos > 0)
        result = MQTTClient_waitForCompletion(client, token, kLimit_ms);
    answer(result);
    MQTTProperties_free(&message.properties);
    free(payload.bytes);
}

// Messages "0", "1", ...: all on the way at once.
static void burst(const Order *order)
{
    const int                 count  = number_field(order, "count");
    MQTTClient_deliveryToken *tokens = calloc((size_t)count, sizeof *tokens);
    int                       result = MQTTCLIENT_SUCCESS;
    for (int i = 0; i < count && result == MQTTCLIENT_SUCCESS; ++i) {
        char               text[16];
        MQTTClient_message message = MQTTClient_message_initializer;
        message.payload            = text;
        message.payloadlen         = snprintf(text, sizeof text, "%d", i);
        message.qos                = number_field(order, "qos");
        result                     = send_message(&message, text_field(order, "topic"), &tokens[i]);
    }
    for (int i = 0; i < count && result == MQTTCLIENT_SUCCESS; ++i)
        result = MQTTClient_waitForCompletion(client, tokens[i], kLimit_ms);
    free(tokens);
    answer(result);
}

int main(void)
{
    Order order = {0};
    say("ready version=%s\n", MQTTClient_getVersionInfo()[1].value);
    while (read_order(&order)) {
        if (text_field(&order, "aliases"))
            say("none the library assigns no topic aliases\n");
        else if (!strcmp(order.word, "connect"))
            connect_to_broker(&order);
        else if (!strcmp(order.word, "subscribe"))
            subscribe(&order);
        else if (!strcmp(order.word, "unsubscribe"))
            unsubscribe(&order);
        else if (!strcmp(order.word, "publish"))
            publish(&order);
        else if (!strcmp(order.word, "burst"))
            burst(&order);
        else if (!strcmp(order.word, "disconnect"))
            answer(level == 5 ? MQTTClient_disconnect5(client, 1000, MQTTREASONCODE_SUCCESS, NULL)
                              : MQTTClient_disconnect(client, 1000));
        else
            say("error no order %s\n", order.word);
    }
    if (client)
        MQTTClient_destroy(&client);
    free(order.text);
    return 0;
}
