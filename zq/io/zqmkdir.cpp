#include "zq/io/zqmkdir.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqstring.h"

int zq_mkdir(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    return mkdir(pathname, 0777);
}

// zq_mkdir() with its failures as a zqerror; an existing entry is none.
static zqerror zq_mkdir_make(const char *pathname)
{
    if (zq_mkdir(pathname) == 0)
        return ZQ_ERROR_NONE;
    int error = errno;
    switch (error) {
    case EPERM:
    case EACCES:
        return ZQ_ERROR_PERMISSION_DENIED;
    case ENOENT:
    case ENOTDIR:
        return ZQ_ERROR_NOT_DIRECTORY;
    case EEXIST: // someone else was faster
        return ZQ_ERROR_NONE;
    case ENOMEM:
        return ZQ_ERROR_NO_MEMORY;
    case ENOSPC:
        return ZQ_ERROR_NO_SPACE;
    case EROFS:
        return ZQ_ERROR_READ_ONLY_FILESYSTEM;
    case EMLINK:
        return ZQ_ERROR_TOO_MANY_LINKS;
    case ELOOP:
        return ZQ_ERROR_SYMLINK_LOOP;
    case ENAMETOOLONG:
        return ZQ_ERROR_NAME_TOO_LONG;
    default:
        ZQ_LOG(7, "an unhandled error %d occurred", error);
        return ZQ_ERROR_GENERIC;
    }
}

// Whether something has that name; *result is then what there is to say about it.
static bool zq_mkdir_find(const char *pathname, zqerror *result)
{
    struct stat status;
    if (lstat(pathname, &status) != 0)
        return false;
    *result = S_ISDIR(status.st_mode) ? ZQ_ERROR_NONE : ZQ_ERROR_EXISTS;
    return true;
}

// The length of what stands before the last slash of `len` bytes; 0 when nothing does.
static size_t zq_mkdir_parent_length(const char *pathname, size_t len)
{
    while (len > 0 && pathname[len - 1] != '/')
        len--;
    return len > 0 ? len - 1 : 0;
}

// Makes the directory whose path of `len` bytes is cut at a slash after `parentlen`, and what is
// missing above it: the text is cut further up to what exists, and made whole again on the way
// down.
static zqerror zq_mkdir_make_all(char *path, size_t parentlen, size_t len)
{
    zqerror result;
    size_t made = parentlen;
    while (!zq_mkdir_find(path, &result)) {
        parentlen = zq_mkdir_parent_length(path, made);
        if (parentlen == 0) {
            result = zq_mkdir_make(path);
            break;
        }
        path[parentlen] = '\0';
        made = parentlen;
    }
    // ZQ_ERROR_EXISTS is passed over: making the directory below then tells what is wrong.
    while (made < len && (result == ZQ_ERROR_NONE || result == ZQ_ERROR_EXISTS)) {
        path[made] = '/';
        made += strlen(path + made);
        result = zq_mkdir_make(path);
    }
    return result;
}

zqerror zq_mkdir_recursive(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    zqerror result;
    if (zq_mkdir_find(pathname, &result))
        return result;
    size_t len = strlen(pathname);
    size_t parentlen = zq_mkdir_parent_length(pathname, len);
    if (parentlen == 0)
        return zq_mkdir_make(pathname);
    owned_block<> path(zq_strdup(pathname));
    if (!path) {
        ZQ_LOG(7, "not enough memory for parent directory path name");
        return ZQ_ERROR_NO_MEMORY;
    }
    path.get()[parentlen] = '\0';
    return zq_mkdir_make_all(path.get(), parentlen, len);
}

int zq_mkdir_file_path(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    size_t len = zq_mkdir_parent_length(filename, strlen(filename));
    if (len == 0)
        return 0;
    owned_block<> directory(zq_strndup(filename, len));
    if (!directory) {
        ZQ_LOG(7, "not enough memory for copying path name for file '%s'", filename);
        errno = ENOMEM;
        return -1;
    }
    zqerror error = zq_mkdir_recursive(directory.get());
    if (error != ZQ_ERROR_NONE) {
        ZQ_LOG(7, "creating path '%s' failed, error %d (%s)", directory.get(),
               static_cast<int>(error), zq_error_string(error));
        return -1;
    }
    return 0;
}

// ---- UTF-8 paths, which are the platform's own ----

int zq_utf8mkdir(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    return zq_mkdir(pathname);
}

zqerror zq_utf8mkdir_recursive(const char *pathname)
{
    ZQ_ASSERT(pathname != NULL);

    return zq_mkdir_recursive(pathname);
}

int zq_utf8mkdir_file_path(const char *filename)
{
    ZQ_ASSERT(filename != NULL);

    return zq_mkdir_file_path(filename);
}
