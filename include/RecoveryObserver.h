// What the application wants to hear from the library about repair and removal. The library calls it on the
// caller's thread, in the middle of its own operation: an observer must not call back into the file manager.
#pragma once

#include <string>

class ImfFile;

constexpr int RECOVERY_STAGE = 2;  // the only stage that NotifyStage is called with

// The slot order is fixed: no virtual destructor before these three. The library never deletes an observer.
class RecoveryObserver {
 public:
  // Recovery of a file or of a search database begins (active 1) or ends (active 0).
  virtual void NotifyStage(int stage, int active) = 0;

  // A recording was repaired and renamed. `file` is open and only lent for the call; `newName` is its full new
  // path, `videoChannelMask` has a bit for each channel found.
  virtual void NotifyFileFixed(ImfFile& file, const std::string& newName, unsigned videoChannelMask) = 0;

  // A record file is about to leave its data directory. `path` is a full path or what the library was given;
  // times are seconds since the epoch as its name holds them, end and mask 0 for a file in progress.
  virtual void NotifyFileRemoved(const std::string& path, unsigned start, unsigned end, unsigned mask) = 0;

 protected:
  ~RecoveryObserver() = default;
};
