// Progress of one step of a disk build.
#pragma once

class ProgressIndicator;

namespace fmgr {

// Reports step `step` (from 0) to the indicator, which may be null, by the indicator's rule.
void ReportStep(ProgressIndicator* indicator, int step);

}  // namespace fmgr
