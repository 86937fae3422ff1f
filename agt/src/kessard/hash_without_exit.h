// uthash, told to drop an element it has no memory for instead of ending the process.
#pragma once

#define HASH_NONFATAL_OOM 1
#include <uthash.h>
