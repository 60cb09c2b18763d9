// The library is built with hidden visibility; only what carries this mark leaves it.
#pragma once

#define FMGR_EXPORT __attribute__((visibility("default")))
