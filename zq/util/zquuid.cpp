#include "zq/util/zquuid.h"

#include "zq/internal/zqassert.h"
#include "zq/internal/zqlogline.h"
#include "zq/internal/zqowned.h"
#include "zq/util/zqprintf.h"

struct zquuid {
    zqrandom *random; // borrowed; null is the process-wide one
};

zquuid *zq_uuid_create(void)
{
    zquuid *created = make_zeroed<zquuid>();
    if (!created)
        ZQ_LOG(7, "unable to create uuid context");
    return created;
}

void zq_uuid_destroy(zquuid *zquuid)
{
    ZQ_ASSERT(zquuid != NULL);

    zq_free(zquuid);
}

void zq_uuid_set_random(zquuid *zquuid, zqrandom *zqrandom)
{
    ZQ_ASSERT(zquuid != NULL);

    zquuid->random = zqrandom;
}

char *zq_uuid_random(zquuid *zquuid)
{
    ZQ_ASSERT(zquuid != NULL);

    unsigned char bytes[16];
    if (zq_random_buffer(zquuid->random, bytes, sizeof(bytes)) != 0) {
        ZQ_LOG(7, "zq_random_buffer() failed");
        return nullptr;
    }
    bytes[6] = (bytes[6] & 0x0f) | 0x40; // version 4
    bytes[8] = (bytes[8] & 0x3f) | 0x80; // variant 10
    char *text =
        zq_strdupf("%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", bytes[0],
                   bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                   bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    if (!text)
        ZQ_LOG(7, "not enough memory for UUID string");
    return text;
}
