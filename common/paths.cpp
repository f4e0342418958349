#include "paths.h"

#include "report.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace zelo {

namespace {

// The root as last read from the environment, and without its trailing
// separators: taken apart when it changes, not for every path of every file
// operation.
struct Root {
    char env[PATH_MAX] = "";
    char text[PATH_MAX] = "";
    std::size_t length = 0;
    bool known = false;
};
thread_local Root gRoot;

const Root *currentRoot() {
    const char *env = std::getenv(kRootEnv);
    if (env == nullptr || env[0] == '\0')
        env = "/";
    if (gRoot.known && std::strcmp(gRoot.env, env) == 0)
        return &gRoot;
    std::size_t length = std::strlen(env);
    if (length >= sizeof gRoot.env)
        return nullptr;
    std::memcpy(gRoot.env, env, length + 1);
    // Avoid a doubled separator: "/" + "/tmp" is "/tmp", "/r/" + "/tmp" is "/r/tmp".
    while (length > 0 && env[length - 1] == '/')
        --length;
    std::memcpy(gRoot.text, env, length);
    gRoot.text[length] = '\0';
    gRoot.length = length;
    gRoot.known = true;
    return &gRoot;
}

} // namespace

bool resolvePath(const char *absPath, char *out, std::size_t cap) {
    if (out == nullptr || cap == 0)
        return false;
    out[0] = '\0';
    if (absPath == nullptr)
        return false;
    const Root *root = currentRoot();
    const std::size_t pathLength = std::strlen(absPath);
    if (root == nullptr || root->length + pathLength >= cap)
        return false;
    std::memcpy(out, root->text, root->length);
    std::memcpy(out + root->length, absPath, pathLength + 1);
    return true;
}

std::size_t rootLength(const char *path) {
    const Root *root = currentRoot();
    if (root == nullptr || path == nullptr || std::strncmp(path, root->text, root->length) != 0 ||
        (path[root->length] != '/' && path[root->length] != '\0'))
        return SIZE_MAX;
    return root->length;
}

bool envOrRootPath(const char *env, const char *absDefault, char *out, std::size_t cap) {
    const char *value = std::getenv(env);
    if (value == nullptr || value[0] == '\0')
        return resolvePath(absDefault, out, cap);
    const int n = zelo::formatText(out, cap, "%s", value);
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

bool makeDirectories(const char *path, bool self) {
    char copy[PATH_MAX];
    const int n = zelo::formatText(copy, sizeof copy, "%s", path);
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
