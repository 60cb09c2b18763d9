#include "TarnApp.h"

// A workstation has no driver to open: its requests are served in the process and need no descriptor.
TarnApp* GetTarnApp() {
  static TarnApp app{{0, 0, 0, 0}, -1};
  return &app;
}
