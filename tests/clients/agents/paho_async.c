// The stock C client that calls back (MQTTAsync), as a test's client. Each order waits for its callback.
#include "properties.h"

#include <MQTTAsync.h>
#include <pthread.h>
#include <time.h>

static MQTTAsync client;
static int       level = 4;

enum { kLimit_ms = 10000, kNoAnswer = -1000 };

// How many calls are open, and what the last of them gave; a code below 0 or from 0x80 on is a failure.
static struct {
    pthread_mutex_t lock;
    pthread_cond_t  changed;
    int             open;
    int             failure;
    int             present;
    int             codes[kMostFilters];
    int             code_count;
} calls = {.lock = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER};

static void end_call(int failure)
{
    pthread_mutex_lock(&calls.lock);
    if (failure)
        calls.failure = failure;
    --calls.open;
    pthread_cond_signal(&calls.changed);
    pthread_mutex_unlock(&calls.lock);
}

static void begin_calls(int count)
{
    pthread_mutex_lock(&calls.lock);
    calls.open       = count;
    calls.failure    = 0;
    calls.code_count = 0;
    pthread_mutex_unlock(&calls.lock);
}

// 0 when all that began have ended well.
static int wait_for_calls(int limit_ms)
{
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += limit_ms / 1000;
    int result = 0;
    pthread_mutex_lock(&calls.lock);
    while (calls.open > 0 && !calls.failure && !result)
        result = pthread_cond_timedwait(&calls.changed, &calls.lock, &until) ? kNoAnswer : 0;
    if (calls.failure)
        result = calls.failure;
    pthread_mutex_unlock(&calls.lock);
    return result;
}

static void succeeded(void *context, MQTTAsync_successData *data)
{
    (void)context;
    (void)data;
    end_call(0);
}

static void succeeded5(void *context, MQTTAsync_successData5 *data)
{
    (void)context;
    end_call(data->reasonCode >= 0x80 ? (int)data->reasonCode : 0);
}

static void failed(void *context, MQTTAsync_failureData *data)
{
    (void)context;
    end_call(data && data->code ? data->code : -1);
}

static void failed5(void *context, MQTTAsync_failureData5 *data)
{
    (void)context;
    end_call(data->reasonCode ? (int)data->reasonCode : data->code ? data->code : -1);
}

static void connected(void *context, MQTTAsync_successData *data)
{
    (void)context;
    calls.present = data->alt.connect.sessionPresent;
    end_call(0);
}

static void connected5(void *context, MQTTAsync_successData5 *data)
{
    (void)context;
    calls.present = data->alt.connect.sessionPresent;
    end_call(0);
}

static int asked_filters; // of the SUBSCRIBE that is open

static void subscribed(void *context, MQTTAsync_successData *data)
{
    (void)context;
    const int *list = asked_filters > 1 ? data->alt.qosList : &data->alt.qos;
    for (int i = 0; i < asked_filters; ++i)
        calls.codes[i] = list[i];
    calls.code_count = asked_filters;
    end_call(0);
}

static void subscribed5(void *context, MQTTAsync_successData5 *data)
{
    (void)context;
    const int count = data->alt.sub.reasonCodeCount;
    calls.codes[0]  = (int)data->reasonCode;
    for (int i = 0; count > 1 && i < count && i < kMostFilters; ++i)
        calls.codes[i] = (int)data->alt.sub.reasonCodes[i];
    calls.code_count = count > 1 ? count : 1;
    end_call(0);
}

static MQTTAsync_responseOptions simple_response(void)
{
    MQTTAsync_responseOptions options = MQTTAsync_responseOptions_initializer;
    if (level == 5) {
        options.onSuccess5 = succeeded5;
        options.onFailure5 = failed5;
    } else {
        options.onSuccess = succeeded;
        options.onFailure = failed;
    }
    return options;
}

