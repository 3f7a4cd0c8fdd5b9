// SPDX-License-Identifier: LGPL-2.1-or-later
// Starting the programs this build made (the command-line tool, a test program
// itself). In a cross build they run through the emulator CMake was given
// (CMAKE_CROSSCOMPILING_EMULATOR), which TQ_EMULATOR carries as shell words.
#pragma once

#include <string>

#include "foundation/os.h"

#ifndef TQ_EMULATOR
#define TQ_EMULATOR ""
#endif

namespace tqtest {

// Whether programs of this build run through an emulator.
inline bool emulated_build() { return TQ_EMULATOR[0] != '\0'; }

// A shell command line that starts the program at path (arguments may follow).
inline std::string built_program(const std::string &path)
{
    return std::string(TQ_EMULATOR) + tq::os::shell_quote(path);
}

} // namespace tqtest
