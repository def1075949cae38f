#include "process_state.h"
#include "files.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace tarn::test {
namespace {

int entries(const char *directory)
{
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(directory))
        ++count;
    return count;
}

std::string proc(pid_t pid, const char *name)
{
    return file_text("/proc/" + std::to_string(pid) + "/" + name);
}

} // namespace

int thread_count()
{
    return entries("/proc/self/task");
}
int descriptor_count()
{
    return entries("/proc/self/fd");
}

double cpu_seconds(pid_t pid)
{
    const std::string  stat = proc(pid, "stat");
    unsigned long long user = 0, system = 0;
    const size_t       name_end = stat.rfind(')'); // the name may hold blanks
    if (name_end == std::string::npos ||
        sscanf(stat.c_str() + name_end + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user, &system) !=
            2)
        return 0;
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

size_t resident_bytes(pid_t pid)
{
    size_t pages = 0;
    sscanf(proc(pid, "statm").c_str(), "%*u %zu", &pages);
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

bool raise_descriptor_limit(size_t wanted)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < wanted)
        limit.rlim_max = wanted; // root may
    limit.rlim_cur = wanted;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

} // namespace tarn::test
