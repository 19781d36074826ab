#ifndef ZQ_IO_ZQDELETEFILE_H
#define ZQ_IO_ZQDELETEFILE_H

#include <wchar.h>

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_deletefile removes a file; of a symbolic link the link itself. The platform's unlink() result:
 * 0, or -1 with errno set. Nothing is logged. Any thread. */
ZQ_API int zq_deletefile(const char *filename);

/* zq_utf8deletefile is zq_deletefile() for a UTF-8 name. */
ZQ_API int zq_utf8deletefile(const char *filename);

/* zq_wdeletefile is zq_deletefile() for a wide name. A name that cannot be converted to UTF-8 gives
 * -1 with errno ENOMEM, also when a character in it is the reason, which is logged. */
ZQ_API int zq_wdeletefile(const wchar_t *wfilename);

ZQ_END_DECLS

#endif
