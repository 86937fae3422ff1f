/* Checks of the binary contract: every record's size and member offsets hold at compile time, in
 * C11 and in C++20. */
#ifndef KESSARD_LAYOUT_H
#define KESSARD_LAYOUT_H

#include <assert.h>
#include <stddef.h>

/* The record `type` takes exactly `bytes` bytes. */
#define KESSARD_SIZE(type, bytes)                                                                  \
    static_assert(sizeof(type) == (bytes), #type " must take " #bytes " bytes")

/* `member` starts `offset` bytes into the record `type`. */
#define KESSARD_AT(type, member, offset)                                                           \
    static_assert(offsetof(type, member) == (offset),                                              \
                  #type "." #member " must start at byte " #offset)

#endif
