// Every absolute path of the system is taken under $ZELO_ROOT (default "/"),
// so a development host or a test can run the whole system in a directory.
#pragma once

#include <cstddef>

namespace zelo {

inline constexpr const char *kRootEnv = "ZELO_ROOT";

// Writes $ZELO_ROOT + absPath into out (NUL-terminated). Returns false, with
// out set to "", when the result does not fit.
bool resolvePath(const char *absPath, char *out, std::size_t cap);

// The length of the root's part of `path` (a path resolvePath made), which
// is trusted as it is; SIZE_MAX when `path` is not under the root.
std::size_t rootLength(const char *path);

// The path in environment variable `env` when it is set and not empty,
// else absDefault under the root.
bool envOrRootPath(const char *env, const char *absDefault, char *out, std::size_t cap);

// Creates the directories above `path` (mode 0755) that are missing; with
// `self` also `path` itself. False when one cannot be made.
bool makeDirectories(const char *path, bool self);

} // namespace zelo
