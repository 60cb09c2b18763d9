// What playback, search and menus ask, over many recordings on eight disks. The file list cache is filled by
// requests, since a million files add nothing to the answers; the search databases are real. Both sides give
// the same answers: that is looked at before anything is measured.
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#include "Flc.h"
#include "bench/Benches.h"
#include "bench/Rounds.h"
#include "bench/Sqlite.h"
#include "fmgr/FmgrFileManager.h"

namespace bench {

namespace {

constexpr uint32_t kBase = 1500000000;
constexpr int kSeconds = 60;  // of a recording
constexpr int kDay = 86400;
constexpr int kDisks = 8;
constexpr int kChannels = 4;
constexpr int64_t kMicros = 1000000;

class Recorder {
 public:
  Recorder(const Settings& settings, int perDisk, int files, Questions* sqlite)
      : mStage(settings), mCount(files / (kDisks * perDisk) * kDisks * perDisk) {
    std::vector<std::string> disks;
    for (int i = 0; i < kDisks; ++i) disks.push_back(mStage.MakeDisk(std::string("sda") + std::to_string(i)));
    const int directories = kDisks * perDisk;
    const int each = mCount / directories;
    uint32_t start = kBase;
    for (int index = 1; index <= directories; ++index, start += static_cast<uint32_t>(each * kSeconds)) {
      const std::string directory =
          Stage::MakeDirectory(disks[static_cast<size_t>((index - 1) % kDisks)], index);
      MakeSearchDatabase(directory, start, each, kSeconds, kChannels);
    }
    for (const std::string& disk : disks) mManager = &mStage.Add(disk);
    sqlite->Clear();
    start = kBase;
    for (int index = 1; index <= directories; ++index) {
      const int disk = (index - 1) % kDisks;
      const std::string directory = disks[static_cast<size_t>(disk)] + "/" + DataDirectoryName(index) + "/";
      for (int i = 0; i < each; ++i, start += kSeconds) {
        FlcAddFile(("sda" + std::to_string(disk)).c_str(), index, start, start + kSeconds, 0xf);
        sqlite->Add(start, start + kSeconds, 0xf, directory + CompletedName(start, start + kSeconds, 0xf));
      }
    }
    sqlite->Done(kChannels);
  }

  FmgrFileManager& Manager() { return *mManager; }
  int Count() const { return mCount; }

