// The record-file reader of the recorder's record-file library.
#pragma once

#include <memory>
#include <string>

// The library acts on what a repair answers: 1 completes the file, 7 gives it up, 8 frees it for the next
// recording, and anything else leaves it alone. So 7 and 8 are only said of what was looked at and is lost.
enum imf_error_code_e {
  IMF_ERROR_NONE = 0,          // opened for reading
  IMF_ERROR_REPAIRED = 1,      // repair: a usable recording, its end and channels are known
  IMF_ERROR_NOT_FOUND = 2,     // no such file, or not a regular file
  IMF_ERROR_NOT_A_RECORD = 3,  // reading: no valid header, or the header of another recording than the name's
  IMF_ERROR_MODE = 4,          // an open mode that this reader does not have
  IMF_ERROR_IO = 7,            // the device itself could not read, and nothing usable is left
  IMF_ERROR_UNREPAIRABLE = 8,  // repair: nothing usable is there, or the name is another recording's
  IMF_ERROR_ACCESS = 9,        // a missing right, a read-only or vanished disk: nothing is known of the file
};

enum imf_file_open_mode_e {
  IMF_OPEN_READ = 0,
  IMF_OPEN_REPAIR = 2,
};

class ImfFile;

// Hears of a record file that was closed on behalf of the application, as after a repair. Not owned by the
// reader.
class ImfSegmentCloseInterface {
 public:
  virtual ~ImfSegmentCloseInterface() = default;
  // `file` is still open; lent for the call only.
  virtual void OnSegmentClosed(ImfFile& file) = 0;
};

// What streams a record file holds.
class ImfStreamCountSummary {
 public:
  // Bit n: video channel n is present. `kind` 0 is the only one: all video.
  unsigned GetVideoChannelMask(int kind) const;
  void AddVideoChannel(int channel);

 private:
  unsigned mVideoChannelMask = 0;
};

// One open record file; closed by the destructor. Not copyable. Used by one thread at a time; several readers
// of one file, and a reader beside the writer, are fine.
class ImfFile {
 public:
  // Opens `path`. `error` tells the outcome and is always set; after anything but IMF_ERROR_NONE and
  // IMF_ERROR_REPAIRED the object only answers 0. IMF_OPEN_READ changes nothing on disk and reads a few blocks
  // only, however large the file. IMF_OPEN_REPAIR reads the whole recording; it writes the end time and the
  // channel mask found into the file's header, never more, and calls `segmentClose`, when given, for a file
  // that it repaired. One whose header can't be written is left alone, for another attempt. The two strings and
  // the integer are the recorder's and unused.
  ImfFile(imf_error_code_e& error, std::string path, imf_file_open_mode_e mode, std::string, std::string, int,
          ImfSegmentCloseInterface* segmentClose);
  ~ImfFile();
  ImfFile(const ImfFile&) = delete;
  ImfFile& operator=(const ImfFile&) = delete;

  // End of the recording in seconds since the epoch, 0 when unknown. Of a growing file: its end as of the
  // writer's last checkpoint before the opening.
  int GetEndTime() const;

  const ImfStreamCountSummary& GetStreamCountSummary() const;

 private:
  struct Content;
  std::unique_ptr<Content> mContent;
};
