#include "fmgr/StepReport.h"

#include "ProgressIndicator.h"

namespace fmgr {

void ReportStep(ProgressIndicator* indicator, int step) {
  if (indicator == nullptr || indicator->mActive == 0) return;
  if (indicator->mActive >= indicator->mGate && indicator->mCurrent >= indicator->mLimit) return;
  if (step < indicator->mCurrent) return;
  indicator->mCurrent = step;
  if (indicator->mGate != 0) indicator->Refresh();
}

}  // namespace fmgr
