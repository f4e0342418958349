// Every absolute path of the system is taken under $ZELO_ROOT (default "/"),
// so a development host or a test can run the whole system in a directory.
#pragma once

#include <cstddef>

namespace zelo {

inline constexpr const char *kRootEnv = "ZELO_ROOT";

// Writes $ZELO_ROOT + absPath into out (NUL-terminated). Returns false, with
// out set to "", when the result does not fit.
bool resolvePath(const char *absPath, char *out, std::size_t cap);

} // namespace zelo
