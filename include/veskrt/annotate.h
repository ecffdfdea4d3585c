/* Annotations, for the author of a program: named places that a collector can find (veskrt/annotations.h
 * reads them).
 *
 * An annotation says: when the program is at this point, the value of this name is in that place. It costs
 * the program no instruction and no relocation: the macros place a small table in a section of its own, which
 * the linker gathers, one section for each module. They need nothing of the library, neither its headers nor
 * its code.
 *
 *     void handle(struct request* r) {                          // r arrives in register 5
 *       VESK_ANNOTATE("request_begin", VESK_IN_REGISTER(5));
 *       ...
 *       VESK_ANNOTATE("request_end");
 *     }
 *
 * Where the compiler inlines or copies the code, each copy is annotated. Names are string literals without
 * '"' and '\'; numbers are integer literals, or macros that are one. x86-64, GNU assembler syntax, inside
 * functions only. A link with `--gc-sections` keeps the annotated functions. */
#ifndef VESKRT_ANNOTATE_H
#define VESKRT_ANNOTATE_H

/* ---- Where a value is ----
 *
 * Registers are 0 to 31, by their DWARF numbers: rax 0, rdx 1, rcx 2, rbx 3, rsi 4, rdi 5, rbp 6, rsp 7, r8
 * to r15 as they are called, xmm0 to xmm14 17 to 31. */

/* In a register. */
#define VESK_IN_REGISTER(number) ".byte 1, 0x50 + (" VESK_ANNOTATE_TEXT_(number) ")\n"

/* At the address that is a register's content plus an offset of 32 bits. */
#define VESK_AT_REGISTER(number, offset)                                                                     \
  ".uleb128 99703f - 99702f\n99702:\n.byte 0x70 + (" VESK_ANNOTATE_TEXT_(                                    \
      number) ")\n.sleb128 " VESK_ANNOTATE_TEXT_(offset) "\n99703:\n"

/* A constant, 0 to 31. */
#define VESK_CONSTANT(value) ".byte 1, 0x30 + (" VESK_ANNOTATE_TEXT_(value) ")\n"

/* ---- Annotations ---- */

/* VESK_ANNOTATE(name) or VESK_ANNOTATE(name, place): this point of the code. The place is the constant 0 when
 * none is given. */
#define VESK_ANNOTATE(...)                                                                                   \
  VESK_ANNOTATE_PICK_(__VA_ARGS__, VESK_ANNOTATE_AT_, VESK_ANNOTATE_HERE_, )(__VA_ARGS__)

/* The same with a probe word, 32 bits that mean what program and collector agree on. */
#define VESK_ANNOTATE_PROBE(name, probe, place)                                                              \
  VESK_ANNOTATE_TABLE_12_(3, name, ".long " VESK_ANNOTATE_TEXT_(probe) "\n", place)

/* An annotation of version 1.1, for readers that know no other, with a probe word as they all have. Its
 * address counts from the module's load base, which is known at link time only to programs that are not
 * position independent (-no-pie). */
#if !defined(__PIC__) && !defined(__pic__)
#define VESK_ANNOTATE_1_1(name, probe, place)                                                                \
  VESK_ANNOTATE_ASM_(VESK_ANNOTATE_HEADER_                                                                   \
                     ".short 0x0101, 1\n"                                                                    \
                     ".long 56, 99705f - 99704f, 56 + 99705f - 99704f, 99706f - 99705f\n"                    \
                     ".quad 99700b\n"                                                                        \
                     ".long " VESK_ANNOTATE_TEXT_(probe) ", 0, 0\n",                                         \
                     name, place)
#endif

/* ---- How they are made ----
 *
 * Each is a table of one item: the header, the item, the name, the expression. The label 99700 is the
 * annotated point, 99701 the table's first byte, from which its address and its offsets count; 99704 to 99706
 * bound name and expression. The section belongs to the same group as the code ("?"), so that code which the
 * linker drops takes its annotation along, and is retained ("R") otherwise. */

#define VESK_ANNOTATE_TEXT_(value) VESK_ANNOTATE_TEXT__(value)
#define VESK_ANNOTATE_TEXT__(value) #value
#define VESK_ANNOTATE_PICK_(first, second, chosen, ...) chosen

#define VESK_ANNOTATE_HERE_(name) VESK_ANNOTATE_AT_(name, VESK_CONSTANT(0))
#define VESK_ANNOTATE_AT_(name, place) VESK_ANNOTATE_TABLE_12_(1, name, "", place)

#define VESK_ANNOTATE_HEADER_ "99701:\n.asciz \".ovk_notify_tab\"\n"

#define VESK_ANNOTATE_TABLE_12_(flags, name, probe, place)                                                   \
  VESK_ANNOTATE_ASM_(VESK_ANNOTATE_HEADER_                                                                   \
                     ".short 0x0102, 0, 1, 0\n"                                                              \
                     ".long 99704f - 99701b, 99705f - 99704f\n"                                              \
                     ".long 99705f - 99701b, 99706f - 99705f\n"                                              \
                     ".quad " VESK_ANNOTATE_TEXT_(flags) "\n"                                                \
                                                         ".quad 99700b - 99701b\n" probe ".long 0, 0\n",     \
                     name, place)

#define VESK_ANNOTATE_ASM_(header, name, place)                                                              \
  __asm__ __volatile__("99700:\n.pushsection .ovk_notify_tab, \"aR?\", @progbits\n" header                   \
                       "99704:\n.asciz \"" name "\"\n"                                                       \
                       "99705:\n" place "99706:\n.popsection")

#endif
