/* The options of a tool: declared once, set from its command line, read wherever they matter.
 *
 * A tool takes a parser under its name, registers options with it and parses its arguments. Options are told
 * apart by ids into tables of the process (16 parsers, 256 options in all); an id is never handed out twice,
 * and an option answers only to the parser that it was registered with.
 *
 *     enum { FULL, FAST };
 *     uint32_t parser = __VeskGetOptionParser("mytool");
 *     uint32_t depth = __VeskRegisterIntegerOption(parser, "-depth", "frames to keep", 16, 0, 1);
 *     uint32_t mode = __VeskRegisterStringEnumOption(parser, "-mode", "how to look", "full", 0, 1);
 *     __VeskSetValidStringOptionArgumentWithEnum(parser, mode, "full", FULL);
 *     __VeskSetValidStringOptionArgumentWithEnum(parser, mode, "fast", FAST);
 *     if (!__VeskParseOptions2(parser, argc, argv)) {                    // -depth 8 -mode fast
 *       __VeskPrintHelp(parser, 0);
 *       return 1;
 *     }
 *     keepFrames(__VeskGetIntegerOptionValue(parser, depth));
 *     if (__VeskGetStringOptionEnumValue(parser, mode) == FAST) hurry();
 *
 * On the command line an option begins with '-'. A boolean stands alone and is negated by "no-" behind its
 * '-': -no-verbose sets -verbose to 0. Any other option takes the next argument as its value, which therefore
 * cannot begin with '-'. There is no "--", no "name=value" and no bundling; options come in any order, and a
 * repeated option sets its value anew or, if it is an append option, adds one.
 *
 * Wrong use by the tool is a tool defect: a wrong id, an operation of another type, a value that is not among
 * the valid arguments. It ends the process through __VeskLogFatalToolDefect, and is marked "Fatal" below. All
 * texts are copied, in memory category 0; texts that are returned belong to the option and live until it is
 * set again or its parser is released.
 *
 * Parsers and options may be registered from several threads at a time. Beyond that nothing here is guarded:
 * a tool sets its options on one thread before others read them. No function takes a lock, except that of the
 * log while a record is written. */
#ifndef VESKRT_OPTIONS_H
#define VESKRT_OPTIONS_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_MAX_OPTION_PARSERS 16u
#define VESK_MAX_OPTIONS 256u

/* ---- Parsers ---- */

/* A new parser for the tool, 0 to 15, also when the name has one already. VESK_INVALID_ID for a null name, or
 * when all are out. */
VESK_API uint32_t __VeskGetOptionParser(const char* toolName);

/* Takes a parser's options away, and the memory of their texts and values: no later call matches them.
 * Returns 1; 0 when there is no such parser, it was released before, or `toolName` does not begin with its
 * name. Its id, and those of its options, are not handed out again. */
VESK_API int __VeskReleaseOptionParserHandle(uint32_t parser, const char* toolName);

/* ---- Registering options ----
 *
 * The name begins with '-' and is what the user types. `flags` is the tool's own. The help lists an option if
 * `visible` is nonzero. Each returns the option's id, 0 to 255, or VESK_INVALID_ID when all are out. Fatal: a
 * null name or description, a parser that was never handed out, a name without '-'. */

/* 0 or 1; a default other than 0 counts as 1. */
VESK_API uint32_t __VeskRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                              int32_t defaultValue, uint32_t flags, uint32_t visible);

/* On the command line 0 to 2147483647: decimal, hexadecimal with 0x, or octal with a leading 0. */
VESK_API uint32_t __VeskRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                              int32_t defaultValue, uint32_t flags, uint32_t visible);

/* A text; the default may be null. With `append` nonzero every setting adds a value. */
VESK_API uint32_t __VeskRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                             const char* defaultText, uint32_t flags, int append,
                                             uint32_t visible);

/* One of a few texts, each standing for a number: the valid arguments, registered below. */
VESK_API uint32_t __VeskRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                                 const char* defaultText, uint32_t flags, uint32_t visible);

/* A text in which every run of '/' becomes a single one, in the default as well. */
VESK_API uint32_t __VeskRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                           const char* defaultText, uint32_t flags, int append,
                                           uint32_t visible);

/* ---- Valid arguments: while an option has none, every value is accepted ----
 *
 * For options of the types integer, string and string enum. Each returns 1. Fatal: ids that do not belong
 * together, an append option, another type. Defaults are not checked. */
VESK_API int __VeskSetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value);
VESK_API int __VeskSetValidStringOptionArgument(uint32_t parser, uint32_t option, const char* text);
VESK_API int __VeskSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option, const char* text,
                                                        int32_t enumValue);

