// Progress of a long operation, provided by the application's user interface.
#pragma once

#include <cstdint>

// Stage codes that the library passes to BeginStage.
enum progress_stage_e {
  PROGRESS_STAGE_FILL_FREE_POOL = 1,
  PROGRESS_STAGE_PRE_ALLOCATE = 15,
};

// The library is built against this table and these members: keep the order of both. BeginStage and Refresh are
// the fourth and fifth slot; the library calls no other operation.
//
// A step i of the library is reported only while mActive is not 0; it then sets mCurrent to i when i is not
// below it, and calls Refresh() when mGate is not 0. Once mActive has reached mGate and mCurrent has reached
// mLimit, steps are ignored.
class ProgressIndicator {
 public:
  virtual ~ProgressIndicator() = default;  // two slots
  virtual void EndStage() {}
  virtual void BeginStage(int total, int stage) = 0;
  virtual void Refresh() = 0;

  int32_t mGate = 0;
  int32_t mActive = 0;
  int32_t mCurrent = 0;
  int32_t mLimit = 0;
};
