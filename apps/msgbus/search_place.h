#pragma once

#include <string>

/// Returns: where the server was looked for and what has chosen this place, as the end of a sentence that says that it
/// was not found. What chooses it differs between a shell, sudo, cron and the units of a service manager.
std::string SearchPlace();
