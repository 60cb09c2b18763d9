// The recorder's application object, as far as the library knows it.
#pragma once

#include <cstddef>
#include <cstdint>

struct TarnApp {
  int32_t reserved[4];    // the application's own
  int32_t flcDescriptor;  // open descriptor of the file list cache driver; the library never opens or closes it
};
static_assert(sizeof(TarnApp) == 20);
static_assert(offsetof(TarnApp, flcDescriptor) == 16);

// Never null. Owned by the application; asked for anew at every request.
TarnApp* GetTarnApp();
