/*
 * burst.c - a client on the stock C library that publishes retained messages at QoS 1 as fast as it can, says
 * DISCONNECT without waiting for the acknowledgements, and ends. Its will is on the topic "will".
 *
 *   paho_burst COUNT     topics k/0 ... k/COUNT-1
 */
#include <MQTTClient.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kPayloadBytes = 100 };

static void stop_unless_ok(int result, const char *what)
{
    if (result == MQTTCLIENT_SUCCESS)
        return;
    fprintf(stderr, "%s: %d\n", what, result);
    exit(1);
}

int main(int argc, char **argv)
{
    const int                 count   = argc > 1 ? atoi(argv[1]) : 0;
    MQTTClient                client  = NULL;
    MQTTClient_connectOptions options = MQTTClient_connectOptions_initializer;
    MQTTClient_willOptions    will    = MQTTClient_willOptions_initializer;
    will.topicName                    = "will";
    will.message                      = "gone";
    options.will                      = &will;
    options.MQTTVersion               = MQTTVERSION_3_1_1;
    options.reliable                  = 0; /* more than one message in flight */
    options.maxInflightMessages       = count + 1;
    stop_unless_ok(MQTTClient_create(&client, "tcp://127.0.0.1:1883", "paho", MQTTCLIENT_PERSISTENCE_NONE, NULL),
                   "create");
    stop_unless_ok(MQTTClient_connect(client, &options), "connect");

    char payload[kPayloadBytes];
    memset(payload, 'x', sizeof payload);
    for (int i = 0; i < count; ++i) {
        char topic[16];
        snprintf(topic, sizeof topic, "k/%d", i);
        stop_unless_ok(MQTTClient_publish(client, topic, sizeof payload, payload, 1, 1, NULL), topic);
    }
    stop_unless_ok(MQTTClient_disconnect(client, 0), "disconnect");
    return 0;
}
