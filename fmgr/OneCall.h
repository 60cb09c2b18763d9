// One call of the file manager. While an object lives, the driver's answers about a data directory stand: its
// count, its oldest and its newest file are asked for once, however many parts of the call want to know. A
// change ends that for every directory, since two may be one to the driver: data_7 and data_00000007, or disks
// whose names begin with the same eight bytes. A request that failed has no answer, and is made again.
#pragma once

#include <cstdint>

namespace fmgr {

class OneCall {
 public:
  OneCall();
  ~OneCall();
  OneCall(const OneCall&) = delete;
  OneCall& operator=(const OneCall&) = delete;

  // The call that this thread is in, another number each time; 0: none. A call within a call belongs to the
  // outer one.
  static uint64_t Current();
  // From here on everything is asked afresh: the driver was told of a change.
  static void Forget();

 private:
  bool mIsOuter;
};

// While an object lives, code of the application runs, in the middle of a call: what it asks is asked, and it
// may change anything.
class OutsideCall {
 public:
  OutsideCall();
  ~OutsideCall();
  OutsideCall(const OutsideCall&) = delete;
  OutsideCall& operator=(const OutsideCall&) = delete;

 private:
  bool mIsWithin;
};

}  // namespace fmgr
