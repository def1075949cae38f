// passwd.h - tarn-broker passwd: writes the file of users.
#ifndef TARN_BROKER_PASSWD_H
#define TARN_BROKER_PASSWD_H

#include <string>
#include <string_view>

namespace tarn::broker {

// The text of a file of users with this user's line replaced, added at the end, or, without a hash, taken out.
// All other lines stay as they are.
std::string with_user(std::string_view text, std::string_view name, std::string_view hash);

// argv[0] is "passwd". Returns an exit status as serve() does.
int passwd_command(int argc, char *const *argv);

extern const char *const kPasswdUsage;

} // namespace tarn::broker

#endif
