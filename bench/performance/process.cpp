#include "process.h"

#include <cstdio>
#include <ctime>
#include <string>

namespace tarn::performance {

double processor_s(pid_t process)
{
    clockid_t clock;
    timespec  time{};
    if (clock_getcpuclockid(process, &clock) == 0)
        clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double private_bytes(pid_t process)
{
    const std::string name = "/proc/" + std::to_string(process) + "/smaps_rollup";
    FILE *const       file = fopen(name.c_str(), "r");
    char              line[256];
    double            kilobytes = 0, part = 0;
    if (!file)
        return 0;
    while (fgets(line, sizeof line, file))
        if (sscanf(line, "Private_Clean: %lf", &part) == 1 || sscanf(line, "Private_Dirty: %lf", &part) == 1)
            kilobytes += part;
    fclose(file);
    return kilobytes * 1024;
}

} // namespace tarn::performance
