#include "fmgr/ShellPath.h"

namespace fmgr {
namespace {

// Independent of the locale: only these bytes mean themselves in every shell.
bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '.' ||
         c == '_' || c == '-';
}

}  // namespace

std::string ShellPath(const std::string& path) {
  bool plain = !path.empty();
  for (const char c : path) plain = plain && IsPlain(c);
  if (plain) return path;

  std::string quoted = "'";
  for (const char c : path) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace fmgr
