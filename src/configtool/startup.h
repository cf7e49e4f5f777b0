// Start-up, one dispatch of the command line, tear-down.
#pragma once

#include <vector>

#include "foundation/string.h"

// Runs the tool on a command line (argv[0] is the program); the exit status.
int runConfigTool(const std::vector<STRING>& argv);
