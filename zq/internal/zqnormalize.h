#ifndef ZQ_INTERNAL_ZQNORMALIZE_H
#define ZQ_INTERNAL_ZQNORMALIZE_H

#include <cstddef>

// Writes the canonical composed form (NFC, Unicode Standard Annex 15) of UTF-8 text, terminated,
// into `size` bytes. False when the text is not UTF-8, when the result does not fit (a few
// characters have decomposed forms only, so it can be longer than the text), or out of memory.
bool utf8_nfc(const char *text, char *buffer, size_t size);

#endif
