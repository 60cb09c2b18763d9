// The library is built with hidden visibility; only what carries this mark leaves it.
#pragma once

#define FMGR_EXPORT __attribute__((visibility("default")))
// For a member of a class that leaves the library: this one stays inside.
#define FMGR_INTERNAL __attribute__((visibility("hidden")))
