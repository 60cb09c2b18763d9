// The configuration file: what the options of record, and --root, can say.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace recorder {

struct Context;

// Takes what the command line left open from the file that it names, or from /etc/recorder.conf when that is
// there, and the names of the channels for the context. The command line has been parsed. Returns what is wrong
// with the file, a line each; what is not wrong has been taken.
std::vector<std::string> ApplyConfig(CLI::App& app, Context& context);

}  // namespace recorder
