/* A streaming XML writer for result files, and what the log is written with.
 *
 * It writes to a stream and keeps nothing but the nesting depth, which sets the indentation (one tab a
 * level). It allocates only when a file is created. String values are escaped; attribute values and element
 * names are not, so pass text that is safe there. Errors of single writes are not reported; a null handle
 * makes every operation do nothing, and a null name or value is written as an empty one.
 *
 * The writing functions take no lock. Bracket a whole record with acquire and release, so that threads take
 * turns. What is written in between gathers in the handle (72 KiB) and goes to the system in one write at
 * release; what a caller writes without holding the file goes there at once.
 *
 *     VeskXMLFile* file = __VeskXMLCreateFile("result.xml", 0);
 *     __VeskXMLAcquireFile(file);
 *     __VeskXMLStartWritingOpeningTag(file, "site");
 *     __VeskXMLWriteIntegerAttribute(file, "id", 7);
 *     __VeskXMLFinishWritingOpeningTag(file);
 *     __VeskXMLWriteStringElement(file, "name", "a < b");
 *     __VeskXMLWriteClosingTag(file, "site");
 *     __VeskXMLReleaseFile(file);                      // the record is with the system now
 *     __VeskXMLCloseFile(&file);
 */
#ifndef VESKRT_XML_H
#define VESKRT_XML_H

#include <stdarg.h>

#include "veskrt/base.h"

VESK_BEGIN_DECLS

typedef struct VeskXMLFile VeskXMLFile;

/* Creates the file anew and writes the XML header, or, with `append`, opens it at its end, writes nothing and
 * takes one element for open already. Null when it cannot be opened. Never lands on descriptors 0 to 2. */
VESK_API VeskXMLFile* __VeskXMLCreateFile(const char* path, int append);

/* Makes sure the stream works: 1 if it reports a position, or if the path could be opened again for
 * appending; else 0. The stream that stopped working is not closed. Takes the file's lock, so a thread may
 * call it in the middle of its record. */
VESK_API int __VeskXMLReopenFile(VeskXMLFile* file);

/* Hands over what is left, closes the stream, releases the handle and sets the caller's variable to null. If
 * closing fails, or what was left could not be written, the handle stays, with no stream: it can be reopened,
 * or closed once more. No other thread may use the handle any more. */
VESK_API void __VeskXMLCloseFile(VeskXMLFile** file);

/* For a child process that inherited a handle: releases it and sets the variable to null without touching
 * stream or lock. What the parent had not handed over yet is dropped. */
VESK_API void __VeskXMLCleanupAfterFork(VeskXMLFile** file);

/* Hold the file for one record (recursive); release flushes first. */
VESK_API void __VeskXMLAcquireFile(VeskXMLFile* file);
VESK_API void __VeskXMLReleaseFile(VeskXMLFile* file);

/* A comment on a line of its own. Runs of '-' become a single one; text beyond 65,534 bytes is cut. A null
 * format makes an empty comment. */
VESK_API void __VeskXMLWriteComment(VeskXMLFile* file, const char* format, ...) VESK_PRINTF(2, 3);
VESK_API void __VeskXMLWriteCommentV(VeskXMLFile* file, const char* format, va_list arguments);

/* Opening tags, on a line of their own: whole, or in pieces with attributes between start and finish. */
VESK_API void __VeskXMLWriteOpeningTag(VeskXMLFile* file, const char* name);
VESK_API void __VeskXMLStartWritingOpeningTag(VeskXMLFile* file, const char* name);
VESK_API void __VeskXMLWriteIntegerAttribute(VeskXMLFile* file, const char* name, int32_t value);
VESK_API void __VeskXMLWriteStringAttribute(VeskXMLFile* file, const char* name, const char* value);
VESK_API void __VeskXMLWriteHexadecimalAttribute(VeskXMLFile* file, const char* name, uint64_t value);
VESK_API void __VeskXMLWriteHexadecimalAddressAttribute(VeskXMLFile* file, const char* name,
                                                        uint64_t address);
VESK_API void __VeskXMLFinishWritingOpeningTag(VeskXMLFile* file);

/* The escaped text on the current line; beyond 65,535 bytes it is cut, never inside an entity. */
VESK_API void __VeskXMLWriteStringValue(VeskXMLFile* file, const char* value);

/* Closing tags: on a line of their own, or on the current line (after a string value). */
VESK_API void __VeskXMLWriteClosingTag(VeskXMLFile* file, const char* name);
VESK_API void __VeskXMLAppendClosingTag(VeskXMLFile* file, const char* name);

/* Whole elements, each on a line of its own. */
VESK_API void __VeskXMLWriteDecimalElement(VeskXMLFile* file, const char* name, int64_t value);
VESK_API void __VeskXMLWriteLongDecimalElement(VeskXMLFile* file, const char* name, int64_t value);
VESK_API void __VeskXMLWriteHexadecimalElement(VeskXMLFile* file, const char* name, uint64_t value);
VESK_API void __VeskXMLWriteHexadecimalAddressElement(VeskXMLFile* file, const char* name, uint64_t address);
VESK_API void __VeskXMLWriteStringElement(VeskXMLFile* file, const char* name, const char* value);

VESK_END_DECLS

#endif
