#ifndef ZQ_INTERNAL_ZQDIRREMOVAL_H
#define ZQ_INTERNAL_ZQDIRREMOVAL_H

#include "zq/internal/zqdiriterator.h"

// zq_dir_remove_recursive() with the names of one family.
int dir_remove_recursive(const char *path, const dir_family &family, log_place place);

#endif