static int arrived(void *context, char *topic, int topic_length, MQTTAsync_message *message)
{
    (void)context;
    (void)topic_length;
    char properties[1024];
    print_properties(properties, sizeof properties, &message->properties);
    char *payload = as_hex(message->payload, message->payloadlen);
    say("message topic=%s qos=%d retain=%d dup=%d payload=%s%s\n", topic, message->qos, message->retained, message->dup,
        payload, properties);
    free(payload);
    MQTTAsync_freeMessage(&message);
    MQTTAsync_free(topic);
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
    if (result == MQTTASYNC_SUCCESS)
        say("ok\n");
    else if (result == kNoAnswer)
        say("error no answer\n");
    else
        say("error %d %s\n", result, MQTTAsync_strerror(result) ? MQTTAsync_strerror(result) : "");
}

// What a call gave at once, then what its callback says.
static int finish(int result, int limit_ms)
{
    return result == MQTTASYNC_SUCCESS ? wait_for_calls(limit_ms) : result;
}

static int make_client(const Order *order)
{
    if (client)
        MQTTAsync_destroy(&client);
    char                    address[64];
    MQTTAsync_createOptions options = MQTTAsync_createOptions_initializer;
    options.MQTTVersion             = level;
    options.maxBufferedMessages     = 1000;
    snprintf(address, sizeof address, "tcp://127.0.0.1:%d", number_field(order, "port"));
    int result = MQTTAsync_createWithOptions(&client, address, text_field(order, "id"), MQTTCLIENT_PERSISTENCE_NONE,
                                             NULL, &options);
    if (result == MQTTASYNC_SUCCESS)
        result = MQTTAsync_setCallbacks(client, NULL, lost, arrived, NULL);
    if (result == MQTTASYNC_SUCCESS && level == 5)
        result = MQTTAsync_setDisconnected(client, NULL, disconnected);
    return result;
}

static void connect_to_broker(const Order *order)
{
    level            = number_field(order, "level");
    const int result = make_client(order);
    if (result != MQTTASYNC_SUCCESS) {
        answer(result);
        return;
    }
    MQTTAsync_connectOptions three      = MQTTAsync_connectOptions_initializer;
    MQTTAsync_connectOptions five       = MQTTAsync_connectOptions_initializer5;
    MQTTAsync_connectOptions options    = level == 5 ? five : three;
    MQTTProperties           properties = MQTTProperties_initializer, of_will = MQTTProperties_initializer;
    options.MQTTVersion       = level;
    options.keepAliveInterval = number_field(order, "keepalive");
    options.connectTimeout    = 3;
    options.maxInflight       = 100;
    options.username          = text_field(order, "username");
    options.password          = text_field(order, "password");
    if (level == 5) {
        options.cleanstart = number_field(order, "clean");
        properties         = connect_properties(order);
        add_number(&of_will, MQTTPROPERTY_CODE_WILL_DELAY_INTERVAL, order, "will_delay");
        options.connectProperties = &properties;
        options.willProperties    = &of_will;
        options.onSuccess5        = connected5;
        options.onFailure5        = failed5;
    } else {
        options.cleansession = number_field(order, "clean");
        options.onSuccess    = connected;
        options.onFailure    = failed;
    }
    MQTTAsync_willOptions will         = MQTTAsync_willOptions_initializer;
    Bytes                 will_payload = bytes_field(order, "will_payload");
    if (text_field(order, "will_topic")) {
        will.topicName    = text_field(order, "will_topic");
        will.payload.data = will_payload.bytes;
        will.payload.len  = will_payload.length;
        will.qos          = number_field(order, "will_qos");
        will.retained     = number_field(order, "will_retain");
        options.will      = &will;
    }
    begin_calls(1);
    const int code = finish(MQTTAsync_connect(client, &options), 4000);
    if (code == MQTTASYNC_SUCCESS)
        say("ok present=%d\n", calls.present);
    else
        answer(code);
    free(will_payload.bytes);
}

