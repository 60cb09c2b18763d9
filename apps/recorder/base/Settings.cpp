#include "apps/recorder/base/Settings.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <sstream>

namespace recorder {

namespace {

std::string Trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

bool IsQuote(char c) { return c == '"' || c == '\''; }

// Reads the value that begins at `text[*at]`: quoted, or up to a space and a # or, in a list, to the next comma
// or bracket. Nothing when a quote is not closed.
std::optional<std::string> TakeValue(const std::string& text, bool inList, size_t* at) {
  if (*at < text.size() && IsQuote(text[*at])) {
    const size_t end = text.find(text[*at], *at + 1);
    if (end == std::string::npos) return std::nullopt;
    const std::string value = text.substr(*at + 1, end - *at - 1);
    *at = end + 1;
    return value;
  }
  const size_t begin = *at;
  for (; *at < text.size(); ++*at) {
    const bool isComment = text[*at] == '#' && (*at == begin || text[*at - 1] == ' ' || text[*at - 1] == '\t');
    if (isComment || (inList && (text[*at] == ',' || text[*at] == ']'))) break;
  }
  return Trimmed(text.substr(begin, *at - begin));
}

bool IsRest(const std::string& text, size_t at) {
  const std::string rest = Trimmed(text.substr(at));
  return rest.empty() || rest.front() == '#';
}

// Reads values of a list up to the end of the line. False: a quote is not closed, or something stands where a
// comma should.
bool TakeList(const std::string& line, size_t at, std::vector<std::string>* values, bool* closed) {
  for (;;) {
    at = line.find_first_not_of(" \t\r,", at);
    if (at == std::string::npos || line[at] == '#') return true;
    if (line[at] == ']') {
      *closed = true;
      return IsRest(line, at + 1);
    }
    const std::optional<std::string> value = TakeValue(line, true, &at);
    if (!value) return false;
    values->push_back(*value);
    at = line.find_first_not_of(" \t\r", at);
    if (at != std::string::npos && line[at] != ',' && line[at] != ']' && line[at] != '#') return false;
  }
}

void Add(const Setting& setting, std::vector<Setting>* all) {
  const auto same = std::find_if(all->begin(), all->end(), [&](const Setting& each) {
    return each.section == setting.section && each.name == setting.name;
  });
  if (same == all->end()) return all->push_back(setting);
  same->isBare = same->isBare || setting.isBare;
  same->values.insert(same->values.end(), setting.values.begin(), setting.values.end());
}

}  // namespace

Settings ParseSettings(const std::string& text) {
  Settings settings;
  std::string section;
  std::istringstream lines(text);
  int number = 0;
  const auto complain = [&](int line, const std::string& what) {
    settings.problems.push_back(std::to_string(line) + ": " + what);
  };
  for (std::string line; std::getline(lines, line);) {
    number++;
    line = Trimmed(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      const size_t end = line.find(']');
      section = end == std::string::npos ? "" : Trimmed(line.substr(1, end - 1));
      if (end == std::string::npos || !IsRest(line, end + 1)) complain(number, "a section is as [record]");
      continue;
    }
    size_t at = line.find_first_of("=#");
    Setting setting{section, Trimmed(line.substr(0, at)), {}, number, false};
    bool sound = !setting.name.empty() && setting.name.find_first_of(" \t\"'") == std::string::npos;
    if (!sound) {
      complain(number, "a line is as name = value");
      continue;
    }
    if (at == std::string::npos || line[at] == '#') {
      setting.values = {"true"};
      setting.isBare = true;
      Add(setting, &settings.all);
      continue;
    }
    at = std::min(line.find_first_not_of(" \t", at + 1), line.size());
    if (at < line.size() && line[at] == '[') {
      bool closed = false;
      sound = TakeList(line, at + 1, &setting.values, &closed);
      while (sound && !closed && std::getline(lines, line)) {
        number++;
        sound = TakeList(line, 0, &setting.values, &closed);
      }
      sound = sound && closed;
    } else {
      const std::optional<std::string> value = TakeValue(line, false, &at);
      sound = value && IsRest(line, at);
      if (sound) setting.values = {*value};
    }
    if (sound) {
      Add(setting, &settings.all);
    } else {
      complain(number, "the value of " + setting.name + " has a quote or bracket too many or too few");
    }
  }
  return settings;
}

}  // namespace recorder
