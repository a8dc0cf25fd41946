// What the program says of itself to the system, in the section where the system looks for it in a program without
// a bundle. It belongs to the executable, not to the library, from which nothing would ask for it.

asm(".section __TEXT,__info_plist,regular,no_dead_strip\n"
    ".globl _programInformationList\n"
    "_programInformationList:\n"
    ".incbin \"" OSTLER_INFORMATION_LIST "\"\n"
    ".text\n");
