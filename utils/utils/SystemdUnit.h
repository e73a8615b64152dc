#pragma once
#include <string>

namespace Utils {

// Restarts a systemd unit through the manager on the system bus: LoadUnit, then Unit.Restart("replace").
// Every call uses fresh bus connections. Failures are logged; true when the restart job was accepted.
bool RestartServiceUnit(const std::string& unitName);

}  // namespace Utils
