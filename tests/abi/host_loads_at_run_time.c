/* A host that loads the library when it needs it, and lets go of it while a thread of it still runs. */
#include <tarn_sdk_mqtt_broker.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static void *g_library;

/* A function of the library as a pointer of its own type. */
#define THE(name) ((__typeof__(&name))dlsym(g_library, #name))

static int start_and_end(void)
{
    broker_t *broker = THE(tarn_sdk_mqtt_broker_create)();
    if (!broker || THE(tarn_sdk_mqtt_broker_init)(broker) != TARN_OK ||
        THE(tarn_sdk_mqtt_broker_start)(broker, 1883, 100) != TARN_OK)
        return -1;
    THE(tarn_sdk_mqtt_broker_stop)(broker);
    THE(tarn_sdk_mqtt_broker_deinit)(broker);
    return 0;
}

int main(int argc, char **argv)
{
    g_library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (!g_library) {
        fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "Usage: host_loads_at_run_time LIBRARY");
        return 1;
    }
    if (start_and_end() != 0) {
        fprintf(stderr, "the broker did not start\n");
        return 1;
    }

    /* The accept thread outlives every deinit, so the code it runs must outlive dlclose. */
    const char *(*version)(void) = THE(tarn_sdk_mqtt_broker_version);
    dlclose(g_library);
    if (!dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD)) {
        fprintf(stderr, "dlclose unloaded the library\n");
        return 1;
    }
    usleep(20000);
    return strcmp(version(), "V2.0.0") == 0 ? 0 : 1;
}
