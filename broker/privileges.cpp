#include "privileges.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarn::broker {
namespace {

std::string cannot_become(const std::string &name, const char *why)
{
    return "cannot become user '" + name + "': " + why;
}

bool is_user(const passwd &user)
{
    uid_t real_uid, effective_uid, saved_uid;
    gid_t real_gid, effective_gid, saved_gid;
    getresuid(&real_uid, &effective_uid, &saved_uid);
    getresgid(&real_gid, &effective_gid, &saved_gid);
    return real_uid == user.pw_uid && effective_uid == user.pw_uid && saved_uid == user.pw_uid &&
           real_gid == user.pw_gid && effective_gid == user.pw_gid && saved_gid == user.pw_gid;
}

// The groups first and the user last: each step needs what the last one gives up.
bool change_to(const passwd &user)
{
    return initgroups(user.pw_name, user.pw_gid) == 0 && setresgid(user.pw_gid, user.pw_gid, user.pw_gid) == 0 &&
           setresuid(user.pw_uid, user.pw_uid, user.pw_uid) == 0;
}

// Changing from root gives up all but the inheritable ones; another user may have been given some by its starter.
bool drop_capabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct   none[_LINUX_CAPABILITY_U32S_3] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

bool has_capabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct   held[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, held) != 0)
        return true;
    for (const __user_cap_data_struct &part : held)
        if (part.effective != 0 || part.permitted != 0 || part.inheritable != 0)
            return true;
    return false;
}

} // namespace

std::string become_user(const std::string &name)
{
    errno                    = 0;
    const passwd *const user = getpwnam(name.c_str());
    if (!user)
        return cannot_become(name, errno ? strerror(errno) : "there is no such user");
    if (user->pw_uid == 0)
        return cannot_become(name, "it may do everything, which is what --user is to end");
    if (!is_user(*user) && !change_to(*user))
        return cannot_become(name, strerror(errno));
    if (!drop_capabilities())
        return cannot_become(name, strerror(errno));
    if (!is_user(*user) || has_capabilities() || setresuid(0, 0, 0) == 0)
        return cannot_become(name, "privileges are left");
    return {};
}

} // namespace tarn::broker
