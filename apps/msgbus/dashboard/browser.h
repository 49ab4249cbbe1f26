#pragma once

#include <string>

namespace dashboard {

/// Opens `address` in the user's browser, with xdg-open. Throws: std::system_error when it cannot be started.
void OpenBrowser(const std::string& address);

} // namespace dashboard
