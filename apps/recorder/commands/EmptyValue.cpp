#include <CLI/CLI.hpp>
#include <algorithm>

#include "apps/recorder/commands/Command.h"

namespace recorder {

namespace {

// Said on the command line, nothing takes the place of what the configuration file says.
constexpr const char* kMayBeEmpty[] = {"on-event", "camera-clock"};

// "--since=".
bool EndsWithEquals(const std::string& argument) {
  constexpr const char* kLetters = "abcdefghijklmnopqrstuvwxyz-";
  return argument.rfind("--", 0) == 0 && argument.find_first_not_of(kLetters) == argument.size() - 1 &&
         argument.back() == '=';
}

}  // namespace

bool IsEmptyByMistake(const CLI::Option& option, const std::vector<std::string>& values) {
  const bool mayBeEmpty = std::any_of(std::begin(kMayBeEmpty), std::end(kMayBeEmpty),
                                      [&option](const char* each) { return option.check_lname(each); });
  return option.get_expected_min() > 0 && !mayBeEmpty &&
         std::find(values.begin(), values.end(), "") != values.end();
}

Refusal RefuseEmptyValues(const std::vector<std::string>& arguments) {
  const auto bare = std::find_if(arguments.begin(), arguments.end(), EndsWithEquals);
  if (bare == arguments.end()) return std::nullopt;
  return bare->substr(0, bare->size() - 1) + " has no value";
}

Refusal RefuseEmptyValues(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    if (IsEmptyByMistake(*option, option->results())) return option->get_name() + " has no value";
  }
  for (const CLI::App* command : app.get_subcommands()) {
    if (Refusal refusal = RefuseEmptyValues(*command)) return refusal;
  }
  return std::nullopt;
}

}  // namespace recorder
