#ifndef ZQ_UTIL_ZQUNINIT_H
#define ZQ_UTIL_ZQUNINIT_H

#include "zq/zqdefs.h"

ZQ_BEGIN_DECLS

/* zq_uninit releases what the library keeps for the whole process: the default log with threaded
 * logging, the database of fault injection, the global random instance. To be called at the end of
 * a program, when no other thread uses the library. The library may be used again afterwards: each
 * of the three is rebuilt on its next use. The fault mode stays as it is (zqmalloc.h). */
ZQ_API void zq_uninit(void);

ZQ_END_DECLS

#endif
