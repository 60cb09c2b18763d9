#include "apps/recorder/commands/ConfigFile.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Settings.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Refusals.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

constexpr const char* kDefaultPath = "/etc/recorder.conf";
constexpr size_t kSizeLimit = kMiB;

// Nothing when it was taken; else what is wrong with it.
Refusal Apply(const Setting& setting, CLI::App& app, CLI::App& record) {
  if (!setting.section.empty() && setting.section != "record") return "there is no section " + setting.section;
  CLI::App& owner = setting.name == "root" ? app : record;
  CLI::Option* option = owner.get_option_no_throw("--" + setting.name);
  if (option == nullptr || !option->get_configurable()) return "there is no setting " + setting.name;
  if (option->count() > 0) return std::nullopt;  // the command line comes first
  const bool isFlag = option->get_expected_min() == 0;
  if (setting.values.empty() || (setting.isBare && !isFlag) || IsEmptyByMistake(*option, setting.values)) {
    return setting.name + " has no value";
  }
  if (setting.values.size() != 1 && option->get_expected_max() <= 1) return setting.name + " takes one value";
  try {
    if (isFlag) {
      option->add_result(option->get_flag_value(setting.name, setting.values[0]));
    } else {
      option->add_result(setting.values);
    }
    option->run_callback();
  } catch (const CLI::ParseError&) {
    option->clear();
    return setting.name + " cannot be " + setting.values[0];
  }
  return std::nullopt;
}

std::string WithoutSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::vector<std::string> ApplyConfig(CLI::App& app, Context& context) {
  CLI::App* record = app.get_subcommand("record");
  const bool isDefault = context.config.empty();
  if (isDefault && !Exists(kDefaultPath)) return {};
  if (isDefault) context.config = kDefaultPath;
  if (context.config == "/dev/null") return {};  // so that the default file is not taken
  const std::optional<std::string> text = ReadSmallFile(context.config, kSizeLimit, 0);
  if (!text) {
    return {"cannot read " + context.config + ": " +
            (errno == EINVAL ? "it is not a regular file" : std::strerror(errno))};
  }
  if (text->size() == kSizeLimit || text->find('\0') != std::string::npos) {
    return {context.config + " is no configuration file: it is not text, or too large"};
  }
  const std::string rootBefore = context.root;
  const Settings settings = ParseSettings(*text);
  std::vector<std::string> problems;
  for (const std::string& each : settings.problems) problems.push_back(context.config + ":" + each);
  std::string root = rootBefore;
  for (const Setting& each : settings.all) {
    if (each.name == "root" && !each.values.empty()) root = each.values[0];
    if (const Refusal refusal = Apply(each, app, *record)) {
      problems.push_back(context.config + ":" + std::to_string(each.line) + ": " + *refusal);
    }
  }
  // Names are those of the channels, and of the disks, below the root directory that the file is about.
  std::vector<InputSpec> inputs;
  const auto isSame = WithoutSlash(root) == WithoutSlash(context.root);
  if (isSame) context.disks = record->get_option("--disk")->results();
  if (isSame && !ParseInputs(record->get_option("--input")->results(), IMF_CHANNEL_LIMIT, &inputs)) {
    context.names = NamesOf(inputs);
  }
  return problems;
}

}  // namespace recorder
