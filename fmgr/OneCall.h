// One call of the file manager. While an object lives, the driver's answers about a data directory stand: its
// count, its oldest and its newest file are asked for once, however many parts of the call want to know. A
// change to the directory's list ends that, and whatever is given up is asked for afresh.
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
  // From here on everything is asked afresh: the driver was told of a change past a directory's own list.
  static void Forget();

 private:
  bool mIsOuter;
};

}  // namespace fmgr
