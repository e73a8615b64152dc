#pragma once
// Identity of this unit: serial number, model and the Wi-Fi radio fitted.
//
// Source: a text file of "key=value" lines (blank lines and lines starting with '#' are ignored,
// blanks around keys and values are trimmed):
//     serial=QB12345678      serial number, as printed on the unit
//     model=Cobalt           model display name
//     radio_type=1           Wi-Fi radio type (1: dual band, 5 GHz capable; anything else: 2.4 GHz)
// The file is /etc/vantu/identity unless the environment variable VANTU_IDENTITY_FILE names another
// one (tests and the simulated unit). Every call reads the file again, so a change is seen at once.
// A missing file or key gives an empty serial number, an empty display name and radio type 0.

#include <string>

namespace VantuInfo {

inline constexpr const char* kDefaultIdentityFile = "/etc/vantu/identity";
inline constexpr const char* kIdentityFileVariable = "VANTU_IDENTITY_FILE";

// The path that the readers use now.
std::string IdentityFile();

namespace ThisVantu {
std::string SerialNumber();
int RadioType();
}  // namespace ThisVantu

namespace ThisModel {
std::string DisplayName();
}  // namespace ThisModel

}  // namespace VantuInfo
