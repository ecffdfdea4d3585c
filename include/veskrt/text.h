/* Files, paths and text: what the library and its collectors use instead of calling the C library directly.
 *
 *     int error;
 *     FILE* file = __VeskFopen(path, "r", &error);                 // never on descriptors 0 to 2
 *     char* name = __VeskGetBaseName("/usr/lib/libc.so.6");        // "libc.so.6"
 *     ...
 *     __VeskFree(name);
 *
 * Strings that these functions return are allocated with __VeskMalloc in category 0 and released with
 * __VeskFree (or the release function named here). No locks; only the logical clock is shared, and it is
 * atomic. */
#ifndef VESKRT_TEXT_H
#define VESKRT_TEXT_H

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* ---- Streams: each of these is the C library's function of the same name ---- */
VESK_API int __VeskFclose(FILE* stream);
VESK_API char* __VeskFgets(char* buffer, int size, FILE* stream);
VESK_API long __VeskFtell(FILE* stream);
VESK_API int __VeskFflush(FILE* stream);
VESK_API size_t __VeskFread(void* buffer, size_t size, size_t count, FILE* stream);
VESK_API size_t __VeskFwrite(const void* buffer, size_t size, size_t count, FILE* stream);
VESK_API int __VeskFseek(FILE* stream, long offset, int origin);
VESK_API int __VeskFprintf(FILE* stream, const char* format, ...) VESK_PRINTF(2, 3);

/* As fopen, but the stream never takes descriptor 0, 1 or 2, whichever of them are closed; they are closed
 * again when it returns. `error`, if given, receives errno. Null on failure. */
VESK_API FILE* __VeskFopen(const char* path, const char* mode, int* error);

/* The same for a wide path and mode, without the care for descriptors 0 to 2. Null also when one cannot be
 * converted. */
VESK_API FILE* __VeskWFopen(const wchar_t* path, const wchar_t* mode, int* error);

/* ---- Bounded formatting: as vsnprintf ---- */
VESK_API int __VeskVsnprintf(char* buffer, size_t size, const char* format, va_list arguments);
VESK_API int __VeskSnprintf(char* buffer, size_t size, const char* format, ...) VESK_PRINTF(3, 4);
VESK_API int __VeskSCnprintf(char* buffer, size_t size, const char* format, ...) VESK_PRINTF(3, 4);

/* ---- Copies ---- */

/* A new copy; null for null. */
VESK_API char* __VeskStrdup(const char* text);

/* As strncpy (the rest is filled with zeros), but always terminated: at most size - 1 characters. */
VESK_API char* __VeskStrncpy(char* destination, const char* source, size_t size);
VESK_API char* __VeskStrSCncpy(char* destination, const char* source, size_t size);

/* ---- Paths ---- */

/* A new string: what follows the last '/'; the whole path if it has none behind its first character; empty
 * for a path that ends in '/'; null for an empty path. */
VESK_API char* __VeskGetBaseName(const char* path);
VESK_API char* __VeskGetSCBaseName(const char* path);

/* Makes every run of '/' a single one, in place; null is ignored. */
VESK_API void __VeskSanitizePath(char* path);

/* ---- Text ---- */

/* Cuts trailing white space off in place and returns the first character that is none; null for null. */
VESK_API char* __VeskStripWhiteSpaces(char* text);

/* Byte by byte through the current locale's tolower, in place; null is ignored. */
VESK_API void __VeskConvertUtf8ToLowerCase(char* text);

/* ---- Multibyte and wide strings, under the current locale ---- */

/* Convert into a buffer of `bytes` bytes. Return the characters (bytes) converted; 0 when the text is empty,
 * cannot be converted, or does not fit with its terminator. */
VESK_API size_t __VeskUtf8ToWstring(wchar_t* buffer, size_t bytes, const char* text);
VESK_API size_t __VeskWstringToUtf8(char* buffer, size_t bytes, const wchar_t* text);

/* Convert into a new string; null when the text cannot be converted. */
VESK_API wchar_t* __VeskAllocateAndConvertUtf8ToWstring(const char* text);
VESK_API char* __VeskAllocateAndConvertWstringToUtf8(const wchar_t* text);
VESK_API void __VeskFreeWstring(wchar_t* text);
VESK_API void __VeskFreeMbString(char* text);

/* ---- The logical clock ---- */

/* Moves the process-wide clock (0 at load) on by `step`, where 0 counts as 1, and returns its new value. */
VESK_API uint64_t __VeskUpdateTimestamp(int32_t step);

VESK_END_DECLS

#endif
