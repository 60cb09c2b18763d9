// recorder config: which settings of record are in force, and what is wrong with them. Looks only.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/capture/Address.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/recording/RecordSession.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

// With its values as they are in force; secrets are hidden.
std::vector<std::string> ValuesOf(CLI::Option& option, const RecordOptions& options) {
  const std::string& name = option.get_lnames().front();
  if (name == "input") {
    std::vector<InputSpec> inputs;
    std::vector<std::string> shown;
    if (ParseInputs(options.inputs, IMF_CHANNEL_LIMIT, &inputs)) inputs.clear();
    for (const InputSpec& each : inputs) {
      shown.push_back(std::to_string(each.channel) + ":" + each.name + (each.name.empty() ? "" : "=") +
                      ShownAddress(each.address));
    }
    return shown;
  }
  if (option.get_expected_min() == 0) {
    const std::vector<std::string>& names = option.get_lnames();
    const bool isOn = std::find(names.begin(), names.end(), "no-" + name) != names.end();  // unless it is said
    return {option.count() > 0 ? option.results().back() : isOn ? "true" : "false"};
  }
  if (option.get_expected_max() > 1) return option.results();
  option.capture_default_str();
  std::string value = option.get_default_str();
  if (value.find("://") != std::string::npos) value = ShownAddress(value);
  return value.empty() ? std::vector<std::string>() : std::vector<std::string>{value};
}

// Something is hidden when it is shown.
bool HasSecrets(const RecordOptions& options) {
  return std::any_of(options.inputs.begin(), options.inputs.end(), [](const std::string& text) {
    const std::string address = ParseInput(text).address;
    return ShownAddress(address) != address;
  });
}

int ShowConfig(CLI::App& record, Context& context) {
  const RecordOptions& options = *context.record;
  std::vector<std::string> problems = context.problems;
  Print("# %s\n", context.config.empty() ? "no configuration file" : context.config.c_str());
  if (!context.root.empty()) Print("root = %s\n", context.root.c_str());
  for (CLI::Option* option : record.get_options()) {
    if (!option->get_configurable() || option->get_lnames().empty() || option->get_group().empty()) continue;
    for (const std::string& value : ValuesOf(*option, options)) {
      const bool isPlain = value.find_first_of(" #\"'[,") == std::string::npos;
      const char* quote = isPlain ? "" : value.find('"') == std::string::npos ? "\"" : "'";
      Print("%s = %s%s%s\n", option->get_lnames().front().c_str(), quote, value.c_str(), quote);
    }
  }
  if (const Refusal refusal =
          context.root.empty() ? "--root is required" : CheckRecord(options, context.root)) {
    problems.push_back(*refusal);
  }
  struct stat info = {};
  if (HasSecrets(options) && stat(context.config.c_str(), &info) == 0 && (info.st_mode & S_IROTH) != 0) {
    problems.push_back(context.config + " has passwords and can be read by everybody: chmod 600 helps");
  }
  for (const std::string& problem : problems) Complain("%s", problem.c_str());
  return problems.empty() ? kDone : kFound;
}

}  // namespace

void AddConfigCommand(CLI::App& app, Context& context) {
  CLI::App* record = app.get_subcommand("record");
  CLI::App* command = app.add_subcommand(
      "config", "Show the settings of record that are in force, and what is wrong with them");
  command->callback([record, &context] {
    context.looksAtConfig = true;
    context.run = [record, &context] { return ShowConfig(*record, context); };
  });
}

}  // namespace recorder
