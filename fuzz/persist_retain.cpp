// persist_retain.cpp - any bytes as retain.dat: loaded, used as the store, saved and loaded once more.
//
// input:  the file, in which a record of 2336 bytes is shortened to what the fuzzer changes:
//         count:u32  { topic:257  payload_len:u32  qos:u32  store_time:i64  expiry_interval:u32 }...  rest
#include "memory_files.h"
#include "persist/persist.h"
#include "promise.h"
#include "sub/retain.h"
#include "sub/sub.h"

#include <string>

using namespace tarn::fuzz;

namespace {

constexpr size_t kTail  = 4 + 4 + 8 + 4;
constexpr size_t kShort = sizeof(retain_msg_t::topic) + kTail;

// The file that the input stands for.
std::string unfolded(const uint8_t *data, size_t size)
{
    const size_t head = size < 4 ? size : 4;
    std::string  file(reinterpret_cast<const char *>(data), head);
    data += head;
    size -= head;
    file.reserve(head + size / kShort * sizeof(retain_msg_t) + size % kShort);
    for (; size >= kShort; data += kShort, size -= kShort) {
        retain_msg_t         record;
        const uint8_t *const tail = data + sizeof record.topic;
        memset(static_cast<void *>(&record), 'p', sizeof record);
        memcpy(record.topic, data, sizeof record.topic);
        memcpy(&record.payload_len, tail, 4);
        memcpy(&record.qos, tail + 4, 4);
        memcpy(&record.store_time, tail + 8, 8);
        memcpy(&record.expiry_interval, tail + 16, 4);
        file.append(reinterpret_cast<const char *>(&record), sizeof record);
    }
    return file.append(reinterpret_cast<const char *>(data), size);
}

uint32_t expected_count(const std::string &file)
{
    uint32_t count = 0;
    if (file.size() < sizeof count)
        return 0;
    memcpy(&count, file.data(), sizeof count);
    return count <= RETAIN_CAPACITY && file.size() - sizeof count >= count * sizeof(retain_msg_t) ? count : 0;
}

void check_store(uint32_t count)
{
    PROMISE(g_sub_mgr.retain_count == static_cast<int32_t>(count));
    for (uint32_t i = 0; i < count; ++i) {
        PROMISE(terminated(g_sub_mgr.retains[i].topic));
        PROMISE(g_sub_mgr.retains[i].payload_len <= sizeof g_sub_mgr.retains[i].payload);
    }
}

// Everything that walks the store.
void use_store()
{
    static retain_msg_t message;
    static char         list[4096];
    retain_msg_get("no such topic", &message);
    PROMISE(retain_fill_topic_list(list, sizeof list) >= 0 && terminated(list));
    if (g_sub_mgr.retain_count > 0) {
        const std::string topic = g_sub_mgr.retains[0].topic;
        PROMISE(retain_msg_get(topic.c_str(), &message) == 0);
    }
    retain_clean_expired();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    format_all_lines();
    enter_data_directory();
    return sub_init();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string file  = unfolded(data, size);
    const uint32_t    count = expected_count(file);
    write_file("retain.dat", reinterpret_cast<const uint8_t *>(file.data()), file.size());
    g_sub_mgr.retain_count = 0;
    PROMISE(persist_retain_load() == 0);
    check_store(count);

    PROMISE(persist_retain_save() == 0);
    PROMISE(size_of("retain.dat") == sizeof count + count * sizeof(retain_msg_t));
    g_sub_mgr.retain_count = 0;
    PROMISE(persist_retain_load() == 0);
    check_store(count);
    use_store();
    return 0;
}
