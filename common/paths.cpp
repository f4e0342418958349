#include "paths.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

} // namespace zelo
