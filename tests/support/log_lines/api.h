// api.h - lines of src/api that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_API_H
#define TARN_TESTS_LOG_LINES_API_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine keepalive_timeout_set(int seconds)
{
    return info(printed("[SDK] set keepalive timeout = %d sec", seconds));
}

} // namespace tarn::test::logged

#endif