static void subscribe(const Order *order)
{
    char                 *filters[kMostFilters];
    int                   qos[kMostFilters];
    MQTTSubscribe_options each[kMostFilters];
    const int             count = list_field(order, "filters", filters);
    for (int i = 0; i < count; ++i) {
        qos[i]  = number_field(order, "qos");
        each[i] = subscribe_options(order);
    }
    MQTTAsync_responseOptions options = simple_response();
    if (level == 5) {
        options.onSuccess5            = subscribed5;
        options.properties            = subscribe_properties(order);
        options.subscribeOptions      = each[0];
        options.subscribeOptionsList  = each;
        options.subscribeOptionsCount = count;
    } else {
        options.onSuccess = subscribed;
    }
    asked_filters = count;
    begin_calls(1);
    const int code = finish(MQTTAsync_subscribeMany(client, count, filters, qos, &options), kLimit_ms);
    if (code != MQTTASYNC_SUCCESS) {
        answer(code);
        return;
    }
    char text[256] = "";
    for (int i = 0; i < calls.code_count; ++i)
        snprintf(text + strlen(text), sizeof text - strlen(text), "%s%d", i ? "," : "", calls.codes[i]);
    say("ok codes=%s\n", text);
}

static void unsubscribe(const Order *order)
{
    char                     *filters[kMostFilters];
    const int                 count   = list_field(order, "filters", filters);
    MQTTAsync_responseOptions options = simple_response();
    begin_calls(1);
    answer(finish(MQTTAsync_unsubscribeMany(client, count, filters, &options), kLimit_ms));
}

static void publish(const Order *order)
{
    MQTTAsync_message message = MQTTAsync_message_initializer;
    Bytes             payload = bytes_field(order, "payload");
    message.payload           = payload.bytes;
    message.payloadlen        = payload.length;
    message.qos               = number_field(order, "qos");
    message.retained          = number_field(order, "retain");
    if (level == 5)
        message.properties = publish_properties(order);
    MQTTAsync_responseOptions options = simple_response();
    begin_calls(1);
    answer(finish(MQTTAsync_sendMessage(client, text_field(order, "topic"), &message, &options), kLimit_ms));
    MQTTProperties_free(&message.properties);
    free(payload.bytes);
}

// Messages "0", "1", ...: all on the way at once.
static void burst(const Order *order)
{
    const int count  = number_field(order, "count");
    int       result = MQTTASYNC_SUCCESS;
    begin_calls(count);
    for (int i = 0; i < count && result == MQTTASYNC_SUCCESS; ++i) {
        char                      text[16];
        MQTTAsync_responseOptions options = simple_response();
        MQTTAsync_message         message = MQTTAsync_message_initializer;
        message.payload                   = text;
        message.payloadlen                = snprintf(text, sizeof text, "%d", i);
        message.qos                       = number_field(order, "qos");
        result = MQTTAsync_sendMessage(client, text_field(order, "topic"), &message, &options);
    }
    answer(finish(result, kLimit_ms));
}

static void disconnect(void)
{
    MQTTAsync_disconnectOptions three   = MQTTAsync_disconnectOptions_initializer;
    MQTTAsync_disconnectOptions five    = MQTTAsync_disconnectOptions_initializer5;
    MQTTAsync_disconnectOptions options = level == 5 ? five : three;
    options.timeout                     = 1000;
    if (level == 5) {
        options.onSuccess5 = succeeded5;
        options.onFailure5 = failed5;
    } else {
        options.onSuccess = succeeded;
        options.onFailure = failed;
    }
    begin_calls(1);
    answer(finish(MQTTAsync_disconnect(client, &options), 3000));
}

int main(void)
{
    Order order = {0};
    say("ready version=%s\n", MQTTAsync_getVersionInfo()[1].value);
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
            disconnect();
        else
            say("error no order %s\n", order.word);
    }
    if (client)
        MQTTAsync_destroy(&client);
    free(order.text);
    return 0;
}
