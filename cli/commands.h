// SPDX-License-Identifier: LGPL-2.1-or-later
// Subcommands of the tavro-quenda tool.
#pragma once

namespace cli {

// Each takes the arguments after its own name and returns the exit status.
int identity(int argc, char **argv);
int verify(int argc, char **argv);
int encrypt(int argc, char **argv);

} // namespace cli
