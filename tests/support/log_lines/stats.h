// stats.h - lines of src/stats that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_STATS_H
#define TARN_TESTS_LOG_LINES_STATS_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine report_period(unsigned long long in, unsigned long long out, unsigned long long timeouts,
                             unsigned long long wills, unsigned long long writes, unsigned long long reads)
{
    return warn(printed("[周期60s] 收包:%llu | 发包:%llu | 超时:%llu | 遗嘱:%llu | 持久写:%llu | 持久读:%llu", in, out,
                        timeouts, wills, writes, reads));
}
inline LogLine report_period_drops(unsigned long long offline, unsigned long long full, unsigned long long oversized,
                                   unsigned long long invalid, unsigned long long failed)
{
    return warn(printed("[周期丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu", offline, full,
                        oversized, invalid, failed));
}
inline LogLine report_packets(unsigned long long in, unsigned long long out)
{
    return warn(printed("收包总数: %llu | 发包总数: %llu", in, out));
}
inline LogLine report_pool(unsigned used, unsigned size, long percent, long tenths)
{
    return warn(printed("内存池使用率: %u/%u (%ld.%ld%%)", used, size, percent, tenths));
}

} // namespace tarn::test::logged

#endif
