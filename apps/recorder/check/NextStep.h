// What a person does about a finding.
#pragma once

#include <string>

#include "apps/recorder/check/Finding.h"

namespace recorder {

// A command, or a sentence. `disk` is the path of the finding's disk.
std::string NextStep(const std::string& root, const std::string& disk, const Finding& finding);

}  // namespace recorder
