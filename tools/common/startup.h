/// What a program does before everything else.
#pragma once

namespace kest::tools
{

/// Opens /dev/null in place of standard input, output and error where the program was started without them. Otherwise
/// the next file that is opened would get their number, and the program's output. Ignores SIGXFSZ: past a limit on file
/// sizes a write then fails with EFBIG instead of ending the process without a message.
///
/// Initialisers open files, too, and those of shared libraries run first. So a program has the loader call this
/// function before them: KEST_STARTS_FIRST in its main file.
void prepareProcess();

} // namespace kest::tools

#define KEST_STARTS_FIRST                                                                                              \
    [[gnu::section(".preinit_array"), gnu::used]] static void (*const startsFirst)() = kest::tools::prepareProcess
