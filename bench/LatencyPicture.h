#pragma once

#include <string>
#include <vector>

namespace bench {

// A PNG: which share of the hand-outs and of the creations took longer than a time, both axes logarithmic.
// Seconds. Empty, or why it could not be written.
std::string DrawLatencies(const std::string& path, std::vector<double> handOuts, std::vector<double> creations);

}  // namespace bench