/* ---- Setting values: what the command line does, for the tool itself ----
 *
 * Each returns 1. Fatal: ids that do not belong together, an option of another type, a null text, a value
 * that is not valid. A text is valid if it is the beginning of a valid argument ("fa" for "fast"), and is
 * stored as given. Booleans and integers are stored as given; booleans have no valid arguments. */
VESK_API int __VeskSetBooleanOption(uint32_t parser, uint32_t option, int32_t value);
VESK_API int __VeskSetIntegerOption(uint32_t parser, uint32_t option, int32_t value);
VESK_API int __VeskSetPathOption(uint32_t parser, uint32_t option, const char* text);

/* For options of any type, meant for string and string enum: a path is folded; a boolean or an integer
 * becomes -1. */
VESK_API int __VeskSetStringOption(uint32_t parser, uint32_t option, const char* text);

/* ---- Reading values: the default until the option is set ----
 *
 * Fatal: ids that do not belong together, an option of another type. The string getters take options of any
 * type; booleans and integers have no texts. */
VESK_API int32_t __VeskGetBooleanOptionValue(uint32_t parser, uint32_t option);
VESK_API int32_t __VeskGetIntegerOptionValue(uint32_t parser, uint32_t option);

/* The (first) text; null when there is neither a value nor a default. */
VESK_API const char* __VeskGetStringOptionValue(uint32_t parser, uint32_t option);
VESK_API const char* __VeskGetPathOptionValue(uint32_t parser, uint32_t option);

/* The text of value `index`, from 1. Null, with a record in the log, for index 0 or one beyond the values of
 * an option that is set; an option that is not set has its default as value 1, and null without a record for
 * a higher index. */
VESK_API const char* __VeskGetStringOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index);
VESK_API const char* __VeskGetPathOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index);

/* For string enum options: the number of the first valid argument that begins with the option's text; -1 (all
 * bits set) when none does or there is no text. */
VESK_API int32_t __VeskGetStringOptionEnumValue(uint32_t parser, uint32_t option);

/* Calls callback(text, context) for each value that an append option has at the time of the call, in the
 * order in which they were added; what it returns is ignored. The default is not a value. Fatal: ids that do
 * not belong together, an option that is not an append option. The callback must not release the parser. */
typedef int (*VeskOptionValueCallback)(const char* text, void* context);
VESK_API void __VeskProcessAppendOptionValues(uint32_t parser, uint32_t option,
                                              VeskOptionValueCallback callback, void* context);

/* ---- Asking about options ---- */

/* Has it been set? Fatal: ids that do not belong together. */
VESK_API int __VeskIsOptionSet(uint32_t parser, uint32_t option);

/* Values set so far. Does not look at the parser; 0 for ids without an option. A released option keeps its
 * number. */
VESK_API uint32_t __VeskGetOptionNumberOfArguments(uint32_t parser, uint32_t option);

/* The name; null for ids that do not belong together. */
VESK_API const char* __VeskGetOptionName(uint32_t parser, uint32_t option);

/* The flags given at registration; VESK_INVALID_ID, with a record in the log, for ids that do not belong
 * together. */
VESK_API uint32_t __VeskGetOptionFlags(uint32_t parser, uint32_t option);

/* ---- The command line ---- */

/* Sets options from `argc` arguments; argv[0] is the first option, not the program. Returns 1; 0 at the first
 * argument that is refused, and then options before it keep their values. The log has a record of a refusal,
 * VESKLOG_MSG_BAD_OPTION (unknown, wrongly negated, or without '-') or VESKLOG_MSG_BAD_ARGUMENT (value
 * missing, not a number or out of range) with the argument as typed, or the option that the value belongs to;
 * and a comment with the details. Fatal: a value that is not among the option's valid arguments. */
VESK_API int __VeskParseOptions2(uint32_t parser, uint32_t argc, const char* const* argv);
VESK_API int __VeskParseOptions(uint32_t parser, uint32_t argc, const char* const* argv); /* its older name */

/* Lists the parser's options with descriptions and defaults on standard output, those registered as not
 * visible only if `all` is nonzero. Then flushes it. */
VESK_API void __VeskPrintHelp(uint32_t parser, int all);

/* The same for every parser, in the order in which they were handed out. */
VESK_API void __VeskPrintHelpAll(int all);

/* Writes the options of the parser and their values, or defaults, to the log, one comment each. Values of an
 * append option are joined, 2,047 bytes of them at most; a missing text is written as "none". */
VESK_API void __VeskLogToolOptionValues(uint32_t parser);

VESK_END_DECLS

#endif
