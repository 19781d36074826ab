// Works relative to descriptors, so paths may be longer than the system takes. A directory is read
// to its end and closed before the directories in it are entered: only the current one and the one
// above it are open. The way up leads through "..", which must be the directory that was come from.
#include "zq/internal/zqdirremoval.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqowned.h"
#include "zq/io/zqdir.h"

namespace {
class descriptor {
  public:
    explicit descriptor(int fd_ = -1) : fd(fd_) {}
    ~descriptor() { reset(-1); }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;

    int get() const { return fd; }
    void reset(int other)
    {
        if (fd >= 0)
            close(fd);
        fd = other;
    }
    int release()
    {
        int released = fd;
        fd = -1;
        return released;
    }

  private:
    int fd;
};

// The path of the current directory or of an entry in it.
struct path_text {
    char *text;
    size_t len;
    size_t capacity;
};

// A directory found and not yet entered; its name follows the item.
struct pending_name : zqlistlink {
    char *name() { return reinterpret_cast<char *>(this + 1); }
};

// A directory that was entered.
struct level : zqlistlink {
    zqlist pending;
    size_t name;    // where its name begins in the path
    size_t pathlen; // where its path ends
    dev_t device;
    ino_t inode;
    bool failed; // something in it is still there
};

struct removal {
    removal(const dir_family &family_, log_place place_) : family(family_), place(place_) {}
    ~removal();
    removal(const removal &) = delete;
    removal &operator=(const removal &) = delete;

    level *current() const { return static_cast<level *>(levels.tail); }

    const dir_family &family;
    log_place place;
    path_text path = {};
    zqlist levels = {};   // the tail is the current directory
    descriptor directory; // the current directory
    descriptor parent;    // the one above it, unless it must be opened again
};

using owned_iterator = std::unique_ptr<dir_iterator, void (*)(dir_iterator *)>;
} // namespace

static void dir_removal_level_destroy(level *level)
{
    while (auto *name = list_take_first<pending_name>(&level->pending))
        zq_free(name);
    zq_free(level);
}

using owned_level = owned<level, dir_removal_level_destroy>;

removal::~removal()
{
    while (auto *item = list_take_first<level>(&levels))
        dir_removal_level_destroy(item);
    zq_free(path.text);
}

// ---- the path ----

static bool dir_removal_path_reserve(path_text *path, size_t len)
{
    if (len < path->capacity)
        return true;
    size_t capacity = len * 2 + 1;
    char *text = static_cast<char *>(zq_malloc(capacity));
    if (!text)
        return false;
    if (path->text)
        memcpy(text, path->text, path->len + 1);
    zq_free(path->text);
    path->text = text;
    path->capacity = capacity;
    return true;
}

static bool dir_removal_path_set(path_text *path, const char *text)
{
    size_t len = strlen(text);
    if (!dir_removal_path_reserve(path, len))
        return false;
    memcpy(path->text, text, len + 1);
    path->len = len;
    return true;
}

static bool dir_removal_path_append(path_text *path, const char *name)
{
    size_t namelen = strlen(name);
    if (!dir_removal_path_reserve(path, path->len + 1 + namelen))
        return false;
    path->text[path->len] = zq_dir_separator();
    memcpy(path->text + path->len + 1, name, namelen + 1);
    path->len += 1 + namelen;
    return true;
}

static void dir_removal_path_cut(path_text *path, size_t len)
{
    path->text[len] = '\0';
    path->len = len;
}

// ---- reading a directory ----

static bool dir_removal_remember(level *level, const char *name)
{
    size_t size = strlen(name) + 1;
    auto *pending = static_cast<pending_name *>(zq_malloc(sizeof(pending_name) + size));
    if (!pending)
        return false;
    memcpy(pending->name(), name, size);
    list_append(&level->pending, pending);
    return true;
}

