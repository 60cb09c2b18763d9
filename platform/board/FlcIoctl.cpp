#include <sys/ioctl.h>

#include "Flc.h"
#include "TarnApp.h"

// The application may reopen the device, so its descriptor is asked for at every request.
int FlcIoctl(unsigned long request, void* argument) {
  return ioctl(GetTarnApp()->flcDescriptor, request, argument);
}
