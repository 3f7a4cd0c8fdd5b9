// SPDX-License-Identifier: LGPL-2.1-or-later
// Subcommands of the tavro-quenda tool.
#pragma once

namespace cli {

// Each takes its own name as argv[0] and the arguments after it, and returns
// the exit status.
int identity(int argc, char **argv);
int verify(int argc, char **argv);
int encrypt(int argc, char **argv);
int digest(int argc, char **argv);
int rsa_check(int argc, char **argv);
int record(int argc, char **argv);
int keyfile(int argc, char **argv);
int base64(int argc, char **argv);

} // namespace cli
