/// What a program does before everything else.
#pragma once

namespace kest::tools
{

/// Opens /dev/null in place of standard input, output and error where the program was started without them: the next
/// file that is opened would get the number, and with it what is printed. Ignores SIGXFSZ: past a limit on file sizes a
/// write fails with EFBIG, and does not end the process without a word.
///
/// Initialisers open files, too, and those of shared libraries run first. So a program has the loader call it before
/// them: KEST_STARTS_FIRST in its main file.
void prepareProcess();

} // namespace kest::tools

#define KEST_STARTS_FIRST                                                                                              \
    [[gnu::section(".preinit_array"), gnu::used]] static void (*const startsFirst)() = kest::tools::prepareProcess
