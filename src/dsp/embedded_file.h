// Embeds a file of the build into the library's read-only data with
// .incbin, and declares its first and one-past-last elements as
// NAME_begin and NAME_end of type TYPE. Large tables stay bytes rather than
// source text (a generated array of megabytes would cost far more compile
// time and memory), and the file the tools write is the file the library
// carries. PATH is an absolute path in a string literal; the object that
// uses the macro must depend on the file (src/CMakeLists.txt does so with
// OBJECT_DEPENDS). The start is 64-byte aligned, so float tables can be read
// in place. The symbols are hidden: they stay local to the shared library.
#pragma once

#define QUELORA_EMBED_FILE(NAME, PATH, TYPE)                                                       \
    asm(".section .rodata." #NAME ",\"a\",@progbits\n"                                             \
        ".balign 64\n"                                                                             \
        ".globl " #NAME "_begin\n"                                                                 \
        ".hidden " #NAME "_begin\n" #NAME "_begin:\n"                                              \
        ".incbin \"" PATH "\"\n"                                                                   \
        ".globl " #NAME "_end\n"                                                                   \
        ".hidden " #NAME "_end\n" #NAME "_end:\n"                                                  \
        ".previous\n");                                                                            \
    extern "C" const TYPE NAME##_begin[];                                                          \
    extern "C" const TYPE NAME##_end[]
