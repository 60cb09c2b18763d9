#include "apps/recorder/capture/Address.h"

#include <algorithm>
#include <cctype>

namespace recorder {

namespace {

// Whether a parameter of this name, which ends at `end`, is nobody's business.
bool IsSecret(const std::string& address, size_t end) {
  size_t begin = end;
  const auto isName = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-';
  };
  while (begin > 0 && isName(address[begin - 1])) --begin;
  std::string name = address.substr(begin, end - begin);
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (name == "pw") return true;
  for (const char* word : {"pas", "pwd", "psw", "secret", "token", "auth", "key", "sign", "credential"}) {
    if (name.find(word) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

std::string ShownAddress(const std::string& url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url == "-" ? "standard input" : url;
  const size_t host = url.find_first_of("/?#", scheme + 3);
  size_t at = url.rfind('@', host);
  // A password with such a character in it should have been written with % and digits; it is one all the same.
  const bool hasColon = url.substr(0, host).find(':', scheme + 3) != std::string::npos;
  if ((at == std::string::npos || at < scheme) && hasColon) at = url.rfind('@');
  std::string shown = url;
  if (at != std::string::npos && at > scheme) shown = url.substr(0, scheme + 3) + "***" + url.substr(at);
  // Cameras take passwords in the query, and some in the path.
  for (size_t i = shown.find('=', scheme); i != std::string::npos; i = shown.find('=', i + 1)) {
    if (!IsSecret(shown, i)) continue;
    const size_t end = std::min(shown.find_first_of("&;/?#", i), shown.size());
    shown.replace(i + 1, end - i - 1, "***");
  }
  return shown;
}

std::vector<std::string> ShownAddresses(const std::vector<std::string>& urls) {
  std::vector<std::string> shown;
  for (const std::string& url : urls) shown.push_back(ShownAddress(url));
  return shown;
}

bool IsNetwork(const std::string& url) {
  return url.find("://") != std::string::npos && url.rfind("file://", 0) != 0;
}

}  // namespace recorder
