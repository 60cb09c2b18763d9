// A file of settings: lines "name = value". A value is taken to the end of its line, less what stands behind a
// space and a #; quotes keep everything, a list in brackets (over several lines, if need be) or further lines
// of the same name give several values. A name alone means "true". Comments begin with # or ;.
#pragma once

#include <string>
#include <vector>

namespace recorder {

struct Setting {
  std::string section;  // as in "[record]"; empty before the first
  std::string name;
  std::vector<std::string> values;
  int line = 0;         // where it was said first
  bool isBare = false;  // somewhere it stands alone, without a value: "true" then
};

struct Settings {
  std::vector<Setting> all;           // each name once in its section, in the order of the file
  std::vector<std::string> problems;  // lines for people: "3: ..." for what line 3 should not say
};

Settings ParseSettings(const std::string& text);

}  // namespace recorder
