#include "paths.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace zelo {

bool resolvePath(const char *absPath, char *out, std::size_t cap) {
    if (out == nullptr || cap == 0)
        return false;
    out[0] = '\0';
    if (absPath == nullptr)
        return false;
    const char *root = std::getenv(kRootEnv);
    if (root == nullptr || root[0] == '\0')
        root = "/";
    std::size_t rootLen = std::strlen(root);
    // Avoid a doubled separator: "/" + "/tmp" is "/tmp", "/r/" + "/tmp" is "/r/tmp".
    while (rootLen > 0 && root[rootLen - 1] == '/')
        --rootLen;
    const int n = std::snprintf(out, cap, "%.*s%s", static_cast<int>(rootLen), root, absPath);
    if (n < 0 || static_cast<std::size_t>(n) >= cap) {
        out[0] = '\0';
        return false;
    }
    return true;
}

bool envOrRootPath(const char *env, const char *absDefault, char *out, std::size_t cap) {
    const char *value = std::getenv(env);
    if (value == nullptr || value[0] == '\0')
        return resolvePath(absDefault, out, cap);
    const int n = std::snprintf(out, cap, "%s", value);
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

bool makeDirectories(const char *path, bool self) {
    char copy[PATH_MAX];
    const int n = std::snprintf(copy, sizeof copy, "%s", path);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof copy)
        return false;
    for (char *p = copy + 1; *p != '\0'; ++p) {
        if (*p != '/')
            continue;
        *p = '\0';
        if (::mkdir(copy, 0755) != 0 && errno != EEXIST)
            return false;
        *p = '/';
    }
    return !self || ::mkdir(copy, 0755) == 0 || errno == EEXIST;
}

} // namespace zelo
