#include "zq/util/zqpath.h"

#include <cstring>

#include "zq/internal/zqassert.h"
#include "zq/internal/zqintrusive.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/internal/zqtext.h"
#include "zq/io/zqdir.h"
#include "zq/util/zqstring.h"

namespace {
struct path_item : zqlistlink {
    char *name; // never empty, never with a slash in it
};
} // namespace

struct zqpath {
    zqlist *list;   // of path_item, the outermost first
    char *rendered; // null when it must be rendered anew
};

// ---- components ----

static void zq_path_item_destroy(path_item *item)
{
    zq_free(item->name);
    zq_free(item);
}

using owned_item = owned<path_item, zq_path_item_destroy>;

static path_item *zq_path_item_create(const char *name)
{
    // Only "/" is refused, whatever the separator.
    if (strchr(name, '/')) {
        ZQ_LOG(6, "path component '%s' must not contain a slash", name);
        return nullptr;
    }
    if (*name == '\0') {
        ZQ_LOG(6, "path component cannot be empty");
        return nullptr;
    }
    owned_item item(make_zeroed<path_item>());
    if (!item) {
        ZQ_LOG(7, "not enough memory for path item");
        return nullptr;
    }
    item->name = zq_strdup(name);
    if (!item->name) {
        ZQ_LOG(7, "not enough memory for path item name");
        return nullptr;
    }
    return item.release();
}

static void zq_path_clear_list(zqpath *zqpath)
{
    while (path_item *item = list_take_first<path_item>(zqpath->list))
        zq_path_item_destroy(item);
}

static void zq_path_clear_rendered(zqpath *zqpath)
{
    zq_free(zqpath->rendered);
    zqpath->rendered = nullptr;
}

// ---- the path ----

zqpath *zq_path_create(void)
{
    owned<zqpath, zq_path_destroy> path(make_zeroed<zqpath>());
    if (!path) {
        ZQ_LOG(7, "not enough memory for zqpath context");
        return nullptr;
    }
    path->list = zq_list_create();
    if (!path->list) {
        ZQ_LOG(7, "not enough memory for zqpath list");
        return nullptr;
    }
    return path.release();
}

void zq_path_destroy(zqpath *zqpath)
{
    ZQ_ASSERT(zqpath != NULL);

    zq_path_clear_rendered(zqpath);
    if (zqpath->list) {
        zq_path_clear_list(zqpath);
        zq_list_destroy(zqpath->list);
    }
    zq_free(zqpath);
}

int zq_path_append(zqpath *zqpath, const char *name)
{
    ZQ_ASSERT(zqpath != NULL);
    ZQ_ASSERT(name != NULL);

    path_item *item = zq_path_item_create(name);
    if (!item)
        return -1;
    list_append(zqpath->list, item);
    zq_path_clear_rendered(zqpath);
    return 0;
}

int zq_path_remove_last(zqpath *zqpath)
{
    ZQ_ASSERT(zqpath != NULL);

    auto *item = static_cast<path_item *>(zqpath->list->tail);
    if (!item) {
        ZQ_LOG(6, "the path is empty, unable to remove the last item");
        return -1;
    }
    list_unlink(zqpath->list, item);
    zq_path_item_destroy(item);
    zq_path_clear_rendered(zqpath);
    return 0;
}

static char *zq_path_render(const zqpath *zqpath)
{
    char *rendered = text_build([zqpath](text_writer &text) {
        for (path_item *item : list_items<path_item>(zqpath->list)) {
            if (item->prev)
                text.put(zq_dir_separator());
            text.put(item->name);
        }
    });
    if (!rendered)
        ZQ_LOG(7, "not enough memory for rendering the path");
    return rendered;
}

const char *zq_path_peek(zqpath *zqpath)
{
    ZQ_ASSERT(zqpath != NULL);

    if (!zqpath->rendered)
        zqpath->rendered = zq_path_render(zqpath);
    return zqpath->rendered;
}

char *zq_path_get(zqpath *zqpath)
{
    ZQ_ASSERT(zqpath != NULL);

    const char *rendered = zq_path_peek(zqpath);
    if (!rendered)
        return nullptr;
    char *copy = zq_strdup(rendered);
    if (!copy)
        ZQ_LOG(7, "not enough memory for making a duplicate of the path");
    return copy;
}

void zq_path_clear(zqpath *zqpath)
{
    ZQ_ASSERT(zqpath != NULL);

    zq_path_clear_rendered(zqpath);
    zq_path_clear_list(zqpath);
}
