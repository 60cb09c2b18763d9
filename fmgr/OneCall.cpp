#include "fmgr/OneCall.h"

#include <atomic>

namespace fmgr {
namespace {

// Over all threads, so that a directory never takes another thread's call for the one that it has answers of.
std::atomic<uint64_t> gLast{0};
thread_local uint64_t tCurrent = 0;

}  // namespace

OneCall::OneCall() : mIsOuter(tCurrent == 0) {
  if (mIsOuter) tCurrent = ++gLast;
}

OneCall::~OneCall() {
  if (mIsOuter) tCurrent = 0;
}

uint64_t OneCall::Current() { return tCurrent; }

void OneCall::Forget() {
  if (tCurrent != 0) tCurrent = ++gLast;
}

OutsideCall::OutsideCall() : mIsWithin(tCurrent != 0) { tCurrent = 0; }

OutsideCall::~OutsideCall() {
  if (mIsWithin) tCurrent = ++gLast;
}

}  // namespace fmgr
