#include "vantu_info/VantuInfo.h"

#include <cstdlib>
#include <fstream>

namespace VantuInfo {
namespace {

std::string Trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return {};
    const auto e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::string ReadKey(const std::string& key) {
    std::ifstream in(IdentityFile());
    std::string line;
    std::string value;
    while (std::getline(in, line)) {
        const std::string t = Trim(line);
        if (t.empty() || t[0] == '#')
            continue;
        const auto eq = t.find('=');
        if (eq == std::string::npos)
            continue;
        if (Trim(t.substr(0, eq)) == key)
            value = Trim(t.substr(eq + 1));  // the last one wins
    }
    return value;
}

}  // namespace

std::string IdentityFile() {
    const char* over = std::getenv(kIdentityFileVariable);
    return (over != nullptr && *over != '\0') ? over : kDefaultIdentityFile;
}

namespace ThisVantu {
std::string SerialNumber() {
    return ReadKey("serial");
}

int RadioType() {
    const std::string v = ReadKey("radio_type");
    if (v.empty())
        return 0;
    char* end = nullptr;
    const long n = std::strtol(v.c_str(), &end, 10);
    return (end != nullptr && *end == '\0') ? static_cast<int>(n) : 0;
}
}  // namespace ThisVantu

namespace ThisModel {
std::string DisplayName() {
    return ReadKey("model");
}
}  // namespace ThisModel

}  // namespace VantuInfo
