// What the recorder's commands exit with.
#pragma once

namespace recorder {

enum ExitStatus {
  kDone = 0,
  kFound = 1,  // something that was looked for, or nothing to be found
  kRefused = 2,
};

}  // namespace recorder