 private:
  Stage mStage;
  int mCount;
  FmgrFileManager* mManager = nullptr;
};

// One question, asked of both sides with the same numbers of recordings.
struct Question {
  const char* name;
  int operations;  // in a round
  std::function<std::string(int number)> ours;
  std::function<std::string(int number)> theirs;
  double limit;      // of the ratio, with a few data directories
  double manyLimit;  // with hundreds of them
};

uint32_t StartOf(int number) { return kBase + static_cast<uint32_t>(number) * kSeconds; }
int TimeWithin(int number) { return static_cast<int>(StartOf(number)) + 1 + number % (kSeconds - 1); }

// Begins where a whole day is left.
int DayOf(int number, int count) {
  return static_cast<int>(kBase + int64_t{number} * kSeconds % (int64_t{count} * kSeconds - kDay));
}

struct Month {
  int year;
  int month;  // 1 to 12
};
// One before the last that begins within the recordings.
Month MonthOf(int number, int count) {
  const int months = 7 + number % std::max(1, static_cast<int>(int64_t{count} * kSeconds / (31 * kDay)));
  return {2017 + months / 12, 1 + months % 12};
}

std::string Described(const std::list<std::string>& paths) {
  return std::to_string(paths.size()) + paths.front() + paths.back();
}

std::string Described(const TimeSearchChart& chart) {
  size_t spans = 0;
  int64_t starts = 0;
  for (const TimeSearchRecording& each : chart.recordings) {
    spans += each.spans.size();
    starts += each.startTime;
  }
  return std::to_string(chart.recordings.size()) + " " + std::to_string(spans) + " " + std::to_string(starts);
}

std::string Described(int a, int b) { return std::to_string(a) + " " + std::to_string(b); }

std::vector<Question> QuestionsOf(FmgrFileManager& manager, Questions& sqlite, int count) {
  const auto pathOf = [&sqlite](int number) {
    std::string path;
    sqlite.FilePath(StartOf(number), &path);
    return path;
  };
  // Both are given paths: a player knows no more of what it plays.
  auto paths = std::make_shared<std::vector<std::string>>();
  std::mt19937 random(2);
  for (int i = 0; i < 1000; ++i)
    paths->push_back(pathOf(static_cast<int>(random() % static_cast<unsigned>(count))));
  const auto played = [paths](int number) -> const std::string& {
    return (*paths)[static_cast<size_t>(number) % paths->size()];
  };
  const auto startIn = [](const std::string& path) {
    return static_cast<uint32_t>(std::strtoul(path.c_str() + path.rfind('/') + 1, nullptr, 16));
  };
  return {
      {"GetFilePath", 500,
       [&manager](int number) {
         std::string path;
         manager.GetFilePath(TimeWithin(number), path, 1);
         return path;
       },
       [&sqlite](int number) {
         std::string path;
         sqlite.FilePath(static_cast<uint32_t>(TimeWithin(number)), &path);
         return path;
       },
       1, 4},
      {"GetNextFilePath", 500,
       [&manager, played](int number) {
         std::string path;
         manager.GetNextFilePath(played(number), path);
         return path;
       },
       [&sqlite, played, startIn](int number) {
         std::string path;
         sqlite.Next(startIn(played(number)), &path);
         return path;
       },
       1, 4},
      {"GetPrevFilePath", 500,
       [&manager, played](int number) {
         std::string path;
         manager.GetPrevFilePath(played(number), path);
         return path;
       },
       [&sqlite, played, startIn](int number) {
         std::string path;
         sqlite.Previous(startIn(played(number)), &path);
         return path;
       },
       1, 4},
      {"GetTimeRange", 200,
       [&manager](int) {
         int first = 0;
         int last = 0;
         manager.GetTimeRange(first, last);
         return Described(first, last);
       },
       [&sqlite](int) {
         int first = 0;
         int last = 0;
         sqlite.TimeRange(&first, &last);
         return Described(first, last);
       },
       2, 4},
      {"list of a day", 20,
       [&manager, count](int number) {
         std::list<std::string> found;
         ImfSearchCondition condition;
         condition.startTime = DayOf(number, count) * kMicros;
         condition.endTime = condition.startTime + kDay * kMicros;
         manager.CollectFileList(found, condition);
         return Described(found);
       },
       [&sqlite, count](int number) {
         std::list<std::string> found;
         const int from = DayOf(number, count);
         sqlite.List(from, from + kDay, &found);
         return Described(found);
       },
       1, 4},
      {"chart of a day", 20,
       [&manager, count](int number) {
         TimeSearchChart chart;
         chart.startTime = DayOf(number, count);
         chart.endTime = chart.startTime + kDay;
         manager.CollectSearchData(&chart);
         return Described(chart);
       },
       [&sqlite, count](int number) {
         TimeSearchChart chart;
         chart.startTime = DayOf(number, count);
         chart.endTime = chart.startTime + kDay;
         sqlite.Chart(&chart);
         return Described(chart);
       },
       1.5, 4},
      {"month", 200,
       [&manager, count](int number) {
         const Month asked = MonthOf(number, count);
         Month found = {};
         manager.GetRecentlyMonthInfo(asked.year, asked.month, found.year, found.month, 1);
         return Described(found.year, found.month);
       },
       [&sqlite, count](int number) {
         const Month asked = MonthOf(number, count);
         Month found = {};
         sqlite.Month(asked.year, asked.month, &found.year, &found.month);
         return Described(found.year, found.month);
       },
       1, 4},
  };
}

void MeasureWith(const Settings& settings, int perDisk, int files, Questions* sqlite, Report* report) {
  Recorder recorder(settings, perDisk, files, sqlite);
  const bool many = perDisk >= 100;
  for (const Question& question : QuestionsOf(recorder.Manager(), *sqlite, recorder.Count())) {
    std::mt19937 random(1);
    std::vector<int> numbers;
    for (int i = 0; i < question.operations; ++i) {
      numbers.push_back(static_cast<int>(random() % static_cast<unsigned>(recorder.Count())));
    }
    for (const int number : numbers) {
      const std::string ours = question.ours(number);
      const std::string theirs = question.theirs(number);
      if (ours != theirs)
        Stop(std::string(question.name) + " answers " + ours + " where SQLite answers " + theirs);
    }
    const auto ask = [&numbers](const auto& side) {
      for (const int number : numbers) side(number);
    };
    const Times times =
        TakeTurns(settings.quick ? 7 : 15, {{question.operations, [&] { ask(question.ours); }},
                                            {question.operations, [&] { ask(question.theirs); }}});
    report->Add({question.name, "s", times.Median(0), "SQLite", times.Median(1), times.Ratio(0, 1),
                 Goal::kRatioAtMost, many ? question.manyLimit : question.limit});
  }
}

}  // namespace

void MeasureQuestions(const Settings& settings, Report* report) {
  const int files = settings.quick ? 100000 : 1000000;
  Questions sqlite(settings.directory + "/questions.db");
  for (const int perDisk : {4, 100}) {
    report->Begin("Questions over " + std::to_string(files) + " recordings, " + std::to_string(kDisks) +
                  " disks x " + std::to_string(perDisk) + " data directories");
    MeasureWith(settings, perDisk, files, &sqlite, report);
  }
}

}  // namespace bench
