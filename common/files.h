// Files read and written safely whatever was planted at their paths: reads
// never block and take regular files only; writes go through a directory that
// nobody else can change, never follow a link and replace a file whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

namespace zelo {

enum class FileRead {
    Whole,      // the file fitted in the buffer; *length bytes were read
    Missing,    // nothing at the path
    TooLarge,   // a regular file longer than the buffer
    NotRegular, // a directory, FIFO, device or socket: never waited on
    Failed,     // it could not be opened or read
};

// Reads the regular file at `path` (already resolved) into `buffer`. The open
// does not block, so a FIFO at the path cannot hold the caller up.
FileRead readWholeFile(const char *path, uint8_t *buffer, std::size_t cap, std::size_t *length);

// The same open as a read-only stream; null (errno set) when the file is
// missing or not a regular file.
FILE *openRegularStream(const char *path);

// Opens the directory at `path`. Every directory below the root is opened in
// the one above it without following a link, so no link on the way leads
// elsewhere; the root itself is trusted as it is. With `makeMissing`, the
// missing directories are made (0755 before the umask).
int openDirectory(const char *path, bool makeMissing = false);

// Opens the directory at `path` (as openDirectory) when it is our own: no link, owned by the
// effective user or root, and others cannot write in it (with `sticky`, a
// sticky directory such as /tmp is taken too: there only exclusive creation
// and rename are used). -1 otherwise, errno EPERM for one that is not ours.
int openOwnDirectory(const char *path, bool sticky = false);

// Opens or creates (`mode`) the file at `path` for writing through its own
// directory, with `flags` adding the access mode, O_TRUNC, O_APPEND or
// O_EXCL: never through a link, never blocking, and only a regular file.
int openOwnFile(const char *path, int flags, mode_t mode = 0644);

// Removes the entry at `path` through its own directory (`flags` as unlinkat's).
int removeOwnFile(const char *path, int flags = 0);

// Renames the entry at `path` to `name` in the same directory, through it.
int renameOwnFile(const char *path, const char *name);

// Creates the directory with exactly `mode`, whatever the umask, in the one
// above it opened as openDirectory does (made with `makeParents`); true when
// it was made (false with errno EEXIST when it was there already).
bool makeDirectory(const char *path, mode_t mode, bool makeParents = false);

// A file written under a temporary name created exclusively beside its final
// path and renamed over it only once it is whole (and, with `sync`, on stable
// storage), so a full disk or a crash during the write leaves the previous
// file intact and readers never see a half-written one. Whatever was planted
// at either name is never written through. A file not committed is removed
// when this goes out of scope.
class ReplacedFile {
  public:
    struct Options {
        bool sticky = false;     // the directory may be a shared sticky one
        bool unbuffered = false; // a failing write shows at the call that failed
        int (*sync)(int fd) = nullptr;
        mode_t mode = 0644;
        bool rooted = true; // the path is taken under $ZELO_ROOT
    };
    // stream() is null when the temporary file could not be created (errno
    // tells why).
    ReplacedFile(const char *path, const Options &options);
    ~ReplacedFile();
    ReplacedFile(const ReplacedFile &) = delete;
    ReplacedFile &operator=(const ReplacedFile &) = delete;

    // Removes what interrupted replacements of `path` left behind: files of
    // its temporary names, regular and the caller's own, nothing else.
    static void removeLeftovers(const char *path, const Options &options);

    FILE *stream() const { return file_; }
    // Flushes, syncs and closes the temporary file and renames it over the
    // final one; false (errno set) leaves the previous file in place.
    bool commit();

  private:
    void abandon();

    Options options_;
    int dir_ = -1;
    const char *name_ = nullptr; // in path_
    char path_[4096];
    char temp_[256];
    FILE *file_ = nullptr;
};

} // namespace zelo