// Whether the entry is a directory itself; not when that cannot be told.
static bool dir_removal_is_directory(const removal &removal, const char *name)
{
    struct stat status;
    if (fstatat(removal.directory.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        return S_ISDIR(status.st_mode);
    ZQ_LOG_AT(removal.place, 7, "unable to stat '%s'", removal.path.text);
    ZQ_LOG_AT(removal.place, 6, "calling stat() has failed");
    return false;
}

// Deletes one entry, the path being its path, or remembers it if it is a directory.
static bool dir_removal_take_entry(removal *removal, const char *name)
{
    if (dir_removal_is_directory(*removal, name)) {
        if (dir_removal_remember(removal->current(), name))
            return true;
        ZQ_LOG_AT(removal->place, 7, "not enough memory for path");
        return false;
    }
    ZQ_LOG_AT(removal->place, 13, removal->family.trace_deletefile, removal->path.text);
    if (unlinkat(removal->directory.get(), name, 0) == 0)
        return true;
    ZQ_LOG_AT(removal->place, 7, "unable to delete file '%s'", removal->path.text);
    return false;
}

static bool dir_removal_take_name(removal *removal, const char *name)
{
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return true;
    const size_t pathlen = removal->path.len;
    if (!dir_removal_path_append(&removal->path, name)) {
        ZQ_LOG_AT(removal->place, 7, "not enough memory for path");
        return false;
    }
    bool taken = dir_removal_take_entry(removal, name);
    dir_removal_path_cut(&removal->path, pathlen);
    return taken;
}

// Takes all entries of an open directory; false when anything failed.
static bool dir_removal_take_entries(removal *removal, dir_iterator *dir)
{
    bool complete = true;
    int result;
    while ((result = removal->family.next(dir)) == 0) {
        const char *name = removal->family.fetch_name(dir);
        if (!name) {
            ZQ_LOG_AT(removal->place, 7, "not enough memory for fetching directory entry name");
            return false;
        }
        complete = dir_removal_take_name(removal, name) && complete;
    }
    if (result != -1) {
        ZQ_LOG_AT(removal->place, 7, "an error occurred reading the directory");
        return false;
    }
    return complete;
}

// ---- entering a directory ----

// A stream over a descriptor that stays the caller's; null on failure.
static DIR *dir_removal_stream(int fd)
{
    descriptor reading(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (reading.get() < 0)
        return nullptr;
    DIR *stream = fdopendir(reading.get());
    if (stream)
        reading.release();
    return stream;
}

// Opens the directory that the path ends with, whose name begins at `name`, and makes it the
// current one, with `dir` reading it. False after logging.
static bool dir_removal_descend(removal *removal, size_t name, int flags, dir_iterator *dir)
{
    const path_text &path = removal->path;
    owned_level entered(make_zeroed<level>());
    if (!entered) {
        ZQ_LOG_AT(removal->place, 7, "not enough memory for directory handle");
        return false;
    }
    int above = removal->current() ? removal->directory.get() : AT_FDCWD;
    descriptor opened(openat(above, path.text + name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    struct stat status;
    if (opened.get() >= 0 && fstat(opened.get(), &status) == 0)
        dir->stream = dir_removal_stream(opened.get());
    if (!dir->stream) {
        int error = errno;
        ZQ_LOG_AT(removal->place, 13, "unable to open directory '%s', error %d", path.text, error);
        return false;
    }
    entered->name = name;
    entered->pathlen = path.len;
    entered->device = status.st_dev;
    entered->inode = status.st_ino;
    removal->parent.reset(removal->directory.release());
    removal->directory.reset(opened.release());
    list_append(&removal->levels, entered.release());
    return true;
}

// Enters the directory that the path ends with and takes what is in it. False when it cannot be
// opened, the current directory then being the same as before.
static bool dir_removal_enter(removal *removal, size_t name, int flags)
{
    owned_iterator dir(removal->family.create(), removal->family.destroy);
    if (!dir || !dir_removal_descend(removal, name, flags, dir.get())) {
        ZQ_LOG_AT(removal->place, 13, "unable to open directory %s", removal->path.text);
        return false;
    }
    removal->current()->failed = !dir_removal_take_entries(removal, dir.get());
    return true;
}

static bool dir_removal_enter_top(removal *removal, const char *path)
{
    if (!dir_removal_path_set(&removal->path, path)) {
        ZQ_LOG_AT(removal->place, 7, "not enough memory for path '%s'", path);
        ZQ_LOG_AT(removal->place, 13, "unable to open directory %s", path);
        return false;
    }
    return dir_removal_enter(removal, 0, 0);
}

static bool dir_removal_enter_below(removal *removal, const char *name)
{
    const size_t pathlen = removal->path.len;
    if (!dir_removal_path_append(&removal->path, name)) {
        ZQ_LOG_AT(removal->place, 7, "not enough memory for path");
        return false;
    }
    ZQ_LOG_AT(removal->place, 13, removal->family.trace_remove, removal->path.text);
    if (dir_removal_enter(removal, pathlen + 1, O_NOFOLLOW))
        return true;
    dir_removal_path_cut(&removal->path, pathlen);
    return false;
}

// ---- leaving a directory ----

// Opens the directory above the current one if it is not open; false after logging.
static bool dir_removal_open_parent(removal *removal, const level &above)
{
    if (removal->parent.get() >= 0)
        return true;
    descriptor parent(openat(removal->directory.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    int error = 0;
    if (parent.get() < 0 || fstat(parent.get(), &status) != 0)
        error = errno;
    else if (status.st_dev != above.device || status.st_ino != above.inode)
        error = ESTALE; // the current directory was moved meanwhile
    if (error != 0) {
        ZQ_LOG_AT(removal->place, 7, "unable to return from directory '%s', error %d",
                  removal->path.text, error);
        return false;
    }
    removal->parent.reset(parent.release());
    return true;
}

// Removes the emptied current directory, whose name is looked up in `above`.
static bool dir_removal_remove_current(removal *removal, const level &current, int above)
{
    const path_text &path = removal->path;
    if (current.failed)
        return false;
    ZQ_LOG_AT(removal->place, 13, removal->family.trace_rmdir, path.text);
    if (unlinkat(above, path.text + current.name, AT_REMOVEDIR) == 0)
        return true;
    int error = errno;
    ZQ_LOG_AT(removal->place, 7, "unable to remove directory '%s', error %d", path.text, error);
    return false;
}

// Removes the current directory and goes back to the one above it, which is told the outcome.
// False when there is no way back.
static bool dir_removal_leave(removal *removal)
{
    owned_level left(removal->current());
    list_unlink(&removal->levels, left.get());
    level *above = removal->current();
    if (!dir_removal_open_parent(removal, *above))
        return false;
    if (!dir_removal_remove_current(removal, *left, removal->parent.get()))
        above->failed = true;
    removal->directory.reset(removal->parent.release());
    dir_removal_path_cut(&removal->path, above->pathlen);
    return true;
}

int dir_remove_recursive(const char *path, const dir_family &family, log_place place)
{
    removal removal(family, place);
    if (!dir_removal_enter_top(&removal, path))
        return -1;
    for (;;) {
        level *current = removal.current();
        owned_block<pending_name> below(list_take_first<pending_name>(&current->pending));
        if (below) {
            if (!dir_removal_enter_below(&removal, below->name()))
                current->failed = true;
        } else if (!current->prev) {
            return dir_removal_remove_current(&removal, *current, AT_FDCWD) ? 0 : -1;
        } else if (!dir_removal_leave(&removal)) {
            return -1;
        }
    }
}
