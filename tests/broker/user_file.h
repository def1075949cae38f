// user_file.h - a file of users for tests, whose passwords are all "right".
#ifndef TARN_TESTS_BROKER_USER_FILE_H
#define TARN_TESTS_BROKER_USER_FILE_H

#include "broker/access/users.h"

#include <initializer_list>
#include <string>

namespace tarn::test {

inline std::string user_lines(std::initializer_list<const char *> names)
{
    static const std::string hash = broker::hash_password("right"); // slow, so made once
    std::string              text = "# everybody's password is the same\n";
    for (const char *name : names)
        text += std::string(name) + ":" + hash + "\n";
    return text;
}

} // namespace tarn::test

#endif
