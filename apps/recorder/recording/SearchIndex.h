// Keeps the search databases of the data directories in step with what is recorded and recycled.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "SearchDb.h"

namespace recorder {

class SearchIndex {
 public:
  // Adds the completed recording at `path`, whose channels have pictures in `spans`. A database that is missing
  // is made and takes in every completed recording of its directory, since those would not be found otherwise;
  // when they have pictures is left to the next start, since nobody could record while so many files are read.
  void Add(const std::string& path, const std::vector<PictureSpan>& spans);
  // The same for a recording whose file tells of its spans. It was repaired while its disk is being added: the
  // file manager goes on to rebuild a missing database of a directory with more than one file, so nothing is
  // made then.
  void AddRepaired(const std::string& path);
  // Takes the recording at `path` out. Makes nothing: the directory may be about to go with all that is in it.
  void Remove(const std::string& path, uint32_t startTime);
  // Closes the databases: before a data directory gets another name, or its disk is taken away.
  void Close() { mOpen.clear(); }
  // Puts every database of the disk at `disk` right that does not say what the names say, one line each:
  // changes the rows that differ, or makes it anew when it is damaged. A process that is killed between the
  // change of a name and that of the database leaves them apart, without a mark.
  static void Mend(const std::string& disk);
  // What speaks against the database of a directory, as "is missing", given the directory's record files
  // `names` and `others`, its entries that are called search.fdb and something; empty when it says what the
  // names say. Only looks. `directory` ends with "/". `isSound` (may be null): it can be read, and only
  // rows differ.
  static std::string Disagreement(const std::string& directory, const std::vector<std::string>& names,
                                  const std::vector<std::string>& others, bool* isSound = nullptr);
  // Makes the database of a directory anew from the names and removes the marks of damage. What lies in its
  // place and is no file of the recorder's is set aside. `directory` ends with "/". False: it is left for the
  // next attempt.
  static bool Rebuild(const std::string& directory);

 private:
  struct Open {
    std::string directory;  // ends with "/"
    std::unique_ptr<SearchDb> db;
  };

  SearchDb& DbOf(const std::string& directory);

  // Recording adds to the newest directory and recycles from the oldest: two handles serve both.
  std::list<Open> mOpen;  // most recently used first
};

}  // namespace recorder
